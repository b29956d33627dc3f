// The clients info database, as the shared steps need to know it.
#pragma once

#include "clients/messages.h"
#include "core/record_steps.h"

// Finds the record handle of a VS object's client list; *vs_kvs_rec_hdl_pp receives an array of one
// handle, which the caller frees. VS_FAULT_NO_SUCH_OBJECT when there is no list.
extern "C" uint32_t vs_kvs_get_clients_info_rec_hdl(uint32_t vs_object_id,
                                                    kvs_rec_hdl **vs_kvs_rec_hdl_pp);

namespace vs_kvs::clients {

struct database {
    using record = vs_clients_info_kvs_rec;
    using key = object_id;

    static constexpr char name[] = "vs_clients_info";
    static kvs_hdl &handle() { return g_kvs_hdl_vs_clients_info_db; }

    static constexpr uint32_t fixed = 8;
    static constexpr uint32_t element = 20;
    static constexpr auto count = &record::clients_count;

    static constexpr uint32_t invalid_key = VS_FAULT_INVALID_OBJECT_ID;
    static constexpr uint32_t absent = VS_FAULT_NO_SUCH_OBJECT;

    static constexpr auto get_handle = vs_kvs_get_clients_info_rec_hdl;
    static constexpr auto get_record = vs_kvs_get_clients_info_rec;
    static constexpr auto set_key = set_vs_clients_info_kvs_db_pk_attr;

    static auto facts(const record &from)
    {
        return std::tuple{object_id{from.vs_object_id}, client_count{from.clients_count}};
    }

    static auto element_facts(const record &from, uint32_t i)
    {
        return std::tuple{client_index{i}, job_id{from.clients[i].jid},
                          process_id{from.clients[i].pid}};
    }
};

} // namespace vs_kvs::clients
