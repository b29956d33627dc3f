// Attempts at working in a store's environment, and recovery from failed ones.
#pragma once

#include "platform/kvs/attempt.h"
#include "platform/kvs/engine_status.h"
#include "platform/kvs/threads.h"

namespace platform {

// Removes the cause of a failed attempt, or finds that another thread has; of other processes that
// write, waits a while. Returns 0 if the attempt is to be made again, or the status to return.
// `epoch` is the environment's during the attempt. The caller has not entered the store; that of
// recover_as_writer holds the writer mutex.
[[nodiscard]] uint32_t recover_as_reader(store &store, thread_context &thread, int error,
                                         uint64_t epoch);
[[nodiscard]] uint32_t recover_as_writer(store &store, thread_context &thread, int error,
                                         uint64_t epoch);

// Calls `work`, which makes an attempt, inside the store until it gives a status. `recover` is
// one of the two above.
template <class Work>
[[nodiscard]] uint32_t attempt_until_status(store &store, thread_context &thread,
                                            decltype(recover_as_reader) recover, const Work &work)
{
    for (;;) {
        attempt result = with_engine_error(not_open);
        uint64_t epoch = 0;
        {
            const environment_guard guard(store, thread);
            epoch = store.environment_epoch;
            if (store.environment != nullptr)
                result = work();
        }
        if (result.engine_error == 0)
            return result.status;
        if (const uint32_t status = recover(store, thread, result.engine_error, epoch); status != 0)
            return status;
    }
}

} // namespace platform
