// The files of a store: `store.mdb` with the data and `store.mdb-lock` with the readers' table.
//
// All that happens here happens under a lock on the directory, so that whoever opens a store finds
// its files as one of us left them, also when that one was killed. The data file gets its name once
// it is complete, so that a file which is too short is damaged and never just unfinished. The lock
// file's blocks are allocated before it is mapped: on a full disk a hole in it would cost us a
// SIGBUS.
#include "platform/kvs/store_file.h"

#include "platform/base/descriptor.h"
#include "platform/base/mutex.h"
#include "platform/kvs/data_file.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace platform {

constinit pthread_mutex_t slots_mutex = PTHREAD_MUTEX_INITIALIZER;

namespace {

constexpr char data_name[] = "store.mdb";
constexpr char lock_name[] = "store.mdb-lock";
constexpr char unfinished_name[] = "store.mdb.new";

constexpr mode_t file_mode = S_IRUSR | S_IWUSR;
constexpr off_t lock_file_size = 64 * 1024; // room for a thousand readers
constexpr size_t first_map_size = 4 * 1024 * 1024;

int lock_directory(int dir, descriptor *lock)
{
    // Opened anew, because a lock belongs to the open file, and `dir` may be shared after a fork.
    *lock = descriptor(openat(dir, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!lock->valid())
        return errno;
    while (flock(lock->get(), LOCK_EX) != 0)
        if (errno != EINTR)
            return errno;
    return 0;
}

int look_at(int dir, const char *name, struct stat *about)
{
    if (fstatat(dir, name, about, AT_SYMLINK_NOFOLLOW) != 0)
        return errno;
    return S_ISREG(about->st_mode) ? 0 : ELOOP;
}

// The engine opens by path only. This one leads through the descriptor, whatever has become of the
// directory's own path.
int make_engine(int dir, const char *name, unsigned flags, MDB_env **engine_p)
{
    char path[64];
    snprintf(path, sizeof path, "/proc/self/fd/%d/%s", dir, name);
    MDB_env *engine = nullptr;
    int error = mdb_env_create(&engine);
    if (error != 0)
        return error;
    if ((error = mdb_env_set_maxdbs(engine, database_limit)) == 0 &&
        (error = mdb_env_set_mapsize(engine, first_map_size)) == 0)
        error = mdb_env_open(engine, path, MDB_NOSUBDIR | MDB_NOTLS | flags, file_mode);
    if (error != 0) {
        mdb_env_close(engine);
        return error;
    }
    *engine_p = engine;
    return 0;
}

int write_new_data_file(int dir)
{
    MDB_env *engine = nullptr;
    int error = make_engine(dir, unfinished_name, MDB_NOLOCK, &engine);
    if (error != 0)
        return error;
    error = mdb_env_sync(engine, 1);
    mdb_env_close(engine);
    return error;
}

int create_data_file(int dir, int lock)
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
    if (fsync(lock) != 0) {
        error = errno;
        unlinkat(dir, data_name, 0);
    }
    return error;
}

int prepare_data_file(int dir, int lock, bool create)
{
    struct stat about;
    int error = look_at(dir, data_name, &about);
    if (error == ENOENT && create && (error = create_data_file(dir, lock)) == 0)
        error = look_at(dir, data_name, &about);
    if (error != 0)
        return error;
    const descriptor data(openat(dir, data_name, O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
    return data.valid() ? check_header(data.get()) : errno;
}

// A lock file that others have open is long enough, and is left alone: closing any descriptor of it
// would drop the locks that this process holds on it.
int prepare_lock_file(int dir)
{
    struct stat about;
    const int error = look_at(dir, lock_name, &about);
    if (error != 0 && error != ENOENT)
        return error;
    if (error == 0 && about.st_size >= lock_file_size)
        return 0;
    const descriptor file(
        openat(dir, lock_name, O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, file_mode));
    return file.valid() ? posix_fallocate(file.get(), 0, lock_file_size) : errno;
}

// The engine's locks lie in memory that its processes share. A process that is killed when it has
// just been woken there takes the wake-up with it, and others may wait for ever. So nobody waits
// there: to get at the engine's locks one holds a lock of the data file, a byte for each, which the
// system passes on whoever dies.
enum class file_byte : off_t { writer, slots };

int lock_byte(MDB_env *engine, file_byte which, short type)
{
    int fd = -1;
    if (const int error = mdb_env_get_fd(engine, &fd); error != 0)
        return error;
    struct flock lock {};
    lock.l_type = type;
    lock.l_whence = SEEK_SET;
    lock.l_start = static_cast<off_t>(which);
    lock.l_len = 1;
    while (fcntl(fd, F_SETLKW, &lock) != 0) {
        if (errno != EINTR && errno != EDEADLK)
            return errno;
        // To the system a process waits for another even when its threads do for different ones.
        if (errno == EDEADLK)
            usleep(1000);
    }
    return 0;
}

template <class Work>
int with_slots(MDB_env *engine, const Work &work)
{
    const scoped_lock lock(slots_mutex);
    int error = lock_byte(engine, file_byte::slots, F_WRLCK);
    if (error == 0) {
        error = work();
        lock_byte(engine, file_byte::slots, F_UNLCK);
    }
    return error;
}

int check_engine(MDB_env *engine)
{
    int fd = -1;
    int error = mdb_env_get_fd(engine, &fd);
    if (error == 0 && fcntl(fd, F_SETFD, FD_CLOEXEC) != 0)
        error = errno;
    if (error == 0)
        error = clear_slots(engine, nullptr);
    return error != 0 ? error : check_extent(engine);
}

} // namespace

int begin_changing(MDB_env *engine, MDB_txn **txn)
{
    int error = lock_byte(engine, file_byte::writer, F_WRLCK);
    if (error == 0 && (error = mdb_txn_begin(engine, nullptr, 0, txn)) != 0)
        end_changing(engine);
    return error;
}

void end_changing(MDB_env *engine) { lock_byte(engine, file_byte::writer, F_UNLCK); }

int begin_reading(MDB_env *engine, MDB_txn **txn)
{
    return with_slots(engine, [&] { return mdb_txn_begin(engine, nullptr, MDB_RDONLY, txn); });
}

int clear_slots(MDB_env *engine, int *dead)
{
    return with_slots(engine, [&] { return mdb_reader_check(engine, dead); });
}

int open_engine(int dir, bool create, MDB_env **engine_p)
{
    descriptor lock;
    int error = lock_directory(dir, &lock);
    if (error == 0)
        error = prepare_data_file(dir, lock.get(), create);
    if (error == 0)
        error = prepare_lock_file(dir);
    MDB_env *engine = nullptr;
    if (error == 0)
        error = make_engine(dir, data_name, 0, &engine);
    if (error != 0)
        return error;
    if ((error = check_engine(engine)) != 0) {
        mdb_env_close(engine);
        return error;
    }
    *engine_p = engine;
    return 0;
}

} // namespace platform
