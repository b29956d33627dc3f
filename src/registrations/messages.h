// The messages of the client objects registration database.
#pragma once

#include "core/message.h"

namespace vs_kvs::registrations {

VS_KVS_FACT(object_count, number, "vs_count");
VS_KVS_FACT(object_read, number, "vs_object_id_read");

struct insert_rec {
    static constexpr char operation[] = "vs_kvs_insert_client_objects_reg_rec";
    static constexpr char block_label[] = "new_kvs_rec_p";

    static constexpr errors<status_text> lookup_failed{0x30200010251,
                                                       "%s: failed in kvs_lookup_db_handle: %s"};
    static constexpr errors<job_id, status_text> insert_failed{
        0x50300010252, "%s: failed in kvs_insert_object: jid: 0x%X: %s"};
    static constexpr api<job_id> inserted{
        0x10200010109, "%s: inserted vs_client_objects_reg jid: 0x%X record successfully"};
    static constexpr no_message input_summary{}, input_line{}, flat_summary{}, flat_line{};

    static constexpr auto traced = std::tuple{lookup_failed, insert_failed, inserted};
};

struct get_rec {
    static constexpr char operation[] = "vs_kvs_get_client_objects_reg_rec";
    static constexpr char out_label[] = "vs_kvs_rec_pp";
    static constexpr char block_label[] = "vs_kvs_rec_p";

    static constexpr errors<job_id> invalid_key{0x10200010253, "%s: got invalid client jid: 0x%X"};
    static constexpr errors<status_text> lookup_failed{0x30200010254,
                                                       "%s: failed in kvs_lookup_db_handle: %s"};
    static constexpr errors<status_text> find_failed{0x30200010255,
                                                     "%s: failed in kvs_find_objects: %s"};
    static constexpr errors<record_count, job_id> many_found{
        0x10300010256,
        "%s: Error: kvs_find_objects returned %u vs client objects reg hdls for jid: 0x%X, it "
        "should never happened. Will raise a VS_FAULT_KVS_MULTI_REC_HDL error"};
    static constexpr errors<job_id> none_found{0x10200010257,
                                               "%s: couldn't find client objects reg jid: 0x%X"};
    static constexpr errors<record_length, job_id, status_text> size_failed{
        0x90400010258,
        "%s: kvs_get_object_size returned len: %u for client objects reg jid: 0x%X, error: %s"};
    static constexpr debug<record_length, job_id> size_known{
        "%s: kvs_get_object_size returned len: %u for client objects reg jid: 0x%X"};
    static constexpr debug<record_length, record_address> before_read{
        "%s: before kvs_read_object, got object size: %u bytes, vs client objects reg kvs rec ptr: "
        "%p"};
    static constexpr errors<status_text> read_failed{0x30200010264,
                                                     "%s: failed in kvs_read_object: %s"};
    static constexpr errors<record_length> read_null{
        0x10200010259,
        "%s: Error: read NULL vs client objects reg kvs rec without error or read zero len: %u, it "
        "should never happen. Will raise a VS_FAULT_KVS_READ_NULL_REC error"};
    static constexpr no_message read_summary{}, read_line{};

    static constexpr auto traced = std::tuple{invalid_key, lookup_failed, find_failed, many_found,
                                              none_found,  size_failed,   read_failed, read_null};
};

struct get_rec_hdl {
    static constexpr char operation[] = "vs_kvs_get_client_objects_reg_rec_hdl";
    static constexpr char out_label[] = "vs_kvs_rec_hdl_pp";

    static constexpr errors<job_id> invalid_key{0x1020001025a, "%s: got invalid client jid: 0x%X"};
    static constexpr errors<status_text> lookup_failed{0x3020001025b,
                                                       "%s: failed in kvs_lookup_db_handle: %s"};
    static constexpr errors<job_id, status_text> find_failed{
        0x5030001025c, "%s: failed in kvs_find_objects jid: 0x%X: %s"};
    static constexpr errors<record_count, job_id> many_found{
        0x1030001025d,
        "%s: Error: kvs_find_objects returned %u vs client objects reg hdls for jid: 0x%X, it "
        "should never happened. Will raise aVS_FAULT_KVS_MULTI_REC_HDL error"};
    static constexpr errors<job_id> none_found{0x1020001025e,
                                               "%s: couldn't find client objects reg jid: 0x%X"};

    static constexpr auto traced =
        std::tuple{invalid_key, lookup_failed, find_failed, many_found, none_found};
};

struct get_all_recs {
    static constexpr char operation[] = "vs_kvs_get_client_objects_reg_all_recs";
    static constexpr char count_label[] = "vs_client_objects_reg_kvs_recs_count_p";
    static constexpr char array_label[] = "vs_client_objects_reg_kvs_recs_ppp";
    static constexpr char block_label[] = "vs_client_objects_reg_kvs_rec";

    static constexpr errors<status_text> lookup_failed{0x3020001025f,
                                                       "%s: failed in kvs_lookup_db_handle: %s"};
    static constexpr errors<status_text> find_failed{0x30200010260,
                                                     "%s: failed in kvs_find_objects: %s"};
    static constexpr debug<record_count> found{
        "%s: KVS find returned %u vs client objects reg hdls"};
    static constexpr errors<> empty{
        0x10100010262, "%s: Warning: the DB doesn't include vs client objects reg records"};
    static constexpr errors<record_length> array_failed{0x10200010261,
                                                        "%s: failed to allocate %u bytes"};
    static constexpr errors<record_length, status_text> size_failed{
        0x50300010263, "%s: kvs_get_object_size returned len: %u, error: %s"};
    static constexpr auto read_failed = get_rec::read_failed;
    static constexpr errors<record_length> read_null{
        0x10200010265,
        "%s: got NULL vs_client_objects_reg_kvs_rec from kvs_read_object without error or zero "
        "record len size: %u. It shouldn't never happen"};
    static constexpr no_message before_read{}, read_summary{}, read_line{};

    static constexpr auto traced = std::tuple{lookup_failed, find_failed, empty,    array_failed,
                                              size_failed,   read_failed, read_null};
};

struct add_object {
    static constexpr char operation[] = "vs_kvs_add_new_client_objects_reg_object";

    static constexpr errors<object_id> invalid_object{0x10200010266,
                                                      "%s: got invalid VS object ID: 0x%X"};
    static constexpr errors<job_id> invalid_key{0x10200010267, "%s: got invalid client jid: 0x%X"};
    static constexpr errors<status_text> lookup_failed{0x30200010268,
                                                       "%s: failed in kvs_lookup_db_handle: %s"};
    static constexpr errors<job_id, status_text> handle_failed{
        0x50300010269, "%s: failed in vs_kvs_get_client_objects_reg_rec_hdl jid: 0x%X: %s"};
    static constexpr debug<handle_address, job_id> handle_found{
        "%s: kvs_rec_hdl_p ptr: %p for jid: 0x%X successfully"};
    static constexpr errors<job_id, status_text> copy_failed{
        0x5030001026a, "%s: failed in vs_kvs_get_client_objects_reg_rec jid: 0x%X: %s"};
    static constexpr debug<object_id, job_id> duplicate{
        "%s: VS KVS registration vs_object_id: 0x%X is already exist for jid: 0x%X"};
    static constexpr debug<record_address, job_id> copied{
        "%s: got vs_client_objects_reg_kvs_rec ptr: %p for jid: 0x%X successfully from "
        "vs_kvs_get_client_objects_reg_rec"};
    static constexpr debug<old_array_length, record_length> lengths{
        "%s: old vs_array size: %u, new vs array size: %u"};
    static constexpr errors<record_length, error_number> grow_failed{
        0x1030001026b, "%s: failed to allocate %u bytes, errno: %d"};
    static constexpr debug<job_id, object_id, object_count> appended{
        "%s: Updated vs client objects reg jid: 0x%X vs array with a new vs_object_id: 0x%X, "
        "new_vs_count: %u before kvs_write"};
    static constexpr errors<status_text> write_failed{0x3020001026c,
                                                      "%s: failed in kvs_write_object: %s"};
    static constexpr debug<job_id, object_id> written{
        "%s: wrote successfully jid: 0x%X, kvs record after added a new vs_object_id: 0x%X"};
    static constexpr debug<> sanity_starts{
        "%s: Now performing sanity check on the added new vs object id..."};
    static constexpr errors<job_id> reread_failed{
        0x1020001026d, "%s: failed in vs_kvs_get_client_objects_reg_rec for jid: 0x%X"};
    static constexpr errors<> reread_null{
        0x1010001026f, "%s: Sanity check: got NULL vs_client_objects_reg_kvs_rec from "
                       "vs_kvs_get_client_objects_reg_rec without error. It should never happen"};
    static constexpr errors<object_id, object_read> sanity_failed{
        0x1030001026e,
        "%s: failed in sanity check, the added vs_object_id: 0x%X, but read from kvs after add the "
        "vs_object_id: 0x%X"};
    static constexpr api<object_read, job_id> sanity_passed{
        0x1030001010a,
        "%s: Sanity check the added vs_object_id: 0x%X to jid: 0x%X record is completed "
        "successfully"};

    static constexpr auto traced = std::tuple{
        invalid_object, invalid_key,   lookup_failed, handle_failed, copy_failed,  grow_failed,
        write_failed,   reread_failed, reread_null,   sanity_failed, sanity_passed};
};

using operations = operation_list<insert_rec, get_rec, get_rec_hdl, get_all_recs, add_object>;

} // namespace vs_kvs::registrations
