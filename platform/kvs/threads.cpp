// A forked child gets the parent's memory, but neither its threads nor its locks on the lock file.
// So it keeps only the names. The environments are dropped without being closed, since a thread may
// have been changing them, and since the engine forbids it. Their descriptors are closed, and
// their maps stay behind in the child. The same holds for the transactions, whose reader slots are
// the parent's.
#include "platform/kvs/threads.h"

#include "platform/base/mutex.h"
#include "platform/kvs/change_commit.h"
#include "platform/kvs/engine_transactions.h"

#include <ctime>
#include <new>

namespace platform {

constinit thread_local thread_context *cached_context = nullptr;

namespace {

pthread_mutex_t threads_mutex = PTHREAD_MUTEX_INITIALIZER;
thread_context *threads = nullptr;

std::atomic<bool> has_handlers{false};
thread_local unsigned handlers_running = 0; // two after handlers were registered twice

pthread_key_t thread_key;
bool has_key = false;

void destroy_thread_context(void *value)
{
    auto *const thread = static_cast<thread_context *>(value);
    abort_open_batch(*thread);
    {
        const scoped_lock lock(threads_mutex);
        for (thread_context **link = &threads; *link != nullptr; link = &(*link)->next)
            if (*link == thread) {
                *link = thread->next;
                break;
            }
        for (MDB_txn *const txn : thread->read_txns)
            if (txn != nullptr)
                mdb_txn_abort(txn);
    }
    cached_context = nullptr;
    thread->~thread_context();
    free(thread);
}

void lock_before_fork()
{
    if (handlers_running++ != 0)
        return;
    pthread_mutex_lock(&threads_mutex);
    pthread_mutex_lock(&stores_mutex);
}

void unlock_after_fork()
{
    if (--handlers_running != 0)
        return;
    pthread_mutex_unlock(&stores_mutex);
    pthread_mutex_unlock(&threads_mutex);
}

void reset_in_child()
{
    if (handlers_running != 1) {
        --handlers_running;
        return;
    }
    for (unsigned i = 0; i < store_count.load(std::memory_order_relaxed); ++i) {
        if (stores[i].environment != nullptr)
            close_descriptors(stores[i].files);
        stores[i].environment = nullptr;
        ++stores[i].environment_epoch;
        stores[i].is_exclusive.store(false, std::memory_order_relaxed);
        pthread_mutex_init(&stores[i].writer_mutex, nullptr);
        stores[i].turn = {};
        pthread_mutex_init(&stores[i].environment_mutex, nullptr);
        pthread_mutex_init(&stores[i].binding_mutex, nullptr);
        stores[i].journal = {};
        stores[i].queue = {};
    }
    pthread_mutex_init(&reader_table_mutex, nullptr);
    threads = cached_context;
    if (thread_context *const thread = cached_context; thread != nullptr) {
        thread->entered.store(0, std::memory_order_relaxed);
        thread->entered_by_batch = 0;
        for (MDB_txn *&txn : thread->read_txns)
            txn = nullptr;
        thread->open_batch = {};
        thread->cache.clear();
        thread->next = nullptr;
    }
    unlock_after_fork();
}

// Returns whether the handlers are registered. They are before any thread can hold a mutex that
// they lock; two threads that both retry after a failure at load time may register them twice.
[[nodiscard]] bool ensure_handlers()
{
    if (!has_handlers && pthread_atfork(lock_before_fork, unlock_after_fork, reset_in_child) == 0)
        has_handlers = true;
    return has_handlers;
}

__attribute__((constructor)) void register_handlers_at_load()
{
    // If there is no memory now, the first thread that uses a store tries again.
    static_cast<void>(ensure_handlers());
}

bool has_threads_within(const store &store)
{
    for (const thread_context *thread = threads; thread != nullptr; thread = thread->next)
        if ((thread->entered.load(std::memory_order_seq_cst) & 1u << store.index) != 0)
            return true;
    return false;
}

} // namespace

thread_context *make_thread_context()
{
    if (!ensure_handlers())
        return nullptr;
    const scoped_lock lock(threads_mutex);
    has_key = has_key || pthread_key_create(&thread_key, destroy_thread_context) == 0;
    if (!has_key)
        return nullptr;
    void *const memory = malloc(sizeof(thread_context));
    if (memory == nullptr)
        return nullptr;
    auto *const thread = new (memory) thread_context;
    if (pthread_setspecific(thread_key, thread) != 0) {
        free(memory);
        return nullptr;
    }
    thread->next = threads;
    threads = thread;
    cached_context = thread;
    return thread;
}

void sleep_briefly()
{
    const timespec fifty_microseconds{0, 50'000};
    nanosleep(&fifty_microseconds, nullptr);
}

void wait_for_shared_access(const store &store)
{
    while (store.is_exclusive.load(std::memory_order_acquire))
        sleep_briefly();
}

// The mutex is free during the pauses, since a thread with a batch may fork, begin threads or use
// other stores before the batch ends.
exclusive_access::exclusive_access(store &store) : store_(store)
{
    store.is_exclusive.store(true, std::memory_order_seq_cst);
    pthread_mutex_lock(&threads_mutex);
    while (has_threads_within(store)) {
        pthread_mutex_unlock(&threads_mutex);
        sleep_briefly();
        pthread_mutex_lock(&threads_mutex);
    }
    ++store.environment_epoch;
}

exclusive_access::~exclusive_access()
{
    store_.is_exclusive.store(false, std::memory_order_release);
    pthread_mutex_unlock(&threads_mutex);
}

void exclusive_access::close_environment()
{
    if (store_.environment == nullptr)
        return;
    for (thread_context *thread = threads; thread != nullptr; thread = thread->next) {
        MDB_txn *&txn = thread->read_txns[store_.index];
        if (txn != nullptr)
            mdb_txn_abort(txn);
        txn = nullptr;
    }
    platform::close_environment(store_.environment);
    store_.environment = nullptr;
}

void release_batch(thread_context &thread)
{
    store &store = *thread.open_batch.store;
    thread.open_batch = {};
    thread.entered_by_batch = 0;
    thread.entered.store(0, std::memory_order_release);
    pthread_mutex_unlock(&store.writer_mutex);
}

void abort_open_batch(thread_context &thread)
{
    if (thread.open_batch.store == nullptr)
        return;
    abort_change(*thread.open_batch.store, thread.open_batch.txn);
    release_batch(thread);
}

} // namespace platform
