// The files of a store: made, checked and opened.
#pragma once

#include "platform/base/descriptor.h"
#include "platform/kvs/open_files.h"

#include <lmdb.h>

namespace platform {

// Opens the data file in the directory `dir` for reading without the engine. Returns 0 or an error
// number: ENOENT if there is none, ELOOP if it is not a regular file.
[[nodiscard]] int open_data_file(int dir, descriptor *file);

// Opens the store in the directory `dir`; if `create` is true, makes it first when it is missing.
// Fills `files`; if they have an identity already, the data file must be that one. Returns 0 or an
// error: ENOENT if the store is missing, ELOOP if one of its files is not a regular file, or
// files_replaced, no_proc or other_namespace. The process may have no other environment of the
// store open, except one that was inherited through a fork and is not used any more. No other
// process opens the store as long as the caller keeps `opening`.
[[nodiscard]] int open_environment_files(int dir, bool create, descriptor *opening,
                                         open_files *files, MDB_env **environment_p);

} // namespace platform
