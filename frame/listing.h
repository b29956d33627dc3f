// Reading every record of a database, or none.
#pragma once

#include <utility>

#include "frame/database.h"

namespace vs_kvs {

// The records of one listing: an array of owned records, released one by one, then the array.
template <class Record>
class record_list {
public:
    explicit record_list(std::uint32_t count)
        : records_(static_cast<Record **>(std::calloc(count, sizeof(Record *))))
    {
    }
    record_list(const record_list &) = delete;
    record_list &operator=(const record_list &) = delete;
    ~record_list()
    {
        for (std::uint32_t i = 0; i < length_; ++i)
            std::free(records_[i]);
        std::free(records_);
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
    std::uint32_t length_ = 0;
};

template <class Db, class S>
std::uint32_t list(std::uint32_t *count_p, typename Db::record ***records_ppp)
{
    std::uint32_t rc = required<S>(count_p, S::count_label);
    if (rc == 0)
        rc = required<S>(records_ppp, S::array_label);
    if (rc == 0)
        rc = hold<Db, S>();
    if (rc != 0)
        return rc;

    kvs_key_attr no_key{}; // not looked at by a find of every record
    kvs_rec_hdl *array = nullptr;
    std::uint32_t count = 0;
    rc = kvs_find_objects(handle_of<Db>(), &no_key, 0, 0, &array, &count);
    const handle_array handles(array);
    if (rc != 0)
        return fail<S>(S::find_failed, rc);
    if (!handles)
        count = 0;
    report<S>(S::found, record_count{count});
    if (count == 0)
        return fail<S>(S::empty, VS_FAULT_KVS_DB_EMPTY);

    record_list<typename Db::record> records(count);
    if (!records.is_allocated())
        return fail<S>(S::array_failed, VS_FAULT_NO_MEMORY,
                       record_length{told_length(std::uint64_t{count} * sizeof(void *))});
    for (std::uint32_t i = 0; i < count; ++i) {
        std::uint32_t length = 0;
        rc = kvs_get_object_size(handle_of<Db>(), &handles[i], &length);
        if (rc != 0)
            return fail<S>(S::size_failed, rc, record_length{length});
        block<typename Db::record> record;
        rc = fetch<Db, S>(handles[i], length, record);
        if (rc != 0)
            return rc;
        records.append(std::move(record));
    }
    *records_ppp = records.release();
    *count_p = count;
    return 0;
}

} // namespace vs_kvs
