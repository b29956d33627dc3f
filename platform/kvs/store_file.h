// The files of a store: made, checked and opened.
#pragma once

#include <lmdb.h>
#include <pthread.h>

namespace platform {

// As many named databases as one store holds.
constexpr unsigned database_limit = 16;

// Opens the store in the directory `dir` and, when `create` is true, makes it first if it is
// missing. Returns 0 or a code of the engine: ENOENT when the store is missing, ELOOP when
// something else lies in the place of a file of its. No other environment of this process may have
// the store open, but one that was inherited through a fork and is not used any more.
int open_engine(int dir, bool create, MDB_env **engine_p);

// Begin a transaction that changes the store, or one that reads it and takes a slot in the readers'
// table. Return 0 or a code of the engine. In a process one thread at a time may change the store;
// it says when it is done, whatever became of the transaction.
int begin_changing(MDB_env *engine, MDB_txn **txn);
void end_changing(MDB_env *engine);
int begin_reading(MDB_env *engine, MDB_txn **txn);

// Clears the slots of readers that died, and tells how many, when `dead` is given.
int clear_slots(MDB_env *engine, int *dead);

// Held while a slot is taken. A forked child makes it anew.
extern pthread_mutex_t slots_mutex;

} // namespace platform
