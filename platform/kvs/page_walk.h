// The page trees of a data file, read without the engine.
#pragma once

#include "platform/kvs/file_layout.h"

namespace platform {

// Reads a part of a file. Returns 0, an error number, or MDB_CORRUPTED if the file ends before it.
[[nodiscard]] int read_at(int fd, void *buffer, size_t length, uint64_t offset);

// Checks that every page in use by the commit of this header lies within the file. Returns 0,
// MDB_CORRUPTED, or an error number.
[[nodiscard]] int check_pages(int fd, const meta_data &meta);

} // namespace platform
