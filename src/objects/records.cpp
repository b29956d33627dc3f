// Storing, reading, listing and deleting VS objects.
#include "core/listing.h"
#include "core/update.h"
#include "objects/schema.h"

using namespace vs_kvs;
using namespace vs_kvs::objects;

extern "C" {

uint32_t vs_kvs_insert_vs_object_rec(const vs_objects_kvs_rec *vs_object_kvs_rec_p,
                                     kvs_rec_hdl *vs_kvs_rec_hdl_p)
{
    using s = insert_rec;
    const uint32_t status = required<s>(vs_object_kvs_rec_p, "vs_object_kvs_rec_p");
    if (status != 0)
        return status;
    if (vs_object_kvs_rec_p->vs_object_id == 0)
        return fail<s>(s::invalid_key, VS_FAULT_INVALID_OBJECT_ID, object_id{0});
    return insert<database, s>(*vs_object_kvs_rec_p, vs_kvs_rec_hdl_p);
}

uint32_t vs_kvs_get_vs_object_rec_hdl(uint32_t vs_object_id, kvs_rec_hdl **vs_kvs_rec_hdl_pp)
{
    return get_handle<database, get_rec_hdl>({vs_object_id}, vs_kvs_rec_hdl_pp);
}

uint32_t vs_kvs_get_vs_object_rec(uint32_t vs_object_id, vs_objects_kvs_rec **vs_object_kvs_rec_pp)
{
    return get_record<database, get_rec>({vs_object_id}, vs_object_kvs_rec_pp);
}

uint32_t vs_kvs_get_vs_objects_all_recs(uint32_t *vs_objects_kvs_recs_count_p,
                                        vs_objects_kvs_rec ***vs_objects_kvs_recs_ppp)
{
    return list<database, get_all_recs>(vs_objects_kvs_recs_count_p, vs_objects_kvs_recs_ppp);
}

uint32_t vs_kvs_delete_vs_object(uint32_t vs_object_id)
{
    using s = delete_rec;
    const object_id key{vs_object_id};
    handle_array handle;
    uint32_t status = check_key<database, s>(key);
    if (status == 0)
        status = obtain_handle<database, s>(key, handle);
    if (status == 0)
        status = erase<database, s>(key, handle[0]);
    return status;
}

} // extern "C"
