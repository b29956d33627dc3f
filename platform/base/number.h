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

// Parses a number of bytes: 32 bits, or with K, M or G (or k, m or g) behind it of units of
// 1024, 1024^2 or 1024^3.
[[nodiscard]] constexpr std::optional<uint64_t> parse_bytes(std::string_view text)
{
    constexpr std::string_view units = "KMG";
    const size_t unit =
        text.empty() ? std::string_view::npos : units.find(static_cast<char>(text.back() & ~0x20));
    unsigned shift = 0;
    if (unit != std::string_view::npos) {
        shift = 10 * (static_cast<unsigned>(unit) + 1);
        text.remove_suffix(1);
    }
    const std::optional<uint32_t> number = parse_number(text, 10);
    if (!number)
        return {};
    return uint64_t{*number} << shift;
}

} // namespace platform
