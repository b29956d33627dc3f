// What a store is.
//
// A process has one environment of the engine for each store, however many paths lead to it. The
// environment is replaced when a fork or a failed write has made it useless, and its map is moved
// when the store outgrows it. Neither may happen under a transaction: a thread that uses the
// environment enters the store through an environment_guard, and a thread that replaces it gets
// exclusive_access first, which waits until all others have left:
//
//  - `writer_mutex` is held by a thread that changes the store, for the whole of a batch, and while
//    it waits for other processes that write.
//  - `environment_mutex` is held by a thread that replaces the environment, and never during a
//    wait for other processes that write. Both are locked outside the store.
//  - A thread stays in the store for one attempt, or for one batch. It does not stay there while it
//    waits for other processes that write, so that readers need not wait for them either.
//  - An environment in which a batch has begun is fit for all reads until the batch ends, unless
//  the
//    store's files are replaced or its descriptors closed meanwhile. Only then does exclusive
//    access wait for a batch. A thread with a batch does not enter the store again, and so never
//    waits for the end of exclusive access to it.
//
// An attempt that fails for lack of room, or because of a useless environment, is undone; the store
// is recovered, and the attempt made again.
//
// The order of the locks: binding, writer, environment, threads, stores, reader table. Under the
// mutex of a queue no other is locked.
//
// The files of this directory, from the lowest up; each includes only files of lower lines:
//
//    record  attempt  store_limits  engine_status  environment_info  file_layout  user_marks
//    file_lock
//    record_value  record_cache  open_files  journal_entry  arguments
//    engine_transactions  write_transaction
//    page
//    key_order  journal
//    page_walk  new_data_file
//    data_file
//    store_file  damaged_file  commit_wait
//    salvage
//    store
//    change_commit
//    threads
//    call_context  environment
//    recovery
//    files_check
//    binding  batch
//    write_queue  read_transaction  journal_reader
//    kvs  journal_call  salvage_call
#pragma once

#include "platform/kvs/data_file.h"
#include "platform/kvs/engine_transactions.h"
#include "platform/kvs/journal.h"
#include "platform/kvs/store_file.h"
#include "platform/kvs/write_transaction.h"

#include <atomic>
#include <pthread.h>

namespace platform {

constexpr unsigned store_limit = 8;

// The journal of a store, and the changes that the next entry is made of. A thread uses it that
// holds the writer mutex and has entered the store, or that has exclusive access. All threads in
// the store may read the area, which changes under exclusive access only.
struct store_journal {
    journal_area area;
    journal_end end;
    change_author author = {};
    entry_builder changes;
    // Of a commit that failed, if its entry could not be removed durably yet; else 0.
    uint64_t failed_commit = 0;
    uint64_t failed_offset = 0;
};

// The changes that wait for a commit; see write_queue.h.
struct write_request;
struct write_queue {
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    write_request *first = nullptr;
    write_request *last = nullptr;
    bool has_leader = false; // a thread that will take all requests
};

struct store {
    std::atomic<bool> is_exclusive{false}; // no other thread may enter
    MDB_env *environment = nullptr;        // replaced under exclusive access only
    uint64_t environment_epoch = 0; // incremented when the environment or its map is replaced
    pthread_mutex_t writer_mutex = PTHREAD_MUTEX_INITIALIZER;
    writer_turn turn; // guarded by the writer mutex
    pthread_mutex_t environment_mutex = PTHREAD_MUTEX_INITIALIZER;
    pthread_mutex_t binding_mutex = PTHREAD_MUTEX_INITIALIZER; // held while a database is opened
    std::atomic<unsigned> database_count{0};
    database databases[database_limit];
    uint64_t batch_scale = 1; // of the room that a batch gets
    store_journal journal;
    write_queue queue;
    open_files files;                   // of the environment
    std::atomic<int64_t> next_check{0}; // of the files by readers, in milliseconds
    // Mapped apart from the environment, so that they can be read without entering the store. The
    // map also keeps the number of the file from being given to another one.
    std::atomic<const uint64_t *> first_commit_number{nullptr};
    std::atomic<const uint64_t *> second_commit_number{nullptr};
    int dir = -1;
    file_identity dir_identity;
    unsigned index = 0; // in the table of stores

    [[nodiscard]] platform::commit_numbers commit_numbers() const
    {
        return {first_commit_number.load(std::memory_order_acquire),
                second_commit_number.load(std::memory_order_acquire)};
    }
};

// The stores of this process. They are added under the mutex and never removed.
inline constinit pthread_mutex_t stores_mutex = PTHREAD_MUTEX_INITIALIZER;
inline constinit store stores[store_limit];
inline constinit std::atomic<unsigned> store_count{0};

} // namespace platform
