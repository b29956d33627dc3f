// Reading JSON lines.
//
// The parsed value does not contain the positions of its parts in the text. While a line is parsed
// the columns are noted in the order of the text, and that is the order of a walk through the
// value.
#include "tools/json_lines.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <memory>
#include <unordered_set>

namespace vskvs {
namespace {

constexpr size_t longest_line = size_t{16} << 20;
constexpr size_t deepest_nesting = 64;
constexpr size_t longest_message = 500;

// An error in a line, and its column, counted from 1.
struct line_error {
    size_t column;
    std::string message;
};

// An iterator over text that records how far the parser has read.
class watched_iterator {
public:
    using iterator_category = std::input_iterator_tag;
    using value_type = char;
    using difference_type = ptrdiff_t;
    using pointer = const char *;
    using reference = const char &;

    watched_iterator(const char *at, const char **reached) : at_(at), reached_(reached) {}
    reference operator*() const { return *at_; }
    watched_iterator &operator++()
    {
        *reached_ = ++at_;
        return *this;
    }
    watched_iterator operator++(int)
    {
        const watched_iterator before = *this;
        ++*this;
        return before;
    }
    bool operator==(const watched_iterator &other) const { return at_ == other.at_; }

private:
    const char *at_;
    const char **reached_;
};

// Builds the value of a line from the parser's events, in time linear in the line: the library's
// own builder looks for a name among all fields before it.
class value_builder {
public:
    value_builder(const std::string &text, json &value, std::vector<uint32_t> &columns)
        : text_(text), reached_(text.data()), value_(value), columns_(columns)
    {
    }

    void build()
    {
        json::sax_parse(watched_iterator(text_.data(), &reached_),
                        watched_iterator(text_.data() + text_.size(), &reached_), this);
    }

    // ---- the parser's events ----

    bool null() { return add_value(nullptr); }
    bool boolean(bool value) { return add_value(value); }
    bool number_integer(int64_t value) { return add_number(value); }
    bool number_unsigned(uint64_t value) { return add_number(value); }
    bool number_float(double value, const std::string &) { return add_number(value); }
    bool string(std::string &value) { return add_value(std::move(value)); }
    bool binary(json::binary_t &) { return false; } // not in text
    bool start_object(size_t) { return open(json::object()); }
    bool start_array(size_t) { return open(json::array()); }
    bool end_object() { return close(); }
    bool end_array() { return close(); }

    bool key(std::string &name)
    {
        const size_t column = take_token();
        if (!open_.back().names.insert(name).second)
            throw line_error{column, "field \"" + name + "\" is given twice"};
        columns_.push_back(static_cast<uint32_t>(column));
        name_ = std::move(name);
        return true;
    }

    // The library's text begins with its name of the error and, of a syntax error, its position.
    bool parse_error(size_t, const std::string &, const json::exception &error)
    {
        const std::string what = error.what();
        size_t reason = what.find(": ");
        if (reason == what.npos)
            reason = what.find("] ");
        throw line_error{std::max<size_t>(position(), 1),
                         "not JSON: " + what.substr(reason == what.npos ? 0 : reason + 2)};
    }

private:
    struct open_value {
        json *value;
        std::unordered_set<std::string> names; // of the fields so far
    };

    size_t position() const { return static_cast<size_t>(reached_ - text_.data()); }

    // The column of the token that the parser has read.
    size_t take_token()
    {
        const size_t start = text_.find_first_not_of(" \t,:", token_end_);
        token_end_ = position();
        return start + 1;
    }

    json *add(json value)
    {
        const size_t column = take_token();
        json *const parent = open_.empty() ? nullptr : open_.back().value;
        if (parent != nullptr && parent->is_object()) {
            auto &fields = parent->get_ref<json::object_t &>();
            return &fields.emplace_back(std::move(name_), std::move(value)).second;
        }
        columns_.push_back(static_cast<uint32_t>(column));
        if (parent != nullptr)
            return &parent->get_ref<json::array_t &>().emplace_back(std::move(value));
        value_ = std::move(value);
        return &value_;
    }

    bool add_value(json value)
    {
        add(std::move(value));
        return true;
    }

    // After a number the parser has read one character more than belongs to it.
    bool add_number(json value)
    {
        add(std::move(value));
        --token_end_;
        return true;
    }

    bool open(json value)
    {
        if (open_.size() == deepest_nesting)
            throw line_error{take_token(),
                             "nested deeper than " + std::to_string(deepest_nesting) + " levels"};
        open_.push_back({add(std::move(value)), {}});
        return true;
    }

    bool close()
    {
        take_token();
        open_.pop_back();
        return true;
    }

    const std::string &text_;
    const char *reached_;
    size_t token_end_ = 0; // of the token before
    json &value_;
    std::vector<uint32_t> &columns_;
    std::vector<open_value> open_;
    std::string name_; // of the field whose value comes next
};

// The parser takes a zero byte for the end of the text.
void check_characters(std::string_view text)
{
    for (size_t at = 0; at < text.size();) {
        const character next = first_character(text.substr(at));
        if (next.length == 0)
            throw line_error{at + 1, "not JSON: invalid UTF-8"};
        if (next.code < 0x20 && next.code != '\t')
            throw line_error{at + 1, "not JSON: control character " + hex(uint64_t{next.code})};
        at += next.length;
    }
}

// How many columns were noted for a value, its own included.
size_t column_count(const json &value)
{
    size_t count = 1;
    if (value.is_structured())
        for (const json &part : value)
            count += column_count(part);
    return count;
}

[[noreturn]] void refuse_line(const std::string &file, size_t number, const line_error &error)
{
    const bool is_long = error.message.size() > longest_message;
    throw failure(file + ":" + std::to_string(number) + ":" + std::to_string(error.column) + ": " +
                  error.message.substr(0, longest_message) + (is_long ? "..." : ""));
}

// Reads a line without its end; one that is too long is read a byte beyond the limit. Returns
// false at the end of the file.
bool read_line(FILE *from, std::string &line)
{
    line.clear();
    int next = 0;
    while (line.size() <= longest_line && (next = getc_unlocked(from)) != EOF && next != '\n')
        line += static_cast<char>(next);
    return next != EOF || !line.empty();
}

struct close_file {
    void operator()(FILE *file) const
    {
        if (file != stdin)
            fclose(file);
    }
};

} // namespace

json_line::json_line(const std::string &file, size_t number, const std::string &text)
    : file_(file), number_(number)
{
    try {
        check_characters(text);
        value_builder(text, value_, columns_).build();
    } catch (const line_error &error) {
        refuse_line(file_, number_, error);
    }
    if (!value_.is_object())
        refuse("", "not a JSON object");
}

void json_line::refuse(const std::string &path, const std::string &message) const
{
    std::vector<std::string> names;
    for (json::json_pointer rest(path); !rest.empty(); rest.pop_back())
        names.push_back(rest.back());
    const json *value = &value_;
    size_t index = 0;
    for (; !names.empty(); names.pop_back()) {
        ++index;
        for (const auto &[name, part] : value->items()) {
            if (name == names.back()) {
                value = &part;
                break;
            }
            index += column_count(part);
        }
    }
    refuse_line(file_, number_, {columns_.at(index), message});
}

uint32_t json_line::number_at(const std::string &path) const
{
    const json &value = value_.at(json::json_pointer(path));
    if (!value.is_number_unsigned() || value.get<uint64_t>() > UINT32_MAX)
        refuse(path, path.substr(1) + " must be a whole number from 0 to 4294967295");
    return value.get<uint32_t>();
}

void read_json_lines(const std::string &file, const std::function<void(const json_line &)> &take)
{
    const std::unique_ptr<FILE, close_file> from(file == "-" ? stdin : fopen(file.c_str(), "re"));
    if (from == nullptr)
        throw failure(file + ": " + strerror(errno));
    std::string line;
    for (size_t number = 1; read_line(from.get(), line); ++number) {
        if (line.size() > longest_line)
            refuse_line(file, number, {line.size(), "a line of more than 16 MB"});
        line.erase(line.find_last_not_of('\r') + 1);
        if (line.find_first_not_of(" \t") != line.npos)
            take(json_line(file, number, line));
    }
    if (ferror(from.get()))
        throw failure(file + ": " + strerror(errno));
}

} // namespace vskvs
