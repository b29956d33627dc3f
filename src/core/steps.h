// The steps that every database operation is made of.
//
// A step is a template over two types: the database (its record, key and handle; see the schema.h
// of each) and the messages of the operation that takes the step. So the steps and the order of
// their events are here, once, and an operation consists of its messages and of what only it does.
//
// A database type `Db` has
//
//   record, key             types of the stored record and of the fact that is its key
//   name, selector          name in the store, selector of vs_kvs_db_init
//   handle()                exported word with the database handle
//   layout, bytes, count    layout of a record, its lengths as stored, member that counts elements
//   invalid_key, absent     statuses for key 0 and for a key without a record
//   facts(record), element_facts(record, i)   what reports carry of a record
#pragma once

#include "core/block.h"
#include "core/layout.h"
#include "core/relaxed.h"
#include "core/report.h"
#include "kvs.h"
#include "vs_kvs.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <type_traits>
#include <utility>

namespace vs_kvs {

template <class Db>
[[nodiscard]] kvs_hdl handle_of()
{
    return load(Db::handle());
}

// ---- lengths ----

// Returns whether the first `length` bytes of a stored record hold all the elements that its count
// states. Longer records are as good as exact ones.
template <class Db>
[[nodiscard]] bool is_complete(const typename Db::record &record, uint32_t length)
{
    return length >= Db::layout.fixed() && length >= Db::layout.length(record.*Db::count);
}

// The number reported for a length that may exceed 32 bits.
[[nodiscard]] inline uint32_t clamp_length(uint64_t length)
{
    return static_cast<uint32_t>(std::min<uint64_t>(length, UINT32_MAX));
}

// ---- the database handle ----

// Looks the database up by its name unless its handle is set already. A lookup that succeeds
// without setting the handle counts as success: the next step that needs the handle looks again.
template <class Db, class M, class... Facts>
[[nodiscard]] uint32_t ensure_open(const Facts &...facts)
{
    if (handle_of<Db>() != VS_KVS_HDL_UNSET)
        return 0;
    const uint32_t status = kvs_lookup_db_handle(Db::name, &Db::handle());
    if (status == 0)
        return 0;
    const errno_now error{static_cast<uint32_t>(errno)};
    report<M, M::lookup_failed>(status_text{status}, error, facts...);
    return VS_FAULT_KVS_DB_LOOKUP;
}

// The checks of an operation that takes a key: the key, then the handle.
template <class Db, class M>
[[nodiscard]] uint32_t check_key(typename Db::key key)
{
    if (key.value == 0)
        return fail<M, M::invalid_key>(Db::invalid_key, key);
    return ensure_open<Db, M>(key);
}

// ---- finding ----

// Finds the record with a key. `handles` receives the store's array, or stays null when no record
// has the key; a count without an array names no record either.
template <class Db, class M>
[[nodiscard]] uint32_t find(typename Db::key key, handle_array &handles)
{
    kvs_key_attr attr{};
    attr.key_len = sizeof key.value;
    attr.key_p = &key.value;
    kvs_rec_hdl *array = nullptr;
    uint32_t count = 0;
    const uint32_t status = kvs_find_objects(handle_of<Db>(), &attr, 1, 0, &array, &count);
    handle_array found(array);
    if (status != 0)
        return fail<M, M::find_failed>(status, key);
    if (count > 1)
        return fail<M, M::many_found>(VS_FAULT_KVS_MULTI_REC_HDL, record_count{count}, key);
    if (count == 1)
        handles = std::move(found);
    return 0;
}

// As find, where no record is a failure.
template <class Db, class M>
[[nodiscard]] uint32_t find_one(typename Db::key key, handle_array &handles)
{
    const uint32_t status = find<Db, M>(key, handles);
    if (status == 0 && handles == nullptr)
        return fail<M, M::none_found>(Db::absent, key);
    return status;
}

// The whole lookup of the record handle of a key. Updates share it with the operation that hands
// the handle out.
template <class Db, class M>
[[nodiscard]] __attribute__((noinline)) uint32_t look_up_handle(typename Db::key key,
                                                                handle_array &handle)
{
    const uint32_t status = check_key<Db, M>(key);
    return status != 0 ? status : find_one<Db, M>(key, handle);
}

// ---- reading ----

// Prints a record, a line for it and one for each element.
template <class Db, class M, const auto &Summary, const auto &Line>
void print_record(const typename Db::record &record, uint32_t length)
{
    report<M, Summary>(record_length{length}, Db::facts(record));
    if constexpr (!std::is_same_v<decltype(Line), const no_message &>)
        for (uint32_t i = 0; i < record.*Db::count; ++i)
            report<M, Line>(Db::element_facts(record, i));
}

// Allocates room for a stored record of `length` bytes and reads it. A length of 0 is read without
// a block, since the store may return a status. On failure the block stays with `record`,
// whose owner decides when it is released.
template <class Db, class M>
[[nodiscard]] uint32_t read_bytes(const kvs_rec_hdl &handle, uint32_t length,
                                  sized_record<typename Db::record> &record)
{
    block<typename Db::record> &room = record.data;
    room.reset();
    if (length != 0) {
        room.reset(static_cast<typename Db::record *>(calloc(1, length)));
        if (room == nullptr)
            return no_memory<M>(length, M::block_label);
    }
    report<M, M::before_read>(record_length{length}, record_address{room.get()});

    uint32_t got = length;
    const uint32_t status = kvs_read_object(handle_of<Db>(), &handle, 0, room.get(), &got);
    if (status != 0)
        return fail<M, M::read_failed>(status);
    if (room == nullptr || !is_complete<Db>(*room, std::min(got, length)))
        return fail<M, M::read_null>(VS_FAULT_KVS_READ_NULL_REC, record_length{got});
    print_record<Db, M, M::read_summary, M::read_line>(*room, got);
    record.length = std::min(got, length);
    return 0;
}

// Reads the record of a handle that a find by key gave. A record of length 0 is reported like a
// failed size query, and is success with a null record.
template <class Db, class M>
[[nodiscard]] uint32_t read(typename Db::key key, const kvs_rec_hdl &handle,
                            sized_record<typename Db::record> &record)
{
    record = {};
    uint32_t length = 0;
    const uint32_t status = kvs_get_object_size(handle_of<Db>(), &handle, &length);
    if (status != 0 || length == 0)
        return fail<M, M::size_failed>(status, record_length{length}, key);
    report<M, M::size_known>(record_length{length}, key);
    return read_bytes<Db, M>(handle, length, record);
}

// The whole read of the record of a key.
template <class Db, class M>
[[nodiscard]] uint32_t read_record(typename Db::key key, sized_record<typename Db::record> &record)
{
    handle_array handle;
    const uint32_t status = look_up_handle<Db, M>(key, handle);
    return status != 0 ? status : read<Db, M>(key, handle[0], record);
}

// ---- operations that read and look up ----

// Hands the record of a key out to a caller; `read` is the whole read.
template <class Db, class M>
[[nodiscard]] uint32_t hand_out_record(typename Db::key key, typename Db::record **record_pp,
                                       uint32_t (*read)(typename Db::key,
                                                        sized_record<typename Db::record> &))
{
    uint32_t status = require_pointer<M>(record_pp, M::out_label);
    sized_record<typename Db::record> record;
    if (status == 0)
        status = read(key, record);
    if (status == 0)
        *record_pp = record.data.release();
    return status;
}

template <class Db, class M>
[[nodiscard]] uint32_t hand_out_handle(typename Db::key key, kvs_rec_hdl **handle_pp)
{
    uint32_t status = require_pointer<M>(handle_pp, M::out_label);
    handle_array handle;
    if (status == 0)
        status = look_up_handle<Db, M>(key, handle);
    if (status == 0)
        *handle_pp = handle.release();
    return status;
}

// ---- inserting and deleting ----

// Sets a key descriptor to the way in which all databases find their keys: 4 bytes at offset 0.
inline void set_key_attr(kvs_key_attr &attr)
{
    for (uint8_t &flag : attr.key_flags)
        flag = 0;
    attr.key_len = sizeof(uint32_t);
    attr.key_offset = 0;
}

// Stores a flat copy of the caller's record: as long as its count says, whatever the caller's block
// holds beyond it. A count beyond 32 bits of length is refused before anything reads the elements.
template <class Db, class M>
[[nodiscard]] uint32_t insert(const typename Db::record &record, kvs_rec_hdl *handle_p)
{
    const auto facts = Db::facts(record);
    uint32_t status = ensure_open<Db, M>(facts);
    if (status != 0)
        return status;
    const uint64_t flat = Db::layout.length(record.*Db::count);
    const uint32_t length = clamp_length(flat);
    if (length != flat)
        return no_memory<M>(length, M::block_label);
    print_record<Db, M, M::input_summary, M::input_line>(record, length);

    block<typename Db::record> copy(static_cast<typename Db::record *>(malloc(length)));
    if (copy == nullptr)
        return no_memory<M>(length, M::block_label);
    memcpy(static_cast<void *>(copy.get()), &record, length);
    print_record<Db, M, M::flat_summary, M::flat_line>(*copy, length);

    kvs_key_attr attr{};
    set_key_attr(attr);
    const kvs_data_desc data{copy.get(), length};
    kvs_rec_hdl handle = UINT64_MAX;
    status = kvs_insert_object(handle_of<Db>(), &data, 1, &attr, 1, 0, 0, &handle);
    if (status != 0 && status != KVS_RC_TOLERATED_ON_INSERT)
        return fail<M, M::insert_failed>(status, facts);
    *handle_p = handle;
    report<M, M::inserted>(facts);
    return 0;
}

template <class Db, class M>
[[nodiscard]] uint32_t erase(typename Db::key key, const kvs_rec_hdl &handle)
{
    const uint32_t status = kvs_delete_object(handle_of<Db>(), &handle);
    return status == 0 ? 0 : fail<M, M::delete_failed>(status, key);
}

} // namespace vs_kvs
