// The messages of the clients info database.
#pragma once

#include "core/message.h"

namespace vs_kvs::clients {

VS_KVS_FACT(client_count, number, "clients_count");
VS_KVS_FACT(client_index, number, "index");
VS_KVS_FACT(stored_pid, number, "stored_pid");
VS_KVS_FACT(jid_read, number, "jid_read");
VS_KVS_FACT(pid_read, number, "pid_read");
VS_KVS_FACT(clients_address, address, "clients");

using client_line = debug<client_index, job_id, client_index, process_id>;

struct insert_rec {
    static constexpr char operation[] = "vs_kvs_insert_clients_info_rec";
    static constexpr char block_label[] = "new_kvs_rec_p";

    static constexpr errors<status_text> lookup_failed{0x30200010226,
                                                       "%s: failed in kvs_lookup_db_handle: %s"};
    static constexpr debug<object_id, client_count> input_summary{
        "%s: Dumping input of vs_clients_info_kvs_rec VS object ID: 0x%X, clients_count: %u"};
    static constexpr client_line input_line{"%s: clients[%d].jid = 0x%X, clients[%d].pid = 0x%X"};
    static constexpr debug<record_length, object_id, client_count> flat_summary{
        "%s: Dumping the new flat vs_clients_info_kvs_rec size: %u: VS object id: 0x%X, "
        "clients_count: %u: "};
    static constexpr client_line flat_line{"%s: clients[%d].jid=0x%X clients[%d].pid=0x%X"};
    static constexpr errors<object_id, status_text> insert_failed{
        0x50300010227, "%s: failed in kvs_insert_object: vs_object_id: 0x%X: %s"};
    static constexpr api<object_id> inserted{
        0x10200010106, "%s: inserted clients_info record vs_object_id:0x%X successfully"};

    static constexpr auto traced = std::tuple{lookup_failed, insert_failed, inserted};
};

struct get_rec {
    static constexpr char operation[] = "vs_kvs_get_clients_info_rec";
    static constexpr char out_label[] = "vs_clients_info_kvs_rec_pp";
    static constexpr char block_label[] = "vs_clients_info_kvs_rec_p";

    static constexpr errors<object_id> invalid_key{0x10200010228,
                                                   "%s: got invalid VS object ID: 0x%X"};
    static constexpr errors<status_text> lookup_failed{0x30200010229,
                                                       "%s: failed in kvs_lookup_db_handle: %s"};
    static constexpr errors<status_text> find_failed{0x3020001022a,
                                                     "%s: failed in kvs_find_objects: %s"};
    static constexpr errors<record_count, object_id> many_found{
        0x1030001022b,
        "%s: Error: kvs_find_objects returned %u vs clients info hdls for VS object ID: 0x%X, it "
        "should never happened. Will raise a VS_FAULT_KVS_MULTI_REC_HDL error"};
    static constexpr errors<object_id> none_found{
        0x1020001022c,
        "%s: couldn't find VS object ID: 0x%X in vs_clients_info_db, so will try to validate with "
        "vs_objects_db"};
    static constexpr errors<status_text> validation_failed{
        0x3020001022d, "%s: failed in vs_kvs_get_vs_object_rec: %s"};
    static constexpr errors<object_id> validated{
        0x1020001022e,
        "%s: validated vs object id: 0x%X success,, so i.e. the client registration doesn't exist. "
        "Will raise a VS_FAULT_KVS_REG_NOT_EXIST error"};
    static constexpr errors<record_length, object_id, status_text> size_failed{
        0x9040001022f,
        "%s: kvs_get_object_size returned len: %u for VS object ID: 0x%X, error: %s"};
    static constexpr debug<record_length, object_id> size_known{
        "%s: kvs_get_object_size returned len: %u for VS object ID: 0x%X"};
    static constexpr debug<record_length, record_address> before_read{
        "%s: before kvs_read_object, got object size: %u bytes, vs_object_kvs_rec_p: %p"};
    static constexpr errors<status_text> read_failed{0x30200010230,
                                                     "%s: failed in kvs_read_object: %s"};
    static constexpr errors<record_length> read_null{
        0x10200010231, "%s: Error: read NULL vs_clients_info_kvs_rec without error or read zero "
                       "len: %u, it should "
                       "never happen. Will raise a VS_FAULT_KVS_READ_NULL_REC error"};
    static constexpr debug<record_length, object_id, client_count> read_summary{
        "%s: Read successully a clients info record size: %u bytes: VS object ID: 0x%X, "
        "clients_count: %u. Dumping clients:"};
    static constexpr client_line read_line{"%s: clients[%d].jid: 0x%X, clients[%d].pid: 0x%X"};

    static constexpr auto traced =
        std::tuple{invalid_key,       lookup_failed, find_failed, many_found,  none_found,
                   validation_failed, validated,     size_failed, read_failed, read_null};
};

struct get_rec_hdl {
    static constexpr char operation[] = "vs_kvs_get_clients_info_rec_hdl";
    static constexpr char out_label[] = "vs_kvs_rec_hdl_pp";

    static constexpr errors<object_id> invalid_key{0x10200010232,
                                                   "%s: got invalid VS object ID: 0x%X"};
    static constexpr errors<status_text> lookup_failed{0x30200010233,
                                                       "%s: failed in kvs_lookup_db_handle: %s"};
    static constexpr errors<status_text> find_failed{0x30200010234,
                                                     "%s: failed in kvs_find_objects: %s"};
    static constexpr errors<record_count, object_id> many_found{
        0x10300010235,
        "%s: Error: kvs_find_objects returned %u vs clients info hdls for VS object ID: 0x%X, it "
        "should never happened. Will setup a VS_FAULT_KVS_MULTI_REC_HDL error"};
    static constexpr errors<object_id> none_found{0x10200010236,
                                                  "%s: couldn't find VS object ID: 0x%X"};

    static constexpr auto traced =
        std::tuple{invalid_key, lookup_failed, find_failed, many_found, none_found};
};

struct get_all_recs {
    static constexpr char operation[] = "vs_kvs_get_clients_info_all_recs";
    static constexpr char count_label[] = "vs_clients_info_kvs_recs_count_p";
    static constexpr char array_label[] = "vs_clients_info_kvs_recs_ppp";
    static constexpr char block_label[] = "vs_clients_info_kvs_rec";

    static constexpr errors<status_text> lookup_failed{0x30200010237,
                                                       "%s: failed in kvs_lookup_db_handle: %s"};
    static constexpr errors<status_text> find_failed{0x30200010238,
                                                     "%s: failed in kvs_find_objects: %s"};
    static constexpr debug<record_count> found{"%s: KVS find returned %u vs clients info hdls"};
    static constexpr errors<> empty{
        0x1010001023a, "%s: Warning: the vs_clients_info db doesn't include clients info records"};
    static constexpr errors<record_length> array_failed{0x10200010239,
                                                        "%s: failed to allocate %u bytes"};
    static constexpr errors<record_length, status_text> size_failed{
        0x5030001023b, "%s: kvs_get_object_size returned len: %u, error: %s"};
    static constexpr errors<status_text> read_failed{0x3020001023c,
                                                     "%s: failed in kvs_read_object: %s"};
    static constexpr errors<record_length> read_null{
        0x1020001023d,
        "%s: got NULL vs_clients_info_kvs_rec from kvs_read_object without error or zero record "
        "len size: %u. It should never happen"};
    static constexpr no_message before_read{}, read_summary{}, read_line{};

    static constexpr auto traced = std::tuple{lookup_failed, find_failed, empty,    array_failed,
                                              size_failed,   read_failed, read_null};
};

struct add_client {
    static constexpr char operation[] = "vs_kvs_add_new_client_info";

    static constexpr errors<object_id> invalid_key{0x1020001023e,
                                                   "%s: got invalid VS object ID: 0x%X"};
    static constexpr errors<status_text> lookup_failed{0x3020001023f,
                                                       "%s: failed in kvs_lookup_db_handle: %s"};
    static constexpr errors<object_id, status_text> handle_failed{
        0x50300010240, "%s: failed in vs_kvs_get_clients_info_rec_hdl vs_object_id: 0x%X: %s"};
    static constexpr debug<handle_address, object_id> handle_found{
        "%s: vs_clients_info_kvs_rec_hdl ptr: %p for vs_object_id: 0x%X successfully from "
        "vs_kvs_get_clients_info_rec_hdl"};
    static constexpr errors<object_id, status_text> copy_failed{
        0x50300010241, "%s: failed in vs_kvs_get_clients_info_rec vs_object_id: 0x%X: %s"};
    static constexpr debug<record_address, clients_address, client_count, object_id> copied{
        "%s: got vs_clients_info_kvs_rec ptr: %p, clients ptr: %p, clients_count: %u for "
        "vs_object_id: 0x%X successfully"};
    static constexpr client_line scanned{"%s: clients[%d].jid:  0x%X, clients[%d].pid: 0x%X"};
    static constexpr debug<old_length, record_length> lengths{
        "%s: old vs_clients_info_kvs_rec size: %u, new vs_clients_info_kvs_rec size: %u"};
    static constexpr errors<record_length, error_number> grow_failed{
        0x10300010242, "%s: failed to allocate %u bytes, errno=%d"};
    static constexpr debug<object_id, job_id, process_id, client_count> appended{
        "%s: Updated VS object id: 0x%X clients array with new client info jid: 0x%X, pid: 0x%X, "
        "new clients_count: %u before kvs_write"};
    static constexpr errors<status_text> write_failed{0x30200010243,
                                                      "%s: failed in kvs_write_object: %s"};
    static constexpr debug<object_id, job_id, process_id> written{
        "%s: wrote successfully vs_object_id: 0x%X, kvs record after updated client info jid: "
        "0x%X, pid: 0x%X"};
    static constexpr debug<> sanity_starts{"%s: Now performing sanity check on the update..."};
    static constexpr errors<object_id> reread_failed{
        0x10200010244, "%s: failed in vs_kvs_get_clients_info_rec for vs_object_id: 0x%X"};
    static constexpr errors<> reread_null{
        0x10100010246, "%s: failed in sanity check: got NULL vs_clients_info_kvs_rec from "
                       "vs_kvs_get_clients_info_rec without error. It should never happend"};
    static constexpr errors<object_id, job_id, jid_read> sanity_failed{
        0x10400010245,
        "%s: failed in sanity check the updated client info vs_object_id: 0x%X, jid: 0x%X, but "
        "read from kvs after the update client info jid: 0x%X"};
    static constexpr api<object_id, job_id> sanity_passed{
        0x10300010107,
        "%s: Sanity Check the add new client_info vs_object_id: 0x%X, client info jid: 0x%X is "
        "completed successfully"};

    static constexpr auto traced =
        std::tuple{invalid_key,  lookup_failed, handle_failed, copy_failed,   grow_failed,
                   write_failed, reread_failed, reread_null,   sanity_failed, sanity_passed};
};

struct update_client {
    static constexpr char operation[] = "vs_kvs_update_client_info";

    static constexpr errors<object_id> invalid_key{0x10200010247,
                                                   "%s: got invalid VS object ID: 0x%X"};
    static constexpr errors<status_text> lookup_failed{0x30200010248,
                                                       "%s: failed in kvs_lookup_db_handle: %s"};
    static constexpr errors<object_id, status_text> handle_failed{
        0x50300010249, "%s: failed in vs_kvs_get_clients_info_rec_hdl vs_object_id: 0x%X: %s"};
    static constexpr auto handle_found = add_client::handle_found;
    static constexpr errors<object_id, status_text> copy_failed{
        0x5030001024a, "%s: failed in vs_kvs_get_clients_info_rec vs_object_id: 0x%X: %s"};
    static constexpr debug<record_address, object_id> copied{
        "%s: Read vs_clients_info_kvs_rec ptr: %p, vs_object_id: 0x%X successfully from "
        "vs_kvs_get_clients_info_rec"};
    static constexpr errors<job_id, object_id> no_match{
        0x1030001024b, "%s: couldn't find a match client info jid: 0x%X for vs_object_id: 0x%X"};
    static constexpr debug<object_id, job_id, stored_pid, process_id> match{
        "%s: found a match vs_object_id: 0x%X, client info jid: 0x%X, pid: 0x%X, new pid: 0x%X"};
    static constexpr errors<object_id, status_text> size_failed{
        0x5030001024c, "%s: failed in kvs_get_object_size of vs_object_id: 0x%X: %s"};
    static constexpr errors<status_text> write_failed{0x3020001024d,
                                                      "%s: failed in kvs_write_object: %s"};
    static constexpr auto written = add_client::written;
    static constexpr auto sanity_starts = add_client::sanity_starts;
    static constexpr errors<object_id> reread_failed{
        0x1020001024e, "%s: failed in vs_kvs_get_clients_info_rec for vs_object_id: 0x%X"};
    static constexpr errors<> reread_null{
        0x10100010250,
        "%s: Sanity check: got NULL vs_clients_info_kvs_rec from vs_kvs_get_clients_info_rec "
        "without error. It should never happend"};
    static constexpr errors<job_id, process_id, pid_read> sanity_failed{
        0x1040001024f,
        "%s: failed in sanity check the updated jid: 0x%X client info pid: 0x%X, but read from kvs "
        "after the updated client info pid 0x%X"};
    static constexpr api<object_id, job_id> sanity_passed{
        0x10300010108,
        "%s: Sanity check vs_object_id: 0x%X, client info jid: 0x%X is completed successfully"};

    static constexpr auto traced = std::tuple{
        invalid_key,  lookup_failed, handle_failed, copy_failed,   no_match,     size_failed,
        write_failed, reread_failed, reread_null,   sanity_failed, sanity_passed};
};

// The deletion finds its record as the handle lookup does, and reports it in the same words.
struct delete_rec {
    static constexpr char operation[] = "vs_kvs_delete_clients_info_rec";

    static constexpr auto invalid_key = get_rec_hdl::invalid_key;
    static constexpr auto lookup_failed = get_rec_hdl::lookup_failed;
    static constexpr auto find_failed = get_rec_hdl::find_failed;
    static constexpr auto many_found = get_rec_hdl::many_found;
    static constexpr auto none_found = get_rec_hdl::none_found;
    static constexpr errors<object_id, status_text> delete_failed{
        0x50300010270, "%s: failed in kvs_delete_object vs_object_id: 0x%X: %s"};

    static constexpr auto traced =
        std::tuple{invalid_key, lookup_failed, find_failed, many_found, none_found, delete_failed};
};

using operations = operation_list<insert_rec, get_rec, get_rec_hdl, get_all_recs, add_client,
                                  update_client, delete_rec>;

} // namespace vs_kvs::clients
