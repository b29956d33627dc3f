// One report: a trace record, then a debug print of the same facts.
#pragma once

#include "core/message.h"
#include "core/relaxed.h"
#include "fault.h"
#include "ringlog.h"
#include "verbose.h"
#include "vs_kvs.h"

#include <cerrno>
#include <cstdint>
#include <type_traits>
#include <unistd.h>

namespace vs_kvs {
namespace detail {

// Returns the fact of a type from those that a report was given, which may be part of a struct of
// several.
template <class Fact, class First, class... Rest>
constexpr const Fact &pick(const First &first, const Rest &...rest)
{
    if constexpr (std::is_base_of_v<Fact, First>)
        return first;
    else
        return pick<Fact>(rest...);
}

// ---- the form in which each channel takes a fact ----

inline uint64_t traced(const char *text) { return reinterpret_cast<uintptr_t>(text); }
inline uint64_t traced(const text &fact) { return traced(fact.value); }
inline uint64_t traced(const status_text &status) { return traced(fault_strerror(status.value)); }
inline uint64_t traced(const number &fact) { return fact.value; }
inline uint64_t traced(const word &fact) { return fact.value; }
inline uint64_t traced(const status_number &status) { return status.value; }
inline uint64_t traced(const errno_now &fact) { return fact.value; }

inline const char *printed(const text &fact) { return fact.value; }
inline const char *printed(const status_text &status) { return fault_strerror(status.value); }
inline const char *printed(const status_number &status) { return fault_strerror(status.value); }
inline uint32_t printed(const number &fact) { return fact.value; }
inline uint32_t printed(const word &fact) { return static_cast<uint32_t>(fact.value); }
inline const void *printed(const address &fact) { return fact.value; }
inline int printed(const errno_now &) { return errno; }

// ---- the channels ----

// The handle is read when the report is made: the buffer may have been opened since the last one.
template <channel To>
uint64_t trace_handle()
{
    if constexpr (To == channel::common)
        return load(vs_ringlog);
    else
        return load(*g_vs_kvs_ringlog_buffer[To == channel::errors ? 1 : 0]);
}

// The parameter without a name only makes the message's channel and facts known.
template <class Operation, const auto &Message, channel To, class... Picked, class... Facts>
void send(const message<To, Picked...> &, const Facts &...facts)
{
    constexpr const char *operation = Operation::operation;
    if constexpr (To == channel::common)
        _ringlog_emit(trace_handle<To>(), Message.id, static_cast<uint64_t>(int64_t{getpid()}),
                      traced(operation), traced(pick<Picked>(facts...))...);
    else if constexpr (To != channel::debug)
        _ringlog_emit(trace_handle<To>(), Message.id, traced(operation),
                      traced(pick<Picked>(facts...))...);

    constexpr uint32_t category = To == channel::common ? DBG_VS_COMMON : DBG_VS_KVS;
    if constexpr (Message.names_operation)
        verbose_printf_local(category, Message.text, operation, printed(pick<Picked>(facts...))...);
    else
        verbose_printf_local(category, Message.text, printed(pick<Picked>(facts...))...);
}

template <class Operation, const auto &Message, class... Facts>
void send(const no_message &, const Facts &...)
{
}

} // namespace detail

// Reports a message of an operation; `Operation` is the struct of its messages. The facts may be
// more than the message names, in any order.
template <class Operation, const auto &Message, class... Facts>
void report(const Facts &...facts)
{
    static_assert(detail::is_listed<Operation, Message>(),
                  "a traced message is missing from its operation's list");
    detail::send<Operation, Message>(Message, facts...);
}

// Reports a failure with its status, and returns the status. Away from the path of an operation
// that succeeds.
template <class Operation, const auto &Message, class... Facts>
[[nodiscard]] __attribute__((cold)) uint32_t fail(uint32_t status, const Facts &...facts)
{
    report<Operation, Message>(status_text{status}, facts...);
    return status;
}

template <class Operation>
[[nodiscard]] uint32_t no_memory(uint32_t length, const char *label)
{
    return fail<Operation, allocation_failed>(VS_FAULT_NO_MEMORY, record_length{length},
                                              allocated{label});
}

// Returns VS_FAULT_NULL_ARG, reported, if a required pointer is null.
template <class Operation>
[[nodiscard]] uint32_t require_pointer(const void *pointer, const char *label)
{
    return pointer != nullptr ? 0
                              : fail<Operation, null_argument>(VS_FAULT_NULL_ARG, parameter{label});
}

} // namespace vs_kvs
