// Selecting another version of a VS object.
#include "core/update.h"
#include "objects/schema.h"

using namespace vs_kvs;
using namespace vs_kvs::objects;

// Only the fixed part is written, so that the supported versions stay as they are stored.
extern "C" uint32_t vs_kvs_update_vs_object_selected_version(uint32_t vs_object_id, uint32_t wanted)
{
    using s = update_selected;
    const object_id key{vs_object_id};
    handle_array handle;
    block<vs_objects_kvs_rec> record;
    uint32_t status = obtain<database, s>(key, handle, record);
    if (status != 0)
        return status;
    report<s>(s::copied, address<"record">{record.get()}, key);
    if (!record)
        return fail<s>(s::reread_null, VS_FAULT_KVS_READ_NULL_REC);

    record->selected_version = wanted;
    const object_id stored_id{record->vs_object_id};
    const selected_version selected{wanted};
    report<s>(s::changed_copy, stored_id, selected);
    status = write_back<database, s>(handle[0], record.get(), database::fixed, stored_id);
    if (status != 0)
        return status;
    report<s>(s::written, stored_id, selected);

    record.reset();
    status = read_back<database, s>(key, record);
    if (status != 0)
        return status;
    if (record->selected_version != wanted)
        return fail<s>(s::sanity_failed, VS_FAULT_KVS_UPDATE_SANITY, selected,
                       version_read{record->selected_version});
    report<s>(s::sanity_passed, object_id{record->vs_object_id}, selected);
    return 0;
}
