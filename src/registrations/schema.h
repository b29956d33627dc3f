// The client objects registration database, as the shared steps need to know it.
#pragma once

#include "core/record_steps.h"
#include "registrations/messages.h"

namespace vs_kvs::registrations {

struct database {
    using record = vs_client_objects_reg_kvs_rec;
    using key = job_id;

    static constexpr char name[] = "vs_clientobjectsreg";
    static kvs_hdl &handle() { return g_kvs_hdl_vs_client_objects_reg_db; }

    static constexpr uint32_t fixed = 8;
    static constexpr uint32_t element = 4;
    static constexpr auto count = &record::vs_count;

    static constexpr uint32_t invalid_key = VS_FAULT_INVALID_CLIENT_JID;
    static constexpr uint32_t absent = VS_FAULT_KVS_REG_NOT_EXIST;

    static constexpr auto get_handle = vs_kvs_get_client_objects_reg_rec_hdl;
    static constexpr auto get_record = vs_kvs_get_client_objects_reg_rec;
    static constexpr auto set_key = set_vs_client_objects_reg_kvs_db_pk_attr;

    static auto facts(const record &from)
    {
        return std::tuple{job_id{from.jid}, object_count{from.vs_count}};
    }
};

} // namespace vs_kvs::registrations
