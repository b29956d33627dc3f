// The functions of kvs.h on records and batches: the checks of their arguments, and their results.
#include "kvs.h"

#include "platform/base/export.h"
#include "platform/kvs/arguments.h"
#include "platform/kvs/batch.h"
#include "platform/kvs/binding.h"
#include "platform/kvs/file_lock.h"
#include "platform/kvs/read_transaction.h"
#include "platform/kvs/write_queue.h"

#include <algorithm>
#include <cstring>

using namespace platform;

namespace {

block<unsigned char> allocate_value(uint32_t record_length)
{
    return block<unsigned char>(
        static_cast<unsigned char *>(malloc(size_t{record_length} + trailer_length)));
}

[[nodiscard]] uint32_t bind(const char *db_name, bool create, kvs_hdl *hdl_p)
{
    kvs_hdl found = 0;
    uint32_t status = check_name(db_name);
    if (status == 0)
        status = bind_database(db_name, create, &found);
    if (status == 0)
        __atomic_store_n(hdl_p, found, __ATOMIC_RELEASE);
    return status;
}

[[nodiscard]] uint32_t find_one(kvs_hdl hdl, const kvs_key_attr *key_p, handle_list *found)
{
    if (key_p == nullptr || key_p->key_p == nullptr)
        return KVS_RC_NULL_ARG;
    if (!is_plain_key(*key_p))
        return KVS_RC_BAD_KEY;
    uint32_t key = 0;
    memcpy(&key, key_p->key_p, key_length);
    read_transaction reading;
    stored_record record;
    const uint32_t status = reading.find(hdl, key, &record);
    if (status != 0)
        return status == KVS_RC_NO_SUCH_RECORD ? 0 : status;
    found->handles.reset(static_cast<kvs_rec_hdl *>(malloc(sizeof(kvs_rec_hdl))));
    if (found->handles == nullptr)
        return KVS_RC_NO_MEMORY;
    *found->handles = record.handle;
    found->count = 1;
    return 0;
}

[[nodiscard]] uint32_t find_all(kvs_hdl hdl, handle_list *found)
{
    read_transaction reading;
    return reading.list(hdl, found);
}

// What one call writes, gathered at `bytes`.
struct gathered_write {
    uint32_t offset;
    uint32_t length;
    const unsigned char *bytes;
};

bool keeps_key(const gathered_write &what, uint32_t key)
{
    unsigned char result[key_length];
    memcpy(result, &key, key_length);
    if (what.offset < key_length)
        memcpy(result + what.offset, what.bytes, std::min(what.length, key_length - what.offset));
    return memcmp(result, &key, key_length) == 0;
}

[[nodiscard]] attempt write_into(const write_transaction &in, kvs_rec_hdl handle,
                                 const gathered_write &what)
{
    stored_record old;
    const attempt found = in.get(handle, &old);
    if (!found.is_good())
        return found;
    if (what.offset > old.length)
        return with_status(KVS_RC_BAD_OFFSET);
    const uint32_t length = std::max(old.length, what.offset + what.length);
    // The old bytes may lie on a page that the engine is about to change, so they are copied first.
    const block<unsigned char> value = allocate_value(length);
    if (value == nullptr)
        return with_status(KVS_RC_NO_MEMORY);
    memcpy(value.get(), old.bytes, old.length);
    memcpy(value.get() + what.offset, what.bytes, what.length);
    return in.replace(old, value.get(), length);
}

} // namespace

PLATFORM_EXPORT uint32_t kvs_appdesc_init(kvs_appdesc *appdesc_p)
{
    if (appdesc_p == nullptr)
        return KVS_RC_NULL_ARG;
    *appdesc_p = default_appdesc();
    return 0;
}

PLATFORM_EXPORT uint32_t kvs_init(const char *db_name, const kvs_appdesc *appdesc_p, uint64_t,
                                  kvs_hdl *hdl_p)
{
    if (db_name == nullptr || appdesc_p == nullptr || hdl_p == nullptr)
        return KVS_RC_NULL_ARG;
    const uint32_t status = check_appdesc(*appdesc_p);
    return status != 0 ? status : bind(db_name, true, hdl_p);
}

PLATFORM_EXPORT uint32_t kvs_lookup_db_handle(const char *db_name, kvs_hdl *hdl_p)
{
    if (db_name == nullptr || hdl_p == nullptr)
        return KVS_RC_NULL_ARG;
    return bind(db_name, false, hdl_p);
}

PLATFORM_EXPORT uint32_t kvs_find_objects(kvs_hdl hdl, const kvs_key_attr *keys_p,
                                          uint32_t key_count, uint32_t flags,
                                          kvs_rec_hdl **handles_pp, uint32_t *count_p)
{
    if (handles_pp == nullptr || count_p == nullptr)
        return KVS_RC_NULL_ARG;
    if (key_count > 1 || flags != 0)
        return KVS_RC_UNSUPPORTED;
    handle_list found;
    const uint32_t status = key_count == 0 ? find_all(hdl, &found) : find_one(hdl, keys_p, &found);
    if (status == 0) {
        *handles_pp = found.handles.release();
        *count_p = found.count;
    }
    return status;
}

PLATFORM_EXPORT uint32_t kvs_get_object_size(kvs_hdl hdl, const kvs_rec_hdl *rec_p,
                                             uint32_t *size_p)
{
    if (rec_p == nullptr || size_p == nullptr)
        return KVS_RC_NULL_ARG;
    read_transaction reading;
    stored_record record;
    const uint32_t status = reading.get(hdl, *rec_p, &record);
    if (status == 0)
        *size_p = record.length;
    return status;
}

PLATFORM_EXPORT uint32_t kvs_read_object(kvs_hdl hdl, const kvs_rec_hdl *rec_p, uint32_t offset,
                                         void *buffer_p, uint32_t *length_p)
{
    if (rec_p == nullptr || length_p == nullptr || (buffer_p == nullptr && *length_p != 0))
        return KVS_RC_NULL_ARG;
    read_transaction reading;
    stored_record record;
    if (const uint32_t status = reading.get(hdl, *rec_p, &record); status != 0)
        return status;
    if (offset > record.length)
        return KVS_RC_BAD_OFFSET;
    *length_p = std::min(*length_p, record.length - offset);
    if (*length_p != 0)
        memcpy(buffer_p, record.bytes + offset, *length_p);
    return 0;
}

PLATFORM_EXPORT uint32_t kvs_write_object(kvs_hdl hdl, const kvs_rec_hdl *rec_p, uint32_t offset,
                                          const kvs_data_desc *data_p, uint32_t data_count,
                                          uint32_t *, kvs_write_result *result_p)
{
    if (rec_p == nullptr || result_p == nullptr)
        return KVS_RC_NULL_ARG;
    gathered_write what{offset, 0, nullptr};
    if (const uint32_t status = measure_data(data_p, data_count, offset, &what.length); status != 0)
        return status;
    uint32_t status = 0;
    if (what.length == 0) {
        uint32_t nothing = 0;
        status = kvs_read_object(hdl, rec_p, offset, nullptr, &nothing);
    } else {
        const block<unsigned char> bytes = allocate_value(what.length);
        if (bytes == nullptr)
            return KVS_RC_NO_MEMORY;
        gather_data(data_p, data_count, bytes.get());
        what.bytes = bytes.get();
        if (!keeps_key(what, key_of(*rec_p)))
            return KVS_RC_KEY_CHANGED;
        status = write_records(hdl, what.length, [&](const write_transaction &in) {
            return write_into(in, *rec_p, what);
        });
    }
    if (status == 0)
        *result_p = {};
    return status;
}

PLATFORM_EXPORT uint32_t kvs_insert_object(kvs_hdl hdl, const kvs_data_desc *data_p,
                                           uint32_t data_count, const kvs_key_attr *keys_p,
                                           uint32_t key_count, uint32_t reserved_1,
                                           uint32_t reserved_2, kvs_rec_hdl *rec_p)
{
    if (keys_p == nullptr || rec_p == nullptr)
        return KVS_RC_NULL_ARG;
    if (key_count != 1 || reserved_1 != 0 || reserved_2 != 0)
        return KVS_RC_UNSUPPORTED;
    uint32_t length = 0;
    if (const uint32_t status = measure_data(data_p, data_count, 0, &length); status != 0)
        return status;
    if (!is_plain_key(*keys_p) || keys_p->key_offset != 0 || length < key_length)
        return KVS_RC_BAD_KEY;
    const block<unsigned char> value = allocate_value(length);
    if (value == nullptr)
        return KVS_RC_NO_MEMORY;
    gather_data(data_p, data_count, value.get());
    kvs_rec_hdl handle = 0;
    const uint32_t status = write_records(hdl, length, [&](const write_transaction &in) {
        return in.insert(value.get(), length, &handle);
    });
    if (status == 0 || status == KVS_RC_TOLERATED_ON_INSERT)
        *rec_p = handle;
    return status;
}

PLATFORM_EXPORT uint32_t kvs_delete_object(kvs_hdl hdl, const kvs_rec_hdl *rec_p)
{
    if (rec_p == nullptr)
        return KVS_RC_NULL_ARG;
    return write_records(hdl, 0, [&](const write_transaction &in) { return in.remove(*rec_p); });
}

PLATFORM_EXPORT uint32_t kvs_verify(kvs_hdl hdl)
{
    read_transaction reading;
    return reading.verify(hdl);
}

PLATFORM_EXPORT uint32_t kvs_batch_begin(kvs_hdl hdl) { return begin_batch(hdl); }

PLATFORM_EXPORT uint32_t kvs_batch_commit(void) { return commit_batch(); }

PLATFORM_EXPORT uint32_t kvs_batch_abort(void) { return abort_batch(); }

PLATFORM_EXPORT void kvs_set_wait_notice(void (*notice)(const char *line))
{
    wait_notice.store(notice, std::memory_order_release);
}
