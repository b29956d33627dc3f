// Reading the records of a database in one call.
#pragma once

#include "platform/base/block.h"
#include "platform/kvs/call_context.h"

#include <optional>

namespace platform {

// The handles of records; null if there are none.
struct handle_list {
    block<kvs_rec_hdl> handles;
    uint32_t count = 0;
};

// What one call reads, in a batch with the changes of the batch. A record found is valid as long
// as the object exists. Each call uses one of the functions, once; all return a status.
class read_transaction {
public:
    read_transaction() = default;
    read_transaction(const read_transaction &) = delete;
    read_transaction &operator=(const read_transaction &) = delete;
    ~read_transaction()
    {
        if (txn_ != nullptr && guard_)
            mdb_txn_reset(txn_);
    }

    // Finds the record with this key, or returns KVS_RC_NO_SUCH_RECORD.
    [[nodiscard]] uint32_t find(kvs_hdl hdl, uint32_t key, stored_record *record);

    // Finds the record with this handle, or returns KVS_RC_NO_SUCH_RECORD.
    [[nodiscard]] uint32_t get(kvs_hdl hdl, kvs_rec_hdl handle, stored_record *record);

    // Finds the handles of all records, in the order of their keys.
    [[nodiscard]] uint32_t list(kvs_hdl hdl, handle_list *list);

    // Checks all pages and records of the store.
    [[nodiscard]] uint32_t verify(kvs_hdl hdl);

private:
    [[nodiscard]] bool is_cache_current() const;
    [[nodiscard]] uint32_t begin();
    [[nodiscard]] int look_up(uint32_t key, stored_record *record);
    [[nodiscard]] int look_up_run(uint32_t key, stored_record *record);
    [[nodiscard]] int list_all(size_t count, kvs_rec_hdl *handles) const;
    [[nodiscard]] uint32_t start_run(const stored_record &record, bool may_grow);
    [[nodiscard]] uint32_t status_of(int error) const;
    [[nodiscard]] uint32_t status_of_lookup(int error) const
    {
        return error == MDB_NOTFOUND ? KVS_RC_NO_SUCH_RECORD : status_of(error);
    }

    call_context call_{};
    std::optional<environment_guard> guard_; // outside of a batch, with the transaction
    MDB_txn *txn_ = nullptr;
};

} // namespace platform
