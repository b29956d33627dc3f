// Waiting for the next commit to a store, in any process.
#pragma once

#include "platform/kvs/data_file.h"

namespace platform {

// Called after each commit, with its number.
void wake_waiting_readers(const commit_numbers &numbers, uint64_t commit);

// Returns 0 once there is a commit after the one given, or ETIMEDOUT at the time `deadline` of
// CLOCK_MONOTONIC in nanoseconds, or EINTR after a signal.
[[nodiscard]] int wait_for_commit(const commit_numbers &numbers, uint64_t last, uint64_t deadline);

} // namespace platform
