// One report: a trace record, then a debug print of the same facts.
#pragma once

#include "core/message.h"
#include "core/messages.h"
#include "core/relaxed.h"
#include "fault.h"
#include "ringlog.h"
#include "verbose.h"
#include "vs_kvs.h"

#include <cerrno>
#include <cstdint>
#include <tuple>
#include <unistd.h>

namespace vs_kvs {
namespace detail {

template <class Fact>
uint64_t traced(const Fact &fact)
{
    return fact.value;
}

inline uint64_t traced(const char *text) { return reinterpret_cast<uintptr_t>(text); }

template <fixed_text Name>
uint64_t traced(const text<Name> &fact)
{
    return traced(fact.value);
}

inline uint64_t traced(const status_text &status) { return traced(fault_strerror(status.value)); }

template <class Fact>
auto printed(const Fact &fact)
{
    return fact.value;
}

template <fixed_text Name>
uint32_t printed(const word<Name> &fact)
{
    return static_cast<uint32_t>(fact.value);
}

inline const char *printed(const status_text &status) { return fault_strerror(status.value); }

inline const char *printed(const status_number &status) { return fault_strerror(status.value); }

inline int printed(const errno_now &) { return errno; }

// The handle is read when the report is made: the buffer may have been opened since the last one.
template <channel To>
uint64_t trace_handle()
{
    if constexpr (To == channel::common)
        return load(vs_ringlog);
    else
        return load(*g_vs_kvs_ringlog_buffer[To == channel::errors ? 1 : 0]);
}

template <channel To, class... Told, class Facts>
void make(const site<To, Told...> &where, const char *operation, const Facts &facts)
{
    if constexpr (To == channel::common)
        _ringlog_emit(trace_handle<To>(), where.id, static_cast<uint64_t>(int64_t{getpid()}),
                      traced(operation), traced(std::get<Told>(facts))...);
    else if constexpr (To != channel::debug)
        _ringlog_emit(trace_handle<To>(), where.id, traced(operation),
                      traced(std::get<Told>(facts))...);

    if constexpr (To == channel::common) {
        if (!where.names_operation) {
            verbose_printf_local(DBG_VS_COMMON, where.text, printed(std::get<Told>(facts))...);
            return;
        }
    }
    verbose_printf_local(To == channel::common ? DBG_VS_COMMON : DBG_VS_KVS, where.text, operation,
                         printed(std::get<Told>(facts))...);
}

template <class Fact>
std::tuple<Fact> as_tuple(const Fact &fact)
{
    return {fact};
}

template <class... Facts>
const std::tuple<Facts...> &as_tuple(const std::tuple<Facts...> &facts)
{
    return facts;
}

} // namespace detail

// Reports at a site of the operation whose sites `Operation` holds. The facts may be single ones or
// tuples of them, more than the site tells and in any order.
template <class Operation, channel To, class... Told, class... Facts>
void report(const site<To, Told...> &where, const Facts &...facts)
{
    detail::make(where, Operation::operation, std::tuple_cat(detail::as_tuple(facts)...));
}

// Reports a failure with its status, and gives the status back.
template <class Operation, channel To, class... Told, class... Facts>
uint32_t fail(const site<To, Told...> &where, uint32_t status, const Facts &...facts)
{
    report<Operation>(where, status_text{status}, facts...);
    return status;
}

template <class Operation>
uint32_t no_memory(uint32_t length, const char *label)
{
    return fail<Operation>(allocation_failed, VS_FAULT_NO_MEMORY, record_length{length},
                           allocated{label});
}

// VS_FAULT_NULL_ARG, reported, when a required pointer is null.
template <class Operation>
uint32_t required(const void *pointer, const char *label)
{
    return pointer ? 0 : fail<Operation>(null_argument, VS_FAULT_NULL_ARG, parameter{label});
}

} // namespace vs_kvs
