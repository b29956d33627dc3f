// Reading every record of a database, or none.
#pragma once

#include "core/steps.h"

#include <utility>

namespace vs_kvs {

// The records of one listing: an array of owned records, released one by one, then the array.
template <class Record>
class record_list {
public:
    explicit record_list(uint32_t count)
        : records_(static_cast<Record **>(calloc(count, sizeof(Record *))))
    {
    }
    record_list(const record_list &) = delete;
    record_list &operator=(const record_list &) = delete;
    ~record_list()
    {
        for (uint32_t i = 0; i < length_; ++i)
            free(records_[i]);
        free(records_);
    }

    [[nodiscard]] bool is_allocated() const { return records_ != nullptr; }
    void append(block<Record> record) { records_[length_++] = record.release(); }
    Record **release()
    {
        length_ = 0;
        return std::exchange(records_, nullptr);
    }

private:
    Record **records_;
    uint32_t length_ = 0;
};

// The handles of all records.
struct all_handles {
    handle_array array;
    uint32_t count = 0;
};

template <class Db, class M>
[[nodiscard]] uint32_t find_all(all_handles &handles)
{
    kvs_key_attr no_key{}; // not read by a find of every record
    kvs_rec_hdl *array = nullptr;
    uint32_t count = 0;
    const uint32_t status = kvs_find_objects(handle_of<Db>(), &no_key, 0, 0, &array, &count);
    handles.array.reset(array);
    if (status != 0)
        return fail<M, M::find_failed>(status);
    handles.count = array != nullptr ? count : 0;
    report<M, M::found>(record_count{handles.count});
    return handles.count != 0 ? 0 : fail<M, M::empty>(VS_FAULT_KVS_DB_EMPTY);
}

template <class Db, class M>
[[nodiscard]] uint32_t read_all(const all_handles &handles,
                                sized_record<typename Db::record> &record,
                                record_list<typename Db::record> &records)
{
    for (uint32_t i = 0; i < handles.count; ++i) {
        uint32_t length = 0;
        uint32_t status = kvs_get_object_size(handle_of<Db>(), &handles.array[i], &length);
        if (status != 0)
            return fail<M, M::size_failed>(status, record_length{length});
        status = read_bytes<Db, M>(handles.array[i], length, record);
        if (status != 0)
            return status;
        records.append(std::move(record.data));
    }
    return 0;
}

template <class Db, class M>
[[nodiscard]] uint32_t list(uint32_t *count_p, typename Db::record ***records_ppp)
{
    uint32_t status = require_pointer<M>(count_p, M::count_label);
    if (status == 0)
        status = require_pointer<M>(records_ppp, M::array_label);
    if (status == 0)
        status = ensure_open<Db, M>();
    all_handles handles;
    if (status == 0)
        status = find_all<Db, M>(handles);
    if (status != 0)
        return status;

    // A listing that stops releases the records that it has read, then the one that it was
    // reading, then the handles.
    sized_record<typename Db::record> current;
    record_list<typename Db::record> records(handles.count);
    if (!records.is_allocated())
        return fail<M, M::array_failed>(
            VS_FAULT_NO_MEMORY,
            record_length{handles.count * static_cast<uint32_t>(sizeof(void *))});
    status = read_all<Db, M>(handles, current, records);
    if (status != 0)
        return status;
    *records_ppp = records.release();
    *count_p = handles.count;
    return 0;
}

} // namespace vs_kvs
