// Storing, reading and listing registrations.
#include "core/listing.h"
#include "registrations/schema.h"

using namespace vs_kvs;
using namespace vs_kvs::registrations;

extern "C" {

kvs_hdl g_kvs_hdl_vs_client_objects_reg_db = VS_KVS_HDL_UNSET;

void set_vs_client_objects_reg_kvs_db_pk_attr(kvs_key_attr *key_attr_p, uint32_t)
{
    set_key_attr(*key_attr_p);
}

uint32_t vs_kvs_insert_client_objects_reg_rec(const vs_client_objects_reg_kvs_rec *vs_kvs_rec_p,
                                              kvs_rec_hdl *vs_kvs_rec_hdl_p)
{
    using m = insert_rec;
    const uint32_t status = require_pointer<m>(vs_kvs_rec_p, "vs_kvs_rec_p");
    return status != 0 ? status : insert<database, m>(*vs_kvs_rec_p, vs_kvs_rec_hdl_p);
}

uint32_t vs_kvs_get_client_objects_reg_rec(uint32_t jid,
                                           vs_client_objects_reg_kvs_rec **vs_kvs_rec_pp)
{
    return hand_out_record<database, get_rec>({jid}, vs_kvs_rec_pp, read_record<database, get_rec>);
}

uint32_t vs_kvs_get_client_objects_reg_rec_hdl(uint32_t jid, kvs_rec_hdl **vs_kvs_rec_hdl_pp)
{
    return hand_out_handle<database, get_rec_hdl>({jid}, vs_kvs_rec_hdl_pp);
}

uint32_t vs_kvs_get_client_objects_reg_all_recs(
    uint32_t *vs_client_objects_reg_kvs_recs_count_p,
    vs_client_objects_reg_kvs_rec ***vs_client_objects_reg_kvs_recs_ppp)
{
    return list<database, get_all_recs>(vs_client_objects_reg_kvs_recs_count_p,
                                        vs_client_objects_reg_kvs_recs_ppp);
}

} // extern "C"
