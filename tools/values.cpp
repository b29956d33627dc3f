// Numbers and times as a command line gives them.
#include "tools/values.h"

#include "fault.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <ctime>

namespace vskvs {
namespace {

constexpr double last_second = 9e9; // what fits 64 bits in ns
constexpr int64_t second = 1'000'000'000;

std::optional<int64_t> ns_of(double seconds)
{
    if (!(seconds >= -last_second && seconds <= last_second))
        return {};
    return static_cast<int64_t>(seconds * 1e9);
}

// Reads up to 9 digits behind a point, if there is one, and moves behind them. In ns.
int64_t parse_fraction(const char *&at)
{
    int64_t fraction = 0, unit = second;
    if (*at == '.' && isdigit(static_cast<unsigned char>(at[1])))
        for (++at; unit > 1 && isdigit(static_cast<unsigned char>(*at)); ++at)
            fraction += (*at - '0') * (unit /= 10);
    return fraction;
}

// The seconds since 1970 of a date, in the zone that is named behind it, or in local time.
std::optional<int64_t> parse_zone(const char *at, tm &date)
{
    if (*at == '\0')
        return mktime(&date);
    tm zone{};
    const char *const end = strptime(at, "%z", &zone);
    if (end == nullptr || *end != '\0')
        return {};
    return timegm(&date) - zone.tm_gmtoff;
}

std::optional<int64_t> parse_date(const char *rest, tm &date)
{
    const int64_t fraction = parse_fraction(rest);
    const std::optional<int64_t> seconds = parse_zone(rest, date);
    const std::optional<int64_t> whole = seconds ? ns_of(static_cast<double>(*seconds)) : seconds;
    return whole ? *whole + fraction : whole;
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

std::string parse_numbers(const std::string &list, std::vector<uint32_t> &numbers)
{
    for (size_t at = 0; at <= list.size();) {
        const size_t end = std::min(list.find(',', at), list.size());
        std::string number = list.substr(at, end - at);
        if (std::string error = check_number(number); !error.empty())
            return error;
        numbers.push_back(static_cast<uint32_t>(std::stoul(number)));
        at = end + 1;
    }
    return {};
}

std::string check_status(std::string &text)
{
    size_t count = 0;
    const fault_entry *const all = fault_catalogue(&count);
    const fault_entry *const found = std::find_if(
        all, all + count, [&](const fault_entry &entry) { return text == entry.name; });
    if (found == all + count)
        return text.find_first_not_of("0123456789") == 0 ? "no status has this name: " + text
                                                         : check_number(text);
    text = std::to_string(found->status);
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
        if (rest != nullptr)
            if (const std::optional<int64_t> date_time = parse_date(rest, parts))
                return date_time;
    }
    return {};
}

std::string utc_time(uint64_t time_ns, int digits)
{
    const auto seconds = static_cast<std::time_t>(time_ns / second);
    tm parts{};
    gmtime_r(&seconds, &parts);
    char date[64], fraction[16];
    std::strftime(date, sizeof date, "%Y-%m-%dT%H:%M:%S", &parts);
    snprintf(fraction, sizeof fraction, "%09llu",
             static_cast<unsigned long long>(time_ns % second));
    return std::string(date) + "." + std::string(fraction, static_cast<size_t>(digits)) + "Z";
}

} // namespace vskvs
