// The layout of a stored record, taken from its type: a fixed part that ends with the number of
// elements, then the elements. Everything that depends on a length or an offset, in the library and
// in the tools, takes it from here.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace vs_kvs {

// A field, named as in the public header. One of 4 bytes is a number, a longer one is plain bytes.
struct field {
    const char *name;
    uint32_t offset;
    uint32_t length;
};

#define VS_KVS_FIELD(type, field_name)                                                             \
    vs_kvs::field { #field_name, offsetof(type, field_name), sizeof(type::field_name) }

// Where an array of elements of undeclared length begins, and how long each of them is.
#define VS_KVS_ELEMENTS(type, field_name)                                                          \
    vs_kvs::field { #field_name, offsetof(type, field_name), sizeof(type::field_name[0]) }

struct record_layout {
    std::span<const field> fields; // the fixed part: the key first, the number of elements last
    field elements;                // where they begin; the length is that of one element
    std::span<const field> element_fields; // none where an element is one number

    [[nodiscard]] constexpr uint32_t fixed() const { return elements.offset; }
    [[nodiscard]] constexpr uint32_t element() const { return elements.length; }
    [[nodiscard]] constexpr const field &count() const { return fields.back(); }

    // The length of a record of `number` elements, in 64 bits: more than a record can have.
    [[nodiscard]] constexpr uint64_t length(uint32_t number) const
    {
        return fixed() + uint64_t{element()} * number;
    }
};

// The lengths that stored records have, in numbers: those of the fixed part and of one element.
// They are compared with the layout, so that a new layout, which is a new format of the store, is a
// decision.
struct stored_bytes {
    uint32_t fixed;
    uint32_t element;
};

// Returns whether fields cover the first `length` bytes of a type one after the other, so that a
// field which is added to the type and not to the list does not compile.
consteval bool cover(std::span<const field> fields, uint32_t length)
{
    uint32_t end = 0;
    for (const field &each : fields) {
        if (each.offset != end || each.length % sizeof(uint32_t) != 0)
            return false;
        end += each.length;
    }
    return end == length;
}

consteval bool is_complete(const record_layout &layout)
{
    return cover(layout.fields, layout.fixed()) && layout.fields.front().length == 4 &&
           layout.count().length == 4 &&
           (layout.element_fields.empty() ? layout.element() == 4
                                          : cover(layout.element_fields, layout.element()));
}

} // namespace vs_kvs
