#include "platform/kvs/record_value.h"

#include "platform/base/crc32c.h"

#include <cstring>

namespace platform {

int parse_record(uint32_t name_checksum, uint32_t key, const MDB_val &value, stored_record *record)
{
    if (value.mv_size < key_length + trailer_length || value.mv_size > UINT32_MAX ||
        memcmp(value.mv_data, &key, key_length) != 0)
        return MDB_CORRUPTED;
    const auto *const bytes = static_cast<const unsigned char *>(value.mv_data);
    const auto length = static_cast<uint32_t>(value.mv_size - trailer_length);
    uint32_t generation = 0, checksum = 0;
    memcpy(&generation, bytes + length, generation_length);
    memcpy(&checksum, bytes + length + generation_length, checksum_length);
    if (checksum != crc32c(name_checksum, bytes, size_t{length} + generation_length) ||
        generation < first_generation || generation == no_generation_left)
        return MDB_CORRUPTED;
    *record = {handle_of(key, generation), bytes, length};
    return 0;
}

int parse_record(uint32_t name_checksum, const MDB_val &key, const MDB_val &value,
                 stored_record *record)
{
    if (key.mv_size != key_length)
        return MDB_CORRUPTED;
    uint32_t number = 0;
    memcpy(&number, key.mv_data, key_length);
    return parse_record(name_checksum, number, value, record);
}

int get_record(MDB_txn *txn, const record_tree &tree, uint32_t key, stored_record *record)
{
    MDB_val name = as_value(&key, key_length);
    MDB_val value;
    const int error = mdb_get(txn, tree.dbi, &name, &value);
    return error != 0 ? error : parse_record(tree.name_checksum, key, value, record);
}

void write_trailer(uint32_t name_checksum, unsigned char *value, uint32_t length,
                   uint32_t generation)
{
    memcpy(value + length, &generation, generation_length);
    const size_t covered = size_t{length} + generation_length;
    const uint32_t checksum = crc32c(name_checksum, value, covered);
    memcpy(value + covered, &checksum, checksum_length);
}

checked_number make_checked_number(const MDB_val &name, uint32_t number)
{
    const uint32_t of_name = crc32c(0, name.mv_data, name.mv_size);
    return {number, crc32c(of_name, &number, sizeof number)};
}

int parse_checked_number(const MDB_val &name, const MDB_val &value, uint32_t *number)
{
    checked_number found;
    if (value.mv_size != sizeof found)
        return MDB_CORRUPTED;
    memcpy(&found, value.mv_data, sizeof found);
    *number = found.number;
    return make_checked_number(name, found.number).checksum == found.checksum ? 0 : MDB_CORRUPTED;
}

} // namespace platform
