// Writing, with every error detected.
#include "tools/output.h"

#include "fault.h"
#include "kvs.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

namespace vskvs {
namespace {

[[noreturn]] void output_failed()
{
    throw failure(std::string("standard output: ") + std::strerror(errno));
}

std::string styled(const char *code, const std::string &text)
{
    static const bool is_on = [] {
        const char *const no_color = getenv("NO_COLOR");
        const char *const term = getenv("TERM");
        return isatty(STDOUT_FILENO) && (no_color == nullptr || *no_color == '\0') &&
               term != nullptr && strcmp(term, "dumb") != 0;
    }();
    return is_on ? std::string("\033[") + code + "m" + text + "\033[0m" : text;
}

std::string padded(const std::string &text, size_t width, bool to_the_right)
{
    const std::string space(width - std::min(width, text.size()), ' ');
    return to_the_right ? space + text : text + space;
}

} // namespace

void print(std::string_view text)
{
    if (std::fwrite(text.data(), 1, text.size(), stdout) != text.size())
        output_failed();
}

void print_line(const json &document) { print(json_text(document) + "\n"); }

void print_pretty(const json &document) { print(json_text(document, 2) + "\n"); }

// All but ASCII is escaped, for JSON leaves C1 controls and bidirectional marks as they are. Bytes
// that are not UTF-8 can come from a trace record; JSON cannot contain them.
std::string json_text(const json &document, int indent)
{
    return document.dump(indent, ' ', true, json::error_handler_t::replace);
}

void flush()
{
    if (fflush(stdout) != 0)
        output_failed();
}

void complain(const std::string &message)
{
    fprintf(stderr, "vskvs: %s\n", printable(message).c_str());
}

std::string status_name(uint32_t status)
{
    if (const fault_entry *const entry = fault_find(status))
        return entry->name;
    const char *const name = status <= 4095 ? strerrorname_np(static_cast<int>(status)) : nullptr;
    return name != nullptr ? name : "";
}

std::string status_code(uint32_t status)
{
    char text[16];
    snprintf(text, sizeof text, "0x%08X", status);
    return text;
}

std::string describe(uint32_t status)
{
    const std::string name = status_name(status);
    return fault_strerror(status) + (" (" + name) + (name.empty() ? "" : ", ") +
           status_code(status) + ")";
}

std::string advise(uint32_t status)
{
    return describe(status) +
           (status == KVS_RC_DAMAGED ? "; 'vskvs dump --salvage' prints what can be read" : "");
}

void require(uint32_t status, const std::string &subject)
{
    if (status != 0)
        throw status_failure(status, subject + ": " + advise(status));
}

std::string hex(uint64_t number)
{
    char text[24];
    snprintf(text, sizeof text, "0x%llx", static_cast<unsigned long long>(number));
    return text;
}

std::string counted(size_t count, const std::string &noun)
{
    return std::to_string(count) + " " + noun + (count == 1 ? "" : "s");
}

std::string printable(std::string_view text)
{
    std::string shown;
    while (!text.empty()) {
        const character next = first_character(text);
        const size_t length = std::max<size_t>(next.length, 1);
        if (next.length == 0 || platform::is_unprintable(next.code))
            shown += '?';
        else
            shown += text.substr(0, length);
        text.remove_prefix(length);
    }
    return shown;
}

std::string bold(const std::string &text) { return styled("1", text); }

std::string red(const std::string &text) { return styled("31", text); }

void print_table(const std::vector<column> &columns, std::vector<std::vector<std::string>> rows)
{
    for (auto &row : rows)
        for (std::string &cell : row)
            cell = printable(cell);
    std::vector<size_t> widths;
    for (size_t i = 0; i < columns.size(); ++i) {
        size_t width = columns[i].header.size();
        for (const auto &row : rows)
            width = std::max(width, row[i].size());
        widths.push_back(width);
    }
    const auto line_of = [&](const auto &text_of) {
        std::string line;
        for (size_t i = 0; i < columns.size(); ++i)
            line += (i == 0 ? "" : "  ") + padded(text_of(i), widths[i], columns[i].is_number);
        line.erase(line.find_last_not_of(' ') + 1);
        return line;
    };
    print(bold(line_of([&](size_t i) { return columns[i].header; })) + "\n");
    for (const auto &row : rows)
        print(line_of([&](size_t i) { return row[i]; }) + "\n");
}

progress_bar::progress_bar(std::string label, size_t total)
    : label_(std::move(label)), total_(total), is_visible_(isatty(STDERR_FILENO) && total != 0)
{
}

progress_bar::~progress_bar()
{
    if (is_visible_)
        fprintf(stderr, "\r\033[K");
}

void progress_bar::show(size_t done) const
{
    constexpr size_t width = 40;
    if (!is_visible_)
        return;
    const size_t filled = width * done / total_;
    fprintf(stderr, "\r%s [%s%s] %zu of %zu", label_.c_str(), std::string(filled, '#').c_str(),
            std::string(width - filled, '.').c_str(), done, total_);
}

} // namespace vskvs
