// The files of a store: `store.mdb` with the data and `store.mdb-lock` with the reader table.
//
// The files are made and opened under a lock on `store.mdb-open`, so a process that opens a store
// never finds them while another one is making them, unless that one was killed. The directory
// itself cannot be used: any user with read permission could lock it. The data file gets
// its name once it is complete, so that a file which is too short is damaged and never just
// unfinished. The lock file's blocks are allocated before it is mapped: on a full disk, writing to
// a hole in it would raise SIGBUS.
#include "platform/kvs/store_file.h"

#include "platform/kvs/data_file.h"
#include "platform/kvs/engine_transactions.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace platform {
namespace {

constexpr char data_name[] = "store.mdb";
constexpr char lock_name[] = "store.mdb-lock";
constexpr char unfinished_name[] = "store.mdb.new";
constexpr char opening_name[] = "store.mdb-open";

constexpr mode_t file_mode = S_IRUSR | S_IWUSR;
constexpr off_t lock_file_size = 64 * 1024; // about a thousand reader slots
constexpr size_t first_map_size = 4 * 1024 * 1024;

[[nodiscard]] int get_file_info(int dir, const char *name, struct stat *about)
{
    if (fstatat(dir, name, about, AT_SYMLINK_NOFOLLOW) != 0)
        return errno;
    return S_ISREG(about->st_mode) ? 0 : ELOOP;
}

// Opens the file whose lock is held while a store is opened. If `create` is false, it is made only
// beside a data file.
[[nodiscard]] int open_opening_file(int dir, bool create, descriptor *file)
{
    constexpr int flags = O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
    struct stat about;
    *file = descriptor(openat(dir, opening_name, flags));
    if (!file->valid() && errno == ENOENT) {
        if (const int error = get_file_info(dir, data_name, &about); error != 0 && !create)
            return error;
        *file = descriptor(openat(dir, opening_name, flags | O_CREAT, file_mode));
    }
    if (!file->valid() || fstat(file->get(), &about) != 0)
        return errno;
    return S_ISREG(about.st_mode) ? 0 : ELOOP;
}

[[nodiscard]] int lock_opening(int dir, bool create, descriptor *lock)
{
    if (const int error = open_opening_file(dir, create, lock); error != 0)
        return error;
    while (flock(lock->get(), LOCK_EX) != 0)
        if (errno != EINTR)
            return errno;
    return 0;
}

// The engine opens by path only. This path leads through the descriptor, so it stays right when the
// directory is renamed.
[[nodiscard]] int make_environment(int dir, const char *name, unsigned flags,
                                   MDB_env **environment_p)
{
    char path[64];
    snprintf(path, sizeof path, "/proc/self/fd/%d/%s", dir, name);
    MDB_env *environment = nullptr;
    int error = mdb_env_create(&environment);
    if (error != 0)
        return error;
    if ((error = mdb_env_set_maxdbs(environment, database_limit)) == 0 &&
        (error = mdb_env_set_mapsize(environment, first_map_size)) == 0)
        error = mdb_env_open(environment, path, MDB_NOSUBDIR | MDB_NOTLS | flags, file_mode);
    if (error != 0) {
        mdb_env_close(environment);
        return error;
    }
    *environment_p = environment;
    return 0;
}

[[nodiscard]] int write_new_data_file(int dir)
{
    MDB_env *environment = nullptr;
    int error = make_environment(dir, unfinished_name, MDB_NOLOCK, &environment);
    if (error != 0)
        return error;
    error = write_format(environment);
    if (error == 0)
        error = mdb_env_sync(environment, 1);
    mdb_env_close(environment);
    return error;
}

[[nodiscard]] int create_data_file(int dir)
{
    if (unlinkat(dir, unfinished_name, 0) != 0 && errno != ENOENT)
        return errno;
    int error = write_new_data_file(dir);
    if (error == 0 && renameat(dir, unfinished_name, dir, data_name) != 0)
        error = errno;
    if (error != 0) {
        unlinkat(dir, unfinished_name, 0);
        return error;
    }
    if (fsync(dir) != 0) {
        error = errno;
        unlinkat(dir, data_name, 0);
    }
    return error;
}

[[nodiscard]] int prepare_data_file(int dir, bool create)
{
    struct stat about;
    int error = get_file_info(dir, data_name, &about);
    if (error == ENOENT && create && (error = create_data_file(dir)) == 0)
        error = get_file_info(dir, data_name, &about);
    descriptor data;
    if (error == 0)
        error = open_data_file(dir, &data);
    return error == 0 ? check_header(data.get()) : error;
}

// A lock file that is open elsewhere is long enough, and is not opened here: closing any descriptor
// of it would drop the locks that this process holds on it.
[[nodiscard]] int prepare_lock_file(int dir)
{
    struct stat about;
    const int error = get_file_info(dir, lock_name, &about);
    if (error != 0 && error != ENOENT)
        return error;
    if (error == 0 && about.st_size >= lock_file_size)
        return 0;
    const descriptor file(
        openat(dir, lock_name, O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, file_mode));
    return file.valid() ? posix_fallocate(file.get(), 0, lock_file_size) : errno;
}

[[nodiscard]] int check_environment(MDB_env *environment)
{
    int fd = -1;
    int error = mdb_env_get_fd(environment, &fd);
    if (error == 0 && fcntl(fd, F_SETFD, FD_CLOEXEC) != 0)
        error = errno;
    if (error == 0)
        error = clear_reader_slots(environment, nullptr);
    return error != 0 ? error : check_last_commit(environment);
}

} // namespace

int open_data_file(int dir, descriptor *file)
{
    struct stat about;
    if (const int error = get_file_info(dir, data_name, &about); error != 0)
        return error;
    *file = descriptor(openat(dir, data_name, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    return file->valid() ? 0 : errno;
}

int open_environment_files(int dir, bool create, MDB_env **environment_p)
{
    descriptor lock;
    int error = lock_opening(dir, create, &lock);
    if (error == 0)
        error = prepare_data_file(dir, create);
    if (error == 0)
        error = prepare_lock_file(dir);
    MDB_env *environment = nullptr;
    if (error == 0)
        error = make_environment(dir, data_name, 0, &environment);
    if (error != 0)
        return error;
    if ((error = check_environment(environment)) != 0) {
        mdb_env_close(environment);
        return error;
    }
    *environment_p = environment;
    return 0;
}

} // namespace platform
