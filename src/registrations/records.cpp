// Storing, reading and listing registrations.
#include "core/listing.h"
#include "registrations/schema.h"

using namespace vs_kvs;
using namespace vs_kvs::registrations;

extern "C" {

uint32_t vs_kvs_insert_client_objects_reg_rec(const vs_client_objects_reg_kvs_rec *vs_kvs_rec_p,
                                              kvs_rec_hdl *vs_kvs_rec_hdl_p)
{
    using s = insert_rec;
    const uint32_t status = required<s>(vs_kvs_rec_p, "vs_kvs_rec_p");
    return status != 0 ? status : insert<database, s>(*vs_kvs_rec_p, vs_kvs_rec_hdl_p);
}

uint32_t vs_kvs_get_client_objects_reg_rec(uint32_t jid,
                                           vs_client_objects_reg_kvs_rec **vs_kvs_rec_pp)
{
    return get_record<database, get_rec>({jid}, vs_kvs_rec_pp);
}

uint32_t vs_kvs_get_client_objects_reg_rec_hdl(uint32_t jid, kvs_rec_hdl **vs_kvs_rec_hdl_pp)
{
    return get_handle<database, get_rec_hdl>({jid}, vs_kvs_rec_hdl_pp);
}

uint32_t vs_kvs_get_client_objects_reg_all_recs(
    uint32_t *vs_client_objects_reg_kvs_recs_count_p,
    vs_client_objects_reg_kvs_rec ***vs_client_objects_reg_kvs_recs_ppp)
{
    return list<database, get_all_recs>(vs_client_objects_reg_kvs_recs_count_p,
                                        vs_client_objects_reg_kvs_recs_ppp);
}

} // extern "C"
