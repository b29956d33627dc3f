// The client objects registration database: layout, key and statuses of its records.
#pragma once

#include "core/steps.h"
#include "registrations/messages.h"

namespace vs_kvs::registrations {

struct record_facts : job_id, object_count {};

struct database {
    using record = vs_client_objects_reg_kvs_rec;
    using key = job_id;
    using operations = registrations::operations;

    static constexpr char name[] = "vs_clientobjectsreg";
    static constexpr uint32_t selector = VS_KVS_DB_CLIENT_OBJECTS_REG;
    static constexpr kvs_hdl &handle() { return g_kvs_hdl_vs_client_objects_reg_db; }

    static constexpr field fields[] = {VS_KVS_FIELD(record, jid), VS_KVS_FIELD(record, vs_count)};
    static constexpr record_layout layout{fields, VS_KVS_ELEMENTS(record, vs_array), {}};
    static constexpr stored_bytes bytes{8, 4};
    static constexpr auto count = &record::vs_count;

    static constexpr uint32_t invalid_key = VS_FAULT_INVALID_CLIENT_JID;
    static constexpr uint32_t absent = VS_FAULT_KVS_REG_NOT_EXIST;

    static record_facts facts(const record &from)
    {
        return {job_id{from.jid}, object_count{from.vs_count}};
    }
};

} // namespace vs_kvs::registrations
