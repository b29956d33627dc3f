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

// Calls `work` with a write_transaction, and commits if it comes to success. In a batch nothing is
// committed.
template <class Work>
[[nodiscard]] uint32_t write_records(kvs_hdl hdl, const Work &work)
{
    const interruption_guard guard;
    call_context call;
    if (const uint32_t status = make_call_context(hdl, &call); status != 0)
        return status;
    if (call.in_batch()) {
        // A transaction that outgrows its memory writes pages before it is committed.
        const int lost = check_data_descriptor(call.store->environment);
        const attempt result =
            lost != 0 ? with_engine_error(lost)
                      : work(write_transaction(call.thread->open_batch.txn, *call.database,
                                               call.store->journal.changes));
        return result.engine_error != 0 ? break_batch(*call.thread, result.engine_error)
                                        : result.status;
    }
    const auto make = [](const void *what, const write_transaction &in) {
        return (*static_cast<const Work *>(what))(in);
    };
    return write_in_turn(call, {make, &work});
}

} // namespace platform
