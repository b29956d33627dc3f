// A record: bytes that begin with a key, and a handle that is unique to it.
#pragma once

#include "kvs.h"

#include <cstdint>

namespace platform {

constexpr uint32_t key_length = 4;
constexpr uint32_t generation_length = 4;
constexpr uint32_t checksum_length = 4;
constexpr uint32_t trailer_length = generation_length + checksum_length;
constexpr uint64_t longest_record = UINT32_MAX - trailer_length;

// Records that had the same key one after the other differ in their generation.
constexpr uint32_t first_generation = 1;
constexpr uint32_t no_generation_left = UINT32_MAX;

// A record handle is the record's generation above its key.
constexpr uint32_t key_of(kvs_rec_hdl handle) { return static_cast<uint32_t>(handle); }
constexpr uint32_t generation_of(kvs_rec_hdl handle) { return static_cast<uint32_t>(handle >> 32); }
constexpr kvs_rec_hdl handle_of(uint32_t key, uint32_t generation)
{
    return uint64_t{generation} << 32 | key;
}

// One record as it is stored. The bytes belong to the engine or to a cache.
struct stored_record {
    kvs_rec_hdl handle;
    const unsigned char *bytes;
    uint32_t length;
};

} // namespace platform
