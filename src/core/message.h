// Messages: what the library can report, as data that the compiler checks.
//
// A message is one report at one point of the code: the trace identifier as it stands in a dump,
// the debug text, and the list of facts that both carry, in their order. The messages of an
// operation are the static members of a struct, with the operation's name and the list of those
// that leave trace records. Tools read these lists.
//
// What does not compile: an identifier or a text that does not fit the facts, and a report of a
// traced message that its operation's list lacks.
#pragma once

#include "core/fact.h"

#include <cstddef>
#include <cstdint>
#include <tuple>

namespace vs_kvs {

// Where a report goes. Records in the common buffer begin with the process id and the operation's
// name, those in the api and errors buffers with the operation's name; `debug` leaves no record.
enum class channel { api, errors, common, debug };

namespace detail {

// Not constant expressions: a message that reaches one of them does not compile.
void the_identifier_does_not_fit_the_facts();
void the_text_does_not_fit_the_facts();

constexpr bool starts_with_operation(const char *text)
{
    return text[0] == '%' && text[1] == 's' && text[2] == ':' && text[3] == ' ';
}

constexpr bool conversion_fits(char conversion, fact_kind kind)
{
    switch (kind) {
    case fact_kind::number:
        return conversion == 'X' || conversion == 'u' || conversion == 'd';
    case fact_kind::text:
        return conversion == 's';
    case fact_kind::address:
        return conversion == 'p';
    }
    return false;
}

template <class... Facts>
constexpr bool text_fits(const char *text)
{
    constexpr fact_kind kinds[] = {Facts::printed_as..., fact_kind::text};
    size_t fact = 0;
    for (const char *at = text + (starts_with_operation(text) ? 4 : 0); *at != '\0'; ++at) {
        if (*at != '%')
            continue;
        ++at;
        if (fact == sizeof...(Facts) || !conversion_fits(*at, kinds[fact]))
            return false;
        ++fact;
    }
    return fact == sizeof...(Facts);
}

template <channel To, class... Facts>
constexpr uint64_t upper_half()
{
    if (To == channel::debug)
        return 0;
    constexpr unsigned operation = To == channel::common ? 1 : 0;
    uint64_t mask = 1u << operation;
    unsigned argument = operation + 1;
    ((mask |= uint64_t{Facts::traced_as == fact_kind::text} << argument++), ...);
    return mask << 8 | argument;
}

} // namespace detail

template <channel To, class... Facts>
struct message {
    static_assert(To == channel::debug || (... && (Facts::traced_as != fact_kind::address)),
                  "an address means nothing outside its process: only debug prints carry it");

    static constexpr channel goes_to = To;

    uint64_t id;
    const char *text;
    bool names_operation; // whether the text begins with the operation's name

    consteval message(uint64_t identifier, const char *debug_text)
        : id(identifier), text(debug_text), names_operation(detail::starts_with_operation(text))
    {
        if (id >> 32 != detail::upper_half<To, Facts...>())
            detail::the_identifier_does_not_fit_the_facts();
        if (To != channel::common && !names_operation)
            detail::the_text_does_not_fit_the_facts();
        if (!detail::text_fits<Facts...>(text))
            detail::the_text_does_not_fit_the_facts();
    }

    consteval message(const char *debug_text) requires(To == channel::debug)
        : message(0, debug_text)
    {
    }
};

template <class... Facts>
using api = message<channel::api, Facts...>;
template <class... Facts>
using errors = message<channel::errors, Facts...>;
template <class... Facts>
using common = message<channel::common, Facts...>;
template <class... Facts>
using debug = message<channel::debug, Facts...>;

// Used where a shared step could report and an operation has no message for it. A step names every
// message it may use, so that a misspelt one does not compile.
struct no_message {
    static constexpr channel goes_to = channel::debug;
};

// ---- the messages of the common buffer, which all operations share ----

inline constexpr common<parameter> null_argument{0x603000055f0, "%s is null"};
inline constexpr common<record_length, allocated> allocation_failed{
    0xa04000055f4, "Failed to allocate %u bytes for %s"};
inline constexpr common<callee, status_number, seconds> persistent_failure{
    0x605000055fa, "%s: %s returned %s even after %u seconds"};

inline constexpr auto common_messages =
    std::tuple{null_argument, allocation_failed, persistent_failure};

// ---- lists ----

// The operations of a room, each a struct of messages.
template <class... Operations>
struct operation_list {
};

namespace detail {

template <class Messages>
consteval bool has_identifier(const Messages &messages, uint64_t id)
{
    return std::apply([id](const auto &...each) { return (... || (each.id == id)); }, messages);
}

template <class Operation, const auto &Message>
consteval bool is_listed()
{
    if constexpr (Message.goes_to == channel::common)
        return has_identifier(common_messages, Message.id);
    else if constexpr (Message.goes_to != channel::debug)
        return has_identifier(Operation::traced, Message.id);
    else
        return true;
}

} // namespace detail
} // namespace vs_kvs
