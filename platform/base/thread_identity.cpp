// The identity of threads. A handler in the child counts the fork, so that the common case costs a
// comparison and no system call.
#include "platform/base/thread_identity.h"

#include <pthread.h>
#include <unistd.h>

namespace platform {

std::atomic<uint32_t> fork_generation{0};

constinit thread_local thread_identity cached_identity{};

namespace {

void count_fork() { fork_generation.fetch_add(1, std::memory_order_relaxed); }

__attribute__((constructor)) void start_counting()
{
    if (pthread_atfork(nullptr, nullptr, count_fork) == 0)
        fork_generation.store(1, std::memory_order_relaxed);
}

} // namespace

thread_identity look_up_identity()
{
    const uint32_t generation = fork_generation.load(std::memory_order_relaxed);
    const thread_identity found{generation, getpid(), gettid()};
    cached_identity.pid = found.pid;
    cached_identity.tid = found.tid;
    // Last, so that a signal handler in between does not use a half-filled identity.
    std::atomic_signal_fence(std::memory_order_release);
    cached_identity.generation = generation;
    return found;
}

} // namespace platform
