// A record carries no text: its identifier and the operation that it names lead to its message. The
// identifier alone is not enough, since operations share identifiers where they share steps.
#include "tools/catalogue.h"

#include "fault.h"
#include "startup/messages.h"

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

struct catalogued_message {
    const char *operation; // null in the messages that all operations share
    uint64_t id;
    const char *text;
    std::vector<fact> facts;
};

using catalogue = std::vector<catalogued_message>;

template <vs_kvs::channel To, class... Facts>
void add_message(catalogue &to, const char *operation, const vs_kvs::message<To, Facts...> &message)
{
    const char *const text = message.text + (message.names_operation ? strlen("%s: ") : 0);
    to.push_back(
        {operation, message.id, text, {{Facts::name, Facts::traced_as, Facts::printed_as}...}});
}

template <class Messages>
void add_messages(catalogue &to, const char *operation, const Messages &messages)
{
    std::apply([&](const auto &...each) { (add_message(to, operation, each), ...); }, messages);
}

const catalogue &all_messages()
{
    static const catalogue messages = [] {
        catalogue all;
        add_messages(all, nullptr, vs_kvs::common_messages);
        vs_kvs::for_each_operation([&]<class Operation>(Operation) {
            add_messages(all, Operation::operation, Operation::traced);
        });
        return all;
    }();
    return messages;
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
        if (record.arguments[i].text != nullptr)
            return {i + 1, record.arguments[i].text};
    return {};
}

const catalogued_message *find_message(const ringlog_record &record, const heading &head)
{
    for (const catalogued_message &message : all_messages()) {
        const bool is_common = message.operation == nullptr;
        if (message.id == record.id && head.length == (is_common ? 2 : 1) &&
            (is_common || strcmp(message.operation, head.operation) == 0) &&
            message.facts.size() == record.argument_count - head.length)
            return &message;
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

std::string sentence_of(const catalogued_message &message, const ringlog_argument *arguments)
{
    std::string sentence;
    size_t next = 0;
    for (const char *at = message.text; *at != '\0'; ++at) {
        if (*at != '%') {
            sentence += *at;
            continue;
        }
        ++at;
        const fact &shown = message.facts[next];
        const ringlog_argument &argument = arguments[next++];
        if (shown.printed_as != vs_kvs::fact_kind::text)
            sentence += formatted(*at, argument.number);
        else if (argument.text != nullptr)
            sentence += argument.text;
        else
            sentence += fault_strerror(static_cast<uint32_t>(argument.number));
    }
    return sentence;
}

void add_fact(json &facts, const std::string &name, const ringlog_argument &argument)
{
    if (argument.text != nullptr)
        facts[name] = argument.text;
    else
        facts[name] = argument.number;
}

trace_sentence decode_raw(const ringlog_record &record, const heading &head)
{
    trace_sentence result{head.operation != nullptr ? head.operation : "", hex(record.id),
                          json::object()};
    for (uint32_t i = head.length; i < record.argument_count; ++i) {
        const ringlog_argument &argument = record.arguments[i];
        result.sentence += " " + (argument.text != nullptr ? '"' + std::string(argument.text) + '"'
                                                           : hex(argument.number));
        add_fact(result.facts, "argument_" + std::to_string(i), argument);
    }
    return result;
}

} // namespace

trace_sentence decode(const ringlog_record &record)
{
    const heading head = heading_of(record);
    const catalogued_message *const message = find_message(record, head);
    if (message == nullptr)
        return decode_raw(record, head);
    const ringlog_argument *const arguments = record.arguments + head.length;
    for (size_t i = 0; i < message->facts.size(); ++i)
        if ((message->facts[i].traced_as == vs_kvs::fact_kind::text) !=
            (arguments[i].text != nullptr))
            return decode_raw(record, head);
    trace_sentence result{head.operation, sentence_of(*message, arguments), json::object()};
    for (size_t i = 0; i < message->facts.size(); ++i)
        add_fact(result.facts, message->facts[i].name, arguments[i]);
    return result;
}

} // namespace vskvs
