// The VS objects database: layout, key and statuses of its records.
#pragma once

#include "core/steps.h"
#include "objects/messages.h"

extern "C" {

// 1 after a bulk population by this process. Starts at 0 and is not exported.
extern uint32_t g_vs_objects_db_populated;

// Finds the record handle of a VS object; *vs_kvs_rec_hdl_pp receives an array of one handle, which
// the caller frees. Statuses as vs_kvs_get_vs_object_rec, up to finding the record.
uint32_t vs_kvs_get_vs_object_rec_hdl(uint32_t vs_object_id, kvs_rec_hdl **vs_kvs_rec_hdl_pp);
}

namespace vs_kvs::objects {

struct record_facts : object_id,
                      selected_version,
                      optional_compatible,
                      scope,
                      changed,
                      version_count {};

struct version_facts : version_index, version {};

struct database {
    using record = vs_objects_kvs_rec;
    using key = object_id;
    using operations = objects::operations;

    static constexpr char name[] = "vs_objects";
    static constexpr uint32_t selector = VS_KVS_DB_OBJECTS;
    static constexpr kvs_hdl &handle() { return g_kvs_hdl_vs_objects_db; }

    static constexpr field fields[] = {VS_KVS_FIELD(record, vs_object_id),
                                       VS_KVS_FIELD(record, selected_version),
                                       VS_KVS_FIELD(record, is_optional_compatible),
                                       VS_KVS_FIELD(record, scope),
                                       VS_KVS_FIELD(record, is_changed),
                                       VS_KVS_FIELD(record, supp_count)};
    static constexpr record_layout layout{fields, VS_KVS_ELEMENTS(record, supp_versions), {}};
    static constexpr stored_bytes bytes{24, 4};
    static constexpr auto count = &record::supp_count;

    static constexpr uint32_t invalid_key = VS_FAULT_INVALID_OBJECT_ID;
    static constexpr uint32_t absent = VS_FAULT_NO_SUCH_OBJECT;

    static record_facts facts(const record &from)
    {
        return {object_id{from.vs_object_id},
                selected_version{from.selected_version},
                optional_compatible{from.is_optional_compatible},
                scope{from.scope},
                changed{from.is_changed},
                version_count{from.supp_count}};
    }

    static version_facts element_facts(const record &from, uint32_t i)
    {
        return {version_index{i}, version{from.supp_versions[i]}};
    }
};

} // namespace vs_kvs::objects
