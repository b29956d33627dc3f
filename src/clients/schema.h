// The clients info database: layout, key and statuses of its records.
#pragma once

#include "clients/messages.h"
#include "core/steps.h"

// Finds the record handle of a VS object's client list; *vs_kvs_rec_hdl_pp receives an array of one
// handle, which the caller frees. VS_FAULT_NO_SUCH_OBJECT if there is no list.
extern "C" uint32_t vs_kvs_get_clients_info_rec_hdl(uint32_t vs_object_id,
                                                    kvs_rec_hdl **vs_kvs_rec_hdl_pp);

namespace vs_kvs::clients {

struct record_facts : object_id, client_count {};

struct client_facts : client_index, job_id, process_id {};

struct database {
    using record = vs_clients_info_kvs_rec;
    using key = object_id;
    using operations = clients::operations;

    static constexpr char name[] = "vs_clients_info";
    static constexpr uint32_t selector = VS_KVS_DB_CLIENTS_INFO;
    static constexpr kvs_hdl &handle() { return g_kvs_hdl_vs_clients_info_db; }

    static constexpr field fields[] = {VS_KVS_FIELD(record, vs_object_id),
                                       VS_KVS_FIELD(record, clients_count)};
    static constexpr field client_fields[] = {VS_KVS_FIELD(vs_client_info_entry, jid),
                                              VS_KVS_FIELD(vs_client_info_entry, pid),
                                              VS_KVS_FIELD(vs_client_info_entry, client_data)};
    static constexpr record_layout layout{fields, VS_KVS_ELEMENTS(record, clients), client_fields};
    static constexpr stored_bytes bytes{8, 20};
    static constexpr auto count = &record::clients_count;

    static constexpr uint32_t invalid_key = VS_FAULT_INVALID_OBJECT_ID;
    static constexpr uint32_t absent = VS_FAULT_NO_SUCH_OBJECT;

    static record_facts facts(const record &from)
    {
        return {object_id{from.vs_object_id}, client_count{from.clients_count}};
    }

    static client_facts element_facts(const record &from, uint32_t i)
    {
        return {client_index{i}, job_id{from.clients[i].jid}, process_id{from.clients[i].pid}};
    }
};

// Reads a client list; if there is none, finds out whether the VS object itself is stored.
[[nodiscard]] uint32_t read_list(object_id key, sized_record<vs_clients_info_kvs_rec> &record);

} // namespace vs_kvs::clients
