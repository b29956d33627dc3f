// The files that an environment has open: whether the descriptors still lead to them, and whether
// the directory still names them.
//
// A program may close descriptors that are not its own, and get their numbers for other files,
// which the engine would then write into. And files may be moved, replaced or deleted, after which
// the engine would go on writing into files that no new process opens.
#pragma once

#include <lmdb.h>
#include <sys/stat.h>
#include <sys/types.h>

namespace platform {

constexpr char data_name[] = "store.mdb";
constexpr char lock_name[] = "store.mdb-lock";

struct file_identity {
    dev_t device = 0;
    ino_t inode = 0;

    friend bool operator==(const file_identity &, const file_identity &) = default;
};

inline file_identity identity_of(const struct stat &about) { return {about.st_dev, about.st_ino}; }

[[nodiscard]] bool is_open_as(int fd, const file_identity &file);

// The first descriptor is the store's, the others are the engine's.
struct open_files {
    int dir = -1;
    int data = -1;
    int header = -1; // of the data file too, for synchronous writes
    int lock = -1;
    file_identity data_identity;
    file_identity lock_identity;
};

// Finds the engine's descriptors for the two identities in `files`. From then on the environment's
// files can be checked, so `files` has to stay where it is as long as the environment. Returns 0,
// an error number or an error of the engine, or files_replaced if the engine has other files open.
[[nodiscard]] int find_open_files(MDB_env *environment, open_files *files);

// All return 0 or descriptors_lost.

[[nodiscard]] int check_descriptors(MDB_env *environment);
[[nodiscard]] int check_data_descriptor(MDB_env *environment);

// As check_descriptors, or files_replaced if the directory names another file.
[[nodiscard]] int check_files(MDB_env *environment);

// The rest of check_files, after check_data_descriptor.
[[nodiscard]] int check_other_files(MDB_env *environment);

// Closes the environment. If it has lost a descriptor, which the engine would close nevertheless,
// closes only those left; the map stays behind.
void close_environment(MDB_env *environment);

// Closes the descriptors that a forked child inherited, as far as they still lead to the files.
void close_descriptors(const open_files &files);

} // namespace platform
