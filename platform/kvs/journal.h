// The journal of a store: the last changes, in a ring inside the data file.
//
// The ring is one long value under a key of its own, whose pages the engine never moves. An entry
// is written into it before the transaction's commit, so the one flush of the commit makes the
// entry durable together with the pages. The header of the commit needs no flush then: if it is
// lost in a power cut, or if the writer dies before it is written, the entry is applied again
// (change_commit.h).
//
// An entry lies in one piece. One that does not fit the end of the ring is put at the begin. It
// never covers the entry before it, which may not have its header on disk yet: no entry is longer
// than a quarter of the ring. Its checksum begins with a random number of the store and with the
// entry's offset, so nothing that a caller stores is ever taken for an entry.
#pragma once

#include "platform/base/block.h"
#include "platform/kvs/environment_info.h"
#include "platform/kvs/journal_entry.h"

#include <cstddef>
#include <cstdint>
#include <lmdb.h>

namespace platform {

constexpr uint64_t least_journal_size = 64 * 1024;
constexpr uint64_t default_journal_size = 1024 * 1024;
constexpr uint64_t largest_journal_size = 64 * 1024 * 1024;

// At the begin of the ring.
struct journal_header {
    uint64_t salt; // of the checksums
    uint64_t size; // of the ring, with this header
    uint32_t checksum;
    uint32_t unused;
};

// Where the journal is. Does not change as long as the store exists.
struct journal_area {
    uint64_t offset = 0; // in the data file
    uint64_t size = 0;
    uint64_t salt = 0;

    [[nodiscard]] size_t longest_entry() const { return (size - sizeof(journal_header)) / 4; }
};

// Behind the last entry. Valid for a process that holds the writers' lock.
struct journal_end {
    uint64_t offset = 0; // in the ring; 0 if it is not known
    uint64_t next_sequence = 1;
    uint64_t last_transaction = 0; // 0 if the journal is empty
    uint64_t last_offset = 0;
};

struct entry_origin {
    uint64_t transaction;
    uint64_t time;
    change_author author;
};

// All return 0, an error of the engine, or an error number.

// Adds an empty journal to a store that is being made.
[[nodiscard]] int create_journal(MDB_txn *txn, uint64_t size);

// Reads the header of the journal at an offset of the data file, where a value of this size is.
[[nodiscard]] int read_area(int fd, uint64_t offset, uint64_t size, journal_area *area);

// Finds the journal of a store in a snapshot.
[[nodiscard]] int find_journal(MDB_txn *snapshot, const environment_info &info, journal_area *area);

[[nodiscard]] constexpr journal_end end_behind(uint64_t offset, const entry_header &header)
{
    return {offset + header.length, header.sequence + header.change_count, header.transaction,
            offset};
}

// Reads the entry behind `end` and moves `end` behind it. MDB_NOTFOUND if there is none.
[[nodiscard]] int read_next_entry(int fd, const journal_area &area, journal_end *end,
                                  block<unsigned char> *entry);

// Moves `end` behind the last entry, which is of the commit given, or of the one after it if a
// commit was interrupted, or of an earlier one if later commits left no entry.
[[nodiscard]] int find_end(int fd, const journal_area &area, uint64_t last_commit,
                           journal_end *end);

// Completes the header of an entry, whose length and count are there, writes the entry, and moves
// `end` behind it.
[[nodiscard]] int append_entry(int fd, const journal_area &area, const entry_origin &origin,
                               unsigned char *entry, journal_end *end);

// Removes the entry at an offset of the ring durably, because its transaction failed.
[[nodiscard]] int strike_entry(int fd, const journal_area &area, uint64_t offset);

// Reads the ring into a new block.
[[nodiscard]] int copy_ring(int fd, const journal_area &area, block<unsigned char> *ring);

// Returns whether there is a whole entry at this offset in a copy of the ring.
[[nodiscard]] bool is_entry(const journal_area &area, const unsigned char *ring, uint64_t offset,
                            entry_header *header);

// Calls `found(offset, header)` for each whole entry of a copy of the ring.
template <class Found>
void for_each_entry(const journal_area &area, const unsigned char *ring, const Found &found)
{
    uint64_t offset = sizeof(journal_header);
    while (offset + sizeof(entry_header) <= area.size) {
        entry_header header;
        const bool is_whole = is_entry(area, ring, offset, &header);
        if (is_whole)
            found(offset, header);
        offset += is_whole ? header.length : entry_alignment;
    }
}

} // namespace platform
