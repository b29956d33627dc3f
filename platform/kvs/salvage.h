// The records that can be read from a damaged data file.
#pragma once

#include "platform/kvs/damaged_file.h"
#include "platform/kvs/record.h"

namespace platform {

// A record whose checksum is right, and where its value is in the file.
struct salvaged_record {
    uint64_t offset;
    uint32_t key, generation;
    uint32_t length; // of the value
    bool in_tree;    // reached from the root of the database
    bool is_doubtful;
};

// Records of different keys, once they are sorted.
class salvaged_records {
public:
    [[nodiscard]] bool add(const salvaged_record &record);

    // Leaves one record of a key: one in the tree, else the one of the highest generation.
    void sort();

    [[nodiscard]] uint64_t count() const { return count_; }
    [[nodiscard]] const salvaged_record *begin() const { return records_.get(); }
    [[nodiscard]] const salvaged_record *end() const { return records_.get() + count_; }

private:
    block<salvaged_record> records_;
    uint64_t count_ = 0;
    uint64_t capacity_ = 0;
};

struct salvaged_database {
    salvaged_records records;
    bool has_root = false;
    uint64_t entries = 0; // their number as the root states it
};

// Finds the records of a database: those of its tree, and if that is damaged those on all other
// pages that are not free. `is_sound` is whether the whole file passed its checks. Returns 0 or an
// error number.
[[nodiscard]] int salvage_database(const damaged_file &file, const char *name, bool is_sound,
                                   salvaged_database *database);

} // namespace platform
