// Numbers and times as a command line gives them.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace vskvs {

// Replaces a 32-bit number, in decimal or with 0x and nothing else, by its decimal form. A leading
// 0 does not make it octal. Returns what is wrong, or an empty text.
std::string check_number(std::string &text);

// Reads numbers separated by commas. Returns what is wrong, or an empty text.
std::string parse_numbers(const std::string &list, std::vector<uint32_t> &numbers);

// As check_number, also for the name of a status.
std::string check_status(std::string &text);

// A time in ns since 1970, from "90s", "10m", "2h" or "3d" ago, "2026-11-22 22:00[:00]", seconds
// since 1970, or a time as the tool prints it: with a fraction of the second, and "Z" or "+0100".
std::optional<int64_t> parse_time(const std::string &text);

// As 2026-11-22T22:07:31.123456Z, with so many digits of the second, 9 at most.
std::string utc_time(uint64_t time_ns, int digits);

} // namespace vskvs
