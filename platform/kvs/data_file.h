// The data file of a store, read without the engine's help.
//
// The engine does not check its file: an impossible page size in the header makes it divide by
// zero, and a page beyond the end of a truncated file raises SIGBUS. Both are detected here. And
// the numbers of the last commits are read from here without entering the engine.
#pragma once

#include "platform/kvs/environment_info.h"
#include "platform/kvs/page_walk.h"

#include <algorithm>
#include <cstdint>
#include <lmdb.h>

namespace platform {

// Reads one of the two headers; each is written by transactions of its own parity. Returns 0,
// MDB_INVALID, MDB_VERSION_MISMATCH, or an error number.
[[nodiscard]] int read_header(int fd, uint64_t number, uint32_t page_size, meta_data *meta);

// Returns whether the engine, which checks none of it, can work with this header. Its page size
// must be one.
bool is_possible(const meta_data &meta);

// Checks the headers of the data file `fd`. Returns 0, MDB_INVALID, MDB_VERSION_MISMATCH, or an
// error number.
[[nodiscard]] int check_header(int fd);

// Checks the pages of a snapshot, at least to the extent given, and further if they are few, and
// the version of the format. Returns 0, MDB_CORRUPTED, MDB_VERSION_MISMATCH, EAGAIN if the snapshot
// is too old for its header to be there still, or another error.
[[nodiscard]] int check_snapshot(MDB_env *environment, MDB_txn *snapshot, walk_extent least);

// As check_snapshot, for the last commit. Returns files_replaced if the lock file's last commit is
// never in the data file. No other thread may use the environment yet.
[[nodiscard]] int check_last_commit(MDB_env *environment);

// Where the file's two headers, written alternately, contain the number of the commit that wrote
// them.
struct commit_numbers {
    const uint64_t *first;
    const uint64_t *second;
};

// Writes the header of a commit anew, under the writers' lock. A flush that failed leaves it marked
// as written, on disk or not. Returns 0 or an error.
[[nodiscard]] int rewrite_header(const environment_info &info, uint64_t commit);

// Maps the headers, and not only as long as the environment is open. Returns 0 or an error.
[[nodiscard]] int map_commit_numbers(MDB_env *environment, commit_numbers *numbers);
void unmap_commit_numbers(const commit_numbers &numbers);

inline uint64_t last_commit(const commit_numbers &numbers)
{
    return std::max(__atomic_load_n(numbers.first, __ATOMIC_ACQUIRE),
                    __atomic_load_n(numbers.second, __ATOMIC_ACQUIRE));
}

} // namespace platform
