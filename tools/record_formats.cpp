// Records as rows of tables and as JSON.
#include "tools/records.h"

#include <algorithm>
#include <cctype>
#include <cstring>
#include <iterator>

namespace vskvs {
namespace {

constexpr char hex_digits[] = "0123456789abcdef";

std::string join(std::span<const uint32_t> numbers, std::string (*text_of)(uint64_t))
{
    std::string joined;
    for (const uint32_t number : numbers)
        joined += (joined.empty() ? "" : ",") + text_of(number);
    return joined.empty() ? "-" : joined;
}

std::string decimal(uint64_t number) { return std::to_string(number); }

// The bytes of a field of an element.
std::span<const unsigned char> bytes_of(const vs_kvs::field &field,
                                        std::span<const uint32_t> element)
{
    return {reinterpret_cast<const unsigned char *>(element.data()) + field.offset, field.length};
}

// The rows of a record in its table: one for each element that has fields, or one with all numbers.
std::vector<std::vector<std::string>> rows_of(const database &db, const words &record)
{
    std::vector<std::string> start{(db.key_is_object ? hex : decimal)(key_of(record))};
    for (const vs_kvs::field &field : db.shape.fields().subspan(1))
        if (field.name != db.shape.count_name())
            start.push_back(decimal(record[field.offset / shape::word]));
    if (db.shape.element_fields().empty()) {
        start.push_back(
            join(std::span(record).subspan(db.shape.fixed()), db.key_is_object ? decimal : hex));
        return {start};
    }
    std::vector<std::vector<std::string>> rows;
    for (size_t i = 0; i < db.shape.count(record); ++i) {
        rows.push_back(start);
        for (const vs_kvs::field &field : db.shape.element_fields())
            rows.back().push_back(field_text(field, db.shape.element(record, i)));
    }
    if (rows.empty()) {
        rows.push_back(start);
        rows.back().resize(db.columns.size(), "-");
    }
    return rows;
}

bool is_among(const json &name, std::span<const vs_kvs::field> fields)
{
    return std::ranges::any_of(fields, [&](const auto &field) { return name == field.name; });
}

// Throws when the object at `path` has other fields than these, `more` included.
void refuse_others(const json_line &line, const std::string &path,
                   std::span<const vs_kvs::field> fields,
                   std::initializer_list<const char *> more = {})
{
    const auto is_more = [&](const json &name) {
        return std::ranges::any_of(
            more, [&](const char *known) { return known != nullptr && name == known; });
    };
    for (const auto &[name, value] : line.value().at(json::json_pointer(path)).items())
        if (!is_among(name, fields) && !is_more(name))
            line.refuse((json::json_pointer(path) / name).to_string(),
                        "unknown field \"" + name + "\"");
}

void refuse_missing(const json_line &line, const std::string &path, const char *name)
{
    if (!line.value().at(json::json_pointer(path)).contains(name))
        line.refuse(path, std::string("field \"") + name + "\" is missing");
}

// Reads bytes that are given in full, as hex digits.
void read_bytes(const json_line &line, const std::string &path, const vs_kvs::field &field,
                std::span<unsigned char> bytes)
{
    const json &data = line.value().at(json::json_pointer(path));
    if (!data.is_string() || data.get<std::string>().size() != 2 * bytes.size() ||
        !parse_hex_bytes(data.get<std::string>(), bytes))
        line.refuse(path, std::string(field.name) + " must be " + decimal(2 * bytes.size()) +
                              " hex digits");
}

void append_element(const shape &of, const json_line &line, const std::string &path, words &record)
{
    if (of.element_fields().empty())
        return record.push_back(line.number_at(path));
    if (!line.value().at(json::json_pointer(path)).is_object())
        line.refuse(path, std::string("an element of ") + of.elements() + " must be an object");
    refuse_others(line, path, of.element_fields());
    const size_t start = record.size();
    record.resize(start + of.element_words());
    for (const vs_kvs::field &field : of.element_fields()) {
        refuse_missing(line, path, field.name);
        const std::string at = path + "/" + field.name;
        uint32_t *const to = &record[start + field.offset / shape::word];
        if (field.length == shape::word)
            *to = line.number_at(at);
        else
            read_bytes(line, at, field, {reinterpret_cast<unsigned char *>(to), field.length});
    }
}

// Reads the elements behind the fixed fields, and sets their number.
void append_elements(const shape &of, const json_line &line, words &record)
{
    const std::string path = std::string("/") + of.elements();
    refuse_missing(line, "", of.elements());
    const json &elements = line.value()[of.elements()];
    if (!elements.is_array())
        line.refuse(path, std::string(of.elements()) + " must be an array");
    for (size_t i = 0; i < elements.size(); ++i)
        append_element(of, line, path + "/" + std::to_string(i), record);
    of.set_count(record, static_cast<uint32_t>(elements.size()));
    const std::string count_path = std::string("/") + of.count_name();
    if (line.value().contains(of.count_name()) && line.number_at(count_path) != elements.size())
        line.refuse(count_path,
                    std::string(of.count_name()) + " is not the number of " + of.elements());
}

} // namespace

std::string hex_bytes(std::span<const unsigned char> bytes)
{
    std::string text;
    for (const unsigned char byte : bytes) {
        text += hex_digits[byte >> 4];
        text += hex_digits[byte & 0xF];
    }
    return text;
}

bool parse_hex_bytes(const std::string &text, std::span<unsigned char> bytes)
{
    if (text.size() > 2 * bytes.size() || text.size() % 2 != 0)
        return false;
    std::ranges::fill(bytes, static_cast<unsigned char>(0));
    for (size_t i = 0; i < text.size(); ++i) {
        const int letter = tolower(static_cast<unsigned char>(text[i]));
        const char *const digit = strchr(hex_digits, letter);
        if (digit == nullptr || letter == '\0')
            return false;
        const auto value = static_cast<unsigned>(digit - hex_digits);
        bytes[i / 2] = static_cast<unsigned char>(bytes[i / 2] * 16u + value);
    }
    return true;
}

std::string field_text(const vs_kvs::field &field, std::span<const uint32_t> of)
{
    return field.length == shape::word ? decimal(of[field.offset / shape::word])
                                       : hex_bytes(bytes_of(field, of));
}

json to_json(const shape &of, const words &record)
{
    json result;
    for (const vs_kvs::field &field : of.fields())
        result[field.name] = record[field.offset / shape::word];
    json &elements = result[of.elements()] = json::array();
    for (size_t i = 0; i < of.count(record); ++i) {
        const auto element = of.element(record, i);
        if (of.element_fields().empty()) {
            elements.push_back(element[0]);
            continue;
        }
        json &fields = elements.emplace_back();
        for (const vs_kvs::field &field : of.element_fields())
            if (field.length == shape::word)
                fields[field.name] = element[field.offset / shape::word];
            else
                fields[field.name] = hex_bytes(bytes_of(field, element));
    }
    return result;
}

void print_records(const database &db, const std::vector<words> &records)
{
    std::vector<std::vector<std::string>> rows;
    for (const words &record : records)
        std::ranges::move(rows_of(db, record), std::back_inserter(rows));
    print_table(db.columns, rows);
}

words from_json(const shape &of, const json_line &line, std::span<const fixed_value> fixed,
                const char *tag)
{
    refuse_others(line, "", of.fields(), {of.elements(), tag});
    words record(of.fixed());
    for (const vs_kvs::field &field : of.fields()) {
        const std::string name = field.name;
        if (of.elements() != nullptr && name == of.count_name())
            continue;
        const auto only = std::ranges::find_if(
            fixed, [&](const fixed_value &value) { return name == value.field; });
        if (only == fixed.end())
            refuse_missing(line, "", field.name);
        uint32_t &number = record[field.offset / shape::word];
        number = line.value().contains(name) ? line.number_at("/" + name) : only->value;
        if (only != fixed.end() && number != only->value)
            line.refuse("/" + name, "bulk population stores " + name + " " +
                                        std::to_string(only->value) + " and nothing else");
    }
    if (of.elements() != nullptr)
        append_elements(of, line, record);
    return record;
}

} // namespace vskvs
