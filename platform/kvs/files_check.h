// Looking, before a store is read, whether its files are still those that the directory names. A
// read would never notice: the files that it has open do not change any more.
#pragma once

#include "platform/kvs/call_context.h"

#include <ctime>

namespace platform {

// Both return 0 or a status. A thread within a batch of the store does not look; its commit does.

[[nodiscard]] uint32_t check_files_now(store &store, thread_context &thread);

// Looks only if no reader has done so for a tenth of a second.
[[nodiscard]] inline uint32_t check_files_at_times(store &store, thread_context &thread)
{
    timespec now;
    clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
    const int64_t milliseconds = now.tv_sec * int64_t{1000} + now.tv_nsec / 1'000'000;
    if (milliseconds < store.next_check.load(std::memory_order_relaxed)) [[likely]]
        return 0;
    const uint32_t status = check_files_now(store, thread);
    store.next_check.store(status == 0 ? milliseconds + 100 : 0, std::memory_order_relaxed);
    return status;
}

} // namespace platform
