#include "platform/kvs/new_data_file.h"

#include "platform/base/number.h"
#include "platform/kvs/engine_transactions.h"
#include "platform/kvs/journal.h"
#include "platform/kvs/open_files.h"
#include "platform/kvs/record_value.h"
#include "platform/kvs/store_limits.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <unistd.h>

namespace platform {
namespace {

constexpr char unfinished_name[] = "store.mdb.new";
constexpr size_t first_map_size = 4 * 1024 * 1024;

// Writes what a new store begins with: the version of its format, and an empty journal.
[[nodiscard]] int write_first_entries(MDB_env *environment, uint64_t journal_size)
{
    MDB_txn *txn = nullptr;
    int error = mdb_txn_begin(environment, nullptr, 0, &txn);
    if (error != 0)
        return error;
    MDB_dbi main = 0;
    MDB_val name = as_value(format_name, sizeof format_name - 1);
    const checked_number version = make_checked_number(name, format_version);
    MDB_val value = as_value(&version, sizeof version);
    if ((error = mdb_dbi_open(txn, nullptr, 0, &main)) == 0)
        error = mdb_put(txn, main, &name, &value, 0);
    if (error == 0)
        error = create_journal(txn, journal_size);
    if (error == 0)
        return cause_of_failed_write(environment, mdb_txn_commit(txn));
    mdb_txn_abort(txn);
    return error;
}

uint64_t journal_size_from_environment()
{
    const char *const text = secure_getenv("VS_JOURNAL_SIZE");
    const uint64_t size =
        text == nullptr ? default_journal_size : parse_bytes(text).value_or(default_journal_size);
    return std::clamp(size, least_journal_size, largest_journal_size) / entry_alignment *
           entry_alignment;
}

[[nodiscard]] int write_new_data_file(int dir)
{
    MDB_env *environment = nullptr;
    int error = make_environment(dir, unfinished_name, MDB_NOLOCK, &environment);
    if (error != 0)
        return error;
    const uint64_t journal_size = journal_size_from_environment();
    error = mdb_env_set_mapsize(environment, first_map_size + journal_size);
    if (error == 0)
        error = write_first_entries(environment, journal_size);
    if (error == 0)
        error = mdb_env_sync(environment, 1);
    mdb_env_close(environment);
    return error;
}

} // namespace

// The engine opens by path only. This path leads through the descriptor, so it stays right when the
// directory is renamed.
int make_environment(int dir, const char *name, unsigned flags, MDB_env **environment_p)
{
    char path[64];
    snprintf(path, sizeof path, "/proc/self/fd/%d/%s", dir, name);
    MDB_env *environment = nullptr;
    int error = mdb_env_create(&environment);
    if (error != 0)
        return error;
    if ((error = mdb_env_set_maxdbs(environment, open_database_limit)) == 0 &&
        (error = mdb_env_set_mapsize(environment, first_map_size)) == 0)
        error = mdb_env_open(environment, path, MDB_NOSUBDIR | MDB_NOTLS | flags, file_mode);
    if (error != 0) {
        mdb_env_close(environment);
        return error;
    }
    *environment_p = environment;
    return 0;
}

int create_data_file(int dir)
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

} // namespace platform
