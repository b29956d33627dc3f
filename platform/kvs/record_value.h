// How a record is stored in the engine.
//
// A value in the engine is the record's bytes followed by its generation, 4 bytes. The generation
// comes last, so that a record cut off by the end of a truncated file is found to be damaged.
#pragma once

#include "platform/kvs/record.h"

#include <cstddef>
#include <lmdb.h>

namespace platform {

inline MDB_val as_value(const void *data, size_t length)
{
    return {length, const_cast<void *>(data)};
}

// Takes a value apart. Returns 0, or MDB_CORRUPTED if it is no value of this key.
[[nodiscard]] int parse_record(uint32_t key, const MDB_val &value, stored_record *record);
[[nodiscard]] int parse_record(const MDB_val &key, const MDB_val &value, stored_record *record);

// Looks a record up by its key. Returns 0, MDB_NOTFOUND, or another error of the engine.
[[nodiscard]] int get_record(MDB_txn *txn, MDB_dbi dbi, uint32_t key, stored_record *record);

} // namespace platform
