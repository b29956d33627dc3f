// The identity of threads. A fork is noticed by a handler in the child, so that the common case
// costs a comparison and no system call.
#include "platform/base/thread_identity.h"

#include <pthread.h>
#include <unistd.h>

namespace platform {

std::atomic<uint32_t> fork_generation{0};

constinit thread_local thread_identity cached_identity{};

namespace {

void note_fork() { fork_generation.fetch_add(1, std::memory_order_relaxed); }

__attribute__((constructor)) void watch_forks()
{
    if (pthread_atfork(nullptr, nullptr, note_fork) == 0)
        fork_generation.store(1, std::memory_order_relaxed);
}

} // namespace

thread_identity look_up_identity()
{
    const uint32_t generation = fork_generation.load(std::memory_order_relaxed);
    const thread_identity found{generation, getpid(), gettid()};
    cached_identity.pid = found.pid;
    cached_identity.tid = found.tid;
    // Last, so that a signal handler that comes in between does not take a half-filled one.
    std::atomic_signal_fence(std::memory_order_release);
    cached_identity.generation = generation;
    return found;
}

} // namespace platform
