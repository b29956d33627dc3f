// Blocks of the C allocator, held until they are released to a caller.
#pragma once

#include <cstdlib>
#include <memory>

namespace vs_kvs {

struct free_block {
    void operator()(void *address) const { free(address); }
};

// A record, as long as it is stored.
template <class Record>
using block = std::unique_ptr<Record, free_block>;

// Record handles, as the store's find allocates them.
using handle_array = std::unique_ptr<uint64_t[], free_block>;

} // namespace vs_kvs
