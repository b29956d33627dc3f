#include "platform/kvs/file_lock.h"

#include "platform/base/clock.h"
#include "platform/base/descriptor.h"
#include "verbose.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

namespace platform {
namespace {

constexpr uint64_t second_ns = 1'000'000'000;
constexpr uint64_t long_wait_ns = 2 * second_ns;
constexpr uint64_t shortest_pause_ns = 100'000, longest_pause_ns = second_ns / 50;

struct flock lock_on(byte_range bytes, short type)
{
    struct flock lock {};
    lock.l_type = type;
    lock.l_whence = SEEK_SET;
    lock.l_start = bytes.first;
    lock.l_len = bytes.count;
    return lock;
}

// The name and state of a process from /proc; empty if it cannot be read.
struct process_state {
    char name[64] = "";
    char state = '\0';
};

process_state state_of(pid_t process)
{
    char path[32];
    char line[256];
    snprintf(path, sizeof path, "/proc/%d/stat", process);
    const descriptor file(open(path, O_RDONLY | O_CLOEXEC));
    const ssize_t length = file.valid() ? read(file.get(), line, sizeof line - 1) : -1;
    line[std::max<ssize_t>(length, 0)] = '\0';
    char *const name = strchr(line, '(');
    char *const end = strrchr(line, ')'); // the name may contain one too
    process_state found;
    if (name == nullptr || end == nullptr || end < name || end[1] != ' ')
        return found;
    found.state = end[2];
    *end = '\0';
    snprintf(found.name, sizeof found.name, "%s", name + 1);
    return found;
}

} // namespace

int try_lock(int fd, byte_range bytes)
{
    const struct flock lock = lock_on(bytes, F_WRLCK);
    if (fcntl(fd, F_SETLK, &lock) == 0)
        return 0;
    return errno == EACCES ? EAGAIN : errno;
}

void unlock(int fd, byte_range bytes)
{
    const struct flock lock = lock_on(bytes, F_UNLCK);
    fcntl(fd, F_SETLK, &lock);
}

std::optional<pid_t> find_holder(int fd, byte_range bytes)
{
    struct flock lock = lock_on(bytes, F_WRLCK);
    if (fcntl(fd, F_GETLK, &lock) != 0 || lock.l_type == F_UNLCK)
        return {};
    return std::max(lock.l_pid, 0);
}

bool is_stopped(pid_t process)
{
    const char state = state_of(process).state;
    return state == 'T' || state == 't';
}

uint64_t lock_wait::waited_ns() const
{
    return has_begun() ? clock_ns(CLOCK_MONOTONIC) - start_ns_ : 0;
}

void lock_wait::note_failure(int fd, byte_range bytes)
{
    const uint64_t now = clock_ns(CLOCK_MONOTONIC);
    if (!has_begun()) {
        start_ns_ = now;
        next_look_ns_ = now + long_wait_ns;
    }
    if (now < next_look_ns_)
        return;
    const std::optional<pid_t> found = find_holder(fd, bytes);
    if (!found)
        return;
    next_look_ns_ = now + long_wait_ns;
    const bool stopped = is_stopped(*found);
    is_unreported_ = found != holder_ || stopped != is_stopped_;
    holder_ = found;
    is_stopped_ = stopped;
}

void lock_wait::pause()
{
    if (is_unreported_)
        report();
    is_unreported_ = false;
    // Each try may take the lock out of turn, between two changes of the process that writes.
    const uint64_t part = is_next_ ? 256 : 8;
    const uint64_t ns = std::clamp(waited_ns() / part, shortest_pause_ns, longest_pause_ns);
    const timespec time{0, static_cast<long>(ns)};
    nanosleep(&time, nullptr);
}

void lock_wait::report() const
{
    char who[128] = "a process of another namespace";
    if (*holder_ != 0)
        snprintf(who, sizeof who, "process %d (%s)%s", *holder_, state_of(*holder_).name,
                 is_stopped_ ? ", which is stopped" : "");
    const uint64_t since = clock_ns(CLOCK_REALTIME) / second_ns - waited_ns() / second_ns;
    const auto second_of_day = static_cast<unsigned>(since % 86400);
    char line[256];
    snprintf(line, sizeof line, "waiting since %02u:%02u:%02u UTC for the store, held by %s",
             second_of_day / 3600, second_of_day / 60 % 60, second_of_day % 60, who);
    verbose_printf_local(DBG_VS_PLATFORM, "%s", line);
    if (const auto notice = wait_notice.load(std::memory_order_acquire); notice != nullptr)
        notice(line);
}

int lock_byte(int fd, off_t byte)
{
    lock_wait wait;
    for (;;) {
        const int error = try_lock(fd, {byte, 1});
        if (error != EAGAIN && error != EINTR)
            return error;
        wait.note_failure(fd, {byte, 1});
        wait.pause();
    }
}

} // namespace platform
