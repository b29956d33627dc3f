// A fuzz target takes its input apart with a reader. It is built for libFuzzer, or with driver.cpp,
// which needs no clang.
#pragma once

#include "tests/state_dir.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

namespace fuzz {

// Bytes that never end, but with zeros.
struct reader {
    const uint8_t *at;
    size_t left;

    template <class T = uint8_t>
    T next()
    {
        T value{};
        const size_t length = left < sizeof value ? left : sizeof value;
        if (length == 0)
            return value;
        memcpy(&value, at, length);
        at += length;
        left -= length;
        return value;
    }
};

} // namespace fuzz
