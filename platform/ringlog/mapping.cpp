// The allocation of the slots of mapped buffers.
#include "platform/ringlog/mapping.h"

#include "platform/base/clock.h"
#include "platform/ringlog/format.h"

#include <cerrno>
#include <sys/mman.h>

namespace platform {

constinit mapped_buffer buffers[max_buffers];

// The pages are populated through the mapping: it needs no descriptor, which a daemon that closes
// all of them would invalidate, and fails where a store into the page would raise SIGBUS.
bool allocate_slots(mapped_buffer &buffer)
{
    constexpr uint64_t retry_interval_ns = 1'000'000'000;
    const uint64_t now = clock_ns(CLOCK_MONOTONIC);
    if (now < buffer.retry_ns.load(std::memory_order_relaxed))
        return false;
    const int saved_error = errno;
    const int result = madvise(buffer.mapping, file_size(buffer.slot_count), MADV_POPULATE_WRITE);
    // Linux before 5.14 refuses the advice; there each store allocates its own page.
    const bool allocated = result == 0 || errno == EINVAL;
    errno = saved_error;
    if (allocated)
        buffer.allocated.store(true, std::memory_order_relaxed);
    else
        buffer.retry_ns.store(now + retry_interval_ns, std::memory_order_relaxed);
    return allocated;
}

} // namespace platform
