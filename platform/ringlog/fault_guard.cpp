// A store into a mapping raises SIGBUS if the file has been cut short, or if its page cannot be
// allocated. The handler replaces the missing page by one of anonymous memory: the records in it
// are lost, the process goes on. A fault at any other address is passed to the action that was set
// before.
#include "platform/ringlog/fault_guard.h"

#include "platform/ringlog/format.h"
#include "platform/ringlog/mapping.h"

#include <cerrno>
#include <csignal>
#include <sys/mman.h>
#include <unistd.h>

namespace platform {
namespace {

bool installed = false;
uintptr_t page_size = 0;
struct sigaction previous;

bool is_mapped_buffer(uintptr_t address)
{
    for (const mapped_buffer &buffer : buffers) {
        if (buffer.handle.load(std::memory_order_acquire) == 0)
            return false;
        const auto start = reinterpret_cast<uintptr_t>(buffer.mapping);
        if (address - start < file_size(buffer.slot_count))
            return true;
    }
    return false;
}

[[nodiscard]] bool replace_page(uintptr_t address)
{
    auto *const page = reinterpret_cast<void *>(address & ~(page_size - 1));
    const int saved_error = errno;
    constexpr int flags = MAP_FIXED | MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE;
    const bool replaced = mmap(page, page_size, PROT_READ | PROT_WRITE, flags, -1, 0) != MAP_FAILED;
    errno = saved_error;
    return replaced;
}

// `is_fault` is false for a signal that a process sent: it does not recur when the handler returns.
void call_previous(int number, siginfo_t *info, void *context, bool is_fault)
{
    if ((previous.sa_flags & SA_SIGINFO) != 0) {
        previous.sa_sigaction(number, info, context);
    } else if (previous.sa_handler == SIG_DFL || (previous.sa_handler == SIG_IGN && is_fault)) {
        signal(number, SIG_DFL);
        if (!is_fault)
            raise(number);
    } else if (previous.sa_handler != SIG_IGN) {
        previous.sa_handler(number);
    }
}

void handle_bus_error(int number, siginfo_t *info, void *context)
{
    const bool is_fault = info->si_code > 0;
    const auto address = reinterpret_cast<uintptr_t>(info->si_addr);
    if (!is_fault || !is_mapped_buffer(address) || !replace_page(address))
        call_previous(number, info, context, is_fault);
}

} // namespace

// Installed again where a program has reset the signal's action since; a handler that the program
// has put in front stays there, since it may call this one.
void install_fault_guard()
{
    struct sigaction current;
    if (sigaction(SIGBUS, nullptr, &current) != 0)
        return;
    const bool is_reset = (current.sa_flags & SA_SIGINFO) == 0 &&
                          (current.sa_handler == SIG_DFL || current.sa_handler == SIG_IGN);
    if (installed && !is_reset)
        return;
    previous = current;
    page_size = static_cast<uintptr_t>(sysconf(_SC_PAGESIZE));
    struct sigaction action = previous; // with its mask and flags, for the call of its handler
    action.sa_sigaction = handle_bus_error;
    action.sa_flags = (previous.sa_flags & ~SA_RESETHAND) | SA_SIGINFO | SA_ONSTACK | SA_RESTART;
    installed = sigaction(SIGBUS, &action, nullptr) == 0;
}

} // namespace platform
