// Reading every record of a database, or none.
#pragma once

#include "core/record_steps.h"

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

    bool is_allocated() const { return records_ != nullptr; }
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

template <class Db, class S>
uint32_t list(uint32_t *count_p, typename Db::record ***records_ppp)
{
    uint32_t status = required<S>(count_p, S::count_label);
    if (status == 0)
        status = required<S>(records_ppp, S::array_label);
    if (status == 0)
        status = hold<Db, S>();
    if (status != 0)
        return status;

    kvs_key_attr no_key{}; // not looked at by a find of every record
    kvs_rec_hdl *array = nullptr;
    uint32_t count = 0;
    status = kvs_find_objects(handle_of<Db>(), &no_key, 0, 0, &array, &count);
    const handle_array handles(array);
    if (status != 0)
        return fail<S>(S::find_failed, status);
    if (!handles)
        count = 0;
    report<S>(S::found, record_count{count});
    if (count == 0)
        return fail<S>(S::empty, VS_FAULT_KVS_DB_EMPTY);

    record_list<typename Db::record> records(count);
    if (!records.is_allocated())
        return fail<S>(S::array_failed, VS_FAULT_NO_MEMORY,
                       record_length{told_length(uint64_t{count} * sizeof(void *))});
    for (uint32_t i = 0; i < count; ++i) {
        uint32_t length = 0;
        status = kvs_get_object_size(handle_of<Db>(), &handles[i], &length);
        if (status != 0)
            return fail<S>(S::size_failed, status, record_length{length});
        block<typename Db::record> record;
        status = fetch<Db, S>(handles[i], length, record);
        if (status != 0)
            return status;
        records.append(std::move(record));
    }
    *records_ppp = records.release();
    *count_p = count;
    return 0;
}

} // namespace vs_kvs
