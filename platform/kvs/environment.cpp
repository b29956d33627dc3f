#include "platform/kvs/environment.h"

#include "platform/base/mutex.h"
#include "platform/kvs/change_commit.h"
#include "platform/kvs/engine_status.h"
#include "platform/kvs/engine_transactions.h"
#include "platform/kvs/environment_info.h"

#include <algorithm>
#include <cerrno>
#include <sys/mman.h>

namespace platform {
namespace {

void set_commit_numbers(store &store, const commit_numbers &numbers)
{
    store.first_commit_number.store(numbers.first, std::memory_order_release);
    store.second_commit_number.store(numbers.second, std::memory_order_release);
}

// Opens what is beside the environment of a new store. Leaves nothing behind on failure: another
// store may be opened in the same place of the table.
[[nodiscard]] int open_journal_and_numbers(store &store)
{
    commit_numbers numbers{};
    int error = map_commit_numbers(store.environment, &numbers);
    if (error != 0)
        return error;
    set_commit_numbers(store, numbers);
    if ((error = open_journal(store)) != 0) {
        set_commit_numbers(store, {});
        unmap_commit_numbers(numbers);
    }
    return error;
}

[[nodiscard]] int open_databases(store &store)
{
    MDB_txn *txn = nullptr;
    int error = begin_read(store.environment, &txn);
    if (error != 0)
        return error;
    for (unsigned i = 0; i < store.database_count && error == 0; ++i) {
        database &next = store.databases[i];
        error = mdb_dbi_open(txn, next.name, MDB_INTEGERKEY, &next.tree.dbi);
    }
    return end_opening_read(txn, error);
}

// The engine unmaps the old map before it maps the new one, and is unusable if that fails.
[[nodiscard]] int try_map(const environment_info &info, uint64_t bytes)
{
    void *const trial = mmap(nullptr, bytes, PROT_READ, MAP_SHARED, info.fd, 0);
    if (trial == MAP_FAILED)
        return errno;
    munmap(trial, bytes);
    return 0;
}

} // namespace

int open_environment(store &store, int dir, bool create)
{
    store.files = {};
    // Held until the journal is opened, so that the next process to open the store reads all of it.
    descriptor opening;
    int error = open_environment_files(dir, create, &opening, &store.files, &store.environment);
    if (error == 0 && (error = open_journal_and_numbers(store)) != 0) {
        close_environment(store.environment);
        store.environment = nullptr;
    }
    return error;
}

int reopen_environment(store &store)
{
    exclusive_access access(store);
    const scoped_lock lock(stores_mutex);
    access.close_environment();
    if (!is_open_as(store.dir, store.dir_identity))
        return descriptors_lost;
    descriptor opening;
    int error =
        open_environment_files(store.dir, false, &opening, &store.files, &store.environment);
    if (error == ENOENT)
        return files_replaced;
    if (error == 0 && ((error = open_journal(store)) != 0 || (error = open_databases(store)) != 0))
        access.close_environment();
    // Another process may have written more than fits the new map already.
    return error == MDB_MAP_RESIZED ? 0 : error;
}

int enlarge_map(store &store, uint64_t bytes)
{
    environment_info info;
    if (const int error = check_descriptors(store.environment); error != 0)
        return error;
    if (const int error = get_environment_info(store.environment, &info); error != 0)
        return error;
    bytes = std::max(bytes, info.used_size);
    if (bytes <= info.map_size)
        return 0;
    static_cast<void>(
        clear_reader_slots(store.environment, nullptr)); // dead ones keep pages in use
    if (const int error = try_map(info, bytes); error != 0)
        return error;
    exclusive_access access(store);
    const int error = mdb_env_set_mapsize(store.environment, bytes);
    if (error != 0)
        access.close_environment();
    return error;
}

int double_map(store &store)
{
    environment_info info;
    const int error = get_environment_info(store.environment, &info);
    return error != 0 ? error : enlarge_map(store, 2 * info.map_size);
}

} // namespace platform
