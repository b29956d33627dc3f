// What an attempt at reading or changing a store came to.
#pragma once

#include <cstdint>

namespace platform {

// A status to return, or the engine's error that prevented one.
struct attempt {
    uint32_t status;
    int engine_error;

    [[nodiscard]] bool is_good() const { return status == 0 && engine_error == 0; }
};

[[nodiscard]] constexpr attempt with_status(uint32_t status) { return {status, 0}; }

// An `error` of 0 is success.
[[nodiscard]] constexpr attempt with_engine_error(int error) { return {0, error}; }

} // namespace platform
