// Selecting another version of a VS object.
#include "core/update.h"
#include "objects/schema.h"

using namespace vs_kvs;
using namespace vs_kvs::objects;

// Only the fixed part is written, so that the supported versions stay as they are stored.
extern "C" uint32_t vs_kvs_update_vs_object_selected_version(uint32_t vs_object_id, uint32_t wanted)
{
    using m = update_selected;
    constexpr auto read = read_record<database, get_rec>;
    const object_id key{vs_object_id};
    working_copy<database> copy;
    uint32_t status =
        load_for_update<database, m>(key, look_up_handle<database, get_rec_hdl>, read, copy);
    if (status != 0)
        return status;
    const auto &record = copy.record.data;
    report<m, m::copied>(record_address{record.get()}, key);
    if (record == nullptr)
        return fail<m, m::reread_null>(VS_FAULT_KVS_READ_NULL_REC);

    record->selected_version = wanted;
    const object_id stored_id{record->vs_object_id};
    const selected_version selected{wanted};
    report<m, m::changed_copy>(stored_id, selected);
    status =
        write_back<database, m>(copy.handle[0], record.get(), database::layout.fixed(), stored_id);
    if (status != 0)
        return status;
    report<m, m::written>(stored_id, selected);

    status = read_back<database, m>(key, read, copy.record);
    if (status != 0)
        return status;
    if (record->selected_version != wanted)
        return fail<m, m::sanity_failed>(VS_FAULT_KVS_UPDATE_SANITY, selected,
                                         version_read{record->selected_version});
    report<m, m::sanity_passed>(object_id{record->vs_object_id}, selected);
    return 0;
}
