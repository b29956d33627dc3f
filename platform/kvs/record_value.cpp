#include "platform/kvs/record_value.h"

#include <cstring>

namespace platform {

int parse_record(uint32_t key, const MDB_val &value, stored_record *record)
{
    if (value.mv_size < key_length + generation_length || value.mv_size > UINT32_MAX ||
        memcmp(value.mv_data, &key, key_length) != 0)
        return MDB_CORRUPTED;
    const auto *const bytes = static_cast<const unsigned char *>(value.mv_data);
    const auto length = static_cast<uint32_t>(value.mv_size - generation_length);
    uint32_t generation = 0;
    memcpy(&generation, bytes + length, generation_length);
    if (generation < first_generation || generation == no_generation_left)
        return MDB_CORRUPTED;
    *record = {handle_of(key, generation), bytes, length};
    return 0;
}

int parse_record(const MDB_val &key, const MDB_val &value, stored_record *record)
{
    if (key.mv_size != key_length)
        return MDB_CORRUPTED;
    uint32_t number = 0;
    memcpy(&number, key.mv_data, key_length);
    return parse_record(number, value, record);
}

int get_record(MDB_txn *txn, MDB_dbi dbi, uint32_t key, stored_record *record)
{
    MDB_val name = as_value(&key, key_length);
    MDB_val value;
    const int error = mdb_get(txn, dbi, &name, &value);
    return error != 0 ? error : parse_record(key, value, record);
}

} // namespace platform
