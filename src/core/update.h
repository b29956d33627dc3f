// The steps of an operation that changes a stored record: load its handle and a working copy,
// change the copy, write it back, and read it again to see the change.
#pragma once

#include "core/steps.h"

namespace vs_kvs {

// The reads that an update is made of: the lookup of the record handle and the read of the record,
// each with the reports of the operation that it is a part of.
template <class Db>
using handle_lookup = uint32_t (*)(typename Db::key, handle_array &);
template <class Db>
using record_read = uint32_t (*)(typename Db::key, sized_record<typename Db::record> &);

// What an update works on. The copy is null if the stored record has length 0.
template <class Db>
struct working_copy {
    handle_array handle;
    sized_record<typename Db::record> record;
};

template <class Db, class M>
[[nodiscard]] uint32_t load_handle(typename Db::key key, handle_lookup<Db> look_up_handle,
                                   handle_array &handle)
{
    const uint32_t status = look_up_handle(key, handle);
    if (status != 0)
        return fail<M, M::handle_failed>(status, key);
    report<M, M::handle_found>(handle_address{handle.get()}, key);
    return 0;
}

// The steps up to the change of a record: checks, handle, working copy.
template <class Db, class M>
[[nodiscard]] uint32_t load_for_update(typename Db::key key, handle_lookup<Db> look_up_handle,
                                       record_read<Db> read_record, working_copy<Db> &copy)
{
    uint32_t status = check_key<Db, M>(key);
    if (status == 0)
        status = load_handle<Db, M>(key, look_up_handle, copy.handle);
    if (status != 0)
        return status;
    status = read_record(key, copy.record);
    return status == 0 ? 0 : fail<M, M::copy_failed>(status, key);
}

// Makes room for one more element at the end of the working copy and counts it. On failure the copy
// is as it was.
template <class Db, class M>
[[nodiscard]] uint32_t grow(sized_record<typename Db::record> &copy)
{
    const uint32_t count = (*copy.data).*Db::count;
    const uint64_t old = Db::layout.length(count);
    const uint64_t wanted = old + Db::layout.element();
    const uint32_t length = clamp_length(wanted);
    report<M, M::lengths>(old_length{clamp_length(old)},
                          old_array_length{clamp_length(old - Db::layout.fixed())},
                          record_length{length});
    void *grown = nullptr;
    if (length == wanted)
        grown = realloc(copy.data.get(), length);
    else
        errno = ENOMEM;
    if (grown == nullptr)
        return fail<M, M::grow_failed>(VS_FAULT_NO_MEMORY, record_length{length},
                                       error_number{static_cast<uint32_t>(errno)});
    static_cast<void>(copy.data.release());
    copy.data.reset(static_cast<typename Db::record *>(grown));
    copy.length = length;
    (*copy.data).*Db::count = count + 1;
    return 0;
}

// Replaces the first `length` bytes of the stored record.
template <class Db, class M, class... Facts>
[[nodiscard]] uint32_t write_back(const kvs_rec_hdl &handle, const typename Db::record *record,
                                  uint32_t length, const Facts &...facts)
{
    const kvs_data_desc data{record, length};
    uint32_t value = 0;
    kvs_write_result result;
    const uint32_t status =
        kvs_write_object(handle_of<Db>(), &handle, 0, &data, 1, &value, &result);
    return status == 0 ? 0 : fail<M, M::write_failed>(status, facts...);
}

template <class Db, class M>
[[nodiscard]] uint32_t read_back(typename Db::key key, record_read<Db> read_record,
                                 sized_record<typename Db::record> &stored)
{
    report<M, M::sanity_starts>();
    const uint32_t status = read_record(key, stored);
    if (status != 0)
        return fail<M, M::reread_failed>(status, key);
    return stored.data != nullptr ? 0 : fail<M, M::reread_null>(VS_FAULT_KVS_READ_NULL_REC);
}

} // namespace vs_kvs
