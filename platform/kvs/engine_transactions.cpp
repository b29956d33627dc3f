#include "platform/kvs/engine_transactions.h"

#include "platform/base/interruption.h"
#include "platform/base/mutex.h"
#include "platform/kvs/engine_status.h"
#include "platform/kvs/environment_info.h"
#include "platform/kvs/open_files.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace platform {

constinit pthread_mutex_t reader_table_mutex = PTHREAD_MUTEX_INITIALIZER;

namespace {

enum class file_byte : off_t { writer, reader_table };

[[nodiscard]] int set_byte_lock(MDB_env *environment, file_byte which, short type)
{
    int fd = -1;
    if (const int error = mdb_env_get_fd(environment, &fd); error != 0)
        return error;
    struct flock lock {};
    lock.l_type = type;
    lock.l_whence = SEEK_SET;
    lock.l_start = static_cast<off_t>(which);
    lock.l_len = 1;
    while (fcntl(fd, F_SETLKW, &lock) != 0) {
        if (errno != EINTR && errno != EDEADLK)
            return errno;
        // The system detects deadlocks by process, also where different threads wait.
        if (errno == EDEADLK)
            usleep(1000);
    }
    return 0;
}

[[nodiscard]] int lock_byte(MDB_env *environment, file_byte which)
{
    return set_byte_lock(environment, which, F_WRLCK);
}

void unlock_byte(MDB_env *environment, file_byte which)
{
    static_cast<void>(set_byte_lock(environment, which, F_UNLCK));
}

template <class Work>
[[nodiscard]] int with_reader_table(MDB_env *environment, const Work &work)
{
    const interruption_guard guard;
    const scoped_lock lock(reader_table_mutex);
    int error = check_descriptors(environment);
    if (error == 0 && (error = lock_byte(environment, file_byte::reader_table)) == 0) {
        error = work();
        unlock_byte(environment, file_byte::reader_table);
    }
    return error;
}

// The engine numbers commits by the lock file; another number comes next in a data file whose
// content was replaced.
[[nodiscard]] int check_number(MDB_env *environment, MDB_txn *txn)
{
    MDB_envinfo about;
    const int error = mdb_env_info(environment, &about);
    if (error != 0)
        return error;
    return mdb_txn_id(txn) == about.me_last_txnid + 1 ? 0 : files_replaced;
}

} // namespace

int begin_write(MDB_env *environment, MDB_txn **txn)
{
    int error = check_data_descriptor(environment);
    if (error != 0 || (error = lock_byte(environment, file_byte::writer)) != 0)
        return error;
    if ((error = check_other_files(environment)) == 0 &&
        (error = mdb_txn_begin(environment, nullptr, 0, txn)) == 0 &&
        (error = check_number(environment, *txn)) != 0)
        mdb_txn_abort(*txn);
    if (error != 0)
        unlock_byte(environment, file_byte::writer);
    return error;
}

int cause_of_failed_write(MDB_env *environment, int error)
{
    environment_info info;
    struct stat file;
    if (error != EIO || get_environment_info(environment, &info) != 0 || fstat(info.fd, &file) != 0)
        return error;
    // Allocating space where the file ends, behind what was written, shows whether there is any.
    const off_t end = std::max(static_cast<off_t>(info.used_size), file.st_size);
    const bool has_room = fallocate(info.fd, 0, end, 64 * 1024) == 0;
    return !has_room && (errno == ENOSPC || errno == EDQUOT || errno == EFBIG) ? errno : error;
}

int commit_write(MDB_env *environment, MDB_txn *txn)
{
    const int error = cause_of_failed_write(environment, mdb_txn_commit(txn));
    unlock_byte(environment, file_byte::writer);
    return error;
}

void abort_write(MDB_env *environment, MDB_txn *txn)
{
    mdb_txn_abort(txn);
    if (check_data_descriptor(environment) == 0)
        unlock_byte(environment, file_byte::writer);
}

int begin_read(MDB_env *environment, MDB_txn **txn)
{
    return with_reader_table(environment,
                             [&] { return mdb_txn_begin(environment, nullptr, MDB_RDONLY, txn); });
}

int end_opening_read(MDB_txn *txn, int error)
{
    if (error == 0)
        return mdb_txn_commit(txn);
    mdb_txn_abort(txn);
    return error;
}

int clear_reader_slots(MDB_env *environment, int *dead)
{
    return with_reader_table(environment, [&] { return mdb_reader_check(environment, dead); });
}

} // namespace platform
