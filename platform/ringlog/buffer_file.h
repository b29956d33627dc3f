// Finding and making the files of trace buffers, for writers and readers alike.
#pragma once

#include "platform/base/descriptor.h"
#include "platform/ringlog/format.h"

#include <cstdint>
#include <sys/stat.h>

namespace platform {

// Longest name of a buffer, in bytes.
constexpr size_t max_buffer_name = 1023;

// A buffer's file, open, with what was checked on it.
struct ring_file {
    descriptor fd;
    ring_header header;
    dev_t device;
    ino_t inode;
};

// All of these return a status of ringlog.h, after one line of explanation where the system failed.

// Opens the folder of all buffers; RINGLOG_RC_NO_SUCH_BUFFER when there is none and `create` is
// false.
uint32_t open_ring_root(bool create, descriptor &root);

uint32_t open_ring(const char *name, ring_file &file);

// As open_ring, for writing; makes the buffer when it is missing or damaged.
uint32_t open_or_make_ring(const char *name, uint32_t slot_count, ring_file &file);

// Reads the header of a buffer's file and checks it against the length of the file.
uint32_t read_header(int fd, ring_header &header);

// The status for a system call that failed with `error`. A missing file needs no explanation.
uint32_t explain(const char *what, const char *name, int error);

} // namespace platform
