// The files of a store: made, checked and opened.
#pragma once

#include <lmdb.h>

namespace platform {

// As many named databases as one store holds.
constexpr unsigned database_limit = 16;

// Opens the store in the directory `dir` and, when `create` is true, makes it first if it is
// missing. Returns 0 or a code of the engine: ENOENT when the store is missing, ELOOP when
// something else lies in the place of a file of its. No other environment of this process may have
// the store open, but one that was inherited through a fork and is not used any more.
int open_engine(int dir, bool create, MDB_env **engine_p);

} // namespace platform
