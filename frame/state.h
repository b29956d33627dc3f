// What this process knows of its own set-up. Every word starts at 0 and is not exported.
#pragma once

#include <cstdint>

extern "C" {

extern std::uint32_t g_vs_kvs_debug_initialized; // 1 after the debug set-up
extern std::uint64_t g_vs_kvs_evm;               // the platform handle of the last initialisation
extern std::uint32_t g_vs_kvs_dbs_initialized;   // 1 when all three databases are open
extern std::uint32_t g_vs_objects_db_populated;  // 1 after a bulk population

// The load hook (reason 0) and the unload hook (reason 1) beneath their conditions.
std::uint32_t vs_kvs_dll_main(std::uint64_t module, std::uint32_t reason, std::uint64_t context);
}
