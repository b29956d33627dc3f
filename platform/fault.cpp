// The catalogue of statuses: one table, ordered by value, in which a lookup is a binary search.
//
// Statuses of the platform take their values from its headers. Those of the libraries above it are
// written out, because the platform includes none of their headers.
#include "fault.h"

#include "jobctl.h"
#include "kvs.h"
#include "pinfo.h"
#include "platform/base/export.h"
#include "ringlog.h"
#include "verbose.h"

#include <algorithm>
#include <cstring>
#include <iterator>

namespace {

#define PLATFORM_STATUS(name, text)                                                                \
    {                                                                                              \
        name, #name, text                                                                          \
    }

constexpr fault_entry catalogue[] = {
    {0, "success", "success"},
    {21, "VS_KVS_DB_ALREADY_OPEN", "database already open"},

    {0x45321600, "VS_FAULT_KVS_UNKNOWN_DB", "unknown database selector"},
    {0x45323000, "VS_FAULT_KVS_DB_EMPTY", "database holds no records"},

    PLATFORM_STATUS(KVS_RC_NO_CHANGE, "record store: journal has no further change"),
    PLATFORM_STATUS(RINGLOG_RC_NO_RECORD, "no trace record left to read"),

    {0xA5320200, "VS_FAULT_NULL_ARG", "required argument is null"},
    {0xA5320400, "VS_FAULT_NAME_TOO_LONG", "process name too long"},
    {0xA5322800, "VS_FAULT_KVS_DB_LOOKUP", "database not available"},

    PLATFORM_STATUS(KVS_RC_NULL_ARG, "record store: required argument is null"),
    PLATFORM_STATUS(KVS_RC_BAD_HDL, "record store: no such database handle"),
    PLATFORM_STATUS(KVS_RC_BAD_KEY, "record store: unusable key descriptor"),
    PLATFORM_STATUS(KVS_RC_KEY_CHANGED, "record store: write would change the key"),
    PLATFORM_STATUS(KVS_RC_BAD_OFFSET, "record store: offset beyond the end of the record"),
    PLATFORM_STATUS(KVS_RC_BAD_NAME, "record store: bad database name"),
    PLATFORM_STATUS(KVS_RC_UNSUPPORTED, "record store: request not supported"),
    PLATFORM_STATUS(KVS_RC_RECORD_TOO_BIG, "record store: record too big"),
    PLATFORM_STATUS(KVS_RC_BATCH_ACTIVE, "record store: not possible within a batch"),
    PLATFORM_STATUS(KVS_RC_NO_BATCH, "record store: no batch begun"),
    PLATFORM_STATUS(KVS_RC_TOLERATED_ON_INSERT, "record store: record is already stored"),

    PLATFORM_STATUS(RINGLOG_RC_NULL_ARG, "trace buffer: required argument is null"),
    PLATFORM_STATUS(RINGLOG_RC_BAD_NAME, "trace buffer: bad name"),
    PLATFORM_STATUS(RINGLOG_RC_BAD_SIZE, "trace buffer: bad size"),

    PLATFORM_STATUS(JOBCTL_RC_NULL_ARG, "job manager: required argument is null"),

    PLATFORM_STATUS(PINFO_RC_NULL_ARG, "process information: required argument is null"),

    {0xC5321000, "VS_FAULT_NO_MEMORY", "out of memory"},
    {0xC5322600, "VS_FAULT_NO_SUCH_OBJECT", "no such object"},
    {0xC5322C00, "VS_FAULT_INVALID_OBJECT_ID", "invalid object id"},
    {0xC5322E00, "VS_FAULT_KVS_READ_NULL_REC", "read gave no record"},
    {0xC5323200, "VS_FAULT_KVS_MULTI_REC_HDL", "more than one record under one key"},
    {0xC5323400, "VS_FAULT_INVALID_CLIENT_JID", "invalid client job id"},
    {0xC5323600, "VS_FAULT_KVS_REG_NOT_EXIST", "no such registration"},
    {0xC5323800, "VS_FAULT_KVS_REG_ALREADY_EXIST", "object already registered"},
    {0xC5323A00, "VS_FAULT_KVS_UPDATE_SANITY", "stored record does not show the update"},
    {0xC5323C00, "VS_FAULT_KVS_ADD_SANITY", "stored record does not show the new entry"},
    {0xC5323E00, "VS_FAULT_KVS_INVALID_HDL", "database opened without a handle"},
    {0xC5324000, "VS_FAULT_KVS_CLIENT_ALREADY_EXIST", "client already listed"},

    PLATFORM_STATUS(KVS_RC_NO_SUCH_DB, "record store: no such database"),
    PLATFORM_STATUS(KVS_RC_NO_SUCH_RECORD, "record store: record no longer stored"),
    PLATFORM_STATUS(KVS_RC_RECORD_EXISTS, "record store: another record has this key"),
    PLATFORM_STATUS(KVS_RC_NO_MEMORY, "record store: out of memory"),
    PLATFORM_STATUS(KVS_RC_NO_SPACE, "record store: no space left"),
    PLATFORM_STATUS(KVS_RC_STATE_DIR, "record store: state directory not usable"),
    PLATFORM_STATUS(KVS_RC_ACCESS, "record store: access to its files denied"),
    PLATFORM_STATUS(KVS_RC_DAMAGED, "record store: file is damaged"),
    PLATFORM_STATUS(KVS_RC_IO, "record store: read or write failed"),
    PLATFORM_STATUS(KVS_RC_READERS_FULL, "record store: too many readers at once"),
    PLATFORM_STATUS(KVS_RC_NO_DESCRIPTORS, "record store: no descriptor left"),
    PLATFORM_STATUS(KVS_RC_TOO_MANY_DBS, "record store: too many databases"),
    PLATFORM_STATUS(KVS_RC_BATCH_FULL, "record store: batch outgrew its room"),
    PLATFORM_STATUS(KVS_RC_BATCH_BROKEN, "record store: batch can only be aborted"),
    PLATFORM_STATUS(KVS_RC_EXHAUSTED, "record store: no record handle left"),
    PLATFORM_STATUS(KVS_RC_OTHER_FORMAT, "record store: store is of another format"),
    PLATFORM_STATUS(KVS_RC_FILES_REPLACED, "record store: files replaced while in use"),
    PLATFORM_STATUS(KVS_RC_DESCRIPTORS_LOST, "record store: program closed its descriptors"),
    PLATFORM_STATUS(KVS_RC_NO_PROC, "record store: /proc is not mounted"),
    PLATFORM_STATUS(KVS_RC_OTHER_NAMESPACE, "record store: in use in another PID namespace"),

    PLATFORM_STATUS(RINGLOG_RC_STATE_DIR, "trace buffer: state directory not usable"),
    PLATFORM_STATUS(RINGLOG_RC_IO, "trace buffer: file cannot be opened or mapped"),
    PLATFORM_STATUS(RINGLOG_RC_NO_SPACE, "trace buffer: no space left"),
    PLATFORM_STATUS(RINGLOG_RC_TOO_MANY, "trace buffer: too many are open"),
    PLATFORM_STATUS(RINGLOG_RC_DAMAGED, "trace buffer: file is damaged"),
    PLATFORM_STATUS(RINGLOG_RC_NO_SUCH_BUFFER, "trace buffer: no such buffer"),
    PLATFORM_STATUS(RINGLOG_RC_NO_MEMORY, "trace buffer: out of memory"),

    PLATFORM_STATUS(JOBCTL_RC_NOT_A_JOB, "job manager: process is not a job"),
    PLATFORM_STATUS(JOBCTL_RC_BAD_JOB_ID, "job manager: bad job id"),
    PLATFORM_STATUS(JOBCTL_RC_NAME_TOO_LONG, "job manager: job name too long"),

    PLATFORM_STATUS(PINFO_RC_NO_SUCH_PROCESS, "process information: no such process"),
    PLATFORM_STATUS(PINFO_RC_NAME_TOO_LONG, "process information: name too long"),

    PLATFORM_STATUS(VERBOSE_RC_FILE, "debug prints: file cannot be opened"),
};

#undef PLATFORM_STATUS

constexpr bool out_of_order(const fault_entry &left, const fault_entry &right)
{
    return left.status >= right.status;
}

static_assert(std::ranges::adjacent_find(catalogue, out_of_order) == std::end(catalogue));

constexpr uint32_t max_error_number = 4095;

const char *name_unknown(uint32_t status)
{
    static thread_local char text[] = "unknown status 0x00000000";
    char *digit = text + sizeof text - 1;
    for (int i = 0; i < 8; ++i, status >>= 4)
        *--digit = "0123456789ABCDEF"[status & 0xFu];
    return text;
}

} // namespace

PLATFORM_EXPORT const fault_entry *fault_catalogue(size_t *count_p)
{
    if (count_p != nullptr)
        *count_p = std::size(catalogue);
    return catalogue;
}

PLATFORM_EXPORT const fault_entry *fault_find(uint32_t status)
{
    const fault_entry *const found =
        std::ranges::lower_bound(catalogue, status, {}, &fault_entry::status);
    return found != std::end(catalogue) && found->status == status ? found : nullptr;
}

PLATFORM_EXPORT const char *fault_strerror(uint32_t status)
{
    if (const fault_entry *const entry = fault_find(status); entry != nullptr)
        return entry->text;
    const char *const text =
        status <= max_error_number ? strerrordesc_np(static_cast<int>(status)) : nullptr;
    return text != nullptr ? text : name_unknown(status);
}
