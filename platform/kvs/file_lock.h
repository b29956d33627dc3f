// Locks of this process on bytes of files, and waiting for those of other processes.
//
// The system releases a lock when its process ends. It grants one that is asked for with F_SETLKW
// as soon as it is free, but a process that waits in the system cannot report what it waits for. So
// a lock that is taken is tried again after a pause, a small part of the time waited so far.
#pragma once

#include <atomic>
#include <cstdint>
#include <optional>
#include <sys/types.h>

namespace platform {

struct byte_range {
    off_t first, count;
};

// Returns 0, EAGAIN if another process holds a lock on one of the bytes, or another error number.
[[nodiscard]] int try_lock(int fd, byte_range bytes);
void unlock(int fd, byte_range bytes);

// Another process that holds a lock on one of the bytes, if there is one; 0 if it is one of another
// namespace.
[[nodiscard]] std::optional<pid_t> find_holder(int fd, byte_range bytes);
[[nodiscard]] bool is_stopped(pid_t process);

// A wait for a lock, from the first try that fails. It is over when the lock is had: assign {}.
class lock_wait {
public:
    [[nodiscard]] bool has_begun() const { return start_ns_ != 0; }
    [[nodiscard]] uint64_t waited_ns() const;

    // To be called after each try that failed. Looks up the holder when a report is due: after two
    // seconds, and then when another process holds it, or has stopped with it.
    void note_failure(int fd, byte_range bytes);

    // From now on no other process has the lock before this one.
    void note_next() { is_next_ = true; }

    // Reports a new holder, and sleeps until the next try.
    void pause();

private:
    void report() const;

    uint64_t start_ns_ = 0;
    uint64_t next_look_ns_ = 0; // when the holder is looked for again
    std::optional<pid_t> holder_;
    bool is_stopped_ = false;
    bool is_unreported_ = false;
    bool is_next_ = false;
};

// Waits for the lock on a byte. Returns 0 or an error number.
[[nodiscard]] int lock_byte(int fd, off_t byte);

// Called with a line for the user on each long wait.
inline constinit std::atomic<void (*)(const char *)> wait_notice{nullptr};

} // namespace platform
