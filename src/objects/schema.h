// The VS objects database, as the shared steps need to know it.
#pragma once

#include "core/record_steps.h"
#include "objects/messages.h"

// Finds the record handle of a VS object; *vs_kvs_rec_hdl_pp receives an array of one handle, which
// the caller frees. Statuses as vs_kvs_get_vs_object_rec, up to finding the record.
extern "C" uint32_t vs_kvs_get_vs_object_rec_hdl(uint32_t vs_object_id,
                                                 kvs_rec_hdl **vs_kvs_rec_hdl_pp);

namespace vs_kvs::objects {

struct database {
    using record = vs_objects_kvs_rec;
    using key = object_id;

    static constexpr char name[] = "vs_objects";
    static kvs_hdl &handle() { return g_kvs_hdl_vs_objects_db; }

    static constexpr uint32_t fixed = 24;
    static constexpr uint32_t element = 4;
    static constexpr auto count = &record::supp_count;

    static constexpr uint32_t invalid_key = VS_FAULT_INVALID_OBJECT_ID;
    static constexpr uint32_t absent = VS_FAULT_NO_SUCH_OBJECT;

    static constexpr auto get_handle = vs_kvs_get_vs_object_rec_hdl;
    static constexpr auto get_record = vs_kvs_get_vs_object_rec;
    static constexpr auto set_key = set_vs_objects_kvs_db_pk_attr;

    static auto facts(const record &from)
    {
        return std::tuple{object_id{from.vs_object_id},
                          selected_version{from.selected_version},
                          optional_compatible{from.is_optional_compatible},
                          scope{from.scope},
                          changed{from.is_changed},
                          version_count{from.supp_count}};
    }

    static auto element_facts(const record &from, uint32_t i)
    {
        return std::tuple{version_index{i}, version{from.supp_versions[i]}};
    }
};

} // namespace vs_kvs::objects
