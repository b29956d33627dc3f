#include "platform/base/crc32c.h"

#include <array>
#include <cstring>

#if defined(__x86_64__)
#include <nmmintrin.h>
#elif defined(__aarch64__)
#include <arm_acle.h>
#include <asm/hwcap.h>
#include <sys/auxv.h>
#endif

namespace platform {
namespace {

constexpr std::array<uint32_t, 256> make_table()
{
    std::array<uint32_t, 256> table{};
    for (uint32_t i = 0; i < table.size(); ++i) {
        uint32_t rest = i;
        for (int bit = 0; bit < 8; ++bit)
            rest = rest >> 1 ^ ((rest & 1) != 0 ? 0x82F63B78 : 0);
        table[i] = rest;
    }
    return table;
}

constexpr std::array<uint32_t, 256> table = make_table();

} // namespace

uint32_t crc32c_by_table(uint32_t checksum, const void *data, size_t length)
{
    const auto *byte = static_cast<const unsigned char *>(data);
    checksum = ~checksum;
    for (; length != 0; --length)
        checksum = checksum >> 8 ^ table[(checksum ^ *byte++) & 0xFF];
    return ~checksum;
}

#if defined(__x86_64__)

bool has_crc32c_instruction() { return __builtin_cpu_supports("sse4.2") != 0; }

#define CRC32C_TARGET __attribute__((target("sse4.2")))
#define CRC32C_WORD(checksum, word) static_cast<uint32_t>(_mm_crc32_u64(checksum, word))
#define CRC32C_BYTE(checksum, byte) _mm_crc32_u8(checksum, byte)

#elif defined(__aarch64__)

bool has_crc32c_instruction() { return (getauxval(AT_HWCAP) & HWCAP_CRC32) != 0; }

#define CRC32C_TARGET __attribute__((target("+crc")))
#define CRC32C_WORD(checksum, word) __crc32cd(checksum, word)
#define CRC32C_BYTE(checksum, byte) __crc32cb(checksum, byte)

#endif

#ifdef CRC32C_TARGET

CRC32C_TARGET uint32_t crc32c_by_instruction(uint32_t checksum, const void *data, size_t length)
{
    const auto *byte = static_cast<const unsigned char *>(data);
    checksum = ~checksum;
    for (; length >= sizeof(uint64_t); length -= sizeof(uint64_t), byte += sizeof(uint64_t)) {
        uint64_t word = 0;
        memcpy(&word, byte, sizeof word);
        checksum = CRC32C_WORD(checksum, word);
    }
    for (; length != 0; --length)
        checksum = CRC32C_BYTE(checksum, *byte++);
    return ~checksum;
}

#else

bool has_crc32c_instruction() { return false; }

uint32_t crc32c_by_instruction(uint32_t checksum, const void *data, size_t length)
{
    return crc32c_by_table(checksum, data, length);
}

#endif

uint32_t crc32c(uint32_t checksum, const void *data, size_t length)
{
    return has_crc32c_instruction() ? crc32c_by_instruction(checksum, data, length)
                                    : crc32c_by_table(checksum, data, length);
}

} // namespace platform
