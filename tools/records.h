// The three databases, described by data.
//
// A stored record is an array of 32-bit words. Its layout, which comes from the library's list
// of databases, names the fields; where one field is meant it is read through the record's own
// type. A `database` contains the layout and the library's operations, so that showing, dumping,
// restoring and checking records are written once.
#pragma once

#include "core/layout.h"
#include "kvs.h"
#include "tools/json_lines.h"
#include "tools/output.h"

#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace vskvs {

using words = std::vector<uint32_t>;

// A field that a reader of records may leave out, and the only value it may have otherwise.
struct fixed_value {
    const char *field;
    uint32_t value;
};

// A record, or an element of one, as the type that it has in the public header.
template <class Type>
const Type &as(std::span<const uint32_t> of)
{
    return *reinterpret_cast<const Type *>(of.data());
}

inline uint32_t key_of(const words &record) { return record[0]; }

// A layout, counted in words.
class shape {
public:
    constexpr explicit shape(const vs_kvs::record_layout &layout) : layout_(&layout) {}

    [[nodiscard]] std::span<const vs_kvs::field> fields() const { return layout_->fields; }
    [[nodiscard]] const char *key_name() const { return fields()[0].name; }
    [[nodiscard]] size_t fixed() const { return layout_->fixed() / word; }

    // The elements: their name, null if the record has none; the fields of one, none if it is a
    // number; and the name of their number.
    [[nodiscard]] const char *elements() const { return layout_->elements.name; }
    [[nodiscard]] std::span<const vs_kvs::field> element_fields() const
    {
        return layout_->element_fields;
    }
    [[nodiscard]] const char *count_name() const { return layout_->count().name; }

    [[nodiscard]] size_t element_words() const { return layout_->element() / word; }
    [[nodiscard]] size_t length(size_t count) const { return fixed() + count * element_words(); }
    [[nodiscard]] uint32_t count(const words &record) const
    {
        return record[layout_->count().offset / word];
    }
    void set_count(words &record, uint32_t count) const
    {
        record[layout_->count().offset / word] = count;
    }
    [[nodiscard]] std::span<const uint32_t> element(const words &record, size_t i) const
    {
        return std::span(record).subspan(length(i), element_words());
    }

    static constexpr size_t word = sizeof(uint32_t);

private:
    const vs_kvs::record_layout *layout_;
};

struct database {
    const char *name;    // in the store and in dumps
    const char *subject; // in messages, before the key
    bool key_is_object;  // the key is a VS object id, shown as 0x2a; otherwise a jid
    vskvs::shape shape;
    std::vector<column> columns; // of its table
    uint32_t invalid_key;        // the status for key 0

    // The library's operations. A record of length 0 is read as no words.
    uint32_t (*get)(const vskvs::shape &, uint32_t key, words &record);
    uint32_t (*list)(const vskvs::shape &, std::vector<words> &records);
    uint32_t (*insert)(const words &record);
    uint32_t (*erase)(uint32_t key); // null when the library has none
};

extern const database objects, clients, registrations;

// All of them, in the order of the library's list.
extern const std::span<const database *const> databases;

std::string subject(const database &db, uint32_t key); // "object 0x2a"

// The stored record; a failure when there is none, or one of length 0.
words read(const database &db, uint32_t key);

// All stored records; none is no failure.
std::vector<words> read_all(const database &db);

// Throws a failure unless an operation on the record of `key` gave status 0. Where the database is
// not available the message contains the reason.
void require(uint32_t status, const database &db, uint32_t key);

// The store's handle of a database. When the database is not available, throws a failure about
// `subject` with the reason.
kvs_hdl bind(const database &db, const std::string &subject);

// ---- formats of records (record_formats.cpp) ----

json to_json(const shape &of, const words &record);

// The value of a field of a record, or of an element.
std::string field_text(const vs_kvs::field &field, std::span<const uint32_t> of);

void print_records(const database &db, const std::vector<words> &records);

// Reads a record from a line of a file. Refuses unknown, missing and repeated fields, and values
// that do not fit; the count may be left out. `tag` names a field beside those of the record.
words from_json(const shape &of, const json_line &line, std::span<const fixed_value> fixed = {},
                const char *tag = nullptr);

// Bytes as hex digits, and back. Fewer digits are filled up with zeros; returns false if the text
// is no such digits, or too many.
std::string hex_bytes(std::span<const unsigned char> bytes);
[[nodiscard]] bool parse_hex_bytes(const std::string &text, std::span<unsigned char> bytes);

} // namespace vskvs
