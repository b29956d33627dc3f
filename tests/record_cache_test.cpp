// The record cache may drop entries, but must never return anything else than what was added for
// this key at this snapshot of this store.
#include "platform/kvs/record_cache.h"

#include <gtest/gtest.h>
#include <random>
#include <string>

namespace {

struct snapshot {
    const void *store;
    uint64_t number;
};

std::string bytes_of(const snapshot &at, uint32_t database, uint32_t key)
{
    std::string bytes(key % 500 == 0 ? 60000 : 20 + key % 200, static_cast<char>(at.number));
    memcpy(bytes.data(), &key, sizeof key);
    bytes[4] = static_cast<char>(reinterpret_cast<uintptr_t>(at.store));
    bytes.back() = static_cast<char>(database);
    return bytes;
}

// Looks random records up, checks those found and adds the others. Returns how many were found.
unsigned look_up_random(platform::record_cache &cache, const snapshot &at, uint32_t keys,
                        std::mt19937 &roll)
{
    unsigned hits = 0;
    for (unsigned i = 0; i < 300'000 && !testing::Test::HasFailure(); ++i) {
        const auto key = static_cast<uint32_t>(roll() % keys * 2654435761u);
        const uint32_t database = key >> 8 & 1;
        const std::string bytes = bytes_of(at, database, key);
        const auto handle = platform::handle_of(key, static_cast<uint32_t>(at.number));
        platform::stored_record record{};
        const bool is_there = i % 2 == 0 ? cache.find(database, key, &record)
                                         : cache.find_near(database, handle, &record);
        hits += is_there ? 1 : 0;
        if (!is_there) {
            record = {handle, reinterpret_cast<const unsigned char *>(bytes.data()),
                      static_cast<uint32_t>(bytes.size())};
            EXPECT_TRUE(cache.add(database, &record, cache.start_run(true)));
        }
        EXPECT_EQ(record.handle, handle);
        const auto *const found = reinterpret_cast<const char *>(record.bytes);
        EXPECT_EQ(std::string(found, record.length), bytes);
        EXPECT_FALSE(cache.find_near(database ^ 1, handle, &record));
    }
    return hits;
}

TEST(record_cache, returns_what_was_added_at_this_snapshot)
{
    platform::record_cache cache;
    std::mt19937 roll(1);
    const char stores[2] = {};
    for (const snapshot &at : {snapshot{&stores[0], 1}, {&stores[0], 2}, {&stores[1], 2}}) {
        const bool is_many = at.number == 2 && at.store == &stores[0]; // too many for the cache
        cache.set_snapshot(at.store, at.number);
        EXPECT_TRUE(cache.is_snapshot(at.store, at.number));
        EXPECT_FALSE(cache.is_snapshot(&roll, at.number) || cache.is_snapshot(at.store, 3));
        const unsigned hits = look_up_random(cache, at, is_many ? 2'000'000 : 20'000, roll);
        EXPECT_GT(hits, is_many ? 1'000u : 275'000u); // of the few all but the first lookups
    }
}

} // namespace
