// The messages of the VS objects database.
#pragma once

#include "core/message.h"

namespace vs_kvs::objects {

VS_KVS_FACT(optional_compatible, number, "is_optional_compatible");
VS_KVS_FACT(scope, number, "scope");
VS_KVS_FACT(changed, number, "is_changed");
VS_KVS_FACT(version_count, number, "supp_count");
VS_KVS_FACT(version_index, number, "index");
VS_KVS_FACT(version, number, "version");
VS_KVS_FACT(version_read, number, "selected_version_read");
VS_KVS_FACT(element_count, number, "vs_count");

// A record, printed in one line and one for each supported version.
template <class... Facts>
using record_line = debug<Facts..., object_id, selected_version, optional_compatible, scope,
                          changed, version_count>;
using version_line = debug<version_index, version>;

struct insert_rec {
    static constexpr char operation[] = "vs_kvs_insert_vs_object_rec";
    static constexpr char block_label[] = "new_kvs_rec_p";

    static constexpr errors<object_id> invalid_key{0x10200010203,
                                                   "%s: got invalid vs object id: 0x%X"};
    static constexpr errors<object_id, status_text> lookup_failed{
        0x50300010204, "%s: failed in kvs_lookup_db_handle for vs object id: 0x%X: %s"};
    static constexpr record_line<> input_summary{
        "%s: Dumping the input vs_objects_kvs_rec VS object id: 0x%X, selected_version: 0x%X, "
        "is_optional_compatible: 0x%X, scope: 0x%X, is_changed: 0x%X, supp_count: %u before mem "
        "allocation:"};
    static constexpr version_line input_line{"%s: supp_versions[%d]: 0x%X"};
    static constexpr record_line<record_length> flat_summary{
        "%s: Dumping the new flat vs_objects_kvs_rec size: %u, VS object id: 0x%X, "
        "selected_version: 0x%X, is_optional_compatible: 0x%X, scope: 0x%X, is_changed: 0x%X, "
        "supp_count: %u,  before insert:"};
    static constexpr version_line flat_line = input_line;
    static constexpr errors<object_id, status_text> insert_failed{
        0x50300010205, "%s: failed in kvs_insert_object: vs object id: 0x%X: %s"};
    static constexpr api<object_id, selected_version> inserted{
        0x10300010103, "%s: inserted vs object id: 0x%X, version: 0x%X successfully"};

    static constexpr auto traced = std::tuple{invalid_key, lookup_failed, insert_failed, inserted};
};

struct get_rec {
    static constexpr char operation[] = "vs_kvs_get_vs_object_rec";
    static constexpr char out_label[] = "vs_object_kvs_rec_pp";
    static constexpr char block_label[] = "vs_object_kvs_rec_p";

    static constexpr errors<object_id> invalid_key{0x10200010206,
                                                   "%s: got invalid VS object ID: 0x%X"};
    static constexpr errors<status_text> lookup_failed{0x30200010207,
                                                       "%s: failed in kvs_lookup_db_handle: %s"};
    static constexpr errors<status_text> find_failed{0x30200010208,
                                                     "%s: failed in kvs_find_objects: %s"};
    static constexpr errors<record_count, object_id> many_found{
        0x10300010209,
        "%s: Error: kvs_find_objects returned %u vs objects hdls for VS object ID: 0x%X, it should "
        "never happened. Will raise a VS_FAULT_KVS_MULTI_REC_HDL error"};
    static constexpr errors<object_id> none_found{0x1020001020a,
                                                  "%s: couldn't find VS object ID: 0x%X"};
    static constexpr errors<record_length, object_id, status_text> size_failed{
        0x9040001020b,
        "%s: kvs_get_object_size returned len: %u for  VS object ID: 0x%X, error: %s"};
    static constexpr debug<record_length, object_id> size_known{
        "%s: kvs_get_object_size returned len: %u for VS object ID: 0x%X"};
    static constexpr debug<record_length, record_address> before_read{
        "%s: before kvs_read_object, got object size: %u bytes, vs_object_kvs_rec_p: %p"};
    static constexpr errors<status_text> read_failed{0x3020001020c,
                                                     "%s: failed in kvs_read_object: %s"};
    static constexpr errors<record_length> read_null{
        0x1020001020d,
        "%s: Error: read NULL vs_object_kvs_rec without error or read zero len: %u, it should "
        "never happen. Will raise a VS_FAULT_KVS_READ_NULL_REC error"};
    static constexpr record_line<record_length> read_summary{
        "%s: Read successully a vs object record size: %u bytes: VS object ID: 0x%X, "
        "selected_version: 0x%X, is_optional_compatible: 0x%X, scope: 0x%X, is_changed: 0x%X, "
        "supp_count: %u. Dumping supp_versions:"};
    static constexpr version_line read_line = insert_rec::input_line;

    static constexpr auto traced = std::tuple{invalid_key, lookup_failed, find_failed, many_found,
                                              none_found,  size_failed,   read_failed, read_null};
};

struct get_rec_hdl {
    static constexpr char operation[] = "vs_kvs_get_vs_object_rec_hdl";
    static constexpr char out_label[] = "vs_kvs_rec_hdl_pp";

    static constexpr errors<object_id> invalid_key{0x1020001020e,
                                                   "%s: got invalid VS object ID: 0x%X"};
    static constexpr errors<status_text> lookup_failed{0x3020001020f,
                                                       "%s: failed in kvs_lookup_db_handle: %s"};
    static constexpr errors<status_text> find_failed{0x30200010210,
                                                     "%s: failed in kvs_find_objects: %s"};
    static constexpr errors<record_count, object_id> many_found{
        0x10300010211, "%s: Error: KVS find returned %u vs objects hdls for VS object ID: 0x%X"};
    static constexpr errors<object_id> none_found{0x10200010212,
                                                  "%s: couldn't find VS object ID: 0x%X"};

    static constexpr auto traced =
        std::tuple{invalid_key, lookup_failed, find_failed, many_found, none_found};
};

struct get_all_recs {
    static constexpr char operation[] = "vs_kvs_get_vs_objects_all_recs";
    static constexpr char count_label[] = "vs_objects_kvs_recs_count_p";
    static constexpr char array_label[] = "vs_objects_kvs_recs_ppp";
    static constexpr char block_label[] = "vs_object_kvs_rec";

    static constexpr errors<status_text, errno_now> lookup_failed{
        0x30300010213, "%s: failed in kvs_lookup_db_handle: rc: %s, errno: %d"};
    static constexpr errors<status_text> find_failed{0x30200010214,
                                                     "%s: failed in kvs_find_objects: %s"};
    static constexpr debug<record_count> found{"%s: kvs_find_objects returned %u vs objects hdls"};
    static constexpr errors<> empty{0x10100010216,
                                    "%s: Warning: the db doesn't include VS objects"};
    static constexpr errors<record_length> array_failed{0x10200010215,
                                                        "%s: failed to allocate %u bytes"};
    static constexpr errors<record_length, status_text> size_failed{
        0x50300010217, "%s: failed in kvs_get_object_size returned len: %u, error: %s"};
    static constexpr errors<status_text> read_failed{0x30200010218,
                                                     "%s: failed in kvs_read_object: %s"};
    static constexpr errors<record_length> read_null{
        0x10200010219,
        "%s: got NULL vs_object_kvs_rec from kvs_read_object without error or zero rec len size: "
        "%u. It shouldn't never happen"};
    static constexpr record_line<record_length> read_summary{
        "%s: Read successfully record size: %u bytes: VS object id: 0x%X, selected_version: 0x%X, "
        "is_optional_compatible: 0x%X, scope: 0x%X, is_changed: 0x%X, supp_versions_count: %u. "
        "Dumping supp_versions:"};
    static constexpr version_line read_line{"%s: supp_versions[%d]=0x%X"};
    static constexpr no_message before_read{};

    static constexpr auto traced = std::tuple{lookup_failed, find_failed, empty,    array_failed,
                                              size_failed,   read_failed, read_null};
};

struct update_selected {
    static constexpr char operation[] = "vs_kvs_update_vs_object_selected_version";

    static constexpr errors<object_id> invalid_key{0x1020001021a,
                                                   "%s: got invalid VS object ID: 0x%X"};
    static constexpr errors<status_text> lookup_failed{0x3020001021b,
                                                       "%s: failed in kvs_lookup_db_handle: %s"};
    static constexpr errors<object_id, status_text> handle_failed{
        0x5030001021c, "%s: failed in vs_kvs_get_vs_object_rec_hdl vs_object_id: 0x%X: %s"};
    static constexpr debug<handle_address, object_id> handle_found{
        "%s: got vs_object_kvs_rec_hdl ptr: %p for vs_object_id: 0x%X successfully"};
    static constexpr errors<object_id, status_text> copy_failed{
        0x5030001021d, "%s: failed in vs_kvs_get_vs_object_rec vs_object_id: 0x%X: %s"};
    static constexpr debug<record_address, object_id> copied{
        "%s: got vs_object_kvs_rec ptr: %p for vs_object_id: 0x%X successfully"};
    static constexpr debug<object_id, selected_version> changed_copy{
        "%s: updated VS object ID: 0x%X, New selected_version: 0x%X"};
    static constexpr errors<object_id, status_text> write_failed{
        0x5030001021e, "%s: failed in kvs_write_object for VS object ID: 0x%X: %s"};
    static constexpr debug<object_id, selected_version> written{
        "%s: wrote successfully VS object ID: 0x%X, selected_version: 0x%X kvs record"};
    static constexpr debug<> sanity_starts{"%s: Now performing sanity check on the update"};
    static constexpr errors<object_id> reread_failed{
        0x1020001021f, "%s: failed in vs_kvs_get_vs_object_rec for  VS object ID: 0x%X"};
    static constexpr errors<> reread_null{
        0x10100010221,
        "%s: got NULL vs_object_kvs_rec from vs_kvs_get_object without error. It shouldn't never "
        "happend"};
    static constexpr errors<selected_version, version_read> sanity_failed{
        0x10300010220,
        "%s: failed in sanity check the updated selected version, required sv: 0x%X, but read from "
        "kvs after the update sv: 0x%X"};
    static constexpr debug<object_id, selected_version> sanity_passed{
        "%s: Sanity check VS object ID: 0x%X, selected_version: 0x%X is completed successfully"};

    static constexpr auto traced =
        std::tuple{invalid_key,  lookup_failed, handle_failed, copy_failed,
                   write_failed, reread_failed, reread_null,   sanity_failed};
};

struct bulk_insert {
    static constexpr char operation[] = "vs_kvs_insert_vs_objects";
    static constexpr char block_label[] = "new_kvs_rec_p";

    static constexpr errors<status_text> not_initialized{
        0x30200010222, "%s: vs_objects_kvs_db isn't initialized: %s"};
    static constexpr debug<element_count> starts{
        "%s: Dumping the input selected versions array count: %u"};
    static constexpr debug<object_id, selected_version> element{
        "%s: vs_object_id: 0x%X, selected_version: 0x%X\n"};
    static constexpr debug<object_id, record_address, status_text> after_allocation{
        "%s: After malloc: vs_object_id: 0x%X, new_kvs_rec_p: %p, error: %s\n"};
    static constexpr debug<object_id, selected_version> before_insert{
        "%s: Before inserting vs_object_id:0x%X, selected_version: 0x%X to vs_objects VS KVS db"};
    static constexpr errors<object_id, status_text> element_failed{
        0x50300010223, "%s: failed in vs_kvs_insert_vs_object: vs_object_id:0x%X: %s"};
    static constexpr debug<object_id, selected_version> element_inserted{
        "%s: inserted vs_object_id: 0x%X, version: 0x%X to vs_objects database successfully"};
    static constexpr api<element_count> populated{
        0x10200010104,
        "%s: inserted successfully %u vs objects into vs_objects databse and it is now populated"};

    static constexpr auto traced = std::tuple{not_initialized, element_failed, populated};
};

struct bulk_update {
    static constexpr char operation[] = "vs_kvs_update_vs_objects";

    static constexpr errors<status_text> not_initialized{
        0x30200010224, "%s: vs_objects_kvs_db isn't initialized: %s"};
    static constexpr debug<element_count> starts{"%s: Dumping the input vs array, vs_count: %u "};
    static constexpr debug<object_id, selected_version> element{
        "%s: vs_object_id: 0x%X, selected_version: 0x%X"};
    static constexpr api<object_id, selected_version> element_filtered{
        0x10300010272,
        "%s: Warning: got VS_FAULT_NO_SUCH_OBJECT, so filtering an update of vs_object_id: 0x%X, "
        "selected_version: 0x%X since it isn't part of local pkg-mdata"};
    static constexpr api<object_id, selected_version> element_updated{
        0x10300010105, "%s: Updated vs_object_id: 0x%X, selected_version: 0x%X successfully"};
    static constexpr errors<object_id, selected_version, status_text> element_failed{
        0x90400010271,
        "%s: failed in vs_kvs_update_vs_object_selected_version: vs_object_id: 0x%X, "
        "selected_version: 0x%X: %s"};

    static constexpr auto traced =
        std::tuple{not_initialized, element_filtered, element_updated, element_failed};
};

// The deletion reports its first steps under the identifiers of the update, whose first steps are
// the same.
struct delete_rec {
    static constexpr char operation[] = "vs_kvs_delete_vs_object";

    static constexpr auto invalid_key = update_selected::invalid_key;
    static constexpr auto lookup_failed = update_selected::lookup_failed;
    static constexpr auto handle_failed = update_selected::handle_failed;
    static constexpr auto handle_found = update_selected::handle_found;
    static constexpr errors<object_id, status_text> delete_failed{
        0x50300010270, "%s: failed in kvs_delete_object vs_object_id: 0x%X: %s"};

    static constexpr auto traced =
        std::tuple{invalid_key, lookup_failed, handle_failed, delete_failed};
};

using operations = operation_list<insert_rec, get_rec, get_rec_hdl, get_all_recs, update_selected,
                                  bulk_insert, bulk_update, delete_rec>;

} // namespace vs_kvs::objects
