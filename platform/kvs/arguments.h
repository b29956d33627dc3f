// The checks of what callers pass to the functions of kvs.h.
#pragma once

#include "kvs.h"

namespace platform {

[[nodiscard]] kvs_appdesc default_appdesc();

// Returns whether it describes a key that this store has: 4 bytes, no flags.
[[nodiscard]] bool is_plain_key(const kvs_key_attr &key);

// These return a status.
[[nodiscard]] uint32_t check_name(const char *name);
[[nodiscard]] uint32_t check_appdesc(const kvs_appdesc &given);

// Checks the descriptors and adds up their lengths; `offset` is where they go in the record.
[[nodiscard]] uint32_t measure_data(const kvs_data_desc *data, uint32_t count, uint32_t offset,
                                    uint32_t *length);

// Copies the described bytes, in order.
void gather_data(const kvs_data_desc *data, uint32_t count, unsigned char *to);

} // namespace platform
