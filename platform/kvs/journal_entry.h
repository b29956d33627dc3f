// The changes of one transaction, as the journal keeps them.
//
// An entry is a header followed by its changes, each a header followed by the name of the database,
// the bytes before the change, and the bytes after it. An entry has one checksum, so a part of it
// is never taken for the whole.
#pragma once

#include "platform/kvs/store_limits.h"

#include <cstddef>
#include <cstdint>

namespace platform {

// `summary` stands for all changes of a transaction to one database, of which there were too many.
enum class change_kind : uint8_t { insertion = 1, replacement, deletion, summary };

constexpr size_t process_name_size = 32;

// Who changes a store.
struct change_author {
    uint32_t pid;
    uint32_t user;
    uint64_t job; // 0 if the process is no job
    char process[process_name_size];
};

struct entry_header {
    uint32_t checksum; // of all that follows, and of where the entry is
    uint32_t length;   // of the entry
    uint64_t sequence; // of the first change
    uint64_t transaction;
    uint64_t time; // in nanoseconds since 1970
    uint32_t change_count;
    uint32_t is_summary;
    change_author author;
};

struct change_header {
    uint32_t length; // of the change with its bytes
    change_kind kind;
    uint8_t name_length;
    uint16_t unused;
    uint64_t handle;     // of a summary: the record changed first
    uint64_t last;       // of a summary: the record changed last
    uint64_t count;      // of a summary; else 1
    uint32_t old_length; // of the whole record
    uint32_t old_kept;   // bytes of it that are in the entry
    uint32_t new_length;
    uint32_t unused_2;
};

constexpr size_t entry_alignment = 8;
static_assert(sizeof(entry_header) % entry_alignment == 0);
static_assert(sizeof(change_header) % entry_alignment == 0);

// One change of an entry. The bytes belong to the entry.
struct journal_change {
    change_header header;
    const char *name; // of the database, not NUL-terminated
    const unsigned char *old_bytes;
    const unsigned char *new_bytes;
};

// Takes the change at `*offset` of a whole entry apart, and moves the offset behind it. Returns
// false if there is none, or none that fits the entry.
[[nodiscard]] bool next_change(const unsigned char *entry, size_t *offset, journal_change *change);

struct changed_bytes {
    const void *data;
    size_t length;
};

// Gathers the changes of a transaction. If they are too many for an entry, or if memory is lacking,
// a summary remains of them, and the transaction cannot be applied again.
class entry_builder {
public:
    // Forgets all changes. No entry is to be longer than `limit` bytes, which is at least
    // least_entry_limit.
    void reset(size_t limit);

    void add(change_kind kind, const char *database, uint64_t handle, const changed_bytes &before,
             const changed_bytes &after);

    [[nodiscard]] bool is_empty() const { return change_count_ == 0; }
    [[nodiscard]] bool is_summary() const { return is_summary_; }
    [[nodiscard]] uint64_t change_count() const { return change_count_; }

    // Returns the entry, whose header has a length and a count; the caller fills in the rest. It is
    // valid until the next change. Null if there is no memory for a summary.
    [[nodiscard]] unsigned char *finish();

private:
    struct database_summary {
        char name[name_limit + 1];
        uint64_t first, last, count;
    };

    void count_change(const char *database, uint64_t handle);
    [[nodiscard]] bool ensure_room(size_t length);
    void append(const change_header &header, const char *database, const void *before,
                const void *after);
    [[nodiscard]] bool write_summaries();

    unsigned char *bytes_ = nullptr; // never freed, as its store is never removed
    size_t capacity_ = 0;
    size_t used_ = 0;
    size_t limit_ = 0;
    uint64_t change_count_ = 0;
    bool is_summary_ = false;
    unsigned database_count_ = 0;
    database_summary databases_[database_limit] = {};
};

constexpr size_t longest_kept_old = 4096;
constexpr size_t least_entry_limit =
    sizeof(entry_header) + database_limit * (sizeof(change_header) + name_limit + entry_alignment);

} // namespace platform
