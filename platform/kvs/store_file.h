// The files of a store: made, checked and opened.
#pragma once

#include <lmdb.h>

namespace platform {

// Opens the store in the directory `dir`; if `create` is true, makes it first when it is missing.
// Returns 0 or an error: ENOENT if the store is missing, ELOOP if one of its files is not a regular
// file. The process may have no other environment of the store open, except one that was inherited
// through a fork and is not used any more.
[[nodiscard]] int open_environment_files(int dir, bool create, MDB_env **environment_p);

} // namespace platform
