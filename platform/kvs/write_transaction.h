// Changing the records of a database in one call.
#pragma once

#include "platform/base/interruption.h"
#include "platform/base/mutex.h"
#include "platform/kvs/batch.h"
#include "platform/kvs/engine_transactions.h"
#include "platform/kvs/recovery.h"

namespace platform {

// One attempt to change, within a transaction that write_records ends.
class write_transaction {
public:
    write_transaction(MDB_txn *txn, const database &database) : txn_(txn), database_(database) {}

    // Finds the record with this handle, or results in KVS_RC_NO_SUCH_RECORD.
    [[nodiscard]] attempt get(kvs_rec_hdl handle, stored_record *record) const;

    // `value` is the record, with room for a generation behind it.
    [[nodiscard]] attempt insert(unsigned char *value, uint32_t length, kvs_rec_hdl *handle) const;
    [[nodiscard]] attempt replace(kvs_rec_hdl handle, unsigned char *value, uint32_t length) const;
    [[nodiscard]] attempt remove(kvs_rec_hdl handle) const;

private:
    // Gives the generation of the records inserted from now on. A deletion increments it, so no two
    // records that had the same key one after the other have the same generation.
    struct generation_counter {
        MDB_dbi main; // the engine's main database, which the counter is in
        uint32_t generation;
    };

    [[nodiscard]] int get_counter(generation_counter *counter) const;
    [[nodiscard]] int increment_counter() const;
    [[nodiscard]] int put(kvs_rec_hdl handle, unsigned char *value, uint32_t length, unsigned flags,
                          MDB_val *present) const;

    MDB_txn *txn_;
    const database &database_;
};

template <class Work>
[[nodiscard]] attempt write_once(const call_context &call, const Work &work)
{
    MDB_env *const environment = call.store->environment;
    MDB_txn *txn = nullptr;
    if (const int error = begin_write(environment, call.store->turn, &txn); error != 0)
        return with_engine_error(error);
    const attempt result = work(write_transaction(txn, *call.database));
    if (result.is_good())
        return with_engine_error(commit_write(environment, txn));
    abort_write(environment, txn);
    return result;
}

// Calls `work` with a write_transaction, and commits if it succeeds, until an attempt gives
// a status. In a batch nothing is committed, and there is one attempt.
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
                      : work(write_transaction(call.thread->open_batch.txn, *call.database));
        return result.engine_error != 0 ? break_batch(*call.thread, result.engine_error)
                                        : result.status;
    }
    const scoped_lock writing(call.store->writer_mutex);
    return attempt_until_status(*call.store, *call.thread, recover_as_writer,
                                [&] { return write_once(call, work); });
}

} // namespace platform
