#include "platform/kvs/batch.h"

#include "platform/base/interruption.h"
#include "platform/base/mutex.h"
#include "platform/kvs/change_commit.h"
#include "platform/kvs/engine_status.h"
#include "platform/kvs/engine_transactions.h"
#include "platform/kvs/environment.h"
#include "platform/kvs/environment_info.h"
#include "platform/kvs/recovery.h"

#include <algorithm>
#include <cerrno>

namespace platform {
namespace {

constexpr uint64_t least_batch_room = uint64_t{1} << 30;
constexpr uint64_t largest_map = uint64_t{1} << 46;

// The map cannot grow during the batch, so it is enlarged before, as far as address space allows.
void make_batch_room(store &store)
{
    const scoped_lock replacing(store.environment_mutex);
    environment_info info;
    if (store.environment == nullptr || get_environment_info(store.environment, &info) != 0)
        return;
    uint64_t wanted =
        std::min(store.batch_scale * (2 * info.used_size + least_batch_room), largest_map);
    while (wanted > info.map_size && enlarge_map(store, wanted) == ENOMEM)
        wanted = wanted / 2 / info.page_size * info.page_size;
}

[[nodiscard]] int begin_batch_transaction(store &store, thread_context &thread, uint64_t &epoch)
{
    const environment_guard guard(store, thread);
    epoch = store.environment_epoch;
    if (store.environment == nullptr)
        return not_open;
    MDB_txn *txn = nullptr;
    const unsigned count = store.database_count.load(std::memory_order_acquire);
    const int error = begin_change(store, &txn);
    if (error == 0) {
        thread.open_batch = {&store, txn, count, false};
        thread.entered_by_batch = 1u << store.index;
    }
    return error;
}

[[nodiscard]] uint32_t log_batch_error(store &store, int error)
{
    if (error == MDB_MAP_FULL || error == MDB_TXN_FULL)
        store.batch_scale = std::min(store.batch_scale * 4, largest_map / least_batch_room);
    return log_engine_error("changing in a batch", cause_of_failed_write(store.environment, error));
}

} // namespace

uint32_t begin_batch(kvs_hdl hdl)
{
    const interruption_guard guard;
    call_context call;
    if (const uint32_t status = make_call_context(hdl, &call); status != 0)
        return status;
    if (call.thread->open_batch.store != nullptr)
        return KVS_RC_BATCH_ACTIVE;
    store &store = *call.store;
    pthread_mutex_lock(&store.writer_mutex);
    for (;;) {
        uint64_t epoch = 0;
        make_batch_room(store);
        const int error = begin_batch_transaction(store, *call.thread, epoch);
        if (error == 0)
            return 0; // and keeps the mutex
        const uint32_t status = recover_as_writer(store, *call.thread, error, epoch);
        if (status != 0) {
            pthread_mutex_unlock(&store.writer_mutex);
            return status;
        }
    }
}

uint32_t break_batch(thread_context &thread, int error)
{
    thread.open_batch.is_broken = true;
    return log_batch_error(*thread.open_batch.store, error);
}

uint32_t commit_batch()
{
    const interruption_guard guard;
    thread_context *const thread = current_thread();
    if (thread == nullptr || thread->open_batch.store == nullptr)
        return KVS_RC_NO_BATCH;
    if (thread->open_batch.is_broken) {
        abort_open_batch(*thread);
        return KVS_RC_BATCH_BROKEN;
    }
    store &store = *thread->open_batch.store;
    int error = check_files(store.environment);
    if (error == 0)
        error = commit_change(store, thread->open_batch.txn);
    else
        abort_change(store, thread->open_batch.txn);
    const uint32_t status = error != 0 ? log_batch_error(store, error) : 0;
    release_batch(*thread);
    return status;
}

uint32_t abort_batch()
{
    const interruption_guard guard;
    thread_context *const thread = current_thread();
    if (thread == nullptr || thread->open_batch.store == nullptr)
        return KVS_RC_NO_BATCH;
    abort_open_batch(*thread);
    return 0;
}

} // namespace platform
