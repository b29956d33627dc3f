// The threads that use stores: what each keeps, and how they enter a store or are kept out of it.
#pragma once

#include "platform/kvs/record_cache.h"
#include "platform/kvs/store.h"

namespace platform {

struct batch {
    platform::store *store = nullptr; // null if the thread has no batch
    MDB_txn *txn = nullptr;
    unsigned database_count = 0; // the transaction cannot use databases bound later
    bool is_broken = false;
};

struct thread_context {
    std::atomic<uint32_t> entered{0}; // the stores that the thread has entered, a bit each
    uint32_t entered_by_batch = 0;    // those of them that it does not leave between calls
    MDB_txn *read_txns[store_limit] = {};
    batch open_batch;
    record_cache cache;
    const database *listed = nullptr; // the database that the thread listed last
    thread_context *next = nullptr;
};

extern constinit thread_local thread_context *cached_context;

thread_context *make_thread_context();

// Returns the calling thread's context, or null if there is no memory for one.
inline thread_context *current_thread()
{
    return cached_context != nullptr ? cached_context : make_thread_context();
}

// Sleeps between two checks of a state that another thread is about to change.
void sleep_briefly();

void wait_for_shared_access(const store &store);

// Prevents the replacement of a store's environment as long as it exists.
class environment_guard {
public:
    environment_guard(store &store, thread_context &thread) : thread_(thread)
    {
        // Both sides store their own flag before they load the other's, so at least one of the two
        // loads the flag that the other has set.
        for (;;) {
            thread.entered.store(thread.entered_by_batch | 1u << store.index,
                                 std::memory_order_seq_cst);
            if (!store.is_exclusive.load(std::memory_order_seq_cst)) [[likely]]
                return;
            leave();
            wait_for_shared_access(store);
        }
    }
    environment_guard(const environment_guard &) = delete;
    environment_guard &operator=(const environment_guard &) = delete;
    ~environment_guard() { leave(); }

private:
    void leave() { thread_.entered.store(thread_.entered_by_batch, std::memory_order_release); }

    thread_context &thread_;
};

// Keeps all other threads out of a store, and begins a new epoch of its environment. The caller
// holds the environment mutex, and has not entered the store.
class exclusive_access {
public:
    explicit exclusive_access(store &store);
    exclusive_access(const exclusive_access &) = delete;
    exclusive_access &operator=(const exclusive_access &) = delete;
    ~exclusive_access();

    // Closes the environment, if there is one, after the read transactions of all threads.
    void close_environment();

private:
    store &store_;
};

// Clears the thread's batch, whose transaction has ended, and unlocks the writer mutex.
void release_batch(thread_context &thread);

// Aborts the thread's batch, if it has one.
void abort_open_batch(thread_context &thread);

} // namespace platform
