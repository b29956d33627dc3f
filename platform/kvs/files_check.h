// Checking, before a store is read, that its files are still those that the directory names. A read
// alone would not fail: the files that are open stay as they were.
#pragma once

#include "platform/kvs/call_context.h"

#include <ctime>

namespace platform {

// Both return 0 or a status. Within a batch of the store nothing is checked before the commit.

[[nodiscard]] uint32_t check_files_now(store &store, thread_context &thread);

// Checks only if no reader has done so for a tenth of a second.
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
