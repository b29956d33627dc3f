// The catalogue of databases, their opening, and their key-descriptor setters.
#include "core/report.h"
#include "core/state.h"
#include "kvs.h"

#include <cstdio>
#include <unistd.h>

using namespace vs_kvs;

extern "C" {

kvs_hdl g_kvs_hdl_vs_objects_db = VS_KVS_HDL_UNSET;
kvs_hdl g_kvs_hdl_vs_clients_info_db = VS_KVS_HDL_UNSET;
kvs_hdl g_kvs_hdl_vs_client_objects_reg_db = VS_KVS_HDL_UNSET;

uint32_t g_vs_kvs_debug_initialized = 0;
uint64_t g_vs_kvs_evm = 0;
uint32_t g_vs_kvs_dbs_initialized = 0;
uint32_t g_vs_objects_db_populated = 0;
}

namespace {

struct catalogue_entry {
    const char *name;
    kvs_hdl *handle;
};

// Indexed by the database selector.
constexpr catalogue_entry catalogue[] = {
    {"vs_objects", &g_kvs_hdl_vs_objects_db},
    {"vs_clients_info", &g_kvs_hdl_vs_clients_info_db},
    {"vs_clientobjectsreg", &g_kvs_hdl_vs_client_objects_reg_db},
};
constexpr uint32_t database_count = sizeof catalogue / sizeof *catalogue;

constexpr unsigned attempts = 3;
constexpr unsigned sleep_seconds = 1;
constexpr uint32_t told_seconds = 3; // what the report of a persistent failure speaks of

void prepare(kvs_appdesc &appdesc)
{
    kvs_appdesc_init(&appdesc);
    appdesc.key_count = 1;
    appdesc.key_policy = 0;
    appdesc.share_policy = 0;
    appdesc.flags = 0;
    appdesc.notify = 0;
    appdesc.notify_flags = 0;
    appdesc.context = 0;
}

uint32_t ensure_debug_setup(uint64_t evm)
{
    using s = startup::db_init;
    if (load(g_vs_kvs_debug_initialized) != 0)
        return 0;
    const uint32_t status = vs_kvs_debug_init(evm);
    if (status != 0) {
        fprintf(stderr, "%s: %s: failed in VS KVS debug init: %s\n", program_invocation_short_name,
                s::operation, fault_strerror(status));
        return status;
    }
    report<s>(s::debug_ready, process_name{load(g_vs_kvs_proc_name)});
    store(g_vs_kvs_debug_initialized, uint32_t{1});
    return 0;
}

uint32_t open(const catalogue_entry &entry, uint32_t number, uint64_t evm)
{
    using s = startup::db_init;
    kvs_appdesc appdesc;
    prepare(appdesc);
    const database_name name{entry.name};
    const platform_handle platform{evm};
    const uint32_t status = kvs_init(entry.name, &appdesc, evm, entry.handle);
    if (status != 0)
        return fail<s>(s::init_failed, status, name, platform);
    const kvs_hdl handle = load(*entry.handle);
    if (handle == VS_KVS_HDL_UNSET)
        return fail<s>(s::handle_unset, VS_FAULT_KVS_INVALID_HDL, name);
    report<s>(s::opened, name, selector{number}, platform, database_handle{handle});
    return 0;
}

uint32_t open_with_retries(uint32_t number)
{
    using s = startup::initialize;
    uint32_t status = 0;
    for (unsigned attempt = 1; attempt <= attempts; ++attempt) {
        status = vs_kvs_db_init(load(g_vs_kvs_evm), number);
        if (status == 0)
            return 0;
        if (attempt < attempts)
            sleep(sleep_seconds);
    }
    report<s>(persistent_failure, callee{startup::db_init::operation}, status_number{status},
              seconds{told_seconds});
    fprintf(stderr, "%s: %s: VS failed to initialize VS KVS DB: 0x%X, error: %s",
            program_invocation_short_name, s::operation, number, fault_strerror(status));
    return status;
}

void set_key_attr(kvs_key_attr &attr)
{
    for (auto &flag : attr.key_flags)
        flag = 0;
    attr.key_len = sizeof(uint32_t);
    attr.key_offset = 0;
}

} // namespace

extern "C" {

// With the database open already, or unknown, the debug set-up still runs if it has not been done.
uint32_t vs_kvs_db_init(uint64_t evm, uint32_t vs_kvs_db_en)
{
    using s = startup::db_init;
    const bool is_known = vs_kvs_db_en < database_count;
    if (!is_known)
        report<s>(s::unknown_database, selector{vs_kvs_db_en});
    const uint32_t status = ensure_debug_setup(evm);
    if (status != 0)
        return status;
    if (!is_known)
        return VS_FAULT_KVS_UNKNOWN_DB;
    const catalogue_entry &entry = catalogue[vs_kvs_db_en];
    if (load(*entry.handle) != VS_KVS_HDL_UNSET)
        return VS_KVS_DB_ALREADY_OPEN;
    return open(entry, vs_kvs_db_en, evm);
}

uint32_t vs_kvs_initialize(uint64_t evm)
{
    using s = startup::initialize;
    store(g_vs_kvs_evm, evm);
    for (uint32_t number = 0; number < database_count; ++number) {
        const uint32_t status = open_with_retries(number);
        if (status != 0)
            return status;
    }
    store(g_vs_kvs_dbs_initialized, uint32_t{1});
    report<s>(s::all_opened);
    return 0;
}

uint32_t vs_kvs_is_populated(void) { return load(g_vs_objects_db_populated); }

void set_vs_objects_kvs_db_pk_attr(kvs_key_attr *key_attr_p, uint32_t)
{
    set_key_attr(*key_attr_p);
}

void set_vs_clients_info_kvs_db_pk_attr(kvs_key_attr *key_attr_p, uint32_t)
{
    set_key_attr(*key_attr_p);
}

void set_vs_client_objects_reg_kvs_db_pk_attr(kvs_key_attr *key_attr_p, uint32_t)
{
    set_key_attr(*key_attr_p);
}

} // extern "C"
