// Locating and creating the files of trace buffers, for writers and readers.
#pragma once

#include "platform/base/descriptor.h"
#include "platform/ringlog/format.h"

#include <cstdint>
#include <sys/stat.h>

namespace platform {

// Longest name of a buffer, in bytes.
constexpr size_t max_buffer_name = 1023;

// The open file of a buffer, with its checked header and its identity.
struct buffer_file {
    descriptor fd;
    buffer_header header;
    dev_t device;
    ino_t inode;
    bool allocated; // no part of it is a hole
};

// All of these return a status of ringlog.h, after a debug print if a system call failed.

// Opens the folder of all buffers; returns RINGLOG_RC_NO_SUCH_BUFFER if there is none and `create`
// is false.
[[nodiscard]] uint32_t open_buffer_root(bool create, descriptor &root);

[[nodiscard]] uint32_t open_existing_buffer(const char *name, buffer_file &file);

// As open_existing_buffer, for writing; creates the buffer if it is missing or damaged.
[[nodiscard]] uint32_t open_or_create_buffer(const char *name, uint32_t slot_count,
                                             buffer_file &file);

// Reads the header of a buffer's file and checks it against the length of the file.
[[nodiscard]] uint32_t read_header(int fd, buffer_header &header);

// Returns the status for a system call that failed with `error`, after a debug print unless the
// file is just missing.
[[nodiscard]] uint32_t log_file_error(const char *what, const char *name, int error);

} // namespace platform
