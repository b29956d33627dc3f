// The records of one database: how they lie in the engine, and how they are read and changed.
//
// A value in the engine is the record's bytes and after them its generation, 4 bytes. The
// generation comes last so that of a record that was cut off by the end of a truncated file nothing
// is believed. A database's counter tells the generation of the records inserted from now on. A
// deletion counts it up, so no two records that shared a key one after the other have the same
// generation.
#pragma once

#include "platform/base/mutex.h"
#include "platform/kvs/store.h"

namespace platform {

constexpr uint32_t key_length = 4;
constexpr uint32_t generation_length = 4;
constexpr uint64_t longest_record = UINT32_MAX - generation_length;

// One attempt to read. In a batch it sees what the batch has changed.
class reader {
public:
    explicit reader(const place &at);
    reader(const reader &) = delete;
    reader &operator=(const reader &) = delete;
    ~reader();

    // The record with this key, or KVS_RC_NO_SUCH_RECORD.
    outcome find(uint32_t key, stored_record *record);

    // The record with this handle, or KVS_RC_NO_SUCH_RECORD.
    outcome get(kvs_rec_hdl handle, stored_record *record);

    // The handles of all records. The caller frees the array, which is null when there are none.
    outcome list(kvs_rec_hdl **handles, uint32_t *count);

private:
    int begin();
    int look_up(uint32_t key, stored_record *record);
    int look_up_run(uint32_t key, stored_record *record);
    uint32_t start_run(const stored_record &record, bool may_grow);

    const place &at_;
    const bool in_batch_;
    MDB_txn *txn_; // null until it is needed
};

// One attempt to change, within a transaction that somebody else commits.
struct changer {
    MDB_txn *txn;
    const database &records;

    outcome get(kvs_rec_hdl handle, stored_record *record) const;

    // `value` is the record, with room for a generation behind it.
    outcome insert(unsigned char *value, uint32_t length, kvs_rec_hdl *handle) const;
    outcome replace(kvs_rec_hdl handle, unsigned char *value, uint32_t length) const;
    outcome remove(kvs_rec_hdl handle) const;
};

enum class by { key, handle };

inline bool find_in_window(const place &at, by what, kvs_rec_hdl wanted, stored_record *record)
{
    const commit_numbers numbers = at.home->numbers();
    record_window &window = at.me->window;
    if (!window.is_of(numbers.first, last_commit(numbers)))
        return false;
    return what == by::key ? window.find(at.number(), key_of(wanted), record)
                           : window.find_near(at.number(), wanted, record);
}

// Runs `work` with a reader until an attempt comes to a status.
template <class Work>
uint32_t read_store(const place &at, const Work &work)
{
    if (at.in_batch()) {
        reader in(at);
        const outcome result = work(in);
        return result.code != 0 ? break_batch(*at.me, result.code) : result.status;
    }
    for (;;) {
        outcome result = failure(not_open);
        uint64_t mends = 0;
        {
            const visit inside(*at.home, *at.me);
            mends = at.home->mends;
            if (at.home->engine != nullptr) [[likely]] {
                reader in(at);
                result = work(in);
            }
        }
        if (result.code == 0) [[likely]]
            return result.status;
        if (const uint32_t status = mend(*at.home, *at.me, result.code, mends); status != 0)
            return status;
    }
}

// Hands one record to `use`, which returns a status: the one with the key, or with the whole
// handle.
//
// The thread's window is asked first, from outside. A commit tells its number in the file before
// anybody can hear of the commit, and before a new reader gets to see it, so a window of the last
// number is never older than a fresh read.
template <class Use>
uint32_t use_record(kvs_hdl hdl, by what, kvs_rec_hdl wanted, const Use &use)
{
    place at;
    if (const uint32_t status = locate(hdl, &at); status != 0)
        return status;
    stored_record record;
    if (what == by::key)
        at.me->listed = nullptr;
    if (!at.in_batch() && find_in_window(at, what, wanted, &record)) {
        const bool is_wanted = what == by::key || record.handle == wanted;
        return is_wanted ? use(record) : KVS_RC_NO_SUCH_RECORD;
    }
    return read_store(at, [&](reader &in) {
        const outcome found =
            what == by::key ? in.find(key_of(wanted), &record) : in.get(wanted, &record);
        return found.is_good() ? answer(use(record)) : found;
    });
}

template <class Work>
outcome change_once(const place &at, const Work &work)
{
    MDB_txn *txn = nullptr;
    if (const int code = begin_changing(at.home->engine, &txn); code != 0)
        return failure(code);
    const outcome result = work(changer{txn, *at.records});
    const int code = end_change(*at.home, txn, result.is_good());
    return result.is_good() ? failure(code) : result;
}

// Runs `work` with a changer, and commits when it comes to 0, until an attempt comes to a status.
// In a batch nothing is committed, and there is one attempt.
template <class Work>
uint32_t change_store(kvs_hdl hdl, const Work &work)
{
    place at;
    if (const uint32_t status = locate(hdl, &at); status != 0)
        return status;
    if (at.in_batch()) {
        const outcome result = work(changer{at.me->open_batch.txn, *at.records});
        return result.code != 0 ? break_batch(*at.me, result.code) : result.status;
    }
    const scoped_lock writing(at.home->writer);
    for (;;) {
        outcome result = failure(not_open);
        uint64_t mends = 0;
        {
            const visit inside(*at.home, *at.me);
            mends = at.home->mends;
            if (at.home->engine != nullptr)
                result = change_once(at, work);
        }
        if (result.code == 0)
            return result.status;
        if (const uint32_t status = mend_as_writer(*at.home, *at.me, result.code, mends);
            status != 0)
            return status;
    }
}

} // namespace platform
