// The data file of a store, read without the engine's help.
//
// The engine trusts its file. An impossible page size in the header makes it divide by zero, and a
// page beyond the end of a file that was cut short raises SIGBUS. Both are found out here instead.
// And the numbers of the last commits are read from here without entering the engine.
#pragma once

#include <algorithm>
#include <cstdint>
#include <lmdb.h>

namespace platform {

// Looks at the header of the data file `fd`. Returns 0, MDB_INVALID, MDB_VERSION_MISMATCH, or an
// error number.
int check_header(int fd);

// Looks whether every page in use lies within the file. Returns 0, MDB_CORRUPTED, or another code
// of the engine. No other thread may use the environment yet.
int check_extent(MDB_env *engine);

// Where the file's two headers, written in turns, tell the number of the commit that wrote them.
struct commit_numbers {
    const uint64_t *first;
    const uint64_t *second;
};

// Maps the headers for as long as the process lives. Returns 0 or an error number.
int map_commit_numbers(MDB_env *engine, commit_numbers *numbers);

inline uint64_t last_commit(const commit_numbers &numbers)
{
    return std::max(__atomic_load_n(numbers.first, __ATOMIC_ACQUIRE),
                    __atomic_load_n(numbers.second, __ATOMIC_ACQUIRE));
}

} // namespace platform
