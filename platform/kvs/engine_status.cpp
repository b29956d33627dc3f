#include "platform/kvs/engine_status.h"

#include "kvs.h"
#include "platform/base/descriptor.h"
#include "verbose.h"

#include <cerrno>
#include <lmdb.h>

namespace platform {
namespace {

struct mapping {
    int error;
    uint32_t status;
};

constexpr mapping mappings[] = {
    {ENOMEM, KVS_RC_NO_MEMORY},
    {EAGAIN, KVS_RC_NO_MEMORY},
    {ENOSPC, KVS_RC_NO_SPACE},
    {EDQUOT, KVS_RC_NO_SPACE},
    {EFBIG, KVS_RC_NO_SPACE},
    {EMFILE, KVS_RC_NO_DESCRIPTORS},
    {ENFILE, KVS_RC_NO_DESCRIPTORS},
    {EACCES, KVS_RC_ACCESS},
    {EPERM, KVS_RC_ACCESS},
    {EROFS, KVS_RC_ACCESS},
    {ELOOP, KVS_RC_STATE_DIR},
    {ENOTDIR, KVS_RC_STATE_DIR},
    {ENOENT, KVS_RC_NO_SUCH_DB},
    {MDB_CORRUPTED, KVS_RC_DAMAGED},
    {MDB_INVALID, KVS_RC_DAMAGED},
    {MDB_VERSION_MISMATCH, KVS_RC_OTHER_FORMAT},
    {MDB_PAGE_NOTFOUND, KVS_RC_DAMAGED},
    {MDB_INCOMPATIBLE, KVS_RC_DAMAGED},
    {MDB_CURSOR_FULL, KVS_RC_DAMAGED},
    {MDB_PAGE_FULL, KVS_RC_DAMAGED},
    {MDB_BAD_VALSIZE, KVS_RC_DAMAGED},
    {MDB_NOTFOUND, KVS_RC_NO_SUCH_DB},
    {MDB_DBS_FULL, KVS_RC_TOO_MANY_DBS},
    {MDB_READERS_FULL, KVS_RC_READERS_FULL},
    {MDB_MAP_FULL, KVS_RC_BATCH_FULL},
    {MDB_TXN_FULL, KVS_RC_BATCH_FULL},
    {MDB_BAD_TXN, KVS_RC_BATCH_BROKEN},
    {files_replaced, KVS_RC_FILES_REPLACED},
    {descriptors_lost, KVS_RC_DESCRIPTORS_LOST},
    {no_proc, KVS_RC_NO_PROC},
    {other_namespace, KVS_RC_OTHER_NAMESPACE},
};

const char *text_of(int error)
{
    switch (error) {
    case files_replaced:
        return "its files were replaced while processes use them";
    case descriptors_lost:
        return "the program closed descriptors of its files";
    case no_proc:
        return "/proc is not mounted";
    case other_namespace:
        return "processes of another PID namespace use it";
    default:
        return error > 0 ? error_text(error) : mdb_strerror(error);
    }
}

} // namespace

bool needs_reopening(int error)
{
    return error == not_open || error == files_replaced || error == descriptors_lost ||
           error == MDB_PANIC || error == MDB_BAD_RSLOT;
}

uint32_t status_of_engine_error(int error)
{
    for (const mapping &it : mappings)
        if (it.error == error)
            return it.status;
    return KVS_RC_IO;
}

uint32_t status_of_state_dir_error(int error, bool create)
{
    if (error == ENOENT && !create)
        return KVS_RC_NO_SUCH_DB;
    const uint32_t status = status_of_engine_error(error);
    const bool is_resource =
        status == KVS_RC_NO_MEMORY || status == KVS_RC_NO_SPACE || status == KVS_RC_NO_DESCRIPTORS;
    return is_resource ? status : KVS_RC_STATE_DIR;
}

uint32_t log_engine_error(const char *action, int error)
{
    verbose_printf_local(DBG_VS_PLATFORM, "kvs: %s: %s", action, text_of(error));
    return status_of_engine_error(error);
}

} // namespace platform
