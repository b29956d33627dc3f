// The file of a trace buffer: one page of header, then slots of RINGLOG_SLOT_SIZE bytes.
//
// Writers count records in `next`; record n goes into slot n modulo the number of slots. A slot is
// a row of 64-bit words:
//
//     0     claim: 2n + 1 while record n is being written, 2n + 2 once it is complete
//     1     checksum of all other words in use, and of n
//     2     time, CLOCK_REALTIME in ns
//     3     process id (upper half) and thread id
//     4     trace identifier
//     5, 6  short name of the process
//     7...  arguments: a number as it is, a string as its length; then the strings in order
//
// Only the checksum shows that a slot is whole: words of two writers mix if one is overtaken by a
// whole round of the buffer, and a writer can be killed between any two of them.
#pragma once

#include "ringlog.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <type_traits>

namespace platform {

enum slot_word : uint32_t {
    word_claim,
    word_checksum,
    word_time,
    word_thread,
    word_id,
    word_process,
    word_arguments = word_process + 2,
    slot_words = RINGLOG_SLOT_SIZE / sizeof(uint64_t),
};

constexpr size_t process_name_size = 2 * sizeof(uint64_t);
constexpr size_t header_size = 4096;
constexpr uint32_t max_slots = UINT32_C(1) << 20;

struct buffer_header {
    char magic[8];
    uint32_t version;
    uint32_t slot_size;
    uint64_t slot_count;
    uint64_t created_ns;
    uint64_t checksum;         // of the above
    alignas(64) uint64_t next; // on a cache line of its own, because all writers change it
};

static_assert(std::is_trivially_copyable_v<buffer_header> && sizeof(buffer_header) <= header_size);
static_assert(RINGLOG_MAX_ARGS <= slot_words - word_arguments);

// A counter beyond this, which no buffer reaches, is damaged; claims would overflow.
constexpr uint64_t max_next = uint64_t{1} << 62;

constexpr uint64_t claim_writing(uint64_t n) { return 2 * n + 1; }

constexpr uint64_t claim_complete(uint64_t n) { return 2 * n + 2; }

constexpr uint32_t argument_count(uint64_t id)
{
    return std::min<uint32_t>(id >> 32 & 0xFFu, RINGLOG_MAX_ARGS);
}

constexpr bool is_string(uint64_t id, uint32_t argument)
{
    return (id >> (40 + argument) & 1u) != 0;
}

// The number of bytes left for strings beside `count` arguments.
constexpr uint32_t string_capacity(uint32_t count)
{
    return (slot_words - word_arguments - count) * static_cast<uint32_t>(sizeof(uint64_t));
}

constexpr uint32_t words_in_use(uint32_t count, uint64_t string_bytes)
{
    return word_arguments + count + static_cast<uint32_t>((string_bytes + 7) / sizeof(uint64_t));
}

// A sum of products of pairs of words, which the processor computes in parallel. It detects
// accidents, not forgery.
inline uint64_t checksum(const uint64_t *words, uint32_t count, uint64_t n)
{
    __extension__ typedef unsigned __int128 wide;
    const auto mix = [](uint64_t left, uint64_t right) {
        const wide product = wide{left} * right;
        return static_cast<uint64_t>(product) ^ static_cast<uint64_t>(product >> 64);
    };
    constexpr uint64_t odd_1 = 0x9E3779B97F4A7C15, odd_2 = 0xD1B54A32D192ED03;
    uint64_t sum = mix(n ^ odd_1, odd_2);
    for (uint32_t i = 0; i < count; i += 2)
        sum += mix(words[i] ^ (odd_1 + i), (i + 1 < count ? words[i + 1] : 0) ^ odd_2);
    return sum;
}

inline uint64_t record_checksum(const uint64_t *slot, uint32_t words, uint64_t n)
{
    return checksum(slot + word_time, words - word_time, n);
}

constexpr uint64_t slot_offset(uint64_t slot) { return header_size + slot * RINGLOG_SLOT_SIZE; }

constexpr uint64_t file_size(uint64_t slot_count) { return slot_offset(slot_count); }

} // namespace platform
