// Tells an explicit unload from the end of the process.
//
// When a process ends, exit() runs the handlers given to atexit, latest first, and the loader's own
// work, the unload hooks of the libraries, is among them: it was registered between the start of
// the libraries and that of the program. A handler registered later runs before all the hooks, and
// can say that the process ends; an unload by dlclose runs no such handler before its hooks.
//
// A handler registered while the program's own libraries start would run too late. But those
// libraries are never unloaded, so of them the answer is known; the loader lists them first. For
// the others the handler is registered when this library is loaded by dlopen, or else when the
// first of them comes.
#include "loader.h"

#include "platform/base/export.h"
#include "platform/process/loader_watch.h"

#include <atomic>
#include <cstdlib>
#include <dlfcn.h>
#include <link.h>

namespace {

std::atomic<bool> process_ends{false};
std::atomic<bool> handler_set{false};

// How many libraries came with the program, if this one did; the program itself is counted too.
std::atomic<size_t> libraries_at_start{0};

void note_end() { process_ends.store(true, std::memory_order_relaxed); }

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

// Libraries that come by dlopen join the program's scope only after they have started.
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

bool holds(const dl_phdr_info &library, uintptr_t address)
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
            search &sought = *static_cast<search *>(context);
            if (holds(*library, sought.address))
                return 1;
            ++sought.position;
            return 0;
        },
        &wanted);
    return wanted.position;
}

__attribute__((constructor)) void watch_end()
{
    if (came_with_program())
        libraries_at_start.store(count_libraries(), std::memory_order_relaxed);
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
    if (!handler_set.exchange(true, std::memory_order_relaxed) && atexit(note_end) != 0)
        handler_set.store(false, std::memory_order_relaxed);
}

} // namespace platform

PLATFORM_EXPORT int __in_unload(void)
{
    const size_t asker = position_of_library(__builtin_return_address(0));
    return !process_ends.load(std::memory_order_relaxed) &&
           asker >= libraries_at_start.load(std::memory_order_relaxed);
}
