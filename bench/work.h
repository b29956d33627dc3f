// The work that this library and its peers are given: which ids, which records, and in which
// folder.
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <malloc.h>

#include "vs_kvs.h"

namespace bench {

struct free_block {
    void operator()(void *address) const { std::free(address); }
};

// A record as its reader gets it: a block of its own that the reader frees.
using owned_record = std::unique_ptr<void, free_block>;

inline owned_record copy_of(const void *bytes, std::size_t length)
{
    void *const copy = std::malloc(length);
    std::memcpy(copy, bytes, length);
    return owned_record(copy);
}

// A listing as the library gives it: an array of blocks.
class listing {
public:
    explicit listing(std::uint32_t count) : listing(allocate(count), 0) {}
    listing(void **records, std::uint32_t count) : records_(records), count_(count) {}
    listing(listing &&other) noexcept
        : records_(std::exchange(other.records_, nullptr)), count_(std::exchange(other.count_, 0))
    {
    }
    listing &operator=(listing &&) = delete;
    ~listing()
    {
        for (std::uint32_t i = 0; i < count_; ++i)
            std::free(records_[i]);
        std::free(records_);
    }

    void append(owned_record record) { records_[count_++] = record.release(); }
    [[nodiscard]] std::uint32_t count() const { return count_; }
    [[nodiscard]] std::size_t bytes() const
    {
        std::size_t sum = malloc_usable_size(records_);
        for (std::uint32_t i = 0; i < count_; ++i)
            sum += malloc_usable_size(records_[i]);
        return sum;
    }

private:
    static void **allocate(std::uint32_t count)
    {
        return static_cast<void **>(std::calloc(count, sizeof(void *)));
    }

    void **records_;
    std::uint32_t count_;
};

[[noreturn]] inline void give_up(const char *what, const char *why)
{
    std::fprintf(stderr, "bench: %s: %s\n", what, why);
    std::exit(1);
}

inline void must(bool done, const char *what, const char *why = "failed")
{
    if (!done) [[unlikely]]
        give_up(what, why);
}

// The n-th of the ids in use, which lie scattered over all 32-bit numbers but 0.
constexpr std::uint32_t id_of(std::uint32_t n) { return (n + 1) * UINT32_C(2654435761); }

// Random numbers below a limit.
class dice {
public:
    explicit dice(std::uint64_t seed = 1) : state_(seed * 0x9E3779B97F4A7C15 + 1) {}
    std::uint32_t below(std::uint32_t limit)
    {
        state_ ^= state_ << 13;
        state_ ^= state_ >> 7;
        state_ ^= state_ << 17;
        return static_cast<std::uint32_t>((state_ >> 32) * limit >> 32);
    }

private:
    std::uint64_t state_;
};

constexpr std::uint32_t elements = 10; // versions or clients of a record

struct object_record {
    std::uint32_t id;
    std::uint32_t selected;
    std::uint32_t optional_compatible = 0, scope = 0, is_changed = 1, count = elements;
    std::uint32_t versions[elements] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10};
};

// The clients of an object, with room for one more.
struct clients_record {
    std::uint32_t id;
    std::uint32_t count = elements;
    vs_client_info_entry clients[elements + 1] = {};

    explicit clients_record(std::uint32_t object) : id(object)
    {
        for (std::uint32_t i = 0; i <= elements; ++i)
            clients[i].jid = i + 1;
    }
    [[nodiscard]] std::size_t length() const { return 8 + count * sizeof *clients; }
};

// Where all stores of one run lie; the state directory too, so that all are on one file system.
inline std::string folder()
{
    const char *const named = std::getenv("VS_STATE_DIR");
    must(named != nullptr, "VS_STATE_DIR", "not set; scripts/bench does");
    return named;
}

} // namespace bench
