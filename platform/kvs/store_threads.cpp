// The threads that use stores: what each keeps, how they are kept out, and what a fork leaves of
// them.
//
// A child gets the parent's memory, but neither its threads nor its locks on the lock file. So it
// goes on with nothing but the names: the environments are forgotten, not closed, since some thread
// may have been in the midst of changing them, and since the engine forbids it. Their maps and
// descriptors stay behind in the child. The same goes for the transactions, whose reader slots are
// the parent's.
#include "platform/base/mutex.h"
#include "platform/kvs/store.h"

#include <ctime>
#include <new>

namespace platform {

constinit thread_local thread_context *cached_context = nullptr;

namespace {

pthread_mutex_t threads_mutex = PTHREAD_MUTEX_INITIALIZER;
thread_context *threads = nullptr;

pthread_key_t end_of_thread;
bool has_key = false;
bool has_handlers = false;

void forget_thread(void *value)
{
    auto *const me = static_cast<thread_context *>(value);
    abort_batch(*me);
    {
        const scoped_lock lock(threads_mutex);
        for (thread_context **link = &threads; *link != nullptr; link = &(*link)->next)
            if (*link == me) {
                *link = me->next;
                break;
            }
        for (MDB_txn *const txn : me->readers)
            if (txn != nullptr)
                mdb_txn_abort(txn);
    }
    cached_context = nullptr;
    me->~thread_context();
    free(me);
}

void hold_still()
{
    pthread_mutex_lock(&threads_mutex);
    pthread_mutex_lock(&stores_mutex);
}

void go_on()
{
    pthread_mutex_unlock(&stores_mutex);
    pthread_mutex_unlock(&threads_mutex);
}

void go_on_in_child()
{
    for (unsigned i = 0; i < store_count.load(std::memory_order_relaxed); ++i) {
        stores[i].engine = nullptr;
        ++stores[i].mends;
        pthread_mutex_init(&stores[i].writer, nullptr);
        pthread_mutex_init(&stores[i].binder, nullptr);
    }
    pthread_mutex_init(&slots_mutex, nullptr);
    threads = cached_context;
    if (thread_context *const me = cached_context; me != nullptr) {
        me->inside.store(0, std::memory_order_relaxed);
        me->held = 0;
        for (MDB_txn *&txn : me->readers)
            txn = nullptr;
        me->open_batch = {};
        me->window.clear();
        me->next = nullptr;
    }
    go_on();
}

bool prepare()
{
    has_key = has_key || pthread_key_create(&end_of_thread, forget_thread) == 0;
    has_handlers = has_handlers || pthread_atfork(hold_still, go_on, go_on_in_child) == 0;
    return has_key && has_handlers;
}

} // namespace

thread_context *make_context()
{
    const scoped_lock lock(threads_mutex);
    if (!prepare())
        return nullptr;
    void *const memory = malloc(sizeof(thread_context));
    if (memory == nullptr)
        return nullptr;
    auto *const me = new (memory) thread_context;
    if (pthread_setspecific(end_of_thread, me) != 0) {
        free(memory);
        return nullptr;
    }
    me->next = threads;
    threads = me;
    cached_context = me;
    return me;
}

void nap()
{
    const timespec fifty_microseconds{0, 50'000};
    nanosleep(&fifty_microseconds, nullptr);
}

void wait_outside(const store &home)
{
    while (home.shut.load(std::memory_order_acquire))
        nap();
}

shut_store::shut_store(store &home) : home_(home)
{
    pthread_mutex_lock(&threads_mutex);
    home.shut.store(true, std::memory_order_seq_cst);
    for (const thread_context *other = threads; other != nullptr; other = other->next)
        while ((other->inside.load(std::memory_order_seq_cst) & 1u << home.index) != 0)
            nap();
}

shut_store::~shut_store()
{
    home_.shut.store(false, std::memory_order_release);
    pthread_mutex_unlock(&threads_mutex);
}

void close_engine(store &home)
{
    if (home.engine == nullptr)
        return;
    for (thread_context *each = threads; each != nullptr; each = each->next) {
        MDB_txn *&txn = each->readers[home.index];
        if (txn != nullptr)
            mdb_txn_abort(txn);
        txn = nullptr;
    }
    mdb_env_close(home.engine);
    home.engine = nullptr;
}

} // namespace platform
