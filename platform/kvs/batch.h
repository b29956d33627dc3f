// Batches: many changes of a thread as one durable commit.
#pragma once

#include "platform/kvs/call_context.h"

namespace platform {

// All return a status.

[[nodiscard]] uint32_t begin_batch(kvs_hdl hdl);
[[nodiscard]] uint32_t commit_batch();
[[nodiscard]] uint32_t abort_batch();

// Marks the thread's batch as broken by a failed change, and returns the status for the error.
[[nodiscard]] uint32_t break_batch(thread_context &thread, int error);

} // namespace platform
