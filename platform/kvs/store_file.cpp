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
#include "platform/kvs/engine_status.h"
#include "platform/kvs/engine_transactions.h"
#include "platform/kvs/file_lock.h"
#include "platform/kvs/new_data_file.h"
#include "platform/kvs/user_marks.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace platform {
namespace {

constexpr char opening_name[] = "store.mdb-open";

constexpr off_t lock_file_size = 64 * 1024; // about a thousand reader slots

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

// The file may be deleted, and made anew, while this process waits for its lock.
[[nodiscard]] int lock_opening(int dir, bool create, descriptor *lock)
{
    struct stat about;
    do {
        if (const int error = open_opening_file(dir, create, lock); error != 0)
            return error;
        if (const int error = lock_byte(lock->get(), 0); error != 0)
            return error;
    } while (fstatat(dir, opening_name, &about, AT_SYMLINK_NOFOLLOW) != 0 ||
             !is_open_as(lock->get(), identity_of(about)));
    return 0;
}

[[nodiscard]] int prepare_data_file(int dir, bool create, file_identity *identity)
{
    struct stat about;
    int error = get_file_info(dir, data_name, &about);
    if (error == ENOENT && create && (error = create_data_file(dir)) == 0)
        error = get_file_info(dir, data_name, &about);
    descriptor data;
    if (error == 0)
        error = open_data_file(dir, &data);
    if (error != 0)
        return error;
    if (fstat(data.get(), &about) != 0)
        return errno;
    if (*identity != file_identity{} && *identity != identity_of(about))
        return files_replaced;
    *identity = identity_of(about);
    return check_header(data.get());
}

[[nodiscard]] int open_lock_file(int dir, descriptor *file, file_identity *identity)
{
    struct stat about;
    const int error = get_file_info(dir, lock_name, &about);
    if (error != 0 && error != ENOENT)
        return error;
    *file =
        descriptor(openat(dir, lock_name, O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, file_mode));
    if (!file->valid() || fstat(file->get(), &about) != 0)
        return errno;
    *identity = identity_of(about);
    return 0;
}

// A lock file that is in use is long enough and has no holes: its first user allocated it. Where
// the file system cannot allocate, allocating writes zeros, which would destroy the table of its
// users.
[[nodiscard]] int allocate_lock_file(int fd)
{
    struct flock users {};
    users.l_type = F_WRLCK;
    users.l_whence = SEEK_SET;
    users.l_len = 1; // which the engine locks
    struct stat about;
    if (fcntl(fd, F_GETLK, &users) != 0 || fstat(fd, &about) != 0)
        return errno;
    const bool is_whole = about.st_size >= lock_file_size && about.st_blocks * 512 >= about.st_size;
    return is_whole || users.l_type != F_UNLCK ? 0 : posix_fallocate(fd, 0, lock_file_size);
}

// Makes a new lock file if the users of the present one have another data file open. Closing its
// descriptor drops all locks of this process on it, which are none.
[[nodiscard]] int prepare_lock_file(int dir, open_files *files)
{
    for (;;) {
        descriptor file;
        bool is_strange = false;
        int error = open_lock_file(dir, &file, &files->lock_identity);
        if (error == 0)
            error = find_different_mark(file.get(), mark::other_file, files->data_identity.inode,
                                        &is_strange);
        if (error != 0 || !is_strange)
            return error != 0 ? error : allocate_lock_file(file.get());
        if (unlinkat(dir, lock_name, 0) != 0)
            return errno;
    }
}

// Joins the users of the files, unless they are others than this process can work with. The marks
// are set before others are searched for, so of two processes at least one finds the other's.
[[nodiscard]] int join_users(const open_files &files, ino_t pid_namespace)
{
    const ino_t data = files.data_identity.inode;
    const ino_t lock = files.lock_identity.inode;
    bool is_different = false;
    int error = set_mark(files.data, mark::pid_namespace, pid_namespace);
    if (error == 0 && (error = set_mark(files.data, mark::other_file, lock)) == 0)
        error = set_mark(files.lock, mark::other_file, data);
    if (error == 0)
        error = find_different_mark(files.data, mark::pid_namespace, pid_namespace, &is_different);
    if (error != 0 || is_different)
        return error != 0 ? error : other_namespace;
    if ((error = find_different_mark(files.data, mark::other_file, lock, &is_different)) == 0 &&
        !is_different)
        error = find_different_mark(files.lock, mark::other_file, data, &is_different);
    return error == 0 && is_different ? files_replaced : error;
}

[[nodiscard]] int check_environment(MDB_env *environment, ino_t pid_namespace, open_files *files)
{
    int error = find_open_files(environment, files);
    if (error == 0 && fcntl(files->data, F_SETFD, FD_CLOEXEC) != 0)
        error = errno;
    if (error == 0)
        error = join_users(*files, pid_namespace);
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

int open_environment_files(int dir, bool create, descriptor *opening, open_files *files,
                           MDB_env **environment_p)
{
    if (const int error = lock_opening(dir, create, opening); error != 0)
        return error;
    struct stat pid_namespace;
    if (stat("/proc/self/ns/pid", &pid_namespace) != 0)
        return no_proc;
    files->dir = dir;
    int error = prepare_data_file(dir, create, &files->data_identity);
    if (error == 0)
        error = prepare_lock_file(dir, files);
    MDB_env *environment = nullptr;
    if (error == 0)
        error = make_environment(dir, data_name, 0, &environment);
    if (error != 0)
        return error;
    if ((error = check_environment(environment, pid_namespace.st_ino, files)) != 0) {
        close_environment(environment);
        return error;
    }
    *environment_p = environment;
    return 0;
}

} // namespace platform
