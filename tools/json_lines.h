// Files of JSON objects, one a line, and exact places for what is wrong in them.
#pragma once

#include "tools/output.h"

#include <cstdint>
#include <functional>
#include <string>

namespace vskvs {

class json_line {
public:
    json_line(const std::string &file, size_t number, std::string text);

    const json &value() const { return value_; }
    size_t number() const { return number_; }

    // Throws a failure that names the place of the value at `path` ("/clients/2/jid", "" for the
    // whole line), or of its name when it is a field.
    [[noreturn]] void refuse(const std::string &path, const std::string &message) const;

    // The 32-bit number at `path`.
    uint32_t number_at(const std::string &path) const;

private:
    [[noreturn]] void refuse_at(size_t column, const std::string &message) const;

    std::string file_;
    size_t number_;
    std::string text_;
    json value_;
};

// Gives each line of a file ("-" for standard input) to `take`, without the empty ones. A line must
// hold one object whose fields differ.
void read_json_lines(const std::string &file, const std::function<void(const json_line &)> &take);

} // namespace vskvs
