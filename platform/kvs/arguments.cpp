#include "platform/kvs/arguments.h"

#include "platform/kvs/record.h"
#include "platform/kvs/store_limits.h"

#include <algorithm>
#include <cstring>

namespace platform {

kvs_appdesc default_appdesc()
{
    kvs_appdesc appdesc{};
    appdesc.mark = 0x4B56'5341'5050'4431;
    appdesc.key_count = 1;
    return appdesc;
}

bool is_plain_key(const kvs_key_attr &key)
{
    constexpr uint8_t none[3] = {};
    return memcmp(key.key_flags, none, sizeof none) == 0 && key.key_len == key_length;
}

uint32_t check_name(const char *name)
{
    const size_t length = strnlen(name, name_limit + 1);
    return length >= 1 && length <= name_limit ? 0 : KVS_RC_BAD_NAME;
}

uint32_t check_appdesc(const kvs_appdesc &given)
{
    const kvs_appdesc wanted = default_appdesc();
    return memcmp(&given, &wanted, sizeof wanted) == 0 ? 0 : KVS_RC_UNSUPPORTED;
}

uint32_t measure_data(const kvs_data_desc *data, uint32_t count, uint32_t offset, uint32_t *length)
{
    if (data == nullptr && count != 0)
        return KVS_RC_NULL_ARG;
    uint64_t total = 0;
    for (uint32_t i = 0; i < count; ++i) {
        if (data[i].data_len != 0 && data[i].data_p == nullptr)
            return KVS_RC_NULL_ARG;
        if (data[i].data_len > longest_record - total)
            return KVS_RC_RECORD_TOO_BIG;
        total += data[i].data_len;
    }
    *length = static_cast<uint32_t>(total);
    return total <= longest_record - std::min<uint64_t>(offset, longest_record)
               ? 0
               : KVS_RC_RECORD_TOO_BIG;
}

void gather_data(const kvs_data_desc *data, uint32_t count, unsigned char *to)
{
    for (uint32_t i = 0; i < count; ++i) {
        if (data[i].data_len != 0)
            memcpy(to, data[i].data_p, data[i].data_len);
        to += data[i].data_len;
    }
}

} // namespace platform
