// The state of the set-up of this process. Every word starts at 0 and is not exported.
#pragma once

#include <cstdint>

extern "C" {

extern uint32_t g_vs_kvs_debug_initialized; // 1 after the debug set-up
extern uint64_t g_vs_kvs_evm;               // the platform handle of the last initialisation
extern uint32_t g_vs_kvs_dbs_initialized;   // 1 when all three databases are open

// The load hook (reason 0) and the unload hook (reason 1) beneath their conditions.
uint32_t vs_kvs_dll_main(uint64_t module, uint32_t reason, uint64_t context);
}
