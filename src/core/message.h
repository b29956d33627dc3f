// Reporting sites as data that the compiler checks.
//
// A site is one place at which the library reports: the trace identifier as it stands in a dump,
// the debug text, and the list of facts that both carry, in their order. A fact is a named value; a
// report offers the facts it has, in any order, and the site picks those it names. So a step shared
// by many operations says once what it knows, and each operation's sites say what is told of it.
//
// A site whose identifier or text does not fit its facts does not compile.
#pragma once

#include <cstddef>
#include <cstdint>

namespace vs_kvs {

template <size_t Size>
struct fixed_text {
    char text[Size]{};

    consteval fixed_text(const char (&from)[Size])
    {
        for (size_t i = 0; i < Size; ++i)
            text[i] = from[i];
    }
};

enum class fact_kind { number, text, address };

// A 32-bit number.
template <fixed_text Name>
struct number {
    static constexpr const char *name = Name.text;
    static constexpr fact_kind traced_as = fact_kind::number;
    static constexpr fact_kind printed_as = fact_kind::number;
    uint32_t value;
};

// A 64-bit word of the platform. The trace carries all of it, a debug print its lower half: the
// texts have room for 32 bits.
template <fixed_text Name>
struct word {
    static constexpr const char *name = Name.text;
    static constexpr fact_kind traced_as = fact_kind::number;
    static constexpr fact_kind printed_as = fact_kind::number;
    uint64_t value;
};

template <fixed_text Name>
struct text {
    static constexpr const char *name = Name.text;
    static constexpr fact_kind traced_as = fact_kind::text;
    static constexpr fact_kind printed_as = fact_kind::text;
    const char *value;
};

// An address in this process, for debug prints only.
template <fixed_text Name>
struct address {
    static constexpr const char *name = Name.text;
    static constexpr fact_kind traced_as = fact_kind::address;
    static constexpr fact_kind printed_as = fact_kind::address;
    const void *value;
};

// A status, told as its text, which each channel fetches for itself.
struct status_text {
    static constexpr const char *name = "status";
    static constexpr fact_kind traced_as = fact_kind::text;
    static constexpr fact_kind printed_as = fact_kind::text;
    uint32_t value;
};

// A status that the trace carries as a number and the print as a text.
struct status_number {
    static constexpr const char *name = "status";
    static constexpr fact_kind traced_as = fact_kind::number;
    static constexpr fact_kind printed_as = fact_kind::text;
    uint32_t value;
};

// The errno of a failure, for the trace; the debug print reads errno again.
struct errno_now {
    static constexpr const char *name = "errno";
    static constexpr fact_kind traced_as = fact_kind::number;
    static constexpr fact_kind printed_as = fact_kind::number;
    uint32_t value;
};

// Where a report goes. Records in the common buffer begin with the process id and the operation's
// name, those in the api and errors buffers with the operation's name; `debug` leaves no record.
enum class channel { api, errors, common, debug };

namespace detail {

// Not constant expressions: a site that reaches one of them does not compile.
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
struct site {
    static_assert(To == channel::debug || (... && (Facts::traced_as != fact_kind::address)),
                  "an address means nothing outside its process: only debug prints tell it");

    uint64_t id;
    const char *text;
    bool names_operation; // whether the text begins with the operation's name

    consteval site(uint64_t identifier, const char *debug_text)
        : id(identifier), text(debug_text), names_operation(detail::starts_with_operation(text))
    {
        if (id >> 32 != detail::upper_half<To, Facts...>())
            detail::the_identifier_does_not_fit_the_facts();
        if (To != channel::common && !names_operation)
            detail::the_text_does_not_fit_the_facts();
        if (!detail::text_fits<Facts...>(text))
            detail::the_text_does_not_fit_the_facts();
    }

    consteval site(const char *debug_text) requires(To == channel::debug) : site(0, debug_text) {}
};

template <class... Facts>
using api = site<channel::api, Facts...>;
template <class... Facts>
using errors = site<channel::errors, Facts...>;
template <class... Facts>
using common = site<channel::common, Facts...>;
template <class... Facts>
using debug = site<channel::debug, Facts...>;

// The operations of a database, for whoever wants to find a record's site.
template <class... Sites>
struct operation_list {
};

} // namespace vs_kvs
