// Blocks of the C allocator with one owner.
#pragma once

#include <cstdlib>
#include <memory>

namespace platform {

struct free_deleter {
    void operator()(void *address) const { free(address); }
};

template <class T>
using block = std::unique_ptr<T, free_deleter>;

} // namespace platform
