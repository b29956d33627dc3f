#include "platform/kvs/binding.h"

#include "platform/base/crc32c.h"
#include "platform/base/descriptor.h"
#include "platform/base/interruption.h"
#include "platform/base/mutex.h"
#include "platform/base/state_dir.h"
#include "platform/kvs/call_context.h"
#include "platform/kvs/change_commit.h"
#include "platform/kvs/engine_status.h"
#include "platform/kvs/engine_transactions.h"
#include "platform/kvs/environment.h"
#include "platform/kvs/files_check.h"
#include "platform/kvs/recovery.h"

#include <cerrno>
#include <cstring>
#include <sys/stat.h>
#include <utility>

namespace platform {
namespace {

// Returns the handle of a database that is bound already, or 0.
kvs_hdl find_bound(const store &store, const char *name)
{
    const unsigned count = store.database_count.load(std::memory_order_acquire);
    for (unsigned i = 0; i < count; ++i)
        if (strcmp(store.databases[i].name, name) == 0)
            return database_handle(store, i);
    return 0;
}

[[nodiscard]] uint32_t add_store(descriptor dir, const struct stat &about, bool create,
                                 store **store_p)
{
    const unsigned count = store_count.load(std::memory_order_relaxed);
    if (count == store_limit)
        return log_engine_error("opening one more store", MDB_DBS_FULL);
    store &added = stores[count];
    if (const int error = open_environment(added, dir.get(), create); error != 0)
        return log_engine_error("opening the store", error);
    added.dir_identity = identity_of(about);
    added.dir = dir.release();
    added.index = count;
    store_count.store(count + 1, std::memory_order_release);
    *store_p = &added;
    return 0;
}

// Finds or adds the store in the state directory that the process's environment names.
[[nodiscard]] uint32_t find_store(const thread_context &thread, bool create, store **store_p)
{
    descriptor dir(open_state_dir(create));
    struct stat about;
    if (!dir.valid() || fstat(dir.get(), &about) != 0)
        return status_of_state_dir_error(errno, create);
    const scoped_lock lock(stores_mutex);
    for (unsigned i = 0; i < store_count; ++i)
        if (stores[i].dir_identity == identity_of(about)) {
            *store_p = &stores[i];
            if (!is_open_as(stores[i].dir, identity_of(about)))
                stores[i].dir = dir.release();
            return 0;
        }
    if (thread.open_batch.store != nullptr)
        return KVS_RC_BATCH_ACTIVE;
    return add_store(std::move(dir), about, create, store_p);
}

[[nodiscard]] int open_in(MDB_txn *txn, const char *name, unsigned create, MDB_dbi *dbi)
{
    unsigned flags = 0;
    int error = mdb_dbi_open(txn, name, MDB_INTEGERKEY | create, dbi);
    if (error == 0)
        error = mdb_dbi_flags(txn, *dbi, &flags);
    return error == 0 && flags != MDB_INTEGERKEY ? MDB_INCOMPATIBLE : error;
}

[[nodiscard]] int open_existing(store &store, database &next, const char *name)
{
    MDB_txn *txn = nullptr;
    const int error = begin_read(store.environment, &txn);
    return error != 0 ? error : end_opening_read(txn, open_in(txn, name, 0, &next.tree.dbi));
}

// Every database has its generation counter beside it, under its name and a NUL, which no name
// contains. So a name that is damaged has lost its counter.
[[nodiscard]] int create_counter(MDB_txn *txn, const char *database_name)
{
    MDB_dbi main = 0;
    if (const int error = mdb_dbi_open(txn, nullptr, 0, &main); error != 0)
        return error;
    MDB_val name = as_value(database_name, strlen(database_name) + 1);
    const checked_number number = make_checked_number(name, first_generation);
    MDB_val value = as_value(&number, sizeof number);
    const int error = mdb_put(txn, main, &name, &value, MDB_NOOVERWRITE);
    return error == MDB_KEYEXIST ? 0 : error;
}

[[nodiscard]] int open_or_create(store &store, database &next, const char *name)
{
    MDB_txn *txn = nullptr;
    int error = begin_change(store, &txn);
    if (error != 0)
        return error;
    error = open_in(txn, name, MDB_CREATE, &next.tree.dbi);
    if (error == 0)
        error = create_counter(txn, name);
    if (error == 0)
        return commit_unrecorded(store, txn);
    abort_change(store, txn);
    return error;
}

[[nodiscard]] attempt add_database(store &store, const char *name, bool create)
{
    const unsigned count = store.database_count.load(std::memory_order_relaxed);
    if (count == database_limit)
        return with_engine_error(MDB_DBS_FULL);
    database &next = store.databases[count];
    const int error = create ? open_or_create(store, next, name) : open_existing(store, next, name);
    if (error == MDB_NOTFOUND)
        return with_status(KVS_RC_NO_SUCH_DB);
    if (error != 0)
        return with_engine_error(error);
    strcpy(next.name, name);
    next.tree.name_checksum = crc32c(0, name, strlen(name));
    store.database_count.store(count + 1, std::memory_order_release);
    return with_status(0);
}

} // namespace

uint32_t bind_database(const char *name, bool create, kvs_hdl *hdl)
{
    const interruption_guard guard;
    thread_context *const thread = current_thread();
    if (thread == nullptr)
        return KVS_RC_NO_MEMORY;
    store *found = nullptr;
    if (const uint32_t status = find_store(*thread, create, &found); status != 0)
        return status;
    store &store = *found;
    if (const uint32_t status = check_files_now(store, *thread); status != 0)
        return status;
    if ((*hdl = find_bound(store, name)) != 0)
        return 0;
    if (thread->open_batch.store != nullptr)
        return KVS_RC_BATCH_ACTIVE;
    const scoped_lock binding(store.binding_mutex);
    if ((*hdl = find_bound(store, name)) != 0)
        return 0;
    uint32_t status = attempt_until_status(store, *thread, recover_as_reader,
                                           [&] { return add_database(store, name, false); });
    if (status == KVS_RC_NO_SUCH_DB && create) {
        const scoped_lock writing(store.writer_mutex);
        status = attempt_until_status(store, *thread, recover_as_writer,
                                      [&] { return add_database(store, name, true); });
    }
    if (status == 0)
        *hdl = find_bound(store, name);
    return status;
}

} // namespace platform
