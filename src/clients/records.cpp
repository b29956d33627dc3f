// Storing, reading, listing and deleting client lists.
#include "clients/schema.h"
#include "core/listing.h"

using namespace vs_kvs;
using namespace vs_kvs::clients;

namespace {

// Why a VS object has no client list: it is unknown itself, or nobody stored a list for it.
uint32_t explain_absence(object_id key)
{
    using s = get_rec;
    report<s>(s::none_found, key);
    vs_objects_kvs_rec *found = nullptr;
    uint32_t status = vs_kvs_get_vs_object_rec(key.value, &found);
    const block<vs_objects_kvs_rec> vs_object(found);
    if (status == 0 && !vs_object)
        status = VS_FAULT_KVS_READ_NULL_REC;
    if (status != 0)
        return fail<s>(s::validation_failed, status);
    return fail<s>(s::validated, VS_FAULT_KVS_REG_NOT_EXIST, key);
}

} // namespace

extern "C" {

uint32_t vs_kvs_insert_clients_info_rec(const vs_clients_info_kvs_rec *record,
                                        kvs_rec_hdl *vs_kvs_rec_hdl_p)
{
    using s = insert_rec;
    const uint32_t status = required<s>(record, "vs_clients_info_kvs_rec");
    return status != 0 ? status : insert<database, s>(*record, vs_kvs_rec_hdl_p);
}

uint32_t vs_kvs_get_clients_info_rec_hdl(uint32_t vs_object_id, kvs_rec_hdl **vs_kvs_rec_hdl_pp)
{
    return get_handle<database, get_rec_hdl>({vs_object_id}, vs_kvs_rec_hdl_pp);
}

uint32_t vs_kvs_get_clients_info_rec(uint32_t vs_object_id,
                                     vs_clients_info_kvs_rec **vs_clients_info_kvs_rec_pp)
{
    using s = get_rec;
    const object_id key{vs_object_id};
    handle_array handles;
    uint32_t status = required<s>(vs_clients_info_kvs_rec_pp, s::out_label);
    if (status == 0)
        status = check_key<database, s>(key);
    if (status == 0)
        status = find<database, s>(key, handles);
    if (status != 0)
        return status;
    return handles ? read<database, s>(key, handles[0], vs_clients_info_kvs_rec_pp)
                   : explain_absence(key);
}

uint32_t vs_kvs_get_clients_info_all_recs(uint32_t *vs_clients_info_kvs_recs_count_p,
                                          vs_clients_info_kvs_rec ***vs_clients_info_kvs_recs_ppp)
{
    return list<database, get_all_recs>(vs_clients_info_kvs_recs_count_p,
                                        vs_clients_info_kvs_recs_ppp);
}

uint32_t vs_kvs_delete_clients_info_rec(uint32_t vs_object_id)
{
    using s = delete_rec;
    const object_id key{vs_object_id};
    handle_array handles;
    uint32_t status = check_key<database, s>(key);
    if (status == 0)
        status = find_one<database, s>(key, handles);
    if (status == 0)
        status = erase<database, s>(key, handles[0]);
    return status;
}

} // extern "C"
