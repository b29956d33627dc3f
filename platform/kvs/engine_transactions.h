// Transactions of the engine, and the file locks under which they begin.
//
// The engine's own locks lie in memory that its processes share. A process that is killed just
// after it was woken there takes the wake-up with it, and others may wait for ever. So no process
// waits there: a process that takes a lock of the engine holds a lock on a byte of the data file
// first, which the system releases when its process ends.
//
// Between two changes a process gives others no time to take the lock. So one that has waited for a
// while locks the byte that means to be next, and no other begins to write before it.
#pragma once

#include "platform/kvs/file_lock.h"

#include <lmdb.h>
#include <pthread.h>

namespace platform {

// All return 0, an error of the engine, or an error number.

// The place of this process among those that write to a store. One thread at a time uses it.
struct writer_turn {
    lock_wait wait;
    uint64_t checked_ns = 0; // when it last made sure that no other process is next
};

// Begins a write transaction under the writers' lock. One thread of a process at a time may write
// to a store. Does not wait for other processes: returns writer_is_busy, and is to be called again
// after a pause of `turn.wait`, outside the store.
[[nodiscard]] int begin_write(MDB_env *environment, writer_turn &turn, MDB_txn **txn);

// As begin_write, for a process that will not call it again.
[[nodiscard]] int begin_write_at_once(MDB_env *environment, MDB_txn **txn);

// Called when the write transaction has ended.
void release_writer_lock(MDB_env *environment);

// The engine returns EIO for every short write. Returns ENOSPC, EDQUOT or EFBIG if that is the
// cause, and `error` in all other cases.
[[nodiscard]] int cause_of_failed_write(MDB_env *environment, int error);

// Begins a read transaction, which takes a slot in the reader table.
[[nodiscard]] int begin_read(MDB_env *environment, MDB_txn **txn);

// Ends a read transaction in which databases were opened. They stay open if `error` is 0. Returns
// the first error.
[[nodiscard]] int end_opening_read(MDB_txn *txn, int error);

// Clears the reader slots of processes that died. Their number goes to `dead`, if it is not null.
[[nodiscard]] int clear_reader_slots(MDB_env *environment, int *dead);

// Held while a reader slot is taken. Initialized anew in a forked child.
extern pthread_mutex_t reader_table_mutex;

} // namespace platform
