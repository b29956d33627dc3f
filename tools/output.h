// What the tool writes: text and tables on standard output, failures on standard error.
//
// Standard output is written through here and nowhere else, so that a full disk is detected: every
// function that writes throws a failure if that fails.
#pragma once

#include "platform/base/utf8.h"

#include <cstdint>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace vskvs {

using json = nlohmann::ordered_json;

// The failure of a command, as one line. The tool prints it and exits with status 1.
struct failure : std::runtime_error {
    using runtime_error::runtime_error;
};

// A failure of an operation that gave a status.
struct status_failure : failure {
    status_failure(uint32_t failed_with, const std::string &message)
        : failure(message), status(failed_with)
    {
    }
    uint32_t status;
};

// A command line that cannot be carried out. The tool prints the reason and exits with status 2.
struct wrong_usage : std::runtime_error {
    using runtime_error::runtime_error;
};

void print(std::string_view text);
void print_line(const json &document);   // on one line
void print_pretty(const json &document); // for a command that gives one document
void flush();                            // everything printed so far reaches its destination

// A document in ASCII.
std::string json_text(const json &document, int indent = -1);

// One line on standard error, after "vskvs: ", made printable.
void complain(const std::string &message);

// A status as "no such object (VS_FAULT_NO_SUCH_OBJECT, 0xC5322600)".
std::string describe(uint32_t status);
std::string advise(uint32_t status);      // the same, and what can be done about it
std::string status_name(uint32_t status); // empty when it has none
std::string status_code(uint32_t status); // as 0xC5322600

// Throws a status_failure about `subject` unless the status is 0.
void require(uint32_t status, const std::string &subject);

std::string hex(uint64_t number); // as 0x2a

// "1 object", "2 objects".
std::string counted(size_t count, const std::string &noun);

using platform::character;
using platform::first_character;

// Text that is safe on a terminal: control characters, bidirectional marks, line separators and
// bytes that are not UTF-8 become '?'. Every text from outside the tool passes through here before
// it is printed: the messages of `complain` and the cells of `print_table` do.
std::string printable(std::string_view text);

// Bold and red text where standard output is a terminal and NO_COLOR is not set.
std::string bold(const std::string &text);
std::string red(const std::string &text);

struct column {
    std::string header;
    bool is_number; // aligned to the right
};

void print_table(const std::vector<column> &columns, std::vector<std::vector<std::string>> rows);

// A bar on standard error, when that is a terminal, that is removed when the work is done.
class progress_bar {
public:
    progress_bar(std::string label, size_t total);
    progress_bar(const progress_bar &) = delete;
    progress_bar &operator=(const progress_bar &) = delete;
    ~progress_bar();

    void show(size_t done) const;

private:
    std::string label_;
    size_t total_;
    bool is_visible_;
};

} // namespace vskvs
