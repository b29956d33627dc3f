// Who is calling: process and thread id, looked up once a thread and once more in a forked child.
#pragma once

#include <atomic>
#include <cstdint>

namespace platform {

struct thread_identity {
    uint32_t generation;
    int32_t pid;
    int32_t tid;
};

// Counts the forks that led to this process, starting from 1; 0 when forks cannot be noticed, and
// then nothing that was looked up may be kept.
extern std::atomic<uint32_t> fork_generation;

// In the static block of thread-local storage, where no access allocates.
extern constinit thread_local thread_identity cached_identity;

thread_identity look_up_identity();

// Safe in a signal handler; errno is left alone.
inline thread_identity this_thread()
{
    const uint32_t generation = fork_generation.load(std::memory_order_relaxed);
    if (generation != 0 && cached_identity.generation == generation) [[likely]]
        return cached_identity;
    return look_up_identity();
}

} // namespace platform
