#include "platform/kvs/write_transaction.h"

#include "platform/base/block.h"
#include "platform/base/crc32c.h"

#include <cerrno>
#include <cstring>

namespace platform {
namespace {

// Gives the generation of the records inserted from now on. A deletion increments it, so no two
// records that had the same key one after the other have the same generation.
struct generation_counter {
    MDB_dbi main; // the engine's main database, which the counter is in
    uint32_t generation;
};

MDB_val counter_name(const database &database)
{
    return as_value(database.name, strlen(database.name) + 1);
}

[[nodiscard]] int get_counter(MDB_txn *txn, const database &database, generation_counter *counter)
{
    if (const int error = mdb_dbi_open(txn, nullptr, 0, &counter->main); error != 0)
        return error;
    MDB_val name = counter_name(database);
    MDB_val value;
    const int error = mdb_get(txn, counter->main, &name, &value);
    if (error != 0)
        return error == MDB_NOTFOUND ? MDB_CORRUPTED : error;
    if (const int failed = parse_checked_number(name, value, &counter->generation); failed != 0)
        return failed;
    return counter->generation < first_generation ? MDB_CORRUPTED : 0;
}

[[nodiscard]] int increment_counter(MDB_txn *txn, const database &database)
{
    generation_counter counter;
    const int error = get_counter(txn, database, &counter);
    if (error != 0 || counter.generation == no_generation_left)
        return error;
    ++counter.generation;
    MDB_val name = counter_name(database);
    const checked_number number = make_checked_number(name, counter.generation);
    MDB_val value = as_value(&number, sizeof number);
    return mdb_put(txn, counter.main, &name, &value, 0);
}

// With MDB_NOOVERWRITE, if a record is there already, `*present` becomes its value.
[[nodiscard]] int put(MDB_txn *txn, const record_tree &tree, kvs_rec_hdl handle,
                      unsigned char *value, uint32_t length, unsigned flags, MDB_val *present)
{
    const uint32_t key = key_of(handle);
    write_trailer(tree.name_checksum, value, length, generation_of(handle));
    MDB_val name = as_value(&key, key_length);
    *present = as_value(value, size_t{length} + trailer_length);
    return mdb_put(txn, tree.dbi, &name, present, flags);
}

[[nodiscard]] int remove_key(MDB_txn *txn, const database &database, uint32_t key)
{
    MDB_val name = as_value(&key, key_length);
    const int error = mdb_del(txn, database.tree.dbi, &name, nullptr);
    return error != 0 ? error : increment_counter(txn, database);
}

} // namespace

attempt write_transaction::get(kvs_rec_hdl handle, stored_record *record) const
{
    const int error = get_record(txn_, database_.tree, key_of(handle), record);
    if (error == MDB_NOTFOUND || (error == 0 && record->handle != handle))
        return with_status(KVS_RC_NO_SUCH_RECORD);
    return with_engine_error(error);
}

attempt write_transaction::insert(unsigned char *value, uint32_t length, kvs_rec_hdl *handle) const
{
    uint32_t key = 0;
    memcpy(&key, value, key_length);
    generation_counter counter;
    if (const int error = get_counter(txn_, database_, &counter); error != 0)
        return with_engine_error(error);
    *handle = handle_of(key, counter.generation);
    stored_record old;
    int error = 0;
    if (counter.generation == no_generation_left) {
        error = get_record(txn_, database_.tree, key, &old);
        if (error == MDB_NOTFOUND)
            return with_status(KVS_RC_EXHAUSTED);
    } else {
        // One search of the tree looks for a record with this key and makes room for a new one.
        MDB_val present;
        error = put(txn_, database_.tree, *handle, value, length, MDB_NOOVERWRITE, &present);
        if (error == 0)
            changes_.add(change_kind::insertion, database_.name, *handle, {}, {value, length});
        if (error != MDB_KEYEXIST)
            return with_engine_error(error);
        error = parse_record(database_.tree.name_checksum, key, present, &old);
    }
    if (error != 0)
        return with_engine_error(error);
    if (old.length != length || memcmp(old.bytes, value, length) != 0)
        return with_status(KVS_RC_RECORD_EXISTS);
    *handle = old.handle;
    return with_status(KVS_RC_TOLERATED_ON_INSERT);
}

attempt write_transaction::replace(const stored_record &old, unsigned char *value,
                                   uint32_t length) const
{
    // The old bytes may lie on a page that the engine is about to change.
    changes_.add(change_kind::replacement, database_.name, old.handle, {old.bytes, old.length},
                 {value, length});
    MDB_val present;
    return with_engine_error(put(txn_, database_.tree, old.handle, value, length, 0, &present));
}

attempt write_transaction::remove(kvs_rec_hdl handle) const
{
    stored_record old;
    if (const attempt found = get(handle, &old); !found.is_good())
        return found;
    changes_.add(change_kind::deletion, database_.name, handle, {old.bytes, old.length}, {});
    return with_engine_error(remove_key(txn_, database_, key_of(handle)));
}

int apply_change(MDB_txn *txn, const journal_change &change)
{
    const change_header &header = change.header;
    database in;
    if (header.name_length == 0 || header.name_length > name_limit ||
        header.kind == change_kind::summary)
        return MDB_CORRUPTED;
    memcpy(in.name, change.name, header.name_length);
    in.tree.name_checksum = crc32c(0, in.name, header.name_length);
    if (const int error = mdb_dbi_open(txn, in.name, MDB_INTEGERKEY, &in.tree.dbi); error != 0)
        return error == MDB_NOTFOUND ? MDB_CORRUPTED : error;
    if (header.kind == change_kind::deletion) {
        const int error = remove_key(txn, in, key_of(header.handle));
        return error == MDB_NOTFOUND ? MDB_CORRUPTED : error;
    }
    const block<unsigned char> value(
        static_cast<unsigned char *>(malloc(size_t{header.new_length} + trailer_length)));
    if (value == nullptr)
        return ENOMEM;
    memcpy(value.get(), change.new_bytes, header.new_length);
    MDB_val present;
    return put(txn, in.tree, header.handle, value.get(), header.new_length, 0, &present);
}

} // namespace platform
