// Files of JSON objects, one a line, with the exact position of each error.
//
// A line is refused if it has more than 16 MB, is nested deeper than 64 levels, contains a control
// character or bytes that are not UTF-8, or a field twice. No more of a file is in memory than one
// line.
#pragma once

#include "tools/output.h"

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace vskvs {

class json_line {
public:
    json_line(const std::string &file, size_t number, const std::string &text);

    const json &value() const { return value_; }
    size_t number() const { return number_; }

    // Throws a failure that names the position of the value at `path`, or of its name when it is a
    // field. A path is a JSON pointer: "/clients/2/jid", or "" for the whole line.
    [[noreturn]] void refuse(const std::string &path, const std::string &message) const;

    // The 32-bit number at `path`.
    uint32_t number_at(const std::string &path) const;

private:
    std::string file_;
    size_t number_;
    json value_;
    std::vector<uint32_t> columns_; // of all values and names, in the order of the text
};

// Gives each line of a file ("-" for standard input) to `take`, without the empty ones. A line must
// be one object without duplicate fields.
void read_json_lines(const std::string &file, const std::function<void(const json_line &)> &take);

} // namespace vskvs
