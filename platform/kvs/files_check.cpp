#include "platform/kvs/files_check.h"

#include "platform/kvs/recovery.h"

namespace platform {

uint32_t check_files_now(store &store, thread_context &thread)
{
    if (thread.open_batch.store == &store)
        return 0;
    int error = not_open;
    uint64_t epoch = 0;
    {
        const environment_guard guard(store, thread);
        epoch = store.environment_epoch;
        if (store.environment != nullptr)
            error = check_files(store.environment);
    }
    return error == 0 ? 0 : recover_as_reader(store, thread, error, epoch);
}

} // namespace platform
