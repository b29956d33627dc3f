// Making the environment of a store, and the data file when it is missing.
#pragma once

#include <lmdb.h>
#include <sys/stat.h>

namespace platform {

// Both return 0, an error of the engine, or an error number.

constexpr mode_t file_mode = S_IRUSR | S_IWUSR;

// Opens the environment of the data file `name` in the directory `dir`, with these flags of the
// engine besides those that all environments have.
[[nodiscard]] int make_environment(int dir, const char *name, unsigned flags,
                                   MDB_env **environment_p);

// Makes the data file, which gets its name once it is complete and on disk.
[[nodiscard]] int create_data_file(int dir);

} // namespace platform
