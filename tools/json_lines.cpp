// Reading JSON lines.
//
// The parser knows where it is in the text but the parsed value does not. A line is parsed without
// looking at places; only one that is refused is gone through again, to find the place of a path.
#include "tools/json_lines.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <memory>

namespace vskvs {
namespace {

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

json parse_watched(const std::string &text, const char **reached,
                   const json::parser_callback_t &look)
{
    return json::parse(watched_iterator(text.data(), reached),
                       watched_iterator(text.data() + text.size(), reached), look);
}

// Where the parser is in nested values.
struct level {
    bool is_array;
    size_t index;
    std::string name; // of the current field
};

std::string path_of(const std::vector<level> &levels)
{
    std::string path;
    for (const level &at : levels)
        path += "/" + (at.is_array ? std::to_string(at.index) : at.name);
    return path;
}

// The column, counted from 1, at which the value at `path` begins, or the name of a field. Of a
// field that is there more than once it is the last.
size_t column_of(const std::string &text, const std::string &path)
{
    using event = json::parse_event_t;
    const char *reached = text.data();
    size_t token_end = 0; // of the token before
    size_t found = 0;
    std::vector<level> levels;

    const auto look = [&](int, event what, const json &parsed) {
        const size_t start = text.find_first_not_of(" \t,:", token_end);
        token_end = static_cast<size_t>(reached - text.data());
        // After a number the parser has read one character more than belongs to it.
        if (what == event::value && parsed.is_number())
            --token_end;
        if (what == event::array_end || what == event::object_end) {
            levels.pop_back();
        } else {
            if (what == event::key)
                levels.back().name = parsed.get<std::string>();
            const bool in_object = !levels.empty() && !levels.back().is_array;
            if (in_object == (what == event::key) && path_of(levels) == path)
                found = start;
        }
        if (what == event::array_start || what == event::object_start)
            levels.push_back({what == event::array_start, 0, {}});
        else if (!levels.empty() && levels.back().is_array)
            ++levels.back().index;
        return true;
    };
    static_cast<void>(parse_watched(text, &reached, look));
    return found + 1;
}

struct close_file {
    void operator()(FILE *file) const
    {
        if (file != stdin)
            fclose(file);
    }
};

} // namespace

json_line::json_line(const std::string &file, size_t number, std::string text)
    : file_(file), number_(number), text_(std::move(text))
{
    std::vector<std::vector<std::string>> names; // of the fields seen, for each open object
    std::string repeated;
    const auto look = [&](int, json::parse_event_t what, const json &parsed) {
        if (what == json::parse_event_t::object_start)
            names.emplace_back();
        else if (what == json::parse_event_t::object_end)
            names.pop_back();
        if (what != json::parse_event_t::key)
            return true;
        const auto name = parsed.get<std::string>();
        if (repeated.empty() && std::ranges::count(names.back(), name) != 0)
            repeated = name;
        names.back().push_back(name);
        return true;
    };
    const char *reached = text_.data();
    try {
        value_ = parse_watched(text_, &reached, look);
    } catch (const json::exception &error) {
        // The library's text says the place in its own way, then what is wrong.
        const std::string what = error.what();
        const size_t reason = what.find(": ");
        const auto column = static_cast<size_t>(reached - text_.data());
        refuse_at(std::max<size_t>(column, 1),
                  "not JSON: " + what.substr(reason == what.npos ? 0 : reason + 2));
    }
    if (!value_.is_object())
        refuse("", "not a JSON object");
    if (!repeated.empty())
        refuse("/" + repeated, "field \"" + repeated + "\" is given twice");
}

void json_line::refuse(const std::string &path, const std::string &message) const
{
    refuse_at(column_of(text_, path), message);
}

void json_line::refuse_at(size_t column, const std::string &message) const
{
    throw failure(file_ + ":" + std::to_string(number_) + ":" + std::to_string(column) + ": " +
                  printable(message));
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
    if (!from)
        throw failure(file + ": " + std::strerror(errno));
    char *text = nullptr;
    size_t room = 0;
    const auto release = [](char **block) { free(*block); };
    const std::unique_ptr<char *, decltype(release)> owner(&text, release);
    ssize_t length = 0;
    for (size_t number = 1; (length = getline(&text, &room, from.get())) >= 0; ++number) {
        std::string line(text, static_cast<size_t>(length));
        line.erase(line.find_last_not_of("\r\n") + 1);
        if (line.find_first_not_of(" \t") != line.npos)
            take(json_line(file, number, std::move(line)));
    }
    if (!std::feof(from.get()))
        throw failure(file + ": " + std::strerror(errno));
}

} // namespace vskvs
