// A caller reads a record in three calls in a row: by its key, its size, and its bytes. So what is
// found goes into the thread's cache. The cache is searched first, without entering the
// store. A commit writes its number to the file before its caller returns, and before new readers
// see the commit, so a cache with the last number is never older than a fresh read.
#include "platform/kvs/read_transaction.h"

#include "platform/kvs/batch.h"
#include "platform/kvs/engine_status.h"
#include "platform/kvs/engine_transactions.h"
#include "platform/kvs/files_check.h"
#include "platform/kvs/record_value.h"
#include "platform/kvs/recovery.h"

#include <cerrno>

namespace platform {
namespace {

constexpr unsigned longest_run = 256;

// Commits may overwrite the header of a snapshot before it is read, but not again and again.
constexpr unsigned most_snapshots = 100;

struct cursor_closer {
    void operator()(MDB_cursor *cursor) const { mdb_cursor_close(cursor); }
};

using owned_cursor = std::unique_ptr<MDB_cursor, cursor_closer>;

[[nodiscard]] int open_cursor(MDB_txn *txn, MDB_dbi dbi, owned_cursor *cursor)
{
    MDB_cursor *opened = nullptr;
    const int error = mdb_cursor_open(txn, dbi, &opened);
    cursor->reset(opened);
    return error;
}

// Prefetches whole pages. The records of a page lie in the order in which they were stored, so
// reading them in the order of their keys would wait for each one.
class page_prefetcher {
public:
    void prefetch_page_of(const void *record)
    {
        const uintptr_t page = reinterpret_cast<uintptr_t>(record) / page_size * page_size;
        if (page == page_)
            return;
        page_ = page;
        for (uintptr_t line = 0; line < page_size; line += line_size)
            __builtin_prefetch(reinterpret_cast<const void *>(page + line));
    }

private:
    static constexpr uintptr_t page_size = 4096, line_size = 64;

    uintptr_t page_ = 0;
};

[[nodiscard]] int renew_read(store &store, thread_context &thread)
{
    MDB_txn *&txn = thread.read_txns[store.index];
    return txn != nullptr ? mdb_txn_renew(txn) : begin_read(store.environment, &txn);
}

} // namespace

inline bool read_transaction::is_cache_current() const
{
    const commit_numbers numbers = call_.store->commit_numbers();
    return !call_.in_batch() &&
           call_.thread->cache.is_snapshot(numbers.first, last_commit(numbers));
}

uint32_t read_transaction::find(kvs_hdl hdl, uint32_t key, stored_record *record)
{
    if (const uint32_t status = make_call_context(hdl, &call_); status != 0)
        return status;
    if (const uint32_t status = check_files_at_times(*call_.store, *call_.thread); status != 0)
        return status;
    call_.thread->listed = nullptr;
    if (is_cache_current() && call_.thread->cache.find(call_.database_number(), key, record))
        return 0;
    const uint32_t status = begin();
    return status != 0 ? status : status_of_lookup(look_up(key, record));
}

uint32_t read_transaction::get(kvs_hdl hdl, kvs_rec_hdl handle, stored_record *record)
{
    if (const uint32_t status = make_call_context(hdl, &call_); status != 0)
        return status;
    const uint32_t key = key_of(handle);
    if (!is_cache_current() ||
        !call_.thread->cache.find_near(call_.database_number(), handle, record)) {
        if (const uint32_t status = begin(); status != 0)
            return status;
        const int error = call_.thread->listed == call_.database ? look_up_run(key, record)
                                                                 : look_up(key, record);
        if (error != 0)
            return status_of_lookup(error);
    }
    return record->handle == handle ? 0 : KVS_RC_NO_SUCH_RECORD;
}

uint32_t read_transaction::list(kvs_hdl hdl, handle_list *list)
{
    if (const uint32_t status = make_call_context(hdl, &call_); status != 0)
        return status;
    if (const uint32_t status = check_files_now(*call_.store, *call_.thread); status != 0)
        return status;
    if (const uint32_t status = begin(); status != 0)
        return status;
    MDB_stat about;
    if (const int error = mdb_stat(txn_, call_.database->tree.dbi, &about); error != 0)
        return status_of(error);
    *list = {};
    if (about.ms_entries == 0)
        return 0;
    if (about.ms_entries > UINT32_MAX)
        return status_of(MDB_CORRUPTED);
    list->handles.reset(static_cast<kvs_rec_hdl *>(malloc(about.ms_entries * sizeof(kvs_rec_hdl))));
    if (list->handles == nullptr)
        return KVS_RC_NO_MEMORY;
    if (const int error = list_all(about.ms_entries, list->handles.get()); error != 0)
        return status_of(error);
    list->count = static_cast<uint32_t>(about.ms_entries);
    call_.thread->listed = call_.database;
    return 0;
}

uint32_t read_transaction::verify(kvs_hdl hdl)
{
    if (const uint32_t status = make_call_context(hdl, &call_); status != 0)
        return status;
    if (call_.in_batch())
        return KVS_RC_BATCH_ACTIVE;
    if (const uint32_t status = check_files_now(*call_.store, *call_.thread); status != 0)
        return status;
    for (unsigned left = most_snapshots; left != 0; --left) {
        if (txn_ != nullptr)
            mdb_txn_reset(txn_);
        if (const uint32_t status = begin(); status != 0)
            return status;
        const int error = check_snapshot(call_.store->environment, txn_, walk_extent::records);
        if (error != EAGAIN)
            return status_of(error);
    }
    return status_of(files_replaced);
}

// Takes part in the batch, or begins or renews the thread's read transaction.
uint32_t read_transaction::begin()
{
    if (call_.in_batch()) {
        txn_ = call_.thread->open_batch.txn;
        return 0;
    }
    store &store = *call_.store;
    for (;;) {
        guard_.emplace(store, *call_.thread);
        const uint64_t epoch = store.environment_epoch;
        const int error =
            store.environment != nullptr ? renew_read(store, *call_.thread) : not_open;
        if (error == 0) {
            txn_ = call_.thread->read_txns[store.index];
            return 0;
        }
        guard_.reset();
        if (const uint32_t status = recover_as_reader(store, *call_.thread, error, epoch);
            status != 0)
            return status;
    }
}

int read_transaction::look_up(uint32_t key, stored_record *record)
{
    const int error = get_record(txn_, call_.database->tree, key, record);
    if (error != 0)
        return error;
    if (const uint32_t run = start_run(*record, true); run != UINT32_MAX)
        call_.thread->cache.add(call_.database_number(), record, run);
    return 0;
}

// As look_up, with the records that follow: a caller that goes through a listing reads them next.
int read_transaction::look_up_run(uint32_t key, stored_record *record)
{
    owned_cursor cursor;
    MDB_val name = as_value(&key, key_length);
    MDB_val value;
    int error = open_cursor(txn_, call_.database->tree.dbi, &cursor);
    if (error == 0)
        error = mdb_cursor_get(cursor.get(), &name, &value, MDB_SET_KEY);
    if (error == 0)
        error = parse_record(call_.database->tree.name_checksum, key, value, record);
    if (error != 0)
        return error;
    record_cache &cache = call_.thread->cache;
    const uint32_t run = start_run(*record, false);
    if (run == UINT32_MAX || !cache.add(call_.database_number(), record, run))
        return 0;
    stored_record next;
    page_prefetcher pages;
    for (unsigned i = 1; i < longest_run; ++i) {
        pages.prefetch_page_of(value.mv_data);
        if (mdb_cursor_get(cursor.get(), &name, &value, MDB_NEXT) != 0 ||
            parse_record(call_.database->tree.name_checksum, name, value, &next) != 0 ||
            !cache.add(call_.database_number(), &next, run))
            break;
    }
    return 0;
}

// Reads the handles of all records, which must be `count`.
int read_transaction::list_all(size_t count, kvs_rec_hdl *handles) const
{
    owned_cursor cursor;
    int error = open_cursor(txn_, call_.database->tree.dbi, &cursor);
    size_t seen = 0;
    page_prefetcher pages;
    MDB_val name;
    MDB_val value;
    for (; error == 0 && (error = mdb_cursor_get(cursor.get(), &name, &value, MDB_NEXT)) == 0;
         ++seen) {
        stored_record record;
        pages.prefetch_page_of(value.mv_data);
        error = seen < count
                    ? parse_record(call_.database->tree.name_checksum, name, value, &record)
                    : MDB_CORRUPTED;
        if (error == 0)
            handles[seen] = record.handle;
    }
    if (error != MDB_NOTFOUND)
        return error;
    return seen == count ? 0 : MDB_CORRUPTED;
}

// Prepares the cache for a record just read; returns all ones if it is not to be cached. A listing
// reads each record once, and needs no more of the cache than a run.
uint32_t read_transaction::start_run(const stored_record &record, bool may_grow)
{
    if (call_.in_batch() || record.length > record_cache::longest_entry)
        return UINT32_MAX;
    record_cache &cache = call_.thread->cache;
    cache.set_snapshot(call_.store->commit_numbers().first, mdb_txn_id(txn_));
    return cache.start_run(may_grow);
}

uint32_t read_transaction::status_of(int error) const
{
    if (error == 0)
        return 0;
    return call_.in_batch() ? break_batch(*call_.thread, error)
                            : log_engine_error("reading the store", error);
}

} // namespace platform
