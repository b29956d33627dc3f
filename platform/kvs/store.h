// Stores, the threads that use them, and what is done to a store as a whole.
//
// A process has one environment of the engine for each store, however many paths lead to it. The
// environment is replaced when a fork or a failed write has made it useless, and its map is moved
// when the store outgrows it. Neither may happen under a transaction, so each thread says when it
// is inside a store, and whoever changes the environment shuts the store and waits until all are
// out:
//
//  - `writer` is held by a thread that changes the store, for the whole of a batch, and by whoever
//    changes the environment. It is taken from outside only.
//  - A thread is inside for the length of one attempt, or of one batch. The thread with a batch
//    passes a shut store, but as it is the writer too, the store is never shut meanwhile.
//
// An attempt that fails for want of room, or with a useless environment, is undone; the store is
// mended, and the attempt made again.
//
// The order of the locks: binder, writer, threads, stores.
#pragma once

#include "platform/kvs/data_file.h"
#include "platform/kvs/record_cache.h"
#include "platform/kvs/store_file.h"

#include <atomic>
#include <pthread.h>
#include <sys/types.h>

namespace platform {

constexpr unsigned store_limit = 8;
constexpr unsigned name_limit = 64;

// Says that the store has no environment at the moment. The engine's own codes lie far below.
constexpr int not_open = -1;

struct database {
    MDB_dbi dbi = 0;
    char name[name_limit + 1] = {};
};

struct store {
    std::atomic<bool> shut{false};
    MDB_env *engine = nullptr; // changes only while the store is shut
    uint64_t mends = 0;        // how often it did, or its map
    pthread_mutex_t writer = PTHREAD_MUTEX_INITIALIZER;
    pthread_mutex_t binder = PTHREAD_MUTEX_INITIALIZER; // held while a database is being opened
    std::atomic<unsigned> database_count{0};
    database databases[database_limit];
    uint64_t batch_scale = 1;
    // Mapped apart from the environment, so that they can be read from outside, and only once for
    // each file: a store has a second one only when its file was replaced under our feet.
    std::atomic<const uint64_t *> first_commit_number{nullptr};
    std::atomic<const uint64_t *> second_commit_number{nullptr};
    dev_t file_device = 0;
    ino_t file_inode = 0;
    int dir = -1;
    dev_t device = 0;
    ino_t inode = 0;
    unsigned index = 0; // in the table of stores

    [[nodiscard]] commit_numbers numbers() const
    {
        return {first_commit_number.load(std::memory_order_acquire),
                second_commit_number.load(std::memory_order_acquire)};
    }
};

struct batch {
    store *in = nullptr;
    MDB_txn *txn = nullptr;
    unsigned database_count = 0; // later ones the transaction does not know
    bool broken = false;
};

struct thread_context {
    std::atomic<uint32_t> inside{0}; // the stores that the thread is inside of, a bit each
    uint32_t held = 0;               // those of them that it stays inside of between calls
    MDB_txn *readers[store_limit] = {};
    batch open_batch;
    record_window window;
    const database *listed = nullptr; // the database that the thread listed last
    thread_context *next = nullptr;
};

// A database as seen from one call.
struct place {
    store *home;
    database *records;
    thread_context *me;

    [[nodiscard]] bool in_batch() const { return me->open_batch.in == home; }
    [[nodiscard]] uint32_t number() const // of the database in the store
    {
        return static_cast<uint32_t>(records - home->databases);
    }
};

// What an attempt came to: a status, or the engine's code for why there is none.
struct outcome {
    uint32_t status;
    int code;

    [[nodiscard]] bool is_good() const { return status == 0 && code == 0; }
};

constexpr outcome answer(uint32_t status) { return {status, 0}; }
constexpr outcome failure(int code) { return {0, code}; }

// ---- threads (store_threads.cpp) ----

extern constinit thread_local thread_context *cached_context;

thread_context *make_context();

// The calling thread's context, or null when there is no memory for one.
inline thread_context *my_context()
{
    return cached_context != nullptr ? cached_context : make_context();
}

void nap();

void wait_outside(const store &home);

// The calling thread's stay inside a store.
class visit {
public:
    visit(store &home, thread_context &me) : me_(me)
    {
        // Both sides say what they are about to do before they look at the other, so that at least
        // one of the two sees it.
        for (;;) {
            me.inside.store(me.held | 1u << home.index, std::memory_order_seq_cst);
            if (!home.shut.load(std::memory_order_seq_cst)) [[likely]]
                return;
            leave();
            wait_outside(home);
        }
    }
    visit(const visit &) = delete;
    visit &operator=(const visit &) = delete;
    ~visit() { leave(); }

private:
    void leave() { me_.inside.store(me_.held, std::memory_order_release); }

    thread_context &me_;
};

// Keeps all others out of a store. The caller is its writer, and outside.
class shut_store {
public:
    explicit shut_store(store &home);
    shut_store(const shut_store &) = delete;
    shut_store &operator=(const shut_store &) = delete;
    ~shut_store();

private:
    store &home_;
};

// Closes the environment of a store that is shut, and what all threads have of it.
void close_engine(store &home);

// ---- stores (store.cpp) ----

extern pthread_mutex_t stores_mutex;
extern store stores[store_limit];
extern std::atomic<unsigned> store_count;

// Binds the named database and gives its handle; makes store and database when `create` is true.
uint32_t bind_database(const char *name, bool create, kvs_hdl *hdl);

// Finds out what a handle stands for. Returns a status.
uint32_t locate(kvs_hdl hdl, place *at);

// Opens or renews the thread's read transaction; the thread is inside.
int begin_read(store &home, thread_context &me);

// Commits or aborts a change. Returns 0 or the engine's code.
int end_change(store &home, MDB_txn *txn, bool keep);

// Removes the cause of a failed attempt, or at least finds that another thread is about to. Returns
// 0 when the attempt is to be made again, or the status to return. `mends` is what it was during
// the attempt. The caller is outside; that of mend_as_writer is the writer.
uint32_t mend(store &home, thread_context &me, int code, uint64_t mends);
uint32_t mend_as_writer(store &home, thread_context &me, int code, uint64_t mends);

uint32_t begin_batch(kvs_hdl hdl);
uint32_t commit_batch();
uint32_t abort_batch(thread_context &me);

// The status for a failed change in the thread's batch, which is broken from then on.
uint32_t break_batch(thread_context &me, int code);

// The status for a code of the engine, after one debug line about it.
uint32_t explain(const char *what, int code);

} // namespace platform
