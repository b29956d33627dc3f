// Facts: the named values that reports carry.
//
// Each fact is a plain type of its own, derived from the kind of value it is. A report is given the
// facts that a step has, singly or as a struct that derives from several of them, and each message
// picks the ones it names. So a shared step states its facts once, and every operation's messages
// select from them.
#pragma once

#include <cstdint>

namespace vs_kvs {

enum class fact_kind { number, text, address };

// A 32-bit number.
struct number {
    static constexpr fact_kind traced_as = fact_kind::number;
    static constexpr fact_kind printed_as = fact_kind::number;
    uint32_t value;
};

// A 64-bit word of the platform. A trace record carries all of it, a debug print its lower half:
// the texts have room for 32 bits.
struct word {
    static constexpr fact_kind traced_as = fact_kind::number;
    static constexpr fact_kind printed_as = fact_kind::number;
    uint64_t value;
};

struct text {
    static constexpr fact_kind traced_as = fact_kind::text;
    static constexpr fact_kind printed_as = fact_kind::text;
    const char *value;
};

// An address in this process, for debug prints only.
struct address {
    static constexpr fact_kind traced_as = fact_kind::address;
    static constexpr fact_kind printed_as = fact_kind::address;
    const void *value;
};

// A status, reported as its text. Each channel fetches the text for itself.
struct status_text {
    static constexpr char name[] = "status";
    static constexpr fact_kind traced_as = fact_kind::text;
    static constexpr fact_kind printed_as = fact_kind::text;
    uint32_t value;
};

// A status that a trace record carries as a number and a debug print as a text.
struct status_number {
    static constexpr char name[] = "status";
    static constexpr fact_kind traced_as = fact_kind::number;
    static constexpr fact_kind printed_as = fact_kind::text;
    uint32_t value;
};

// The errno of a failure, for the trace; the debug print reads errno again.
struct errno_now {
    static constexpr char name[] = "errno";
    static constexpr fact_kind traced_as = fact_kind::number;
    static constexpr fact_kind printed_as = fact_kind::number;
    uint32_t value;
};

// ---- the facts that operations share ----

#define VS_KVS_FACT(type, kind, its_name)                                                          \
    struct type : kind {                                                                           \
        static constexpr char name[] = its_name;                                                   \
    }

VS_KVS_FACT(object_id, number, "vs_object_id");
VS_KVS_FACT(job_id, number, "jid");
VS_KVS_FACT(process_id, number, "pid");
VS_KVS_FACT(selected_version, number, "selected_version");
VS_KVS_FACT(record_length, number, "length");
VS_KVS_FACT(record_count, number, "count");
VS_KVS_FACT(old_length, number, "old_length");
VS_KVS_FACT(old_array_length, number, "old_array_length");
VS_KVS_FACT(error_number, number, "errno");
VS_KVS_FACT(selector, number, "vs_kvs_db_en");
VS_KVS_FACT(seconds, number, "seconds");

VS_KVS_FACT(parameter, text, "parameter");
VS_KVS_FACT(allocated, text, "label");
VS_KVS_FACT(database_name, text, "db_name");
VS_KVS_FACT(process_name, text, "process_name");
VS_KVS_FACT(callee, text, "callee");

VS_KVS_FACT(platform_handle, word, "evm");
VS_KVS_FACT(database_handle, word, "kvs_hdl");

VS_KVS_FACT(record_address, address, "record");
VS_KVS_FACT(handle_address, address, "handle");

} // namespace vs_kvs
