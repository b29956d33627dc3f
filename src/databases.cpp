// The layouts of stored records, held to the byte: what was stored by one build is read by the
// next. A record's new layout is a new format of the store, with a conversion of what is stored.
#include "databases.h"

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

} // namespace
