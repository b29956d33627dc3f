// Storing, reading, listing and deleting VS objects.
#include "core/listing.h"
#include "core/update.h"
#include "objects/schema.h"

using namespace vs_kvs;
using namespace vs_kvs::objects;

extern "C" {

kvs_hdl g_kvs_hdl_vs_objects_db = VS_KVS_HDL_UNSET;

void set_vs_objects_kvs_db_pk_attr(kvs_key_attr *key_attr_p, uint32_t)
{
    set_key_attr(*key_attr_p);
}

uint32_t vs_kvs_insert_vs_object_rec(const vs_objects_kvs_rec *vs_object_kvs_rec_p,
                                     kvs_rec_hdl *vs_kvs_rec_hdl_p)
{
    using m = insert_rec;
    const uint32_t status = require_pointer<m>(vs_object_kvs_rec_p, "vs_object_kvs_rec_p");
    if (status != 0)
        return status;
    if (vs_object_kvs_rec_p->vs_object_id == 0)
        return fail<m, m::invalid_key>(VS_FAULT_INVALID_OBJECT_ID, object_id{0});
    return insert<database, m>(*vs_object_kvs_rec_p, vs_kvs_rec_hdl_p);
}

uint32_t vs_kvs_get_vs_object_rec_hdl(uint32_t vs_object_id, kvs_rec_hdl **vs_kvs_rec_hdl_pp)
{
    return hand_out_handle<database, get_rec_hdl>({vs_object_id}, vs_kvs_rec_hdl_pp);
}

uint32_t vs_kvs_get_vs_object_rec(uint32_t vs_object_id, vs_objects_kvs_rec **vs_object_kvs_rec_pp)
{
    return hand_out_record<database, get_rec>({vs_object_id}, vs_object_kvs_rec_pp,
                                              read_record<database, get_rec>);
}

uint32_t vs_kvs_get_vs_objects_all_recs(uint32_t *vs_objects_kvs_recs_count_p,
                                        vs_objects_kvs_rec ***vs_objects_kvs_recs_ppp)
{
    return list<database, get_all_recs>(vs_objects_kvs_recs_count_p, vs_objects_kvs_recs_ppp);
}

uint32_t vs_kvs_delete_vs_object(uint32_t vs_object_id)
{
    using m = delete_rec;
    const object_id key{vs_object_id};
    handle_array handle;
    uint32_t status = check_key<database, m>(key);
    if (status == 0)
        status = load_handle<database, m>(key, look_up_handle<database, get_rec_hdl>, handle);
    if (status == 0)
        status = erase<database, m>(key, handle[0]);
    return status;
}

} // extern "C"
