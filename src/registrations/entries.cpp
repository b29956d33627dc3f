// Adding a VS object to a job's registration.
#include "core/update.h"
#include "registrations/schema.h"

using namespace vs_kvs;
using namespace vs_kvs::registrations;

namespace {

// Appends the VS object to the working copy, unless it is registered already.
uint32_t append(block<vs_client_objects_reg_kvs_rec> &record, job_id key, object_id object)
{
    using s = add_object;
    const uint32_t old_count = record->vs_count;
    const job_id stored_jid{record->jid};
    const uint32_t *const end = record->vs_array + old_count;
    if (std::find(record->vs_array, record->vs_array + old_count, object.value) != end) {
        report<s>(s::duplicate, object, stored_jid);
        return VS_FAULT_KVS_REG_ALREADY_EXIST;
    }
    report<s>(s::copied, address<"record">{record.get()}, key);
    const uint32_t status = grow<database, s>(record);
    if (status != 0)
        return status;
    record->vs_array[old_count] = object.value;
    report<s>(s::appended, stored_jid, object, object_count{record->vs_count});
    return 0;
}

} // namespace

// A stored record of length 0 leaves nothing to append to; the empty write that follows lets the
// store and the read-back say what is to be said of it.
extern "C" uint32_t vs_kvs_add_new_client_objects_reg_object(uint32_t jid, uint32_t vs_object_id)
{
    using s = add_object;
    const job_id key{jid};
    const object_id object{vs_object_id};
    if (vs_object_id == 0)
        return fail<s>(s::invalid_object, VS_FAULT_INVALID_OBJECT_ID, object);
    handle_array handle;
    block<vs_client_objects_reg_kvs_rec> record;
    uint32_t status = obtain<database, s>(key, handle, record);
    const uint32_t old_count = record ? record->vs_count : 0;
    if (status == 0 && record)
        status = append(record, key, object);
    if (status != 0)
        return status;

    const uint64_t length = record ? flat_length<database>(record->vs_count) : 0;
    status = write_back<database, s>(handle[0], record.get(), static_cast<uint32_t>(length));
    if (status != 0)
        return status;
    if (record)
        report<s>(s::written, job_id{record->jid}, object);

    block<vs_client_objects_reg_kvs_rec> stored;
    status = read_back<database, s>(key, stored);
    if (status != 0)
        return status;
    const bool is_there = old_count < stored->vs_count;
    const object_read found{is_there ? stored->vs_array[old_count] : 0};
    if (!is_there || found.value != object.value)
        return fail<s>(s::sanity_failed, VS_FAULT_KVS_ADD_SANITY, object, found);
    report<s>(s::sanity_passed, found, key);
    return 0;
}
