// Where a text may be cut without splitting a character.
#pragma once

#include <cstddef>

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

} // namespace platform
