#include "tests/scripted_platform.h"

#include "core/state.h"
#include "databases.h"
#include "fault.h"
#include "jobctl.h"
#include "loader.h"
#include "lockwatch.h"
#include "pinfo.h"
#include "ringlog.h"
#include "verbose.h"
#include "vs_kvs.h"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <map>
#include <pthread.h>
#include <sstream>
#include <unistd.h>

using namespace scripted;

extern "C" {
void *__real_malloc(size_t size);
void *__real_calloc(size_t count, size_t size);
void *__real_realloc(void *block, size_t size);
void __real_free(void *block);
int __real_pthread_mutex_trylock(pthread_mutex_t *mutex);
int __real_pthread_mutex_lock(pthread_mutex_t *mutex);
}

namespace {

constexpr uint64_t common_buffer = 0xC0, api_buffer = 0xA1, errors_buffer = 0xE1;

// The load hook calls the platform before any constructor of this file has run. The unload hook
// runs after the destructors, and finds nothing open in it.
enum { is_early, is_up, is_over } phase;
struct up {
    up() { phase = is_up; }
    ~up() { phase = is_over; }
};

// The live blocks and their lengths. Each is followed by a mark that must not be overwritten.
std::map<void *, size_t> &blocks()
{
    static std::map<void *, size_t> map;
    return map;
}

constexpr char mark[] = "the end";

void expect(bool is_fine, const char *problem)
{
    if (!is_fine && phase == is_up)
        now.problems.push_back(problem);
}

void note(const std::string &line)
{
    if (phase == is_up)
        now.log.push_back(line);
}

std::string format(const char *text, va_list arguments)
{
    char line[2048];
    vsnprintf(line, sizeof line, text, arguments);
    std::string result = line;
    // Addresses are printed in small letters, numbers of the library's in capitals.
    for (size_t at = 0; (at = result.find("0x", at)) != std::string::npos; ++at) {
        const size_t digits =
            std::min(result.find_first_not_of("0123456789abcdef", at + 2), result.size()) - at - 2;
        if (digits >= 7)
            result.replace(at, digits + 2, "ADDRESS");
    }
    std::replace(result.begin(), result.end(), '\n', '$');
    return result;
}

// The status that the script gives a call: 0, or a failure.
uint32_t enter(const std::string &call)
{
    if (phase != is_up)
        return 0;
    const int number = ++now.calls;
    if (now.before)
        now.before(call, number);
    note("call " + call);
    if (now.fail_call == 0 || number < now.fail_call || now.calls_to_fail == 0)
        return 0;
    --now.calls_to_fail;
    now.troubled = call;
    return now.fail_status;
}

// The handles of the databases are numbers, in the order of their names.
constexpr kvs_hdl first_database = 0x101;

uint32_t bind(const std::string &call, const char *name, kvs_hdl *hdl_p)
{
    const uint32_t rc = enter(call);
    const auto distance = std::distance(now.store.begin(), now.store.find(name));
    if (rc == 0 && !now.handle_unset)
        *hdl_p = first_database + static_cast<kvs_hdl>(distance);
    return rc;
}

database *find_database(kvs_hdl hdl)
{
    if (hdl == VS_KVS_HDL_UNSET)
        return nullptr;
    for (auto number = first_database; auto &[name, records] : now.store)
        if (hdl == number++)
            return &records;
    expect(false, "unknown database handle");
    return nullptr;
}

// The record that a call names.
uint32_t enter(const std::string &call, kvs_hdl hdl, const kvs_rec_hdl *rec_p,
               stored_record *&found)
{
    const uint32_t rc = enter(call);
    found = nullptr;
    if (database *const records = find_database(hdl))
        for (auto &record : *records)
            if (record.handle == *rec_p)
                found = &record;
    return rc == 0 && !found ? KVS_RC_NO_SUCH_RECORD : rc;
}

bool allocation_fails(const char *what)
{
    if (++now.allocations != now.fail_allocation)
        return false;
    now.troubled = what;
    errno = ENOMEM;
    return true;
}

void *track(void *block, size_t size)
{
    blocks()[block] = size;
    memcpy(static_cast<char *>(block) + size, mark, sizeof mark);
    return block;
}

// Filled, so that what is used without having been set is the same in every run.
void *allocate(size_t size)
{
    return memset(track(__real_malloc(size + sizeof mark), size), 0xEE, size);
}

void check_end(const void *block, size_t size)
{
    expect(memcmp(static_cast<const char *>(block) + size, mark, sizeof mark) == 0,
           "wrote beyond the end of a block");
}

// Memory handed to the library counts as allocated by it from then on.
kvs_rec_hdl *hand_out(const std::vector<kvs_rec_hdl> &handles)
{
    if (handles.empty() || now.arrays_missing)
        return nullptr;
    void *const array = allocate(handles.size() * sizeof(kvs_rec_hdl));
    memcpy(array, handles.data(), handles.size() * sizeof(kvs_rec_hdl));
    return static_cast<kvs_rec_hdl *>(array);
}

} // namespace

namespace scripted {

script now;
static up after_the_script;

void reset()
{
    for (const auto &[block, size] : std::map(blocks()))
        free(block);
    g_vs_kvs_proc_name = nullptr;
    now = script{};
    for (const vs_kvs::database_entry &entry : vs_kvs::database_entries) {
        now.store[entry.name] = {};
        *entry.handle = VS_KVS_HDL_UNSET;
    }
    g_vs_kvs_debug_initialized = g_vs_kvs_dbs_initialized = g_vs_objects_db_populated = 0;
    vs_ringlog = common_buffer;
    vs_kvs_api_trace = api_buffer;
    vs_kvs_errors_trace = errors_buffer;
}

void put(const char *name, const std::vector<uint32_t> &words)
{
    const auto *const from = reinterpret_cast<const uint8_t *>(words.data());
    database &records = now.store[name];
    records.push_back({0x9000 + records.size(), bytes(from, from + 4 * words.size())});
}

std::vector<uint32_t> content(void *block)
{
    const auto *const words = static_cast<const uint32_t *>(block);
    return {words, words + blocks().at(block) / 4};
}

size_t live_blocks()
{
    for (const auto &[block, size] : blocks())
        check_end(block, size);
    return blocks().size();
}

} // namespace scripted

extern "C" {

// ---- the C library, as far as tests replace it ----

void *__wrap_malloc(size_t size) { return allocation_fails("malloc") ? nullptr : allocate(size); }

void *__wrap_calloc(size_t count, size_t size)
{
    size *= count;
    return allocation_fails("calloc") ? nullptr : track(__real_calloc(1, size + sizeof mark), size);
}

void *__wrap_realloc(void *block, size_t size)
{
    if (allocation_fails("realloc"))
        return nullptr;
    blocks().erase(block);
    return track(__real_realloc(block, size + sizeof mark), size);
}

void __wrap_free(void *block)
{
    const auto live = blocks().find(block);
    if (live != blocks().end()) {
        check_end(block, live->second);
        blocks().erase(live);
    } else {
        expect(!block, "freed a block that was not live");
    }
    __real_free(block);
}

int __wrap_pthread_mutex_trylock(pthread_mutex_t *mutex)
{
    return now.trylock_error ? now.trylock_error : __real_pthread_mutex_trylock(mutex);
}

int __wrap_pthread_mutex_lock(pthread_mutex_t *mutex)
{
    return now.lock_error ? now.lock_error : __real_pthread_mutex_lock(mutex);
}

int __wrap_fprintf(FILE *, const char *text, ...)
{
    va_list arguments;
    va_start(arguments, text);
    const std::string line = format(text, arguments);
    va_end(arguments);
    note("stderr " + line.substr(line.find(": ") + 2));
    return 0;
}

// The first sleep is cut short by a signal; the caller goes on sleeping until the same time.
int __wrap_clock_nanosleep(clockid_t clock, int flags, const timespec *until, timespec *)
{
    static timespec first{};
    if (first.tv_sec != 0) {
        expect(flags == TIMER_ABSTIME && memcmp(until, &first, sizeof first) == 0,
               "an interrupted sleep was not continued");
        first = {};
        return 0;
    }
    timespec start{};
    clock_gettime(clock, &start);
    first = *until;
    const auto left =
        (until->tv_sec - start.tv_sec) * 1000 + (until->tv_nsec - start.tv_nsec) / 1'000'000;
    note("sleep " + std::to_string((left + 500) / 1000));
    return EINTR;
}

// The log must be the same in every run.
pid_t getpid() noexcept { return 4711; }

// ---- reports ----

void _ringlog_emit(uint64_t handle, uint64_t id, ...)
{
    std::ostringstream line;
    line << "trace "
         << (handle == common_buffer   ? "common"
             : handle == api_buffer    ? "api"
             : handle == errors_buffer ? "errors"
             : handle == 0             ? "dropped"
                                       : "never opened")
         << " 0x" << std::hex << id << std::dec;
    va_list arguments;
    va_start(arguments, id);
    for (unsigned i = 0; i < (id >> 32 & 0xFF); ++i)
        if (id >> (40 + i) & 1)
            line << " \"" << va_arg(arguments, const char *) << '"';
        else
            line << ' ' << va_arg(arguments, uint64_t);
    va_end(arguments);
    note(line.str());
    errno = 77; // a debug print that reads errno again shows this one
}

void verbose_printf_local(uint32_t category, const char *text, ...)
{
    va_list arguments;
    va_start(arguments, text);
    const std::string line = format(text, arguments);
    va_end(arguments);
    expect(category == DBG_VS_KVS || category == DBG_VS_COMMON, "unknown debug category");
    note((category == DBG_VS_COMMON ? "print common " : "print ") + line);
}

// Each call gives another text, so that the log shows whether a text was fetched afresh.
const char *fault_strerror(uint32_t status)
{
    static char texts[16][32];
    char *const text = texts[now.texts % 16];
    snprintf(text, sizeof texts[0], "<0x%X #%d>", status, ++now.texts);
    return text;
}

uint32_t ringlog_init2(const char *name, uint32_t, uint32_t, uint32_t size_1, uint32_t size_2,
                       uint32_t, uint64_t *handle_p)
{
    if (phase == is_over)
        abort();
    const uint32_t rc = enter("ringlog_init2 " + std::string(name) + ' ' + std::to_string(size_1) +
                              ' ' + std::to_string(size_2));
    if (rc == 0)
        *handle_p = strcmp(name, "install/vs/vs") == 0 ? common_buffer
                    : strstr(name, "/api")             ? api_buffer
                                                       : errors_buffer;
    return rc;
}

uint32_t verbose_init(uint64_t) { return enter("verbose_init"); }

// ---- identity, waiting, unloading ----

uint32_t jobctl_get_job_id(uint32_t *job_id_p)
{
    const uint32_t rc = enter("jobctl_get_job_id");
    if (rc == 0 && now.job_id == 0)
        return JOBCTL_RC_NOT_A_JOB;
    if (rc == 0)
        *job_id_p = now.job_id;
    return rc;
}

uint32_t jobctl_get_jobctl_name(char *name, uint32_t size)
{
    const uint32_t rc = enter("jobctl_get_jobctl_name");
    if (rc == 0)
        snprintf(name, size, "%s", now.job_name.c_str());
    return rc;
}

uint32_t pinfo_get_name(uint32_t pid, char *name, uint32_t size)
{
    const uint32_t rc = enter("pinfo_get_name " + std::to_string(pid));
    if (rc == 0)
        snprintf(name, size, "/usr/bin/program");
    return rc;
}

void lockwatch_set_mutex_block(const void *, const char *place, uint32_t code)
{
    note(std::string("waits ") + place + " " + std::to_string(code));
}

void lockwatch_unset_mutex_block(void) { note("waits no more"); }

int __in_unload(void) { return 1; }

// ---- the record store ----

uint32_t kvs_appdesc_init(kvs_appdesc *appdesc_p)
{
    memset(static_cast<void *>(appdesc_p), 0xEE, sizeof *appdesc_p);
    return 0;
}

uint32_t kvs_init(const char *db_name, const kvs_appdesc *appdesc_p, uint64_t, kvs_hdl *hdl_p)
{
    const kvs_appdesc &a = *appdesc_p;
    expect(a.key_count == 1 && !a.key_policy && !a.share_policy && !a.flags && !a.notify &&
               !a.notify_flags && !a.context && a.mark == 0xEEEEEEEEEEEEEEEE,
           "application descriptor not prepared");
    return bind("kvs_init", db_name, hdl_p);
}

uint32_t kvs_lookup_db_handle(const char *db_name, kvs_hdl *hdl_p)
{
    const uint32_t rc = bind("kvs_lookup_db_handle", db_name, hdl_p);
    errno = 76; // what the trace record of a failed lookup may carry
    return rc;
}

uint32_t kvs_find_objects(kvs_hdl hdl, const kvs_key_attr *keys_p, uint32_t key_count,
                          uint32_t flags, kvs_rec_hdl **handles_pp, uint32_t *count_p)
{
    uint32_t rc = enter("kvs_find_objects");
    expect(!*handles_pp && *count_p == 0 && flags == 0, "find with dirty out-parameters");
    expect(key_count == 0 ||
               (keys_p->key_len == 4 && !keys_p->key_flags[0] && !keys_p->key_flags[1]),
           "malformed lookup descriptor");
    const database *const records = find_database(hdl);
    if (rc == 0 && !records)
        rc = KVS_RC_BAD_HDL;
    std::vector<kvs_rec_hdl> found;
    for (const auto &record : records ? *records : database{})
        if (key_count == 0 ||
            (record.data.size() >= 4 && memcmp(keys_p->key_p, record.data.data(), 4) == 0))
            found.push_back(record.handle);
    if (rc != 0)
        found.resize(2); // they must not be read
    if (rc == 0 || now.array_on_failure) {
        *handles_pp = hand_out(found);
        *count_p = static_cast<uint32_t>(found.size());
    }
    return rc;
}

uint32_t kvs_get_object_size(kvs_hdl hdl, const kvs_rec_hdl *rec_p, uint32_t *size_p)
{
    stored_record *record;
    const uint32_t rc = enter("kvs_get_object_size", hdl, rec_p, record);
    if (rc == 0)
        *size_p = now.size != UINT32_MAX ? now.size : static_cast<uint32_t>(record->data.size());
    return rc;
}

uint32_t kvs_read_object(kvs_hdl hdl, const kvs_rec_hdl *rec_p, uint32_t offset, void *buffer_p,
                         uint32_t *length_p)
{
    stored_record *record;
    const uint32_t rc = enter("kvs_read_object", hdl, rec_p, record);
    expect(offset == 0, "read from an offset");
    if (rc == 0) {
        const auto stored = static_cast<uint32_t>(record->data.size());
        *length_p = std::min({*length_p, stored, now.read_length});
        std::copy_n(record->data.begin(), *length_p, static_cast<uint8_t *>(buffer_p));
    }
    return rc;
}

uint32_t kvs_write_object(kvs_hdl hdl, const kvs_rec_hdl *rec_p, uint32_t offset,
                          const kvs_data_desc *data_p, uint32_t data_count, uint32_t *value_p,
                          kvs_write_result *result_p)
{
    stored_record *record;
    const uint32_t rc =
        enter("kvs_write_object " + std::to_string(data_p->data_len), hdl, rec_p, record);
    expect(offset == 0 && data_count == 1 && *value_p == 0, "malformed write");
    if (rc == 0) {
        record->data.resize(std::max<size_t>(record->data.size(), data_p->data_len));
        std::copy_n(static_cast<const uint8_t *>(data_p->data_p), data_p->data_len,
                    record->data.begin());
        memset(result_p, 0xEE, sizeof *result_p);
        ++now.changes;
    }
    return rc;
}

uint32_t kvs_insert_object(kvs_hdl hdl, const kvs_data_desc *data_p, uint32_t data_count,
                           const kvs_key_attr *keys_p, uint32_t key_count, uint32_t reserved_1,
                           uint32_t reserved_2, kvs_rec_hdl *rec_p)
{
    const uint32_t rc = enter("kvs_insert_object");
    expect(data_count == 1 && key_count == 1 && !reserved_1 && !reserved_2 &&
               *rec_p == UINT64_MAX && keys_p->key_len == 4 && keys_p->key_offset == 0 &&
               !keys_p->key_flags[0],
           "malformed insert");
    database *const records = find_database(hdl);
    if (rc != 0 || !records)
        return rc != 0 ? rc : KVS_RC_BAD_HDL;
    const kvs_rec_hdl handle = 0x5000 + records->size();
    const auto *const from = static_cast<const uint8_t *>(data_p->data_p);
    records->push_back({handle, bytes(from, from + data_p->data_len)});
    if (!now.insert_without_handle)
        *rec_p = handle;
    ++now.changes;
    return now.insert_tolerated ? KVS_RC_TOLERATED_ON_INSERT : 0;
}

uint32_t kvs_delete_object(kvs_hdl hdl, const kvs_rec_hdl *rec_p)
{
    stored_record *record;
    const uint32_t rc = enter("kvs_delete_object", hdl, rec_p, record);
    if (rc == 0) {
        std::erase_if(*find_database(hdl), [&](const auto &r) { return r.handle == *rec_p; });
        ++now.changes;
    }
    return rc;
}
}
