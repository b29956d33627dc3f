// The facts that reports carry, and the reporting sites of the frame.
#pragma once

#include "core/message.h"

#include <tuple>

namespace vs_kvs {

using object_id = number<"vs_object_id">;
using job_id = number<"jid">;
using process_id = number<"pid">;
using selected_version = number<"selected_version">;
using record_length = number<"length">;
using record_count = number<"count">;
using error_number = number<"errno">;

using parameter = text<"parameter">;
using allocated = text<"label">;
using database_name = text<"db_name">;
using selector = number<"vs_kvs_db_en">;
using platform_handle = word<"evm">;
using database_handle = word<"kvs_hdl">;
using process_name = text<"process_name">;
using callee = text<"callee">;
using seconds = number<"seconds">;

// The three messages of the common buffer, which all operations share.

inline constexpr common<parameter> null_argument{0x603000055f0, "%s is null"};
inline constexpr common<record_length, allocated> allocation_failed{
    0xa04000055f4, "Failed to allocate %u bytes for %s"};
inline constexpr common<callee, status_number, seconds> persistent_failure{
    0x605000055fa, "%s: %s returned %s even after %u seconds"};

inline constexpr auto common_messages =
    std::tuple{null_argument, allocation_failed, persistent_failure};

namespace startup {

struct db_init {
    static constexpr char operation[] = "vs_kvs_db_init";

    static constexpr debug<selector> unknown_database{"%s: got unknown VS KVS Database: 0x%X"};
    static constexpr api<process_name> debug_ready{
        0x3020001010b, "%s: VS KVS debug initialized successfully for proc name: %s"};
    static constexpr errors<database_name, platform_handle, status_text> init_failed{
        0xb0400010201, "%s: failed in kvs_init: db_name %s, evm: 0x%X: %s"};
    static constexpr errors<database_name> handle_unset{
        0x30200010202,
        "%s: got invalid kvs hdl from kvs_init with no error, it should never happen. db_name: %s"};
    static constexpr api<database_name, selector, platform_handle, database_handle> opened{
        0x30500010101,
        "%s: vs_kvs_name: %s, vs_kvs_db_en: 0x%X, evm: 0x%X, kvs_hdl: 0x%X successfully"};

    static constexpr auto traced = std::tuple{debug_ready, init_failed, handle_unset, opened};
};

struct initialize {
    static constexpr char operation[] = "vs_kvs_initialize";

    static constexpr api<> all_opened{0x10100010102, "%s: all VS KVS DBs initialized successfully"};

    static constexpr auto traced = std::tuple{all_opened};
};

using operations = operation_list<db_init, initialize>;

} // namespace startup
} // namespace vs_kvs
