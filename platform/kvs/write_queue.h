// Changes of one record each, and the commits that they share.
//
// Threads of one process that wait for the writer commit together: the thread that gets the lock
// makes the changes of all that wait, commits once, and gives each its own status.
#pragma once

#include "platform/base/interruption.h"
#include "platform/kvs/batch.h"
#include "platform/kvs/recovery.h"

namespace platform {

// Makes a change in a transaction, perhaps on another thread than the one that waits for it, and
// perhaps more than once.
struct change_maker {
    attempt (*make)(const void *work, const write_transaction &in);
    const void *work;
};

// Makes a change outside of a batch and commits it. Returns a status.
[[nodiscard]] uint32_t write_in_turn(const call_context &call, const change_maker &maker);

// Returns whether the call belongs to a batch of the thread, and the engine, which writes pages
// before the commit when it has many changed ones, keeps all of them in memory during a change of
// this length.
[[nodiscard]] bool is_in_memory_batch(kvs_hdl hdl, uint32_t length, call_context *call);

template <class Work>
[[nodiscard]] uint32_t write_in_batch(const call_context &call, const Work &work)
{
    const attempt result = work(write_transaction(call.thread->open_batch.txn, *call.database,
                                                  call.store->journal.changes));
    return result.engine_error != 0 ? break_batch(*call.thread, result.engine_error)
                                    : result.status;
}

// Calls `work` with a write_transaction, and commits if it comes to success. In a batch nothing is
// committed. `length` is that of the record's bytes that are written.
template <class Work>
[[nodiscard]] uint32_t write_records(kvs_hdl hdl, uint32_t length, const Work &work)
{
    const cancellation_guard uncancelled;
    call_context call;
    if (is_in_memory_batch(hdl, length, &call))
        return write_in_batch(call, work);
    const interruption_guard guard;
    if (const uint32_t status = make_call_context(hdl, &call); status != 0)
        return status;
    if (call.in_batch()) {
        const int lost = check_data_descriptor(call.store->environment);
        return lost != 0 ? break_batch(*call.thread, lost) : write_in_batch(call, work);
    }
    const auto make = [](const void *what, const write_transaction &in) {
        return (*static_cast<const Work *>(what))(in);
    };
    return write_in_turn(call, {make, &work});
}

} // namespace platform
