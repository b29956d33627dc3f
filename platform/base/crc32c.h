// CRC-32C (Castagnoli), by the processor's instruction where it has one.
#pragma once

#include <cstddef>
#include <cstdint>

namespace platform {

// Returns the checksum of what `checksum` covers followed by these bytes; that of nothing is 0.
uint32_t crc32c(uint32_t checksum, const void *data, size_t length);

// The two implementations behind crc32c. The first needs has_crc32c_instruction.
bool has_crc32c_instruction();
uint32_t crc32c_by_instruction(uint32_t checksum, const void *data, size_t length);
uint32_t crc32c_by_table(uint32_t checksum, const void *data, size_t length);

} // namespace platform
