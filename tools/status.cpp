// Prints the names and texts of statuses.
#include "fault.h"
#include "tools/commands.h"

namespace vskvs {

void status(const arguments &given)
{
    std::vector<uint32_t> codes;
    if (given.code) {
        codes.push_back(*given.code);
    } else {
        size_t count = 0;
        const fault_entry *const all = fault_catalogue(&count);
        for (size_t i = 0; i < count; ++i)
            codes.push_back(all[i].status);
    }
    json document = json::array();
    std::vector<std::vector<std::string>> rows;
    for (const uint32_t code : codes) {
        rows.push_back({status_code(code), status_name(code), fault_strerror(code)});
        document.push_back(
            {{"status", code}, {"name", status_name(code)}, {"text", rows.back()[2]}});
    }
    if (given.as_json)
        print_pretty(given.code ? document[0] : document);
    else
        print_table({{"STATUS", false}, {"NAME", false}, {"TEXT", false}}, rows);
}

} // namespace vskvs
