// Opening the databases.
#include "core/report.h"
#include "core/state.h"
#include "kvs.h"
#include "startup/messages.h"

#include <cerrno>
#include <cstdio>
#include <ctime>

using namespace vs_kvs;
using namespace vs_kvs::startup;

namespace {

constexpr unsigned attempts = 3;
constexpr time_t pause_seconds = 1;      // between attempts
constexpr uint32_t reported_seconds = 3; // in the report of a persistent failure

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

[[nodiscard]] uint32_t ensure_debug_setup(uint64_t evm)
{
    using m = db_init;
    if (load(g_vs_kvs_debug_initialized) != 0)
        return 0;
    const uint32_t status = vs_kvs_debug_init(evm);
    if (status != 0) {
        fprintf(stderr, "%s: %s: failed in VS KVS debug init: %s\n", program_invocation_short_name,
                m::operation, fault_strerror(status));
        return status;
    }
    report<m, m::debug_ready>(process_name{load(g_vs_kvs_proc_name)});
    store(g_vs_kvs_debug_initialized, uint32_t{1});
    return 0;
}

[[nodiscard]] uint32_t open(const database_entry &entry, uint64_t evm)
{
    using m = db_init;
    kvs_appdesc appdesc;
    prepare(appdesc);
    const database_name name{entry.name};
    const platform_handle platform{evm};
    const uint32_t status = kvs_init(entry.name, &appdesc, evm, entry.handle);
    if (status != 0)
        return fail<m, m::init_failed>(status, name, platform);
    const kvs_hdl handle = load(*entry.handle);
    if (handle == VS_KVS_HDL_UNSET)
        return fail<m, m::handle_unset>(VS_FAULT_KVS_INVALID_HDL, name);
    report<m, m::opened>(name, selector{entry.selector}, platform, database_handle{handle});
    return 0;
}

// Lasts its full length however many signals arrive.
void pause_between_attempts()
{
    timespec end{};
    clock_gettime(CLOCK_MONOTONIC, &end);
    end.tv_sec += pause_seconds;
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &end, nullptr) == EINTR) {
    }
}

[[nodiscard]] uint32_t open_with_retries(uint32_t number)
{
    using m = initialize;
    uint32_t status = 0;
    for (unsigned attempt = 1; attempt <= attempts; ++attempt) {
        status = vs_kvs_db_init(load(g_vs_kvs_evm), number);
        if (status == 0)
            return 0;
        if (attempt < attempts)
            pause_between_attempts();
    }
    report<m, persistent_failure>(callee{db_init::operation}, status_number{status},
                                  seconds{reported_seconds});
    fprintf(stderr, "%s: %s: VS failed to initialize VS KVS DB: 0x%X, error: %s",
            program_invocation_short_name, m::operation, number, fault_strerror(status));
    return status;
}

} // namespace

extern "C" {

// Whether the database is open is looked up before the debug set-up: a platform that calls back
// during the set-up may open it on demand, which is no failure of this opening. With the database
// open already, or unknown, the set-up still runs if it has not been done.
uint32_t vs_kvs_db_init(uint64_t evm, uint32_t vs_kvs_db_en)
{
    using m = db_init;
    const bool is_known = vs_kvs_db_en < database_entries.size();
    if (!is_known)
        report<m, m::unknown_database>(selector{vs_kvs_db_en});
    const bool is_open =
        is_known && load(*database_entries[vs_kvs_db_en].handle) != VS_KVS_HDL_UNSET;
    const uint32_t status = ensure_debug_setup(evm);
    if (status != 0)
        return status;
    if (!is_known)
        return VS_FAULT_KVS_UNKNOWN_DB;
    return is_open ? VS_KVS_DB_ALREADY_OPEN : open(database_entries[vs_kvs_db_en], evm);
}

uint32_t vs_kvs_initialize(uint64_t evm)
{
    using m = initialize;
    store(g_vs_kvs_evm, evm);
    for (uint32_t number = 0; number < database_entries.size(); ++number) {
        const uint32_t status = open_with_retries(number);
        if (status != 0)
            return status;
    }
    store(g_vs_kvs_dbs_initialized, uint32_t{1});
    report<m, m::all_opened>();
    return 0;
}

} // extern "C"
