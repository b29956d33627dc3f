// Reading and changing records within one transaction.
//
// A caller asks for a record three times in a row: by its key, for its size, and for its bytes. So
// what is found goes into the thread's window. The window is asked first, under the engine's number
// of the last transaction: a commit writes that number before anybody can be told of the commit,
// and before new readers see it, so a window with the last number is never older than a fresh read.
#include "platform/kvs/records.h"

#include <cerrno>

namespace platform {
namespace {

constexpr uint32_t first_generation = 1;
constexpr uint32_t no_generation_left = UINT32_MAX;

constexpr unsigned longest_run = 256;

MDB_val as_value(const void *data, size_t length) { return {length, const_cast<void *>(data)}; }

int parse(uint32_t key, const MDB_val &value, stored_record *record)
{
    if (value.mv_size < key_length + generation_length || value.mv_size > UINT32_MAX ||
        memcmp(value.mv_data, &key, key_length) != 0)
        return MDB_CORRUPTED;
    const auto *const bytes = static_cast<const unsigned char *>(value.mv_data);
    const auto length = static_cast<uint32_t>(value.mv_size - generation_length);
    uint32_t generation = 0;
    memcpy(&generation, bytes + length, generation_length);
    if (generation < first_generation || generation == no_generation_left)
        return MDB_CORRUPTED;
    *record = {handle_of(key, generation), bytes, length};
    return 0;
}

int look_up_in(MDB_txn *txn, MDB_dbi dbi, uint32_t key, stored_record *record)
{
    MDB_val name = as_value(&key, key_length);
    MDB_val value;
    const int code = mdb_get(txn, dbi, &name, &value);
    return code != 0 ? code : parse(key, value, record);
}

int parse_at_cursor(const MDB_val &name, const MDB_val &value, stored_record *record)
{
    if (name.mv_size != key_length)
        return MDB_CORRUPTED;
    uint32_t key = 0;
    memcpy(&key, name.mv_data, key_length);
    return parse(key, value, record);
}

outcome judge(int code)
{
    return code == MDB_NOTFOUND ? answer(KVS_RC_NO_SUCH_RECORD) : failure(code);
}

outcome judge(int code, kvs_rec_hdl wanted, const stored_record &record)
{
    return code == 0 && record.handle != wanted ? answer(KVS_RC_NO_SUCH_RECORD) : judge(code);
}

struct close_cursor {
    void operator()(MDB_cursor *cursor) const { mdb_cursor_close(cursor); }
};

using cursor = std::unique_ptr<MDB_cursor, close_cursor>;

int open_cursor(MDB_txn *txn, MDB_dbi dbi, cursor *at)
{
    MDB_cursor *opened = nullptr;
    const int code = mdb_cursor_open(txn, dbi, &opened);
    at->reset(opened);
    return code;
}

// Asks for a whole page when a cursor comes to it. Its records lie in the order in which they were
// stored, so in the order of their keys each one would be waited for.
class page_fetcher {
public:
    void come_to(const void *record)
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

// ---- the counter of a database ----

// It lies beside the databases in the main one, under the database's name and a NUL, which no
// database's own name contains.
MDB_val counter_name(const database &records)
{
    return as_value(records.name, strlen(records.name) + 1);
}

int get_counter(MDB_txn *txn, const database &records, MDB_dbi *main, uint32_t *generation)
{
    if (const int code = mdb_dbi_open(txn, nullptr, 0, main); code != 0)
        return code;
    MDB_val name = counter_name(records);
    MDB_val value;
    const int code = mdb_get(txn, *main, &name, &value);
    *generation = first_generation;
    if (code == MDB_NOTFOUND)
        return 0;
    if (code == 0 && value.mv_size != generation_length)
        return MDB_CORRUPTED;
    if (code == 0)
        memcpy(generation, value.mv_data, generation_length);
    return code == 0 && *generation < first_generation ? MDB_CORRUPTED : code;
}

int count_up(MDB_txn *txn, const database &records)
{
    MDB_dbi main = 0;
    uint32_t generation = 0;
    const int code = get_counter(txn, records, &main, &generation);
    if (code != 0 || generation == no_generation_left)
        return code;
    ++generation;
    MDB_val name = counter_name(records);
    MDB_val value = as_value(&generation, generation_length);
    return mdb_put(txn, main, &name, &value, 0);
}

// With MDB_NOOVERWRITE, and a record there already, `*there` becomes the value of that one.
int put(MDB_txn *txn, MDB_dbi dbi, unsigned char *value, uint32_t length, kvs_rec_hdl handle,
        unsigned flags, MDB_val *there)
{
    const uint32_t key = key_of(handle);
    const uint32_t generation = generation_of(handle);
    memcpy(value + length, &generation, generation_length);
    MDB_val name = as_value(&key, key_length);
    *there = as_value(value, size_t{length} + generation_length);
    return mdb_put(txn, dbi, &name, there, flags);
}

} // namespace

// ---- reading ----

reader::reader(const place &at)
    : at_(at), in_batch_(at.in_batch()), txn_(in_batch_ ? at.me->open_batch.txn : nullptr)
{
}

reader::~reader()
{
    if (txn_ != nullptr && !in_batch_)
        mdb_txn_reset(txn_);
}

int reader::begin()
{
    if (txn_ != nullptr)
        return 0;
    const int code = begin_read(*at_.home, *at_.me);
    if (code == 0)
        txn_ = at_.me->readers[at_.home->index];
    return code;
}

// Prepares the window for a record just read; all ones when it is not to go there. A listing asks
// for each record once, and needs no more of the window than a run.
uint32_t reader::start_run(const stored_record &record, bool may_grow)
{
    if (in_batch_ || record.length > record_window::longest_record)
        return UINT32_MAX;
    at_.me->window.turn_to(at_.home->numbers().first, mdb_txn_id(txn_));
    return at_.me->window.start_run(may_grow);
}

int reader::look_up(uint32_t key, stored_record *record)
{
    const int code = look_up_in(txn_, at_.records->dbi, key, record);
    if (code != 0)
        return code;
    if (const uint32_t run = start_run(*record, true); run != UINT32_MAX)
        at_.me->window.add(at_.number(), record, run);
    return 0;
}

// The same, with the records that follow: whoever goes through a listing is about to ask for them.
int reader::look_up_run(uint32_t key, stored_record *record)
{
    cursor at;
    MDB_val name = as_value(&key, key_length);
    MDB_val value;
    int code = open_cursor(txn_, at_.records->dbi, &at);
    if (code == 0)
        code = mdb_cursor_get(at.get(), &name, &value, MDB_SET_KEY);
    if (code == 0)
        code = parse(key, value, record);
    if (code != 0)
        return code;
    const uint32_t run = start_run(*record, false);
    if (run == UINT32_MAX || !at_.me->window.add(at_.number(), record, run))
        return 0;
    stored_record next;
    page_fetcher pages;
    for (unsigned i = 1; i < longest_run; ++i) {
        pages.come_to(value.mv_data);
        if (mdb_cursor_get(at.get(), &name, &value, MDB_NEXT) != 0 ||
            parse_at_cursor(name, value, &next) != 0 ||
            !at_.me->window.add(at_.number(), &next, run))
            break;
    }
    return 0;
}

outcome reader::find(uint32_t key, stored_record *record)
{
    const int code = begin();
    return judge(code != 0 ? code : look_up(key, record));
}

outcome reader::get(kvs_rec_hdl handle, stored_record *record)
{
    const uint32_t key = key_of(handle);
    int code = begin();
    if (code == 0)
        code = at_.me->listed == at_.records ? look_up_run(key, record) : look_up(key, record);
    return judge(code, handle, *record);
}

outcome reader::list(kvs_rec_hdl **handles, uint32_t *count)
{
    MDB_stat about;
    int code = begin();
    if (code != 0 || (code = mdb_stat(txn_, at_.records->dbi, &about)) != 0)
        return failure(code);
    *handles = nullptr;
    *count = 0;
    if (about.ms_entries == 0)
        return answer(0);
    if (about.ms_entries > UINT32_MAX)
        return failure(MDB_CORRUPTED);
    block<kvs_rec_hdl> array(
        static_cast<kvs_rec_hdl *>(malloc(about.ms_entries * sizeof(kvs_rec_hdl))));
    if (!array)
        return answer(KVS_RC_NO_MEMORY);
    cursor at;
    code = open_cursor(txn_, at_.records->dbi, &at);
    size_t seen = 0;
    page_fetcher pages;
    MDB_val name;
    MDB_val value;
    for (; code == 0 && (code = mdb_cursor_get(at.get(), &name, &value, MDB_NEXT)) == 0; ++seen) {
        stored_record record;
        pages.come_to(value.mv_data);
        code = seen < about.ms_entries ? parse_at_cursor(name, value, &record) : MDB_CORRUPTED;
        if (code == 0)
            array.get()[seen] = record.handle;
    }
    if (code != MDB_NOTFOUND || seen != about.ms_entries)
        return failure(code != MDB_NOTFOUND ? code : MDB_CORRUPTED);
    at_.me->listed = at_.records;
    *count = static_cast<uint32_t>(seen);
    *handles = array.release();
    return answer(0);
}

// ---- changing ----

outcome changer::get(kvs_rec_hdl handle, stored_record *record) const
{
    return judge(look_up_in(txn, records.dbi, key_of(handle), record), handle, *record);
}

outcome changer::insert(unsigned char *value, uint32_t length, kvs_rec_hdl *handle) const
{
    uint32_t key = 0;
    memcpy(&key, value, key_length);
    MDB_dbi main = 0;
    uint32_t generation = 0;
    int code = get_counter(txn, records, &main, &generation);
    if (code != 0)
        return failure(code);
    *handle = handle_of(key, generation);
    stored_record old;
    if (generation == no_generation_left) {
        code = look_up_in(txn, records.dbi, key, &old);
        if (code == MDB_NOTFOUND)
            return answer(KVS_RC_EXHAUSTED);
    } else {
        // One way through the tree both looks for a record with this key and makes room for a new.
        MDB_val there;
        code = put(txn, records.dbi, value, length, *handle, MDB_NOOVERWRITE, &there);
        if (code != MDB_KEYEXIST)
            return failure(code);
        code = parse(key, there, &old);
    }
    if (code != 0)
        return failure(code);
    if (old.length != length || memcmp(old.bytes, value, length) != 0)
        return answer(KVS_RC_RECORD_EXISTS);
    *handle = old.handle;
    return answer(KVS_RC_TOLERATED_ON_INSERT);
}

outcome changer::replace(kvs_rec_hdl handle, unsigned char *value, uint32_t length) const
{
    MDB_val there;
    return failure(put(txn, records.dbi, value, length, handle, 0, &there));
}

outcome changer::remove(kvs_rec_hdl handle) const
{
    stored_record record;
    if (const outcome found = get(handle, &record); !found.is_good())
        return found;
    const uint32_t key = key_of(handle);
    MDB_val name = as_value(&key, key_length);
    const int code = mdb_del(txn, records.dbi, &name, nullptr);
    return failure(code != 0 ? code : count_up(txn, records));
}

} // namespace platform
