// Blocks of the C allocator with one owner, until they are released to a caller.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <memory>

namespace vs_kvs {

struct free_deleter {
    void operator()(void *address) const { free(address); }
};

template <class Record>
using block = std::unique_ptr<Record, free_deleter>;

// A record and the number of bytes that were read of it; null for a stored record of length 0.
template <class Record>
struct sized_record {
    block<Record> data;
    uint32_t length = 0;
};

// Record handles, as the store's find allocates them.
using handle_array = std::unique_ptr<uint64_t[], free_deleter>;

} // namespace vs_kvs
