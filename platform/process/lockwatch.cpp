// Threads that wait for a mutex, in a fixed table of slots.
//
// A slot is owned by the thread whose key it contains; only that thread changes the rest. The
// version is even while the entry is valid, and odd (or 0) from its end until the next one is
// complete, so that a reader leaves out an entry it reads half-way. The key contains the fork
// generation: entries inherited by a child are of threads it does not have, and their slots are
// free.
#include "lockwatch.h"

#include "platform/base/clock.h"
#include "platform/base/export.h"
#include "platform/base/thread_identity.h"

#include <atomic>
#include <optional>

namespace {

using platform::thread_identity;

struct wait_slot {
    std::atomic<uint64_t> owner;
    std::atomic<uint64_t> version;
    std::atomic<const void *> mutex;
    std::atomic<const char *> place;
    std::atomic<uint64_t> since_ns;
    std::atomic<uint32_t> code;
};

constinit wait_slot slots[128]{};

uint64_t key_of(const thread_identity &thread)
{
    return uint64_t{thread.generation} << 32 | static_cast<uint32_t>(thread.tid);
}

bool is_free(uint64_t owner, const thread_identity &thread)
{
    return owner == 0 || owner >> 32 != thread.generation;
}

wait_slot *find_slot(uint64_t key)
{
    for (wait_slot &each : slots)
        if (each.owner.load(std::memory_order_relaxed) == key)
            return &each;
    return nullptr;
}

wait_slot *take_slot(const thread_identity &thread)
{
    for (wait_slot &each : slots) {
        uint64_t owner = each.owner.load(std::memory_order_relaxed);
        if (is_free(owner, thread) &&
            each.owner.compare_exchange_strong(owner, key_of(thread), std::memory_order_acquire))
            return &each;
    }
    return nullptr;
}

// Returns nothing if the slot has no valid entry or changes meanwhile.
std::optional<lockwatch_wait> read_slot(const wait_slot &slot, const thread_identity &thread)
{
    const uint64_t version = slot.version.load(std::memory_order_acquire);
    const uint64_t owner = slot.owner.load(std::memory_order_acquire);
    if (version == 0 || version % 2 != 0 || is_free(owner, thread))
        return {};
    const lockwatch_wait wait{.mutex = slot.mutex.load(std::memory_order_acquire),
                              .place = slot.place.load(std::memory_order_acquire),
                              .code = slot.code.load(std::memory_order_acquire),
                              .tid = static_cast<int32_t>(owner & UINT32_MAX),
                              .since_ns = slot.since_ns.load(std::memory_order_acquire)};
    if (slot.owner.load(std::memory_order_acquire) != owner ||
        slot.version.load(std::memory_order_relaxed) != version)
        return {};
    return wait;
}

} // namespace

PLATFORM_EXPORT void lockwatch_set_mutex_block(const void *mutex, const char *place, uint32_t code)
{
    const thread_identity thread = platform::this_thread();
    wait_slot *own = find_slot(key_of(thread));
    if (own == nullptr)
        own = take_slot(thread);
    if (own == nullptr)
        return;
    const uint64_t writing = own->version.load(std::memory_order_relaxed) | 1u;
    own->version.store(writing, std::memory_order_relaxed);
    own->mutex.store(mutex, std::memory_order_release);
    own->place.store(place, std::memory_order_release);
    own->code.store(code, std::memory_order_release);
    own->since_ns.store(platform::clock_ns(CLOCK_MONOTONIC), std::memory_order_release);
    own->version.store(writing + 1, std::memory_order_release);
}

PLATFORM_EXPORT void lockwatch_unset_mutex_block(void)
{
    wait_slot *const own = find_slot(key_of(platform::this_thread()));
    if (own == nullptr)
        return;
    own->version.store(own->version.load(std::memory_order_relaxed) | 1u,
                       std::memory_order_relaxed);
    own->owner.store(0, std::memory_order_release);
}

PLATFORM_EXPORT uint32_t lockwatch_list(lockwatch_wait *waits, uint32_t capacity)
{
    const thread_identity thread = platform::this_thread();
    uint32_t count = 0;
    for (const wait_slot &each : slots) {
        if (waits == nullptr || count == capacity)
            break;
        if (const auto wait = read_slot(each, thread))
            waits[count++] = *wait;
    }
    return count;
}
