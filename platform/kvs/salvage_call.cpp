// The function of kvs.h that reads a damaged store.
#include "kvs.h"
#include "platform/base/descriptor.h"
#include "platform/base/export.h"
#include "platform/base/interruption.h"
#include "platform/base/mutex.h"
#include "platform/base/state_dir.h"
#include "platform/kvs/arguments.h"
#include "platform/kvs/engine_status.h"
#include "platform/kvs/page_walk.h"
#include "platform/kvs/salvage.h"
#include "platform/kvs/store.h"

#include <algorithm>

using namespace platform;

namespace {

using receiver = int (*)(const void *record_p, uint32_t length, void *context_p);

// Hands the records out; each is read again, since they may be more than fit in the memory.
[[nodiscard]] int hand_out(int fd, const salvaged_records &records, receiver each, void *context,
                           kvs_salvage_result *result)
{
    for (const salvaged_record &it : records) {
        const block<unsigned char> value(static_cast<unsigned char *>(malloc(it.length)));
        if (!value)
            return ENOMEM;
        if (read_at(fd, value.get(), it.length, it.offset) != 0) {
            result->is_whole = 0; // the file is being changed
            continue;
        }
        ++result->salvaged;
        result->doubtful += it.is_doubtful ? 1 : 0;
        if (each(value.get(), it.length - trailer_length, context) != 0)
            return ECANCELED;
    }
    return 0;
}

[[nodiscard]] int salvage(int fd, const char *name, receiver each, void *context,
                          kvs_salvage_result *result)
{
    damaged_file file;
    salvaged_database found;
    int error = examine_file(fd, &file);
    if (error != 0)
        return error;
    result->is_whole =
        !file.may_be_previous && check_pages(fd, file.header, walk_extent::records) == 0 ? 1 : 0;
    if ((error = salvage_database(file, name, result->is_whole != 0, &found)) == 0)
        error = hand_out(fd, found.records, each, context, result);
    if (result->is_whole == 0)
        result->lost = found.has_root && found.entries >= result->salvaged
                           ? found.entries - result->salvaged
                           : KVS_SALVAGE_UNKNOWN;
    return error == ECANCELED ? 0 : error;
}

// Closing any descriptor of the data file drops the locks that this process has on it.
[[nodiscard]] bool is_bound(int dir)
{
    const scoped_lock lock(stores_mutex);
    return std::any_of(stores, stores + store_count,
                       [dir](const store &each) { return is_open_as(dir, each.dir_identity); });
}

} // namespace

PLATFORM_EXPORT uint32_t kvs_salvage(const char *db_name, receiver each, void *context_p,
                                     kvs_salvage_result *result_p)
{
    if (db_name == nullptr || each == nullptr || result_p == nullptr)
        return KVS_RC_NULL_ARG;
    if (const uint32_t status = check_name(db_name); status != 0)
        return status;
    const interruption_guard guard;
    const descriptor dir(open_state_dir(false));
    if (!dir.valid())
        return status_of_state_dir_error(errno, false);
    if (is_bound(dir.get()))
        return KVS_RC_UNSUPPORTED;
    descriptor data;
    int error = open_data_file(dir.get(), &data);
    kvs_salvage_result result{};
    if (error == 0)
        error = salvage(data.get(), db_name, each, context_p, &result);
    if (error != 0)
        return log_engine_error("salvaging the store", error);
    *result_p = result;
    return 0;
}
