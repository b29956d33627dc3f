// Records the end of the process.
//
// When a process ends, exit() first runs the thread-local destructors of the calling thread, then
// the handlers given to atexit, latest first. The loader's own work, the unload hooks of the
// libraries, is among the latter: it is registered between the start of the libraries and that of
// the program. A handler registered later runs before all hooks; an unload by dlclose runs no such
// handler before its hooks.
//
// A handler registered while the program's own libraries start would run too late. It is registered
// when this library is loaded by dlopen, or else when the first library loaded by dlopen opens a
// trace buffer; for the program's own libraries there is a destructor of the main thread.
#include "platform/base/process_end.h"

#include <cstdlib>
#include <dlfcn.h>
#include <link.h>
#include <pthread.h>

extern "C" int __cxa_thread_atexit_impl(void (*destructor)(void *), void *object, void *library);
extern "C" void *__dso_handle;

namespace platform {

std::atomic<bool> process_ends{false};
std::atomic<bool> main_thread_exits{false};
std::atomic<size_t> libraries_at_start{0};

namespace {

std::atomic<bool> handler_set{false};
thread_local bool destructor_set = false;

void record_end() { process_ends.store(true, std::memory_order_relaxed); }

void record_main_thread_exit(void *) { main_thread_exits.store(true, std::memory_order_relaxed); }

// Called in the main thread, and in the one that becomes the main thread of a forked child.
void watch_main_thread()
{
    if (!destructor_set)
        destructor_set =
            __cxa_thread_atexit_impl(record_main_thread_exit, nullptr, &__dso_handle) == 0;
}

size_t count_libraries()
{
    size_t count = 0;
    dl_iterate_phdr(
        [](dl_phdr_info *, size_t, void *counter) {
            ++*static_cast<size_t *>(counter);
            return 0;
        },
        &count);
    return count;
}

// Libraries loaded by dlopen join the program's scope only after they have started.
bool came_with_program(const char *name, const void *address)
{
    void *const program = dlopen(nullptr, RTLD_LAZY | RTLD_NOLOAD);
    if (program == nullptr)
        return false;
    const bool found = dlsym(program, name) == address;
    dlclose(program);
    return found;
}

} // namespace

void start_watching(const char *name, const void *address)
{
    if (came_with_program(name, address)) {
        libraries_at_start.store(count_libraries(), std::memory_order_relaxed);
        watch_main_thread();
        // Without memory for the handler only children forked by another thread are not watched.
        static_cast<void>(pthread_atfork(nullptr, nullptr, watch_main_thread));
    }
    watch_process_end();
}

void watch_process_end()
{
    if (handler_set.load(std::memory_order_relaxed))
        return;
    if (count_libraries() <= libraries_at_start.load(std::memory_order_relaxed))
        return;
    if (!handler_set.exchange(true, std::memory_order_relaxed) && atexit(record_end) != 0)
        handler_set.store(false, std::memory_order_relaxed);
}

} // namespace platform
