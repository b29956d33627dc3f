// Storing, reading, listing and deleting client lists.
#include "clients/schema.h"
#include "core/listing.h"

using namespace vs_kvs;
using namespace vs_kvs::clients;

namespace {

// The status for a VS object without a client list: it is not stored itself, or it has no list.
[[nodiscard]] uint32_t status_of_absent_list(object_id key)
{
    using m = get_rec;
    report<m, m::none_found>(key);
    vs_objects_kvs_rec *found = nullptr;
    uint32_t status = vs_kvs_get_vs_object_rec(key.value, &found);
    const block<vs_objects_kvs_rec> vs_object(found);
    if (status == 0 && vs_object == nullptr)
        status = VS_FAULT_KVS_READ_NULL_REC;
    if (status != 0)
        return fail<m, m::validation_failed>(status);
    return fail<m, m::validated>(VS_FAULT_KVS_REG_NOT_EXIST, key);
}

} // namespace

uint32_t vs_kvs::clients::read_list(object_id key, sized_record<vs_clients_info_kvs_rec> &record)
{
    handle_array handles;
    uint32_t status = check_key<database, get_rec>(key);
    if (status == 0)
        status = find<database, get_rec>(key, handles);
    if (status != 0)
        return status;
    return handles != nullptr ? read<database, get_rec>(key, handles[0], record)
                              : status_of_absent_list(key);
}

extern "C" {

kvs_hdl g_kvs_hdl_vs_clients_info_db = VS_KVS_HDL_UNSET;

void set_vs_clients_info_kvs_db_pk_attr(kvs_key_attr *key_attr_p, uint32_t)
{
    set_key_attr(*key_attr_p);
}

uint32_t vs_kvs_insert_clients_info_rec(const vs_clients_info_kvs_rec *record,
                                        kvs_rec_hdl *vs_kvs_rec_hdl_p)
{
    using m = insert_rec;
    const uint32_t status = require_pointer<m>(record, "vs_clients_info_kvs_rec");
    return status != 0 ? status : insert<database, m>(*record, vs_kvs_rec_hdl_p);
}

uint32_t vs_kvs_get_clients_info_rec_hdl(uint32_t vs_object_id, kvs_rec_hdl **vs_kvs_rec_hdl_pp)
{
    return hand_out_handle<database, get_rec_hdl>({vs_object_id}, vs_kvs_rec_hdl_pp);
}

uint32_t vs_kvs_get_clients_info_rec(uint32_t vs_object_id,
                                     vs_clients_info_kvs_rec **vs_clients_info_kvs_rec_pp)
{
    return hand_out_record<database, get_rec>({vs_object_id}, vs_clients_info_kvs_rec_pp,
                                              read_list);
}

uint32_t vs_kvs_get_clients_info_all_recs(uint32_t *vs_clients_info_kvs_recs_count_p,
                                          vs_clients_info_kvs_rec ***vs_clients_info_kvs_recs_ppp)
{
    return list<database, get_all_recs>(vs_clients_info_kvs_recs_count_p,
                                        vs_clients_info_kvs_recs_ppp);
}

uint32_t vs_kvs_delete_clients_info_rec(uint32_t vs_object_id)
{
    using m = delete_rec;
    const object_id key{vs_object_id};
    handle_array handle;
    uint32_t status = look_up_handle<database, m>(key, handle);
    if (status == 0)
        status = erase<database, m>(key, handle[0]);
    return status;
}

} // extern "C"
