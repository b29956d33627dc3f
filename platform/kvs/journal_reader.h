// Reading the journal of a store, and waiting for what comes.
#pragma once

#include "platform/kvs/call_context.h"

// One reader, which one thread at a time uses.
struct kvs_journal {
    kvs_hdl hdl = 0;
    uint64_t next_sequence = 1;
    platform::journal_end position; // behind the current entry
    uint64_t searched_commit = 0;   // up to which there is nothing more
    platform::block<unsigned char> entry;
    size_t offset = 0; // of the next change in the entry
    uint32_t changes_left = 0;
    char db_name[platform::name_limit + 1] = {};
    char process[platform::process_name_size] = {};
};

namespace platform {

// All return a status.

// Allocates a reader that begins with the change of this number, or with the first one after it
// that is kept; UINT64_MAX is the next one made.
[[nodiscard]] uint32_t open_reader(kvs_hdl hdl, uint64_t first, kvs_journal **journal);
void close_reader(kvs_journal *journal);

// Fetches the next entry if the current one has no change left. Comes to KVS_RC_NO_CHANGE if there
// is none.
[[nodiscard]] uint32_t fetch_entry(kvs_journal *journal);

// As fetch_entry, but waits for an entry until `deadline`, of CLOCK_MONOTONIC in nanoseconds, or
// until a signal is handled.
[[nodiscard]] uint32_t wait_for_entry(kvs_journal *journal, uint64_t deadline);

// Moves on to the next change of the current entry. Returns false if the entry has none.
[[nodiscard]] bool take_change(kvs_journal *journal, kvs_change *change);

} // namespace platform
