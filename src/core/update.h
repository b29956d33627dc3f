// The steps of an operation that changes a stored record: obtain its handle and a copy, change the
// copy, write it back, and read it again to see the change.
#pragma once

#include "core/record_steps.h"

namespace vs_kvs {

template <class Db, class S>
uint32_t obtain_handle(typename Db::key key, handle_array &handle)
{
    kvs_rec_hdl *found = nullptr;
    const uint32_t status = Db::get_handle(key.value, &found);
    if (status != 0)
        return fail<S>(S::handle_failed, status, key);
    handle.reset(found);
    report<S>(S::handle_found, address<"handle">{found}, key);
    return 0;
}

// The working copy, null when the stored record has length 0.
template <class Db, class S>
uint32_t obtain_copy(typename Db::key key, block<typename Db::record> &copy)
{
    typename Db::record *record = nullptr;
    const uint32_t status = Db::get_record(key.value, &record);
    if (status != 0)
        return fail<S>(S::copy_failed, status, key);
    copy.reset(record);
    return 0;
}

// The way to the record that is to be changed: checks, handle, working copy.
template <class Db, class S>
uint32_t obtain(typename Db::key key, handle_array &handle, block<typename Db::record> &copy)
{
    uint32_t status = check_key<Db, S>(key);
    if (status == 0)
        status = obtain_handle<Db, S>(key, handle);
    if (status == 0)
        status = obtain_copy<Db, S>(key, copy);
    return status;
}

// Makes room for one more element at the end of the working copy and counts it. When that fails the
// copy is as it was.
template <class Db, class S>
uint32_t grow(block<typename Db::record> &copy)
{
    const uint32_t count = (*copy).*Db::count;
    const uint64_t old_length = flat_length<Db>(count);
    const uint64_t wanted = old_length + Db::element;
    const uint32_t length = told_length(wanted);
    report<S>(S::lengths, number<"old_length">{told_length(old_length)},
              number<"old_array_length">{told_length(old_length - Db::fixed)},
              record_length{length});
    void *grown = nullptr;
    if (length == wanted)
        grown = realloc(copy.get(), length);
    else
        errno = ENOMEM;
    if (!grown)
        return fail<S>(S::grow_failed, VS_FAULT_NO_MEMORY, record_length{length},
                       error_number{static_cast<uint32_t>(errno)});
    static_cast<void>(copy.release());
    copy.reset(static_cast<typename Db::record *>(grown));
    (*copy).*Db::count = count + 1;
    return 0;
}

// Replaces the first `length` bytes of the stored record.
template <class Db, class S, class... Facts>
uint32_t write_back(const kvs_rec_hdl &handle, const typename Db::record *record, uint32_t length,
                    const Facts &...facts)
{
    const kvs_data_desc data{record, length};
    uint32_t value = 0;
    kvs_write_result result;
    const uint32_t status =
        kvs_write_object(handle_of<Db>(), &handle, 0, &data, 1, &value, &result);
    return status == 0 ? 0 : fail<S>(S::write_failed, status, facts...);
}

template <class Db, class S>
uint32_t read_back(typename Db::key key, block<typename Db::record> &copy)
{
    report<S>(S::sanity_starts);
    typename Db::record *record = nullptr;
    const uint32_t status = Db::get_record(key.value, &record);
    if (status != 0)
        return fail<S>(S::reread_failed, status, key);
    copy.reset(record);
    return copy ? 0 : fail<S>(S::reread_null, VS_FAULT_KVS_READ_NULL_REC);
}

} // namespace vs_kvs
