// The characters of a text: where it may be cut, and which are safe on a terminal.
#pragma once

#include <algorithm>
#include <cstddef>
#include <string_view>

namespace platform {

// Returns the length of the longest prefix of the `length` bytes at `text` that does not end within
// a UTF-8 sequence.
inline size_t whole_characters(const char *text, size_t length)
{
    for (size_t back = 1; back <= 3 && back <= length; ++back) {
        const auto byte = static_cast<unsigned char>(text[length - back]);
        if ((byte & 0xC0u) == 0x80u)
            continue;
        const size_t sequence = byte >= 0xF0u ? 4 : byte >= 0xE0u ? 3 : byte >= 0xC0u ? 2 : 1;
        return sequence > back ? length - back : length;
    }
    return length;
}

struct character {
    char32_t code;
    size_t length; // in bytes; 0 if the bytes are no character of UTF-8
};

// The first character of a text that is not empty.
inline character first_character(std::string_view text)
{
    // By the number of bytes: the bits of the first byte that mark it, and the least code.
    constexpr struct {
        unsigned mask, mark;
        char32_t least;
    } forms[] = {{0x80, 0x00, 0}, {0xE0, 0xC0, 0x80}, {0xF0, 0xE0, 0x800}, {0xF8, 0xF0, 0x10000}};
    const unsigned first = static_cast<unsigned char>(text[0]);
    for (size_t length = 1; length <= std::min(text.size(), std::size(forms)); ++length) {
        const auto &form = forms[length - 1];
        if ((first & form.mask) != form.mark)
            continue;
        char32_t code = first & ~form.mask;
        for (const char byte : text.substr(1, length - 1)) {
            if ((byte & 0xC0) != 0x80)
                return {};
            code = code << 6 | (byte & 0x3F);
        }
        const bool is_surrogate = code >= 0xD800 && code <= 0xDFFF;
        if (code < form.least || code > 0x10FFFF || is_surrogate)
            return {};
        return {code, length};
    }
    return {};
}

// Control characters of C0 and C1, and what changes the line or the direction of the text after it.
inline bool is_unprintable(char32_t code)
{
    constexpr struct {
        char32_t first, last;
    } ranges[] = {{0, 0x1F},        {0x7F, 0x9F},     {0x61C, 0x61C},
                  {0x200E, 0x200F}, {0x2028, 0x202E}, {0x2066, 0x2069}};
    return std::ranges::any_of(
        ranges, [&](const auto &range) { return range.first <= code && code <= range.last; });
}

// Replaces what is not safe on a terminal by '?', one for each character or byte that is no
// character; tabs stay. Returns the length that is left.
inline size_t make_printable(char *text, size_t length)
{
    size_t to = 0;
    for (size_t from = 0; from < length;) {
        const character next = first_character({text + from, length - from});
        const size_t width = std::max<size_t>(next.length, 1);
        const bool is_safe = next.length != 0 && (next.code == '\t' || !is_unprintable(next.code));
        if (!is_safe)
            text[to++] = '?';
        else
            for (size_t i = 0; i < width; ++i)
                text[to++] = text[from + i];
        from += width;
    }
    return to;
}

} // namespace platform
