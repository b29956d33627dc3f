// Changes that are committed together with their entry in the journal.
//
// A change is committed with one flush: its entry goes to the journal, the engine writes its pages
// and flushes them together with the entry, and last it writes its header, which stays in the
// system's cache until the next flush. Up to then the entry stands for the header. The engine never
// reuses pages of the last two commits, so the store is whole with either header.
//
// A process that gets the writers' lock and finds entries of commits after the last one finishes
// those commits before its own: the power has gone, or the writer was killed.
#pragma once

#include "platform/kvs/store.h"

namespace platform {

// All return 0 or an error; begin_change also writer_is_busy, or interrupted_commit if such a
// commit is to be finished first. The caller has entered the store and holds the writer mutex, or
// has exclusive access, or has a store that no other thread can see.

// Reads where the store's journal is, and as whom this process changes the store, and finishes
// interrupted commits. The store has an environment, and no other thread is in the store.
[[nodiscard]] int open_journal(store &store);

// Finishes the commits that the journal has and the engine does not, unless another process has the
// writers' lock, which has done so. No other thread is in the store. After an error the environment
// may be useless.
[[nodiscard]] int finish_interrupted_commits(store &store);

// Begins a write transaction without changes; the process's writer lock is held until it ends.
[[nodiscard]] int begin_change(store &store, MDB_txn **txn);

// Each ends the transaction. The first one commits with an entry in the journal, the second one
// without, and with one more flush for the header.
[[nodiscard]] int commit_change(store &store, MDB_txn *txn);
[[nodiscard]] int commit_unrecorded(store &store, MDB_txn *txn);
void abort_change(store &store, MDB_txn *txn);

} // namespace platform
