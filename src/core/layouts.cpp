// The layouts that stored records and the record store's structures have, held to the byte.
#include "kvs.h"
#include "vs_kvs.h"

#include <cstddef>

namespace {

#define FIELD(type, field, offset, size)                                                           \
    static_assert(offsetof(type, field) == (offset) && sizeof(type::field) == (size))
#define TAIL(type, field, offset, element)                                                         \
    static_assert(offsetof(type, field) == (offset) &&                                             \
                  sizeof(static_cast<type *>(nullptr)->field[0]) == (element))
#define SIZE(type, size) static_assert(sizeof(type) == (size))

FIELD(vs_objects_kvs_rec, vs_object_id, 0, 4);
FIELD(vs_objects_kvs_rec, selected_version, 4, 4);
FIELD(vs_objects_kvs_rec, is_optional_compatible, 8, 4);
FIELD(vs_objects_kvs_rec, scope, 12, 4);
FIELD(vs_objects_kvs_rec, is_changed, 16, 4);
FIELD(vs_objects_kvs_rec, supp_count, 20, 4);
TAIL(vs_objects_kvs_rec, supp_versions, 24, 4);
SIZE(vs_objects_kvs_rec, 24);

FIELD(vs_client_info_entry, jid, 0, 4);
FIELD(vs_client_info_entry, pid, 4, 4);
FIELD(vs_client_info_entry, client_data, 8, 12);
SIZE(vs_client_info_entry, 20);

FIELD(vs_clients_info_kvs_rec, vs_object_id, 0, 4);
FIELD(vs_clients_info_kvs_rec, clients_count, 4, 4);
TAIL(vs_clients_info_kvs_rec, clients, 8, 20);
SIZE(vs_clients_info_kvs_rec, 8);

FIELD(vs_client_objects_reg_kvs_rec, jid, 0, 4);
FIELD(vs_client_objects_reg_kvs_rec, vs_count, 4, 4);
TAIL(vs_client_objects_reg_kvs_rec, vs_array, 8, 4);
SIZE(vs_client_objects_reg_kvs_rec, 8);

FIELD(vs_object_sel_entry, vs_object_id, 0, 4);
FIELD(vs_object_sel_entry, selected_version, 4, 4);
SIZE(vs_object_sel_entry, 16);

FIELD(kvs_key_attr, key_flags, 0, 3);
FIELD(kvs_key_attr, key_len, 4, 4);
FIELD(kvs_key_attr, key_p, 8, 8);
FIELD(kvs_key_attr, key_offset, 16, 8);
SIZE(kvs_key_attr, 24);

FIELD(kvs_data_desc, data_p, 0, 8);
FIELD(kvs_data_desc, data_len, 8, 8);
SIZE(kvs_data_desc, 16);

FIELD(kvs_appdesc, key_count, 8, 4);
FIELD(kvs_appdesc, key_policy, 16, 4);
FIELD(kvs_appdesc, share_policy, 20, 4);
FIELD(kvs_appdesc, flags, 24, 4);
FIELD(kvs_appdesc, notify, 32, 8);
FIELD(kvs_appdesc, notify_flags, 40, 4);
FIELD(kvs_appdesc, context, 48, 8);
static_assert(sizeof(kvs_appdesc) >= 56);

SIZE(kvs_hdl, 8);
SIZE(kvs_rec_hdl, 8);

} // namespace
