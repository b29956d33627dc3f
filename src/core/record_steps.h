// The steps of the road that every database operation walks.
//
// A step is a template over two types: the database (its record, key and handle; see the database.h
// of each folder) and the reporting sites of the operation that takes the step. So the steps and
// the order of their events are here, once, and an operation consists of its sites and of what only
// it does.
//
// A database type `Db` has
//
//   record, key             types of the stored record and of the fact that is its key
//   name, handle()          name in the store, exported handle word
//   fixed, element, count   length of a record's fixed part and of one element, member that counts
//   invalid_key, absent     statuses for key 0 and for a key without a record
//   get_handle, get_record  the database's own lookup and read, where changes build on them
//   set_key                 its key-descriptor setter
//   facts(record), element_facts(record, i)   what reports tell of a record
#pragma once

#include "core/block.h"
#include "core/relaxed.h"
#include "core/report.h"
#include "kvs.h"
#include "vs_kvs.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>

namespace vs_kvs {

template <class Db>
kvs_hdl handle_of()
{
    return load(Db::handle());
}

// ---- lengths ----

// The length of a record with `count` elements, in 64 bits: it may be more than a record can have.
template <class Db>
constexpr uint64_t flat_length(uint32_t count)
{
    return Db::fixed + uint64_t{Db::element} * count;
}

// Whether the first `length` bytes of a stored record hold all that its count promises. Longer
// records are as good as exact ones.
template <class Db>
bool is_complete(const typename Db::record &record, uint32_t length)
{
    return length >= Db::fixed && length >= flat_length<Db>(record.*Db::count);
}

// A length told in a report of one that 32 bits cannot hold.
inline uint32_t told_length(uint64_t length)
{
    return static_cast<uint32_t>(std::min<uint64_t>(length, UINT32_MAX));
}

// ---- the database handle ----

// Looks the database up by its name unless its handle is held already. A lookup that succeeds
// without setting the handle counts as success: the next step that needs the handle looks again.
template <class Db, class S, class... Facts>
uint32_t hold(const Facts &...facts)
{
    if (handle_of<Db>() != VS_KVS_HDL_UNSET)
        return 0;
    const uint32_t status = kvs_lookup_db_handle(Db::name, &Db::handle());
    if (status == 0)
        return 0;
    fail<S>(S::lookup_failed, status, errno_now{static_cast<uint32_t>(errno)}, facts...);
    return VS_FAULT_KVS_DB_LOOKUP;
}

// The checks of an operation that takes a key: the key, then the handle.
template <class Db, class S>
uint32_t check_key(typename Db::key key)
{
    if (key.value == 0)
        return fail<S>(S::invalid_key, Db::invalid_key, key);
    return hold<Db, S>(key);
}

// ---- finding ----

// Finds the record with a key. `handles` receives the store's array, or stays null when no record
// has the key; a count without an array names no record either.
template <class Db, class S>
uint32_t find(typename Db::key key, handle_array &handles)
{
    kvs_key_attr attr{};
    attr.key_len = sizeof key.value;
    attr.key_p = &key.value;
    kvs_rec_hdl *array = nullptr;
    uint32_t count = 0;
    const uint32_t status = kvs_find_objects(handle_of<Db>(), &attr, 1, 0, &array, &count);
    handle_array found(array);
    if (status != 0)
        return fail<S>(S::find_failed, status, key);
    if (count > 1)
        return fail<S>(S::many_found, VS_FAULT_KVS_MULTI_REC_HDL, record_count{count}, key);
    if (count == 1)
        handles = std::move(found);
    return 0;
}

// As find, where no record is a failure.
template <class Db, class S>
uint32_t find_one(typename Db::key key, handle_array &handles)
{
    const uint32_t status = find<Db, S>(key, handles);
    if (status == 0 && !handles)
        return fail<S>(S::none_found, Db::absent, key);
    return status;
}

// ---- reading ----

// Prints a record, a line for it and one for each element.
template <class Db, class S, class Summary, class Line>
void dump(const typename Db::record &record, uint32_t length, const Summary &summary,
          const Line &line)
{
    report<S>(summary, record_length{length}, Db::facts(record));
    for (uint32_t i = 0; i < record.*Db::count; ++i)
        report<S>(line, Db::element_facts(record, i));
}

// Allocates room for a stored record of `length` bytes and reads it. A length of 0 is read without
// a block, since the store may have a status to give; success is then a record of length 0.
template <class Db, class S>
uint32_t fetch(const kvs_rec_hdl &handle, uint32_t length, block<typename Db::record> &record)
{
    block<typename Db::record> room;
    if (length != 0) {
        room.reset(static_cast<typename Db::record *>(calloc(1, length)));
        if (!room)
            return no_memory<S>(length, S::block_label);
    }
    if constexpr (requires { S::before_read; })
        report<S>(S::before_read, record_length{length}, address<"record">{room.get()});

    uint32_t got = length;
    const uint32_t status = kvs_read_object(handle_of<Db>(), &handle, 0, room.get(), &got);
    if (status != 0)
        return fail<S>(S::read_failed, status);
    if (!room || !is_complete<Db>(*room, std::min(got, length)))
        return fail<S>(S::read_null, VS_FAULT_KVS_READ_NULL_REC, record_length{got});
    if constexpr (requires { S::read_summary; })
        dump<Db, S>(*room, got, S::read_summary, S::read_line);
    record = std::move(room);
    return 0;
}

// Reads the record of a handle that a find by key gave. A record of length 0 is reported like a
// failed size query, and is success with a null record.
template <class Db, class S>
uint32_t read(typename Db::key key, const kvs_rec_hdl &handle, typename Db::record **record_pp)
{
    uint32_t length = 0;
    uint32_t status = kvs_get_object_size(handle_of<Db>(), &handle, &length);
    if (status != 0 || length == 0) {
        report<S>(S::size_failed, record_length{length}, key, status_text{status});
        if (status == 0)
            *record_pp = nullptr;
        return status;
    }
    report<S>(S::size_known, record_length{length}, key);
    block<typename Db::record> record;
    status = fetch<Db, S>(handle, length, record);
    if (status == 0)
        *record_pp = record.release();
    return status;
}

// The whole of an operation that reads the record of a key.
template <class Db, class S>
uint32_t get_record(typename Db::key key, typename Db::record **record_pp)
{
    uint32_t status = required<S>(record_pp, S::out_label);
    if (status == 0)
        status = check_key<Db, S>(key);
    handle_array handles;
    if (status == 0)
        status = find_one<Db, S>(key, handles);
    if (status == 0)
        status = read<Db, S>(key, handles[0], record_pp);
    return status;
}

// The whole of an operation that looks up the record handle of a key.
template <class Db, class S>
uint32_t get_handle(typename Db::key key, kvs_rec_hdl **handle_pp)
{
    uint32_t status = required<S>(handle_pp, S::out_label);
    if (status == 0)
        status = check_key<Db, S>(key);
    handle_array handles;
    if (status == 0)
        status = find_one<Db, S>(key, handles);
    if (status == 0)
        *handle_pp = handles.release();
    return status;
}

// ---- inserting and deleting ----

// Stores a flat copy of the caller's record: as long as its count says, whatever the caller's block
// holds beyond it. A count beyond 32 bits of length is refused before anything walks the elements.
template <class Db, class S>
uint32_t insert(const typename Db::record &record, kvs_rec_hdl *handle_p)
{
    const auto facts = Db::facts(record);
    uint32_t status = hold<Db, S>(facts);
    if (status != 0)
        return status;
    const uint64_t flat = flat_length<Db>(record.*Db::count);
    const uint32_t length = told_length(flat);
    if (length != flat)
        return no_memory<S>(length, S::block_label);
    if constexpr (requires { S::input_summary; })
        dump<Db, S>(record, length, S::input_summary, S::input_line);

    block<typename Db::record> copy(static_cast<typename Db::record *>(malloc(length)));
    if (!copy)
        return no_memory<S>(length, S::block_label);
    memcpy(static_cast<void *>(copy.get()), &record, length);
    if constexpr (requires { S::flat_summary; })
        dump<Db, S>(*copy, length, S::flat_summary, S::flat_line);

    kvs_key_attr attr{};
    Db::set_key(&attr, std::get<typename Db::key>(facts).value);
    const kvs_data_desc data{copy.get(), length};
    kvs_rec_hdl handle = UINT64_MAX;
    status = kvs_insert_object(handle_of<Db>(), &data, 1, &attr, 1, 0, 0, &handle);
    if (status != 0 && status != KVS_RC_TOLERATED_ON_INSERT)
        return fail<S>(S::insert_failed, status, facts);
    *handle_p = handle;
    report<S>(S::inserted, facts);
    return 0;
}

template <class Db, class S>
uint32_t erase(typename Db::key key, const kvs_rec_hdl &handle)
{
    const uint32_t status = kvs_delete_object(handle_of<Db>(), &handle);
    return status == 0 ? 0 : fail<S>(S::delete_failed, status, key);
}

} // namespace vs_kvs
