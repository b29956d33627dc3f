// Numbers written in text, read strictly: digits and nothing else.
#pragma once

#include <charconv>
#include <cstdint>
#include <string_view>

namespace platform {

// True when the whole of `text` is a number in `base` of 32 bits; else `number` is untouched.
inline bool parse_number(std::string_view text, int base, uint32_t &number) noexcept
{
    uint32_t value = 0;
    const char *const end = text.data() + text.size();
    const auto [rest, error] = std::from_chars(text.data(), end, value, base);
    if (error != std::errc{} || rest != end)
        return false;
    number = value;
    return true;
}

} // namespace platform
