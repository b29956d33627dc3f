// Numbers written in text, read strictly: digits and nothing else.
#pragma once

#include <cstdint>
#include <string_view>

namespace platform
{

// True when the whole of `text` is a number in `base` (10 or 16) of 32 bits.
inline bool parse_number(std::string_view text, uint32_t base, uint32_t &number) noexcept
{
    uint64_t value = 0;
    for (const char character : text) {
        const auto byte = static_cast<unsigned char>(character);
        uint32_t digit = uint32_t{byte} - '0';
        if (digit > 9)
            digit = byte >= 'A' ? (byte | 0x20u) - 'a' + 10u : base;
        if (digit >= base)
            return false;
        value = value * base + digit;
        if (value > UINT32_MAX)
            return false;
    }
    number = static_cast<uint32_t>(value);
    return !text.empty();
}

} // namespace platform
