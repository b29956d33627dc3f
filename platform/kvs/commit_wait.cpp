// The waiting threads sleep on the number that the next commit writes into the file's header. A
// writer may be killed after that and before it wakes them, so they compare it again every second.
#include "platform/kvs/commit_wait.h"

#include "platform/base/clock.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace platform {
namespace {

constexpr uint64_t second = 1'000'000'000;

// Commits write their numbers by turns.
const uint64_t *number_written_by(const commit_numbers &numbers, uint64_t commit)
{
    return (commit & 1) == 0 ? numbers.first : numbers.second;
}

long futex(const uint64_t *word, int operation, uint32_t value, const timespec *timeout)
{
    // The machine is little-endian: the number begins with its lower half.
    return syscall(SYS_futex, word, operation, value, timeout, nullptr, 0);
}

} // namespace

void wake_waiting_readers(const commit_numbers &numbers, uint64_t commit)
{
    futex(number_written_by(numbers, commit), FUTEX_WAKE, INT_MAX, nullptr);
}

int wait_for_commit(const commit_numbers &numbers, uint64_t last, uint64_t deadline)
{
    for (;;) {
        const uint64_t *const word = number_written_by(numbers, last + 1);
        const auto before = static_cast<uint32_t>(__atomic_load_n(word, __ATOMIC_ACQUIRE));
        if (last_commit(numbers) != last)
            return 0;
        const uint64_t now = clock_ns(CLOCK_MONOTONIC);
        if (now >= deadline)
            return ETIMEDOUT;
        const uint64_t rest = std::min(deadline - now, second);
        const timespec timeout{static_cast<time_t>(rest / second),
                               static_cast<long>(rest % second)};
        if (futex(word, FUTEX_WAIT, before, &timeout) == 0 || errno == EAGAIN || errno == ETIMEDOUT)
            continue;
        // Where the system call is not allowed, looking now and then has to do.
        const timespec pause{0, static_cast<long>(std::min(rest, second / 20))};
        if (errno == EINTR || nanosleep(&pause, nullptr) != 0)
            return EINTR;
    }
}

} // namespace platform
