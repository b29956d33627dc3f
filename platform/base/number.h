// Strict parsing of numbers: digits and nothing else.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

namespace platform {

constexpr uint32_t no_digit = 16;

constexpr uint32_t digit_value(char c)
{
    if (c >= '0' && c <= '9')
        return static_cast<uint32_t>(c - '0');
    const char lower = static_cast<char>(c | 0x20);
    return lower >= 'a' && lower <= 'f' ? static_cast<uint32_t>(lower - 'a') + 10 : no_digit;
}

// Returns the number if the whole of `text` is one in `base`, 10 or 16, of 32 bits. <charconv>
// would add a table that the library then exports.
[[nodiscard]] constexpr std::optional<uint32_t> parse_number(std::string_view text, uint32_t base)
{
    uint64_t value = 0;
    for (const char c : text) {
        const uint32_t digit = digit_value(c);
        value = value * base + digit;
        if (digit >= base || value > UINT32_MAX)
            return {};
    }
    if (text.empty())
        return {};
    return static_cast<uint32_t>(value);
}

} // namespace platform
