// Notes of threads that wait for a mutex, in a fixed table of slots.
//
// A slot belongs to the thread whose mark is in it; only that thread changes the rest. The version
// is even while the note stands, and odd (or 0) from its end until the next one is complete, so
// that a reader leaves out what it caught half-way. The mark carries the fork generation: notes
// that a child inherited are of threads it does not have, and their slots are free.
#include "lockwatch.h"

#include "platform/base/clock.h"
#include "platform/base/export.h"
#include "platform/base/thread_identity.h"

#include <atomic>
#include <cstddef>

namespace {

using platform::thread_identity;

struct note {
    std::atomic<uint64_t> owner;
    std::atomic<uint64_t> version;
    std::atomic<const void *> mutex;
    std::atomic<const char *> place;
    std::atomic<uint64_t> since_ns;
    std::atomic<uint32_t> code;
};

constinit note notes[128]{};

uint64_t mark_of(const thread_identity &thread)
{
    return uint64_t{thread.generation} << 32 | static_cast<uint32_t>(thread.tid);
}

bool is_free(uint64_t owner, const thread_identity &thread)
{
    return owner == 0 || owner >> 32 != thread.generation;
}

note *find_note(uint64_t mark)
{
    for (note &each : notes)
        if (each.owner.load(std::memory_order_relaxed) == mark)
            return &each;
    return nullptr;
}

note *take_note(const thread_identity &thread)
{
    for (note &each : notes) {
        uint64_t owner = each.owner.load(std::memory_order_relaxed);
        if (is_free(owner, thread) &&
            each.owner.compare_exchange_strong(owner, mark_of(thread), std::memory_order_acquire))
            return &each;
    }
    return nullptr;
}

bool copy_note(const note &from, const thread_identity &thread, lockwatch_wait &to)
{
    const uint64_t version = from.version.load(std::memory_order_acquire);
    const uint64_t owner = from.owner.load(std::memory_order_acquire);
    if (version == 0 || version % 2 != 0 || is_free(owner, thread))
        return false;
    to.mutex = from.mutex.load(std::memory_order_acquire);
    to.place = from.place.load(std::memory_order_acquire);
    to.code = from.code.load(std::memory_order_acquire);
    to.since_ns = from.since_ns.load(std::memory_order_acquire);
    to.tid = static_cast<int32_t>(owner & UINT32_MAX);
    return from.owner.load(std::memory_order_acquire) == owner &&
           from.version.load(std::memory_order_relaxed) == version;
}

} // namespace

PLATFORM_EXPORT void lockwatch_set_mutex_block(const void *mutex, const char *place, uint32_t code)
{
    const thread_identity thread = platform::this_thread();
    note *mine = find_note(mark_of(thread));
    if (mine == nullptr)
        mine = take_note(thread);
    if (mine == nullptr)
        return;
    const uint64_t writing = mine->version.load(std::memory_order_relaxed) | 1u;
    mine->version.store(writing, std::memory_order_relaxed);
    mine->mutex.store(mutex, std::memory_order_release);
    mine->place.store(place, std::memory_order_release);
    mine->code.store(code, std::memory_order_release);
    mine->since_ns.store(platform::clock_ns(CLOCK_MONOTONIC), std::memory_order_release);
    mine->version.store(writing + 1, std::memory_order_release);
}

PLATFORM_EXPORT void lockwatch_unset_mutex_block(void)
{
    note *const mine = find_note(mark_of(platform::this_thread()));
    if (mine == nullptr)
        return;
    mine->version.store(mine->version.load(std::memory_order_relaxed) | 1u,
                        std::memory_order_relaxed);
    mine->owner.store(0, std::memory_order_release);
}

PLATFORM_EXPORT uint32_t lockwatch_list(lockwatch_wait *waits, uint32_t room)
{
    const thread_identity thread = platform::this_thread();
    uint32_t count = 0;
    for (const note &each : notes) {
        lockwatch_wait wait;
        if (waits != nullptr && count < room && copy_note(each, thread, wait))
            waits[count++] = wait;
    }
    return count;
}
