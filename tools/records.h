// The three databases as the tool sees them: alike but for their data.
//
// Each stored record is a row of 32-bit words: the fixed fields, key first and element count last,
// then the elements. A `database` names the words and the library's operations, so that showing,
// dumping, restoring and checking records are written once.
#pragma once

#include "kvs.h"
#include "tools/json_lines.h"
#include "tools/output.h"

#include <cstdint>
#include <functional>
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

// The words of a record and their names.
struct shape {
    std::span<const char *const> fields; // with elements, the last one counts them
    const char *elements;                // null when there are none
    bool elements_are_clients;           // otherwise each is one number

    size_t element_words() const { return elements_are_clients ? 5 : 1; }
    size_t length(size_t count) const { return fields.size() + count * element_words(); }
    uint32_t count(const words &record) const { return record[fields.size() - 1]; }
    std::span<const uint32_t> element(const words &record, size_t i) const
    {
        return std::span(record).subspan(length(i), element_words());
    }
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
inline const database *const databases[] = {&objects, &clients, &registrations};

std::string subject(const database &db, uint32_t key); // "object 0x2a"

// The stored record; a failure when there is none, or one of length 0.
words read(const database &db, uint32_t key);

// All stored records; none is no failure.
std::vector<words> read_all(const database &db);

// Throws a failure unless an operation on the record of `key` gave status 0. Where the database is
// not available the message says why.
void require(uint32_t status, const database &db, uint32_t key);

json to_json(const shape &of, const words &record);
void print_records(const database &db, const std::vector<words> &records);

// Reads a record from a line of a file. Refuses unknown, missing and repeated fields, and values
// that do not fit; the count may be left out. `tag` names a field beside those of the record.
words from_json(const shape &of, const json_line &line, std::span<const fixed_value> fixed = {},
                const char *tag = nullptr);

// Twelve bytes of client data as 24 hex digits, and back. Fewer digits are filled up with zeros;
// returns false when the text is no such digits.
std::string client_data_text(std::span<const uint32_t> client);
bool parse_client_data(const std::string &text, std::span<uint32_t> client);

// ---- the store as a whole ----

// Opens the databases, creating what is missing, as the bulk operations demand.
void initialize(const std::string &command);

// The store's handle of a database. When the database is not available, throws a failure about
// `subject` that says why.
kvs_hdl bind(const database &db, const std::string &subject);

// Does the work in one batch of the store, which is committed when `work` returns and aborted when
// it throws. `work` is done a second time when the batch outgrew its room.
void change_all(const std::function<void()> &work);

// Does the work while nobody else can change the store.
void look_at_all(const std::function<void()> &work);

} // namespace vskvs
