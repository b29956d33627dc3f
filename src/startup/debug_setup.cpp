// The load hook and the per-process debug set-up: the identity of the process, and its trace
// buffers and debug prints.
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
using vs_kvs::publish;
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

// The names under which the process's buffers were opened, valid until it ends.
char api_buffer_name[name_room];
char errors_buffer_name[name_room];

pthread_mutex_t vs_kvs_debug_mutex = PTHREAD_ERRORCHECK_MUTEX_INITIALIZER_NP;

// A fork waits until no set-up runs, so that the child finds the mutex free and the trace handles
// and the name whole. The child's mutex is new: an error-checking one belongs to a thread of the
// parent.
//
// A fork by the thread that runs the set-up itself finds the mutex locked, and leaves it so.
bool fork_has_mutex = false;

void before_fork() { fork_has_mutex = pthread_mutex_lock(&vs_kvs_debug_mutex) == 0; }

void after_fork_in_parent()
{
    if (fork_has_mutex)
        pthread_mutex_unlock(&vs_kvs_debug_mutex);
}

void after_fork_in_child()
{
    pthread_mutex_unlock(&vs_kvs_debug_mutex); // refused, but seen by tools that check locks
    pthread_mutexattr_t kind;
    pthread_mutexattr_init(&kind);
    pthread_mutexattr_settype(&kind, PTHREAD_MUTEX_ERRORCHECK);
    pthread_mutex_init(&vs_kvs_debug_mutex, &kind);
    pthread_mutexattr_destroy(&kind);
}

bool has_fork_handlers = false; // guarded by the mutex once threads can be running

// Without memory for the handlers, forks are not waited for until a later set-up registers them.
void ensure_fork_handlers()
{
    if (!has_fork_handlers)
        has_fork_handlers =
            pthread_atfork(before_fork, after_fork_in_parent, after_fork_in_child) == 0;
}

[[nodiscard]] int lock_debug_mutex()
{
    int error = pthread_mutex_trylock(&vs_kvs_debug_mutex);
    if (error == EBUSY) {
        lockwatch_set_mutex_block(&vs_kvs_debug_mutex, "vs_kvs_debug_init", lockwatch_code);
        error = pthread_mutex_lock(&vs_kvs_debug_mutex);
        lockwatch_unset_mutex_block();
    }
    return error;
}

struct identity {
    uint32_t job_id = 0;
    char name[name_room] = "";
};

// The job manager names its jobs; of any other process the system gives the name, and the process
// id stands in for the job id, whatever other id the job manager may have returned.
[[nodiscard]] uint32_t identify(const char *operation, identity &self)
{
    const bool is_job = jobctl_get_job_id(&self.job_id) == 0;
    const auto pid = static_cast<uint32_t>(getpid());
    if (!is_job)
        self.job_id = pid;
    const bool is_named = jobctl_get_jobctl_name(self.name, name_room) == 0;
    if (is_job && is_named)
        return 0;
    const uint32_t status = pinfo_get_name(pid, self.name, name_room);
    if (status != 0)
        fprintf(stderr, "%s: %s: failed to get process name: %s\n", program_invocation_short_name,
                operation, fault_strerror(status));
    return status;
}

// Copies the last component of the name.
[[nodiscard]] uint32_t shorten_name(const char *operation, const char *name, char *short_name)
{
    const char *const slash = strrchr(name, '/');
    const char *const last = slash != nullptr ? slash + 1 : name;
    const size_t length = strlen(last);
    if (length > longest_short_name) {
        fprintf(stderr, "%s: %s: failed: process name too long\n", program_invocation_short_name,
                operation);
        return VS_FAULT_NAME_TOO_LONG;
    }
    memcpy(short_name, last, length + 1);
    return 0;
}

// The whole set-up, under the mutex. The name block is complete before it is exported, and stays as
// it is from then on: a thread that reports may read it at any time.
[[nodiscard]] uint32_t set_up(const char *operation, uint64_t evm)
{
    auto *const short_name = static_cast<char *>(calloc(longest_short_name + 1, 1));
    identity self;
    uint32_t status = short_name != nullptr ? identify(operation, self) : VS_FAULT_NO_MEMORY;
    if (status == 0)
        status = shorten_name(operation, self.name, short_name);
    publish(g_vs_kvs_proc_name, short_name);
    if (short_name == nullptr)
        fprintf(stderr, "%s: %s failed to allocate mem for proc name\n",
                program_invocation_short_name, operation);
    if (status != 0)
        return status;

    status = vs_kvs_ringlog_init(static_cast<int32_t>(self.job_id));
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
    ensure_fork_handlers();
    if (getenv("NO_DLLMAIN") == nullptr)
        vs_kvs_dll_main(0, 0, 0);
}

__attribute__((destructor)) void unload_hook()
{
    dummy_unused_var = 0;
    if (getenv("NO_DLLMAIN") == nullptr && __in_unload() != 0)
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
    ensure_fork_handlers();
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
                program_invocation_short_name, __func__, fault_strerror(status),
                name != nullptr ? name : "");
    }
    status = ringlog_init2(errors_buffer_name, 0, 0, 256, 6144, 0, &vs_kvs_errors_trace);
    if (status != 0)
        fprintf(stderr, "%s: %s: vs kvs ringlog: ringlog_init2 for errors trace failed: %s\n",
                program_invocation_short_name, __func__, fault_strerror(status));
    return status;
}

} // extern "C"
