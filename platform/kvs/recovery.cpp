#include "platform/kvs/recovery.h"

#include "platform/base/interruption.h"
#include "platform/base/mutex.h"
#include "platform/kvs/change_commit.h"
#include "platform/kvs/engine_transactions.h"
#include "platform/kvs/environment.h"

namespace platform {
namespace {

[[nodiscard]] uint32_t clear_dead_readers(store &store, thread_context &thread)
{
    const environment_guard guard(store, thread);
    if (store.environment == nullptr)
        return 0;
    int dead = 0;
    int error = clear_reader_slots(store.environment, &dead);
    if (error == 0 && dead == 0)
        error = MDB_READERS_FULL;
    return error != 0 ? log_engine_error("clearing the reader table", error) : 0;
}

[[nodiscard]] int finish_under_exclusive_access(store &store)
{
    exclusive_access access(store);
    const int error = finish_interrupted_commits(store);
    if (error != 0)
        access.close_environment();
    return error;
}

[[nodiscard]] uint32_t recover(store &store, thread_context &thread, int error, uint64_t epoch)
{
    if (error == MDB_READERS_FULL)
        return clear_dead_readers(store, thread);
    const scoped_lock replacing(store.environment_mutex);
    if (store.environment_epoch != epoch)
        return 0;
    if (needs_reopening(error))
        error = reopen_environment(store);
    else if (error == MDB_MAP_RESIZED)
        error = enlarge_map(store, 0);
    else if (error == interrupted_commit)
        error = finish_under_exclusive_access(store);
    else if (error == MDB_MAP_FULL)
        error = double_map(store);
    return error != 0 ? log_engine_error("using the store", error) : 0;
}

} // namespace

uint32_t recover_as_writer(store &store, thread_context &thread, int error, uint64_t epoch)
{
    if (error == writer_is_busy) {
        store.turn.wait.pause();
        return 0;
    }
    store.turn.wait = {};
    return recover(store, thread, error, epoch);
}

uint32_t recover_as_reader(store &store, thread_context &thread, int error, uint64_t epoch)
{
    const interruption_guard guard;
    if (error != MDB_READERS_FULL && !needs_reopening(error) && error != MDB_MAP_RESIZED)
        return log_engine_error("reading the store", error);
    return recover(store, thread, error, epoch);
}

} // namespace platform
