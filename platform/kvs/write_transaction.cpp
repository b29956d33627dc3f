#include "platform/kvs/write_transaction.h"

#include "platform/kvs/record_value.h"

#include <cstring>

namespace platform {
namespace {

MDB_val counter_name(const database &database)
{
    return as_value(database.name, strlen(database.name) + 1);
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
    if (const int error = get_counter(&counter); error != 0)
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
        error = put(*handle, value, length, MDB_NOOVERWRITE, &present);
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

attempt write_transaction::replace(kvs_rec_hdl handle, unsigned char *value, uint32_t length) const
{
    MDB_val present;
    return with_engine_error(put(handle, value, length, 0, &present));
}

attempt write_transaction::remove(kvs_rec_hdl handle) const
{
    stored_record record;
    if (const attempt found = get(handle, &record); !found.is_good())
        return found;
    const uint32_t key = key_of(handle);
    MDB_val name = as_value(&key, key_length);
    const int error = mdb_del(txn_, database_.tree.dbi, &name, nullptr);
    return with_engine_error(error != 0 ? error : increment_counter());
}

int write_transaction::get_counter(generation_counter *counter) const
{
    if (const int error = mdb_dbi_open(txn_, nullptr, 0, &counter->main); error != 0)
        return error;
    MDB_val name = counter_name(database_);
    MDB_val value;
    const int error = mdb_get(txn_, counter->main, &name, &value);
    if (error != 0)
        return error == MDB_NOTFOUND ? MDB_CORRUPTED : error;
    if (const int failed = parse_number(name, value, &counter->generation); failed != 0)
        return failed;
    return counter->generation < first_generation ? MDB_CORRUPTED : 0;
}

int write_transaction::increment_counter() const
{
    generation_counter counter;
    const int error = get_counter(&counter);
    if (error != 0 || counter.generation == no_generation_left)
        return error;
    ++counter.generation;
    MDB_val name = counter_name(database_);
    const checked_number number = make_checked_number(name, counter.generation);
    MDB_val value = as_value(&number, sizeof number);
    return mdb_put(txn_, counter.main, &name, &value, 0);
}

// With MDB_NOOVERWRITE, if a record is there already, `*present` becomes its value.
int write_transaction::put(kvs_rec_hdl handle, unsigned char *value, uint32_t length,
                           unsigned flags, MDB_val *present) const
{
    const uint32_t key = key_of(handle);
    write_trailer(database_.tree.name_checksum, value, length, generation_of(handle));
    MDB_val name = as_value(&key, key_length);
    *present = as_value(value, size_t{length} + trailer_length);
    return mdb_put(txn_, database_.tree.dbi, &name, present, flags);
}

} // namespace platform
