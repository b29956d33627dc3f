// How a record is stored in the engine.
//
// A value in the engine is the record's bytes, its generation, and a checksum of both. The checksum
// begins with the name of the database, so that a record of another database is found to be damaged
// too. Checksums are CRC-32C.
#pragma once

#include "platform/kvs/record.h"

#include <cstddef>
#include <cstring>
#include <lmdb.h>

namespace platform {

inline MDB_val as_value(const void *data, size_t length)
{
    return {length, const_cast<void *>(data)};
}

// The name of the number that is the version of the format, before all names of databases. It is
// incremented when the layout of what the store keeps in its file changes.
constexpr char format_name[] = "\0format";
constexpr uint32_t format_version = 2;

inline bool is_format_name(const MDB_val &name)
{
    return name.mv_size == sizeof format_name - 1 &&
           memcmp(name.mv_data, format_name, name.mv_size) == 0;
}

// The name of the journal.
constexpr char journal_name[] = "\0journal";

inline bool is_journal_name(const MDB_val &name)
{
    return name.mv_size == sizeof journal_name - 1 &&
           memcmp(name.mv_data, journal_name, name.mv_size) == 0;
}

// Where the records of a database are.
struct record_tree {
    MDB_dbi dbi = 0;
    uint32_t name_checksum = 0; // of the database's name
};

// Parses a value. Returns 0, or MDB_CORRUPTED if it is no value of this key.
[[nodiscard]] int parse_record(uint32_t name_checksum, uint32_t key, const MDB_val &value,
                               stored_record *record);
[[nodiscard]] int parse_record(uint32_t name_checksum, const MDB_val &key, const MDB_val &value,
                               stored_record *record);

// Writes the generation and the checksum behind the `length` bytes of a record.
void write_trailer(uint32_t name_checksum, unsigned char *value, uint32_t length,
                   uint32_t generation);

// Looks a record up by its key. Returns 0, MDB_NOTFOUND, or another error of the engine.
[[nodiscard]] int get_record(MDB_txn *txn, const record_tree &tree, uint32_t key,
                             stored_record *record);

// A number stored in the main tree, with the checksum of its name and itself.
struct checked_number {
    uint32_t number;
    uint32_t checksum;
};

checked_number make_checked_number(const MDB_val &name, uint32_t number);

// Returns 0, or MDB_CORRUPTED if the value is no number under this name.
[[nodiscard]] int parse_checked_number(const MDB_val &name, const MDB_val &value, uint32_t *number);

} // namespace platform
