// Process and thread id of the caller, looked up once per thread and again in a forked child.
#pragma once

#include <atomic>
#include <cstdint>

namespace platform {

struct thread_identity {
    uint32_t generation;
    int32_t pid;
    int32_t tid;
};

// The number of forks that led to this process, plus 1; 0 if forks cannot be counted, and then no
// identity may be cached.
extern std::atomic<uint32_t> fork_generation;

// In the static block of thread-local storage, so that no access allocates.
extern constinit thread_local thread_identity cached_identity;

thread_identity look_up_identity();

// Safe in a signal handler; does not change errno.
inline thread_identity this_thread()
{
    const uint32_t generation = fork_generation.load(std::memory_order_relaxed);
    if (generation != 0 && cached_identity.generation == generation) [[likely]]
        return cached_identity;
    return look_up_identity();
}

} // namespace platform
