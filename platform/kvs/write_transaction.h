// Changing the records of a database within a transaction of the engine.
#pragma once

#include "platform/kvs/attempt.h"
#include "platform/kvs/journal_entry.h"
#include "platform/kvs/record_value.h"

namespace platform {

// A database of a store.
struct database {
    record_tree tree;
    char name[name_limit + 1] = {};
};

// After an error of the engine the transaction can only be aborted; after a status it is as it was.
// Every change made is added to `changes`.
class write_transaction {
public:
    write_transaction(MDB_txn *txn, const database &database, entry_builder &changes)
        : txn_(txn), database_(database), changes_(changes)
    {
    }

    // Finds the record with this handle, or results in KVS_RC_NO_SUCH_RECORD.
    [[nodiscard]] attempt get(kvs_rec_hdl handle, stored_record *record) const;

    // `value` is the record, with room for a generation behind it.
    [[nodiscard]] attempt insert(unsigned char *value, uint32_t length, kvs_rec_hdl *handle) const;
    [[nodiscard]] attempt replace(const stored_record &old, unsigned char *value,
                                  uint32_t length) const;
    [[nodiscard]] attempt remove(kvs_rec_hdl handle) const;

private:
    MDB_txn *txn_;
    const database &database_;
    entry_builder &changes_;
};

// Makes a change that the journal has, and that was not committed, again. Returns 0 or an error.
[[nodiscard]] int apply_change(MDB_txn *txn, const journal_change &change);

} // namespace platform
