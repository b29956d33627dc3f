// The work that this library and its peers are given: which ids, which records, and in which
// folder.
#pragma once

#include "vs_kvs.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <malloc.h>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace bench {

struct free_block {
    void operator()(void *address) const { free(address); }
};

// A record as its reader gets it: a block of its own that the reader frees.
using owned_record = std::unique_ptr<void, free_block>;

inline owned_record copy_of(const void *bytes, size_t length)
{
    void *const copy = malloc(length);
    memcpy(copy, bytes, length);
    return owned_record(copy);
}

// A listing as the library gives it: an array of blocks.
class listing {
public:
    explicit listing(uint32_t count) : listing(allocate(count), 0) {}
    listing(void **records, uint32_t count) : records_(records), count_(count) {}
    listing(listing &&other) noexcept
        : records_(std::exchange(other.records_, nullptr)), count_(std::exchange(other.count_, 0))
    {
    }
    listing &operator=(listing &&) = delete;
    ~listing()
    {
        for (uint32_t i = 0; i < count_; ++i)
            free(records_[i]);
        free(records_);
    }

    void append(owned_record record) { records_[count_++] = record.release(); }
    [[nodiscard]] uint32_t count() const { return count_; }
    [[nodiscard]] size_t bytes() const
    {
        size_t sum = malloc_usable_size(records_);
        for (uint32_t i = 0; i < count_; ++i)
            sum += malloc_usable_size(records_[i]);
        return sum;
    }

private:
    static void **allocate(uint32_t count)
    {
        return static_cast<void **>(calloc(count, sizeof(void *)));
    }

    void **records_;
    uint32_t count_;
};

[[noreturn]] inline void give_up(const char *what, const char *why)
{
    fprintf(stderr, "bench: %s: %s\n", what, why);
    exit(1);
}

inline void must(bool done, const char *what, const char *why = "failed")
{
    if (!done) [[unlikely]]
        give_up(what, why);
}

// The n-th of the ids in use, which lie scattered over all 32-bit numbers but 0.
constexpr uint32_t id_of(uint32_t n) { return (n + 1) * UINT32_C(2654435761); }

// Random numbers below a limit.
class dice {
public:
    explicit dice(uint64_t seed = 1) : state_(seed * 0x9E3779B97F4A7C15 + 1) {}
    uint32_t below(uint32_t limit)
    {
        state_ ^= state_ << 13;
        state_ ^= state_ >> 7;
        state_ ^= state_ << 17;
        return static_cast<uint32_t>((state_ >> 32) * limit >> 32);
    }

private:
    uint64_t state_;
};

constexpr uint32_t elements = 10; // versions or clients of a record

struct object_record {
    uint32_t id;
    uint32_t selected;
    uint32_t optional_compatible = 0, scope = 0, is_changed = 1, count = elements;
    uint32_t versions[elements] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10};
};

// The clients of an object, with room for one more.
struct clients_record {
    uint32_t id;
    uint32_t count = elements;
    vs_client_info_entry clients[elements + 1] = {};

    explicit clients_record(uint32_t object) : id(object)
    {
        for (uint32_t i = 0; i <= elements; ++i)
            clients[i].jid = i + 1;
    }
    [[nodiscard]] size_t length() const { return 8 + count * sizeof *clients; }
};

// Where all stores of one run lie; the state directory too, so that all are on one file system.
inline std::string folder()
{
    const char *const named = getenv("VS_STATE_DIR");
    must(named != nullptr, "VS_STATE_DIR", "not set; scripts/bench does");
    return named;
}

} // namespace bench
