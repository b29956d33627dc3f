// The clocks of the system, in nanoseconds.
#pragma once

#include <cstdint>
#include <ctime>

namespace platform {

inline uint64_t clock_ns(clockid_t clock)
{
    timespec now{};
    clock_gettime(clock, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1'000'000'000u + static_cast<uint64_t>(now.tv_nsec);
}

} // namespace platform
