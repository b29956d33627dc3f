// The byte limit of the folder of all buffers.
//
// Each mapping of a buffer holds a shared lock on its file, which lasts as long as the mapping
// does, also in forked children and after all descriptors are closed. A file that can be locked
// exclusively is in use by no process.
#pragma once

#include "platform/base/descriptor.h"

#include <cstdint>

namespace platform {

// Opens and locks the file that serialises the creation, removal and quarantine of buffers. Only
// its owner can open it, so no other user can hold the lock. Returns 0 or an error number.
[[nodiscard]] int lock_root(int root, descriptor &lock);

// Called with the lock before a file of `bytes` is created: removes buffers that are not in use,
// those with the oldest last record first, if the limit would be exceeded. The sum is stored in the
// lock's file, so that the folder is scanned only when it has grown by a part of the limit.
void make_room(int root, const descriptor &lock, uint64_t bytes);

} // namespace platform
