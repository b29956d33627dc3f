// The first and the last line of a dump.
#pragma once

#include <cstdint>

namespace vskvs {

constexpr const char dump_header[] = "vskvs_dump";
constexpr const char dump_end[] = "vskvs_dump_end";
constexpr uint32_t dump_format = 1;

} // namespace vskvs
