// The table of stores: binding databases, mending environments, batches, and the words for
// failures.
#include "platform/kvs/store.h"

#include "platform/base/descriptor.h"
#include "platform/base/mutex.h"
#include "platform/base/state_dir.h"
#include "verbose.h"

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>

namespace platform {

constinit pthread_mutex_t stores_mutex = PTHREAD_MUTEX_INITIALIZER;
constinit store stores[store_limit];
constinit std::atomic<unsigned> store_count{0};

namespace {

// A database handle: this tag, then the store's index and the database's, a byte each.
constexpr uint64_t handle_tag = 0x564B'5644'4220;

constexpr uint64_t least_batch_room = uint64_t{1} << 30;
constexpr uint64_t largest_map = uint64_t{1} << 46;

// ---- failures ----

struct meaning {
    int code;
    uint32_t status;
};

constexpr meaning meanings[] = {
    {ENOMEM, KVS_RC_NO_MEMORY},
    {EAGAIN, KVS_RC_NO_MEMORY},
    {ENOSPC, KVS_RC_NO_SPACE},
    {EDQUOT, KVS_RC_NO_SPACE},
    {EFBIG, KVS_RC_NO_SPACE},
    {EMFILE, KVS_RC_NO_DESCRIPTORS},
    {ENFILE, KVS_RC_NO_DESCRIPTORS},
    {EACCES, KVS_RC_ACCESS},
    {EPERM, KVS_RC_ACCESS},
    {EROFS, KVS_RC_ACCESS},
    {ELOOP, KVS_RC_STATE_DIR},
    {ENOTDIR, KVS_RC_STATE_DIR},
    {ENOENT, KVS_RC_NO_SUCH_DB},
    {MDB_CORRUPTED, KVS_RC_DAMAGED},
    {MDB_INVALID, KVS_RC_DAMAGED},
    {MDB_VERSION_MISMATCH, KVS_RC_DAMAGED},
    {MDB_PAGE_NOTFOUND, KVS_RC_DAMAGED},
    {MDB_INCOMPATIBLE, KVS_RC_DAMAGED},
    {MDB_CURSOR_FULL, KVS_RC_DAMAGED},
    {MDB_PAGE_FULL, KVS_RC_DAMAGED},
    {MDB_BAD_VALSIZE, KVS_RC_DAMAGED},
    {MDB_NOTFOUND, KVS_RC_NO_SUCH_DB},
    {MDB_DBS_FULL, KVS_RC_TOO_MANY_DBS},
    {MDB_READERS_FULL, KVS_RC_READERS_FULL},
    {MDB_MAP_FULL, KVS_RC_BATCH_FULL},
    {MDB_TXN_FULL, KVS_RC_BATCH_FULL},
    {MDB_BAD_TXN, KVS_RC_BATCH_BROKEN},
};

uint32_t status_of(int code)
{
    for (const meaning &it : meanings)
        if (it.code == code)
            return it.status;
    return KVS_RC_IO;
}

// When a write comes out short the engine says EIO, whatever stopped it. Asking for room where the
// file ends now, behind what was written, tells whether that was the want of it.
int cause_of_failed_change(MDB_env *engine, int code)
{
    MDB_envinfo about;
    MDB_stat sizes;
    struct stat file;
    int fd = -1;
    if (code != EIO || engine == nullptr || mdb_env_get_fd(engine, &fd) != 0 ||
        mdb_env_info(engine, &about) != 0 || mdb_env_stat(engine, &sizes) != 0 ||
        fstat(fd, &file) != 0)
        return code;
    const auto known_end = static_cast<off_t>((about.me_last_pgno + 1) * sizes.ms_psize);
    const off_t end = std::max(known_end, file.st_size);
    const bool has_room = fallocate(fd, 0, end, 64 * 1024) == 0;
    return !has_room && (errno == ENOSPC || errno == EDQUOT || errno == EFBIG) ? errno : code;
}

// ---- the environment of a store ----

// Moves to a map of at least `bytes`, and of at least the store's size.
int enlarge_map(store &home, uint64_t bytes)
{
    MDB_envinfo about;
    MDB_stat sizes;
    int fd = -1;
    if (int error = mdb_env_info(home.engine, &about);
        error != 0 || (error = mdb_env_stat(home.engine, &sizes)) != 0 ||
        (error = mdb_env_get_fd(home.engine, &fd)) != 0)
        return error;
    bytes = std::max<uint64_t>(bytes, (about.me_last_pgno + 1) * sizes.ms_psize);
    if (bytes <= about.me_mapsize)
        return 0;
    clear_slots(home.engine, nullptr);
    // The engine gives up the old map before it asks for the new one, and is lost when it gets
    // none.
    void *const trial = mmap(nullptr, bytes, PROT_READ, MAP_SHARED, fd, 0);
    if (trial == MAP_FAILED)
        return errno;
    munmap(trial, bytes);
    const shut_store alone(home);
    ++home.mends;
    const int error = mdb_env_set_mapsize(home.engine, bytes);
    if (error != 0)
        close_engine(home);
    return error;
}

// Keeps what was opened in a transaction that only read, or does not.
int end_reading(MDB_txn *txn, bool keep)
{
    if (keep)
        return mdb_txn_commit(txn);
    mdb_txn_abort(txn);
    return 0;
}

int open_databases(store &home)
{
    MDB_txn *txn = nullptr;
    int error = begin_reading(home.engine, &txn);
    if (error != 0)
        return error;
    for (unsigned i = 0; i < home.database_count && error == 0; ++i)
        error = mdb_dbi_open(txn, home.databases[i].name, MDB_INTEGERKEY, &home.databases[i].dbi);
    const int failed = end_reading(txn, error == 0);
    return error != 0 ? error : failed;
}

int open_commit_numbers(store &home)
{
    int fd = -1;
    struct stat about;
    const int error = mdb_env_get_fd(home.engine, &fd);
    if (error != 0 || fstat(fd, &about) != 0)
        return error != 0 ? error : errno;
    if (home.first_commit_number != nullptr && home.file_device == about.st_dev &&
        home.file_inode == about.st_ino)
        return 0;
    commit_numbers numbers;
    if (const int failed = map_commit_numbers(home.engine, &numbers); failed != 0)
        return failed;
    home.file_device = about.st_dev;
    home.file_inode = about.st_ino;
    home.first_commit_number = numbers.first;
    home.second_commit_number = numbers.second;
    return 0;
}

int reopen(store &home)
{
    const shut_store alone(home);
    const scoped_lock lock(stores_mutex);
    ++home.mends;
    close_engine(home);
    int error = open_engine(home.dir, false, &home.engine);
    if (error == 0 &&
        ((error = open_commit_numbers(home)) != 0 || (error = open_databases(home)) != 0))
        close_engine(home);
    // Another process may have written more than fits the new map already.
    return error == MDB_MAP_RESIZED ? 0 : error;
}

int double_map(store &home)
{
    MDB_envinfo about;
    const int error = mdb_env_info(home.engine, &about);
    return error != 0 ? error : enlarge_map(home, uint64_t{2} * about.me_mapsize);
}

uint32_t clear_dead_readers(store &home, thread_context &me)
{
    const visit inside(home, me);
    if (home.engine == nullptr)
        return 0;
    int dead = 0;
    int error = clear_slots(home.engine, &dead);
    if (error == 0 && dead == 0)
        error = MDB_READERS_FULL;
    return error != 0 ? explain("clearing the readers' table", error) : 0;
}

// ---- binding ----

bool find_bound(const store &home, const char *name, kvs_hdl *hdl)
{
    const unsigned count = home.database_count.load(std::memory_order_acquire);
    for (unsigned i = 0; i < count; ++i)
        if (strcmp(home.databases[i].name, name) == 0) {
            *hdl = handle_tag << 16 | home.index << 8 | i;
            return true;
        }
    return false;
}

uint32_t open_store(descriptor dir, const struct stat &about, bool create, store **home_p)
{
    const unsigned count = store_count.load(std::memory_order_relaxed);
    if (count == store_limit)
        return explain("opening one more store", MDB_DBS_FULL);
    store &home = stores[count];
    int error = open_engine(dir.get(), create, &home.engine);
    if (error == 0 && (error = open_commit_numbers(home)) != 0) {
        mdb_env_close(home.engine);
        home.engine = nullptr;
    }
    if (error != 0)
        return explain("opening the store", error);
    home.device = about.st_dev;
    home.inode = about.st_ino;
    home.dir = dir.release();
    home.index = count;
    store_count.store(count + 1, std::memory_order_release);
    *home_p = &home;
    return 0;
}

// The store in the state directory that the environment names now.
uint32_t find_store(thread_context &me, bool create, store **home_p)
{
    descriptor dir(open_state_dir(create));
    struct stat about;
    if (!dir.valid() || fstat(dir.get(), &about) != 0) {
        if (errno == ENOENT && !create)
            return KVS_RC_NO_SUCH_DB;
        const uint32_t status = status_of(errno);
        const bool is_resource = status == KVS_RC_NO_MEMORY || status == KVS_RC_NO_SPACE ||
                                 status == KVS_RC_NO_DESCRIPTORS;
        return is_resource ? status : KVS_RC_STATE_DIR;
    }
    const scoped_lock lock(stores_mutex);
    for (unsigned i = 0; i < store_count; ++i)
        if (stores[i].device == about.st_dev && stores[i].inode == about.st_ino) {
            *home_p = &stores[i];
            return 0;
        }
    if (me.open_batch.in != nullptr)
        return KVS_RC_BATCH_ACTIVE;
    return open_store(std::move(dir), about, create, home_p);
}

int open_one_more(store &home, const char *name, unsigned create)
{
    const unsigned count = home.database_count.load(std::memory_order_relaxed);
    if (count == database_limit)
        return MDB_DBS_FULL;
    database &next = home.databases[count];
    MDB_txn *txn = nullptr;
    int error = create != 0 ? begin_changing(home.engine, &txn) : begin_reading(home.engine, &txn);
    if (error != 0)
        return error;
    unsigned flags = 0;
    if ((error = mdb_dbi_open(txn, name, MDB_INTEGERKEY | create, &next.dbi)) == 0 &&
        (error = mdb_dbi_flags(txn, next.dbi, &flags)) == 0 && flags != MDB_INTEGERKEY)
        error = MDB_INCOMPATIBLE;
    const bool keep = error == 0;
    const int failed = create != 0 ? end_change(home, txn, keep) : end_reading(txn, keep);
    if (error != 0 || failed != 0)
        return error != 0 ? error : failed;
    strcpy(next.name, name);
    home.database_count.store(count + 1, std::memory_order_release);
    return 0;
}

// Opens the named database; the caller holds the binder's lock, and when it is to be created it is
// the writer too.
uint32_t open_and_mend(store &home, thread_context &me, const char *name, unsigned create)
{
    for (;;) {
        int error = not_open;
        uint64_t mends = 0;
        {
            const visit inside(home, me);
            mends = home.mends;
            if (home.engine != nullptr)
                error = open_one_more(home, name, create);
        }
        if (error == 0 || error == MDB_NOTFOUND)
            return error == 0 ? 0 : KVS_RC_NO_SUCH_DB;
        const uint32_t status =
            create != 0 ? mend_as_writer(home, me, error, mends) : mend(home, me, error, mends);
        if (status != 0)
            return status;
    }
}

// ---- batches ----

void make_batch_room(store &home)
{
    MDB_envinfo about;
    MDB_stat sizes;
    if (home.engine == nullptr || mdb_env_info(home.engine, &about) != 0 ||
        mdb_env_stat(home.engine, &sizes) != 0)
        return;
    const uint64_t used = (about.me_last_pgno + 1) * sizes.ms_psize;
    uint64_t wanted = std::min(home.batch_scale * (2 * used + least_batch_room), largest_map);
    while (wanted > about.me_mapsize && enlarge_map(home, wanted) == ENOMEM)
        wanted = wanted / 2 / sizes.ms_psize * sizes.ms_psize;
}

void end_batch(thread_context &me)
{
    store &home = *me.open_batch.in;
    me.open_batch = {};
    me.held = 0;
    me.inside.store(0, std::memory_order_release);
    pthread_mutex_unlock(&home.writer);
}

uint32_t explain_in_batch(store &home, int code)
{
    if (code == MDB_MAP_FULL || code == MDB_TXN_FULL)
        home.batch_scale = std::min(home.batch_scale * 4, largest_map / least_batch_room);
    return explain("changing in a batch", cause_of_failed_change(home.engine, code));
}

} // namespace

// ---- what a call does with a store ----

uint32_t explain(const char *what, int code)
{
    verbose_printf_local(DBG_VS_PLATFORM, "kvs: %s: %s", what,
                         code > 0 ? error_text(code) : mdb_strerror(code));
    return status_of(code);
}

uint32_t bind_database(const char *name, bool create, kvs_hdl *hdl)
{
    thread_context *const me = my_context();
    if (me == nullptr)
        return KVS_RC_NO_MEMORY;
    store *home = nullptr;
    if (const uint32_t status = find_store(*me, create, &home); status != 0)
        return status;
    if (find_bound(*home, name, hdl))
        return 0;
    if (me->open_batch.in != nullptr)
        return KVS_RC_BATCH_ACTIVE;
    const scoped_lock binding(home->binder);
    if (find_bound(*home, name, hdl))
        return 0;
    uint32_t status = open_and_mend(*home, *me, name, 0);
    if (status == KVS_RC_NO_SUCH_DB && create) {
        const scoped_lock writing(home->writer);
        status = open_and_mend(*home, *me, name, MDB_CREATE);
    }
    if (status == 0)
        find_bound(*home, name, hdl);
    return status;
}

uint32_t locate(kvs_hdl hdl, place *at)
{
    const auto index = static_cast<unsigned>(hdl >> 8 & 0xFF);
    if (hdl >> 16 != handle_tag || index >= store_count.load(std::memory_order_acquire))
        return KVS_RC_BAD_HDL;
    store &home = stores[index];
    const auto number = static_cast<unsigned>(hdl & 0xFF);
    if (number >= home.database_count.load(std::memory_order_acquire))
        return KVS_RC_BAD_HDL;
    thread_context *const me = my_context();
    if (me == nullptr)
        return KVS_RC_NO_MEMORY;
    *at = {&home, &home.databases[number], me};
    if (!at->in_batch())
        return 0;
    if (me->open_batch.broken)
        return KVS_RC_BATCH_BROKEN;
    return number < me->open_batch.database_count ? 0 : KVS_RC_BATCH_ACTIVE;
}

int begin_read(store &home, thread_context &me)
{
    MDB_txn *&txn = me.readers[home.index];
    return txn != nullptr ? mdb_txn_renew(txn) : begin_reading(home.engine, &txn);
}

int end_change(store &home, MDB_txn *txn, bool keep)
{
    int code = 0;
    if (keep)
        code = cause_of_failed_change(home.engine, mdb_txn_commit(txn));
    else
        mdb_txn_abort(txn);
    end_changing(home.engine);
    return code;
}

uint32_t mend_as_writer(store &home, thread_context &me, int code, uint64_t mends)
{
    if (code == MDB_READERS_FULL)
        return clear_dead_readers(home, me);
    if (home.mends != mends)
        return 0;
    int error = code;
    if (code == not_open || code == MDB_PANIC)
        error = reopen(home);
    else if (code == MDB_MAP_RESIZED)
        error = enlarge_map(home, 0);
    else if (code == MDB_MAP_FULL)
        error = double_map(home);
    return error != 0 ? explain("using the store", error) : 0;
}

uint32_t mend(store &home, thread_context &me, int code, uint64_t mends)
{
    if (code == MDB_READERS_FULL)
        return clear_dead_readers(home, me);
    if (code != not_open && code != MDB_PANIC && code != MDB_MAP_RESIZED)
        return explain("reading the store", code);
    // Whoever writes meets the same and mends it; to wait for the end of a batch is not a reader's.
    if (pthread_mutex_trylock(&home.writer) != 0) {
        nap();
        return 0;
    }
    const uint32_t status = mend_as_writer(home, me, code, mends);
    pthread_mutex_unlock(&home.writer);
    return status;
}

uint32_t begin_batch(kvs_hdl hdl)
{
    place at;
    if (const uint32_t status = locate(hdl, &at); status != 0)
        return status;
    thread_context &me = *at.me;
    store &home = *at.home;
    if (me.open_batch.in != nullptr)
        return KVS_RC_BATCH_ACTIVE;
    pthread_mutex_lock(&home.writer);
    for (;;) {
        make_batch_room(home);
        int error = not_open;
        {
            const visit inside(home, me);
            MDB_txn *txn = nullptr;
            const unsigned count = home.database_count.load(std::memory_order_acquire);
            if (home.engine != nullptr)
                error = begin_changing(home.engine, &txn);
            if (error == 0) {
                me.open_batch = {&home, txn, count, false};
                me.held = 1u << home.index;
                return 0;
            }
        }
        if (const uint32_t status = mend_as_writer(home, me, error, home.mends); status != 0) {
            pthread_mutex_unlock(&home.writer);
            return status;
        }
    }
}

uint32_t break_batch(thread_context &me, int code)
{
    me.open_batch.broken = true;
    return explain_in_batch(*me.open_batch.in, code);
}

uint32_t commit_batch()
{
    thread_context *const me = my_context();
    if (me == nullptr || me->open_batch.in == nullptr)
        return KVS_RC_NO_BATCH;
    if (me->open_batch.broken) {
        abort_batch(*me);
        return KVS_RC_BATCH_BROKEN;
    }
    const int code = end_change(*me->open_batch.in, me->open_batch.txn, true);
    const uint32_t status = code != 0 ? explain_in_batch(*me->open_batch.in, code) : 0;
    end_batch(*me);
    return status;
}

uint32_t abort_batch(thread_context &me)
{
    if (me.open_batch.in == nullptr)
        return KVS_RC_NO_BATCH;
    end_change(*me.open_batch.in, me.open_batch.txn, false);
    end_batch(me);
    return 0;
}

} // namespace platform
