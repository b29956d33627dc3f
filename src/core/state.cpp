#include "core/state.h"

extern "C" {

uint32_t g_vs_kvs_debug_initialized = 0;
uint64_t g_vs_kvs_evm = 0;
uint32_t g_vs_kvs_dbs_initialized = 0;
}
