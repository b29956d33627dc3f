// The buffers that this process has mapped, and the allocation of their slots.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <sys/types.h>

namespace platform {

struct mapped_buffer {
    std::atomic<uint64_t> handle{0}; // 0 while the entry is free; written last
    std::atomic<bool> allocated{false};
    std::atomic<uint64_t> retry_ns{0}; // when the allocation is tried again after a failure
    std::byte *mapping = nullptr;
    uint64_t slot_count = 0;
    dev_t device = 0;
    ino_t inode = 0;
    uint64_t created_ns = 0; // a number of an inode is used again once its pages are replaced
};

constexpr uint32_t max_buffers = 256;

extern constinit mapped_buffer buffers[max_buffers];

// Allocates the disk space of all slots; returns false if the disk is full. After a failure the
// allocation is tried again once a second. Async-signal-safe; does not change errno.
[[nodiscard]] bool allocate_slots(mapped_buffer &buffer);

} // namespace platform
