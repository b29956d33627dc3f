// The load hook and the per-process debug set-up: who this process is, and where its reports go.
//
// Until the set-up is done there may be no channel that would carry its failures, so they go to
// standard error.
#include "core/relaxed.h"
#include "core/state.h"
#include "fault.h"
#include "jobctl.h"
#include "loader.h"
#include "lockwatch.h"
#include "pinfo.h"
#include "ringlog.h"
#include "verbose.h"
#include "vs_kvs.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <pthread.h>
#include <unistd.h>

using vs_kvs::load;
using vs_kvs::store;

extern "C" {

uint64_t vs_ringlog = 0;
uint64_t vs_kvs_api_trace = 0;
uint64_t vs_kvs_errors_trace = 0;
uint64_t *g_vs_kvs_ringlog_buffer[2] = {&vs_kvs_api_trace, &vs_kvs_errors_trace};
char *g_vs_kvs_proc_name = nullptr;
uint32_t dummy_unused_var = 0;
}

namespace {

constexpr size_t name_room = 256;
constexpr size_t longest_short_name = 64;
constexpr uint32_t lockwatch_code = 40;

// The names under which the process's buffers were opened, in place for its life.
char api_buffer_name[name_room];
char errors_buffer_name[name_room];

pthread_mutex_t vs_kvs_debug_mutex = PTHREAD_ERRORCHECK_MUTEX_INITIALIZER_NP;

int lock_debug_mutex()
{
    int status = pthread_mutex_trylock(&vs_kvs_debug_mutex);
    if (status == EBUSY) {
        lockwatch_set_mutex_block(&vs_kvs_debug_mutex, "vs_kvs_debug_init", lockwatch_code);
        status = pthread_mutex_lock(&vs_kvs_debug_mutex);
        lockwatch_unset_mutex_block();
    }
    return status;
}

// The job manager speaks for its jobs; of any other process the system knows the name, and its id
// stands in for the job id, whatever else the job manager may have said.
uint32_t identify(const char *operation, uint32_t &job_id, char (&name)[name_room])
{
    const bool is_job = jobctl_get_job_id(&job_id) == 0;
    const auto pid = static_cast<uint32_t>(getpid());
    if (!is_job)
        job_id = pid;
    const bool is_named = jobctl_get_jobctl_name(name, name_room) == 0;
    if (is_job && is_named)
        return 0;
    const uint32_t status = pinfo_get_name(pid, name, name_room);
    if (status != 0)
        fprintf(stderr, "%s: %s: failed to get process name: %s\n", program_invocation_short_name,
                operation, fault_strerror(status));
    return status;
}

// Everything that happens under the mutex.
uint32_t set_up(const char *operation, uint64_t evm)
{
    auto *const block = static_cast<char *>(calloc(longest_short_name + 1, 1));
    store(g_vs_kvs_proc_name, block);
    if (!block) {
        fprintf(stderr, "%s: %s failed to allocate mem for proc name\n",
                program_invocation_short_name, operation);
        return VS_FAULT_NO_MEMORY;
    }

    uint32_t job_id = 0;
    char name[name_room] = "";
    uint32_t status = identify(operation, job_id, name);
    if (status != 0)
        return status;
    const char *const slash = strrchr(name, '/');
    const char *const short_name = slash ? slash + 1 : name;
    const size_t length = strlen(short_name);
    if (length > longest_short_name) {
        fprintf(stderr, "%s: %s: failed: process name too long\n", program_invocation_short_name,
                operation);
        return VS_FAULT_NAME_TOO_LONG;
    }
    memcpy(block, short_name, length + 1);

    status = vs_kvs_ringlog_init(static_cast<int32_t>(job_id));
    if (status != 0) {
        fprintf(stderr, "%s: %s: failed in vs_kvs_ringlog_init: %s\n",
                program_invocation_short_name, operation, fault_strerror(status));
        return status;
    }
    status = verbose_init(evm);
    if (status != 0)
        fprintf(stderr, "%s: %s: failed in verbose_init: %s\n", program_invocation_short_name,
                operation, fault_strerror(status));
    return status;
}

__attribute__((constructor)) void load_hook()
{
    dummy_unused_var = 0;
    if (!getenv("NO_DLLMAIN"))
        vs_kvs_dll_main(0, 0, 0);
}

__attribute__((destructor)) void unload_hook()
{
    dummy_unused_var = 0;
    if (!getenv("NO_DLLMAIN") && __in_unload() != 0)
        vs_kvs_dll_main(0, 1, 0);
}

} // namespace

extern "C" {

// Unloading releases nothing: the buffers and the name last until the process ends.
uint32_t vs_kvs_dll_main(uint64_t, uint32_t reason, uint64_t)
{
    if (reason == 0)
        ringlog_init2("install/vs/vs", 0, 0, 4096, 128, 0, &vs_ringlog);
    return 0;
}

uint32_t vs_kvs_debug_init(uint64_t evm)
{
    const int error = lock_debug_mutex();
    if (error != 0) {
        fprintf(stderr, "%s: %s failed in pthread_mutex_lock: %s\n", program_invocation_short_name,
                __func__, fault_strerror(static_cast<uint32_t>(error)));
        return static_cast<uint32_t>(error);
    }
    const uint32_t status = set_up(__func__, evm);
    pthread_mutex_unlock(&vs_kvs_debug_mutex);
    return status;
}

uint32_t vs_kvs_ringlog_init(int32_t job_id)
{
    snprintf(api_buffer_name, name_room, "install/vs/kvs/%d/api", job_id);
    snprintf(errors_buffer_name, name_room, "install/vs/kvs/%d/errors", job_id);

    uint32_t status = ringlog_init2(api_buffer_name, 0, 0, 1024, 24576, 0, &vs_kvs_api_trace);
    if (status != 0) {
        const char *const name = load(g_vs_kvs_proc_name);
        fprintf(stderr, "%s: %s: ringlog_init2 trace failed: %s for proc: %s\n",
                program_invocation_short_name, __func__, fault_strerror(status), name ? name : "");
    }
    status = ringlog_init2(errors_buffer_name, 0, 0, 256, 6144, 0, &vs_kvs_errors_trace);
    if (status != 0)
        fprintf(stderr, "%s: %s: vs kvs ringlog: ringlog_init2 for errors trace failed: %s\n",
                program_invocation_short_name, __func__, fault_strerror(status));
    return status;
}

} // extern "C"
