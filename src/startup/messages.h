// The messages of start-up, and the way through the messages of all operations.
#pragma once

#include "databases.h"

namespace vs_kvs::startup {

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

} // namespace vs_kvs::startup

namespace vs_kvs {

// Calls `each` with the struct of messages of every operation, start-up first.
template <class Each>
void for_each_operation(const Each &each)
{
    detail::for_each_of(startup::operations{}, each);
    for_each_database_operation(each);
}

} // namespace vs_kvs
