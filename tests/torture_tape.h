// A recording of all that a process does to its data file.
#pragma once

#include "torture.h"

#include <sys/uio.h>

namespace torture {

// `lost_sync` fails: the system takes what it could not write for written. `refused` ends a change
// that the store did not acknowledge.
enum class what { start, refused, write, return_synced, sync, lost_sync, rename, sync_names };

struct event {
    what kind;
    size_t offset;     // of a write
    size_t first, end; // of its bytes, among all that were written
};

struct recording {
    unsigned count;
    event events[1 << 16];
    char bytes[256 << 20];
};

inline recording *tape = nullptr;
inline bool is_recording = false;  // in this process
inline dice *lost_syncs = nullptr; // decide which flushes fail; none if null

const event &record(what kind, off_t offset = 0, const iovec *parts = nullptr, int count = 0);

} // namespace torture
