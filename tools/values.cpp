// Numbers and times as a command line gives them.
#include "tools/values.h"

#include <cstdlib>
#include <ctime>

namespace vskvs {
namespace {

constexpr double last_second = 9e9; // what fits 64 bits in ns

std::optional<int64_t> ns_of(double seconds)
{
    if (!(seconds >= -last_second && seconds <= last_second))
        return {};
    return static_cast<int64_t>(seconds * 1e9);
}

} // namespace

std::string check_number(std::string &text)
{
    const bool is_hex = text.starts_with("0x") || text.starts_with("0X");
    const std::string digits = text.substr(is_hex ? 2 : 0);
    const char *const allowed = is_hex ? "0123456789abcdefABCDEF" : "0123456789";
    if (digits.empty() || digits.size() > 10 || digits.find_first_not_of(allowed) != digits.npos)
        return "not a number: " + text;
    const unsigned long long value = std::stoull(digits, nullptr, is_hex ? 16 : 10);
    if (value > UINT32_MAX)
        return "not a 32-bit number: " + text;
    text = std::to_string(value);
    return {};
}

std::optional<int64_t> parse_time(const std::string &text)
{
    char *end = nullptr;
    const double number = strtod(text.c_str(), &end);
    const std::string unit = end;
    if (end != text.c_str() && number >= 0) {
        if (unit.empty())
            return ns_of(number);
        const std::string units = "smhd";
        constexpr int lengths[] = {1, 60, 3600, 86400};
        if (unit.size() == 1 && units.find(unit) != units.npos)
            return ns_of(static_cast<double>(time(nullptr)) - number * lengths[units.find(unit)]);
    }
    for (const char *const format :
         {"%Y-%m-%d %H:%M:%S", "%Y-%m-%dT%H:%M:%S", "%Y-%m-%d %H:%M", "%Y-%m-%d"}) {
        tm parts{};
        parts.tm_isdst = -1;
        const char *const rest = strptime(text.c_str(), format, &parts);
        if (rest != nullptr && *rest == '\0')
            return ns_of(static_cast<double>(mktime(&parts)));
    }
    return {};
}

} // namespace vskvs
