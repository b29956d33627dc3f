// Distinguishes an explicit unload from the end of the process.
//
// When a process ends, exit() first runs the thread-local destructors of the calling thread, then
// the handlers given to atexit, latest first. The loader's own work, the unload hooks of the
// libraries, is among the latter: it is registered between the start of the libraries and that of
// the program. A handler registered later runs before all hooks and can record that the process
// ends; an unload by dlclose runs no such handler before its hooks.
//
// A handler registered while the program's own libraries start would run too late. But those
// libraries are never unloaded, so their answer is known; the loader lists them first. For the
// others the handler is registered when this library is loaded by dlopen, or else when the first of
// them opens a trace buffer.
//
// The return address identifies the calling library, unless the hook ends in a jump to this query:
// then the address is in the loader or the C library, which call the hooks. For such a call a
// thread-local destructor of the main thread records the end as well. It is missed, for libraries
// that came with the program, only when another thread calls exit() and no handler is registered.
#include "loader.h"

#include "platform/base/export.h"
#include "platform/process/loader_watch.h"
#include "verbose.h"

#include <atomic>
#include <cstdlib>
#include <dlfcn.h>
#include <gnu/libc-version.h>
#include <link.h>
#include <pthread.h>

extern "C" int __cxa_thread_atexit_impl(void (*destructor)(void *), void *object, void *library);
extern "C" void *__dso_handle;

namespace {

std::atomic<bool> process_ends{false};
std::atomic<bool> main_thread_exits{false};
std::atomic<bool> handler_set{false};
thread_local bool destructor_set = false;

// The number of libraries that came with the program, which counts as one too; 0 if this one did
// not. The loader and the C library, which call the hooks, have a position among them.
std::atomic<size_t> libraries_at_start{0};
std::atomic<size_t> loader_position{0};
std::atomic<size_t> c_library_position{0};

void record_end() { process_ends.store(true, std::memory_order_relaxed); }

void record_main_thread_exit(void *) { main_thread_exits.store(true, std::memory_order_relaxed); }

// For the main thread, and for the thread that is the main one of a forked child.
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
bool came_with_program()
{
    void *const program = dlopen(nullptr, RTLD_LAZY | RTLD_NOLOAD);
    if (program == nullptr)
        return false;
    const bool found = dlsym(program, "__in_unload") == reinterpret_cast<void *>(&__in_unload);
    dlclose(program);
    return found;
}

struct search {
    uintptr_t address;
    size_t position;
};

bool contains(const dl_phdr_info &library, uintptr_t address)
{
    for (size_t i = 0; i < library.dlpi_phnum; ++i) {
        const ElfW(Phdr) &part = library.dlpi_phdr[i];
        if (part.p_type == PT_LOAD && address - library.dlpi_addr - part.p_vaddr < part.p_memsz)
            return true;
    }
    return false;
}

size_t position_of_library(const void *address)
{
    search wanted{reinterpret_cast<uintptr_t>(address), 0};
    dl_iterate_phdr(
        [](dl_phdr_info *library, size_t, void *context) {
            search &state = *static_cast<search *>(context);
            if (contains(*library, state.address))
                return 1;
            ++state.position;
            return 0;
        },
        &wanted);
    return wanted.position;
}

bool is_explicit_unload(const void *return_address)
{
    const bool ends = process_ends.load(std::memory_order_relaxed);
    const size_t caller = position_of_library(return_address);
    if (caller >= libraries_at_start.load(std::memory_order_relaxed))
        return !ends;
    const bool hides_hook = caller == loader_position.load(std::memory_order_relaxed) ||
                            caller == c_library_position.load(std::memory_order_relaxed);
    return hides_hook && !ends && !main_thread_exits.load(std::memory_order_relaxed);
}

__attribute__((constructor)) void start_watching()
{
    if (came_with_program()) {
        libraries_at_start.store(count_libraries(), std::memory_order_relaxed);
        loader_position.store(position_of_library(__builtin_return_address(0)),
                              std::memory_order_relaxed);
        c_library_position.store(position_of_library(gnu_get_libc_version()),
                                 std::memory_order_relaxed);
        watch_main_thread();
        // Without memory for the handler only children forked by another thread are not watched.
        static_cast<void>(pthread_atfork(nullptr, nullptr, watch_main_thread));
    }
    platform::watch_process_end();
}

} // namespace

namespace platform {

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

PLATFORM_EXPORT int __in_unload(void)
{
    const bool is_explicit = is_explicit_unload(__builtin_return_address(0));
    verbose_printf_local(DBG_VS_PLATFORM, "unload hook: %s",
                         is_explicit ? "explicit unload" : "the process ends");
    return is_explicit;
}
