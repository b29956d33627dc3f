#include "platform/kvs/engine_transactions.h"

#include "platform/base/clock.h"
#include "platform/base/interruption.h"
#include "platform/base/mutex.h"
#include "platform/kvs/engine_status.h"
#include "platform/kvs/environment_info.h"
#include "platform/kvs/open_files.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>

namespace platform {

constinit pthread_mutex_t reader_table_mutex = PTHREAD_MUTEX_INITIALIZER;

namespace {

constexpr byte_range writer_byte{0, 1}, next_writer_byte{1, 1}, writer_and_next{0, 2};
constexpr off_t reader_table_byte = 2;

// A process that has waited this long becomes the next one, unless another is; and for this long
// one that writes does not check for a next one. Passing the turn on costs a pause.
constexpr uint64_t turn_ns = 10'000'000;
// The next process may be kept from running in ways that do not show.
constexpr uint64_t longest_respect_ns = 1'000'000'000;

bool may_overtake(int fd, uint64_t waited)
{
    if (waited >= longest_respect_ns)
        return true;
    if (find_holder(fd, writer_byte))
        return false;
    const std::optional<pid_t> next = find_holder(fd, next_writer_byte);
    return next && is_stopped(*next);
}

[[nodiscard]] int try_writer_lock(int fd, writer_turn &turn)
{
    const uint64_t now = clock_ns(CLOCK_MONOTONIC);
    const uint64_t waited = turn.wait.waited_ns();
    const bool is_repeated = !turn.wait.has_begun() && now - turn.checked_ns < turn_ns;
    int error = try_lock(fd, is_repeated ? writer_byte : writer_and_next);
    if (error == EAGAIN && !is_repeated && may_overtake(fd, waited))
        error = try_lock(fd, writer_byte);
    if (error == EAGAIN) {
        turn.wait.note_failure(fd, writer_byte);
        if (waited >= turn_ns && try_lock(fd, next_writer_byte) == 0)
            turn.wait.note_next();
        return writer_is_busy;
    }
    if (!is_repeated) {
        unlock(fd, next_writer_byte);
        turn = {{}, now};
    }
    return error;
}

// Gets the descriptor of the data file, if it still leads there.
[[nodiscard]] int get_own_descriptor(MDB_env *environment, int *fd)
{
    const int error = check_data_descriptor(environment);
    return error != 0 ? error : mdb_env_get_fd(environment, fd);
}

template <class Work>
[[nodiscard]] int with_reader_table(MDB_env *environment, const Work &work)
{
    const interruption_guard guard;
    const scoped_lock lock(reader_table_mutex);
    int fd = -1;
    int error = check_descriptors(environment);
    if (error == 0)
        error = mdb_env_get_fd(environment, &fd);
    if (error == 0 && (error = lock_byte(fd, reader_table_byte)) == 0) {
        error = work();
        unlock(fd, {reader_table_byte, 1});
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

[[nodiscard]] int begin_locked_write(MDB_env *environment, int fd, MDB_txn **txn)
{
    int error = check_other_files(environment);
    if (error == 0 && (error = mdb_txn_begin(environment, nullptr, 0, txn)) == 0 &&
        (error = check_number(environment, *txn)) != 0)
        mdb_txn_abort(*txn);
    if (error != 0)
        unlock(fd, writer_byte);
    return error;
}

} // namespace

int begin_write(MDB_env *environment, writer_turn &turn, MDB_txn **txn)
{
    int fd = -1;
    int error = get_own_descriptor(environment, &fd);
    if (error == 0)
        error = try_writer_lock(fd, turn);
    return error != 0 ? error : begin_locked_write(environment, fd, txn);
}

int begin_write_at_once(MDB_env *environment, MDB_txn **txn)
{
    int fd = -1;
    int error = get_own_descriptor(environment, &fd);
    if (error == 0 && (error = try_lock(fd, writer_byte)) == EAGAIN)
        error = writer_is_busy;
    return error != 0 ? error : begin_locked_write(environment, fd, txn);
}

void release_writer_lock(MDB_env *environment)
{
    int fd = -1;
    if (get_own_descriptor(environment, &fd) == 0)
        unlock(fd, writer_byte);
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
