#include "platform/kvs/write_queue.h"

#include "platform/base/mutex.h"
#include "platform/kvs/change_commit.h"

#include <semaphore.h>

namespace platform {

// Lives on the stack of the thread that waits for it.
struct write_request {
    const database &in;
    const change_maker &maker;
    uint32_t status = 0;
    bool is_leader = false; // woken to commit, and not because the request is done
    sem_t wake = {};
    write_request *next = nullptr;
};

namespace {

// Adds a request. Returns whether its thread is to commit.
[[nodiscard]] bool enqueue(write_queue &queue, write_request &request)
{
    const scoped_lock lock(queue.mutex);
    (queue.last != nullptr ? queue.last->next : queue.first) = &request;
    queue.last = &request;
    const bool leads = !queue.has_leader;
    queue.has_leader = true;
    return leads;
}

[[nodiscard]] write_request *take_all(write_queue &queue)
{
    const scoped_lock lock(queue.mutex);
    write_request *const first = queue.first;
    queue.first = queue.last = nullptr;
    return first;
}

void appoint_next_leader(write_queue &queue)
{
    const scoped_lock lock(queue.mutex);
    queue.has_leader = queue.first != nullptr;
    if (queue.has_leader) {
        queue.first->is_leader = true;
        sem_post(&queue.first->wake);
    }
}

[[nodiscard]] attempt make_changes(store &store, MDB_txn *txn, write_request *group)
{
    for (write_request *each = group; each != nullptr; each = each->next) {
        const attempt result = each->maker.make(
            each->maker.work, write_transaction(txn, each->in, store.journal.changes));
        if (result.engine_error != 0)
            return result;
        each->status = result.status;
    }
    return with_status(0);
}

// One attempt to make and commit the changes of a group, which is taken from the queue if there is
// none yet: as late as possible.
[[nodiscard]] attempt write_group(store &store, write_request **group)
{
    MDB_txn *txn = nullptr;
    if (const int error = begin_change(store, &txn); error != 0)
        return with_engine_error(error);
    if (*group == nullptr)
        *group = take_all(store.queue);
    if (const attempt result = make_changes(store, txn, *group); !result.is_good()) {
        abort_change(store, txn);
        return result;
    }
    if (store.journal.changes.is_summary() && (*group)->next != nullptr) {
        abort_change(store, txn); // each would be in the journal if it was written alone
        return with_status(KVS_RC_BATCH_FULL);
    }
    return with_engine_error(commit_change(store, txn));
}

// Returns the status of a group that could not be written.
[[nodiscard]] uint32_t write_until_status(store &store, thread_context &thread,
                                          write_request **group)
{
    return attempt_until_status(store, thread, recover_as_writer,
                                [&] { return write_group(store, group); });
}

[[nodiscard]] write_request *middle_of(write_request *list)
{
    write_request *middle = list;
    for (const write_request *end = list->next->next; end != nullptr && end->next != nullptr;
         end = end->next->next)
        middle = middle->next;
    return middle;
}

// Deals with a list that could not be written together: gives a single request the status, and
// writes parts of a longer list, so one that fails takes nothing with it.
void write_parts(store &store, thread_context &thread, write_request *list, uint32_t status)
{
    if (list->next == nullptr) {
        list->status = status;
        return;
    }
    write_request *const middle = middle_of(list);
    write_request *const rest = middle->next;
    middle->next = nullptr;
    for (write_request *part : {list, rest})
        if (const uint32_t failed = write_until_status(store, thread, &part); failed != 0)
            write_parts(store, thread, part, failed);
    middle->next = rest;
}

[[nodiscard]] write_request *write_waiting(store &store, thread_context &thread)
{
    const scoped_lock writing(store.writer_mutex);
    write_request *group = nullptr;
    const uint32_t status = write_until_status(store, thread, &group);
    if (group == nullptr)
        group = take_all(store.queue);
    if (status != 0)
        write_parts(store, thread, group, status);
    return group;
}

// A request is gone as soon as its thread is woken.
void wake_others(write_request *group, const write_request &own)
{
    while (group != nullptr) {
        write_request *const next = group->next;
        if (group != &own)
            sem_post(&group->wake);
        group = next;
    }
}

void wait_for_wake(sem_t &wake)
{
    while (sem_wait(&wake) != 0) {
    }
}

} // namespace

bool is_in_memory_batch(kvs_hdl hdl, uint32_t length, call_context *call)
{
    // The engine has room for 131,072 changed pages, and looks for room for twice a change.
    constexpr size_t most_pages = 131'072 / database_limit / 4;
    constexpr uint32_t longest_change = 64 * 1024;
    const thread_context *const thread = cached_context;
    MDB_stat tree;
    return thread != nullptr && thread->open_batch.store != nullptr && length <= longest_change &&
           make_call_context(hdl, call) == 0 && call->in_batch() &&
           mdb_stat(thread->open_batch.txn, call->database->tree.dbi, &tree) == 0 &&
           tree.ms_branch_pages + tree.ms_leaf_pages + tree.ms_overflow_pages <= most_pages;
}

uint32_t write_in_turn(const call_context &call, const change_maker &maker)
{
    store &store = *call.store;
    write_request request{*call.database, maker};
    sem_init(&request.wake, 0, 0);
    // Once it is in the queue, another thread may appoint the request its leader at any time.
    const bool leads_at_once = enqueue(store.queue, request);
    if (!leads_at_once)
        wait_for_wake(request.wake);
    if (leads_at_once || request.is_leader) {
        write_request *const group = write_waiting(store, *call.thread);
        appoint_next_leader(store.queue);
        wake_others(group, request);
    }
    sem_destroy(&request.wake);
    return request.status;
}

} // namespace platform
