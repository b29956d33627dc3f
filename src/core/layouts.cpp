// The layouts of the record store's structures, held to the byte.
#include "kvs.h"

#include <cstddef>

namespace {

#define FIELD(type, field, offset, size)                                                           \
    static_assert(offsetof(type, field) == (offset) && sizeof(type::field) == (size))
#define SIZE(type, size) static_assert(sizeof(type) == (size))

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
