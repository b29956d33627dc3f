// A record carries no text: its identifier and the operation that it names lead to its site. The
// identifier alone is not enough, since operations share identifiers where they share steps.
#include "tools/catalogue.h"

#include "clients/messages.h"
#include "core/messages.h"
#include "fault.h"
#include "objects/messages.h"
#include "registrations/messages.h"

#include <cstring>
#include <tuple>
#include <vector>

namespace vskvs {
namespace {

struct fact {
    const char *name;
    vs_kvs::fact_kind traced_as;
    vs_kvs::fact_kind printed_as;
};

struct catalogued_site {
    const char *operation; // null in the messages that all operations share
    uint64_t id;
    const char *text;
    std::vector<fact> facts;
};

using catalogue = std::vector<catalogued_site>;

template <vs_kvs::channel To, class... Facts>
void add_site(catalogue &to, const char *operation, const vs_kvs::site<To, Facts...> &site)
{
    const char *const text = site.text + (site.names_operation ? strlen("%s: ") : 0);
    to.push_back(
        {operation, site.id, text, {{Facts::name, Facts::traced_as, Facts::printed_as}...}});
}

template <class Sites>
void add_sites(catalogue &to, const char *operation, const Sites &sites)
{
    std::apply([&](const auto &...site) { (add_site(to, operation, site), ...); }, sites);
}

template <class... Operations>
void add_operations(catalogue &to, vs_kvs::operation_list<Operations...>)
{
    (add_sites(to, Operations::operation, Operations::traced), ...);
}

const catalogue &all_sites()
{
    static const catalogue sites = [] {
        catalogue all;
        add_sites(all, nullptr, vs_kvs::common_messages);
        add_operations(all, vs_kvs::startup::operations{});
        add_operations(all, vs_kvs::objects::operations{});
        add_operations(all, vs_kvs::clients::operations{});
        add_operations(all, vs_kvs::registrations::operations{});
        return all;
    }();
    return sites;
}

// The arguments before the facts: the operation's name, and before it the process id in the
// messages that all operations share.
struct heading {
    uint32_t length = 0;
    const char *operation = nullptr;
};

heading heading_of(const ringlog_record &record)
{
    for (uint32_t i = 0; i < record.argument_count && i < 2; ++i)
        if (record.arguments[i].text)
            return {i + 1, record.arguments[i].text};
    return {};
}

const catalogued_site *find_site(const ringlog_record &record, const heading &head)
{
    for (const catalogued_site &site : all_sites()) {
        const bool is_common = site.operation == nullptr;
        if (site.id == record.id && head.length == (is_common ? 2 : 1) &&
            (is_common || strcmp(site.operation, head.operation) == 0) &&
            site.facts.size() == record.argument_count - head.length)
            return &site;
    }
    return nullptr;
}

std::string formatted(char conversion, uint64_t number)
{
    char text[24];
    const auto value = static_cast<uint32_t>(number);
    if (conversion == 'X')
        snprintf(text, sizeof text, "%X", value);
    else if (conversion == 'd')
        snprintf(text, sizeof text, "%d", static_cast<int32_t>(value));
    else
        snprintf(text, sizeof text, "%u", value);
    return text;
}

std::string sentence_of(const catalogued_site &site, const ringlog_argument *arguments)
{
    std::string sentence;
    size_t next = 0;
    for (const char *at = site.text; *at != '\0'; ++at) {
        if (*at != '%') {
            sentence += *at;
            continue;
        }
        ++at;
        const fact &told = site.facts[next];
        const ringlog_argument &argument = arguments[next++];
        if (told.printed_as != vs_kvs::fact_kind::text)
            sentence += formatted(*at, argument.number);
        else if (argument.text)
            sentence += argument.text;
        else
            sentence += fault_strerror(static_cast<uint32_t>(argument.number));
    }
    return sentence;
}

void add_fact(json &facts, const std::string &name, const ringlog_argument &argument)
{
    if (argument.text)
        facts[name] = argument.text;
    else
        facts[name] = argument.number;
}

told_record tell_raw(const ringlog_record &record, const heading &head)
{
    told_record told{head.operation ? head.operation : "", hex(record.id), json::object()};
    for (uint32_t i = head.length; i < record.argument_count; ++i) {
        const ringlog_argument &argument = record.arguments[i];
        told.sentence +=
            " " + (argument.text ? '"' + std::string(argument.text) + '"' : hex(argument.number));
        add_fact(told.facts, "argument_" + std::to_string(i), argument);
    }
    return told;
}

} // namespace

told_record tell(const ringlog_record &record)
{
    const heading head = heading_of(record);
    const catalogued_site *const site = find_site(record, head);
    if (!site)
        return tell_raw(record, head);
    const ringlog_argument *const arguments = record.arguments + head.length;
    for (size_t i = 0; i < site->facts.size(); ++i)
        if ((site->facts[i].traced_as == vs_kvs::fact_kind::text) != (arguments[i].text != nullptr))
            return tell_raw(record, head);
    told_record told{head.operation, sentence_of(*site, arguments), json::object()};
    for (size_t i = 0; i < site->facts.size(); ++i)
        add_fact(told.facts, site->facts[i].name, arguments[i]);
    return told;
}

} // namespace vskvs
