// Distinguishes an explicit unload from the end of the process.
//
// Libraries that came with the program are never unloaded explicitly; the loader lists them first.
// For the others the result depends on whether the process ends.
//
// The return address identifies the calling library, unless the hook ends in a jump to this query:
// then the address is in the loader or the C library, which call the hooks, and the calling library
// may be any. For one that came with the program the result is then wrong only if a
// thread other than the main one calls exit() and no handler is registered.
#include "loader.h"

#include "platform/base/export.h"
#include "platform/base/process_end.h"
#include "verbose.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <gnu/libc-version.h>
#include <link.h>

namespace {

// The positions, among the libraries, of those that call the hooks.
std::atomic<size_t> loader_position{0};
std::atomic<size_t> c_library_position{0};

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
    const bool ends = platform::process_ends.load(std::memory_order_relaxed);
    const size_t caller = position_of_library(return_address);
    if (caller >= platform::libraries_at_start.load(std::memory_order_relaxed))
        return !ends;
    const bool hides_hook = caller == loader_position.load(std::memory_order_relaxed) ||
                            caller == c_library_position.load(std::memory_order_relaxed);
    return hides_hook && !ends && !platform::main_thread_exits.load(std::memory_order_relaxed);
}

// The loader calls this function too.
__attribute__((constructor)) void start_distinguishing()
{
    loader_position.store(position_of_library(__builtin_return_address(0)),
                          std::memory_order_relaxed);
    c_library_position.store(position_of_library(gnu_get_libc_version()),
                             std::memory_order_relaxed);
    platform::start_watching("__in_unload", reinterpret_cast<const void *>(&__in_unload));
}

} // namespace

PLATFORM_EXPORT int __in_unload(void)
{
    const bool is_explicit = is_explicit_unload(__builtin_return_address(0));
    verbose_printf_local(DBG_VS_PLATFORM, "unload hook: %s",
                         is_explicit ? "explicit unload" : "the process ends");
    return is_explicit;
}
