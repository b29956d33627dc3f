// The state directory, which contains the store and the trace buffers of one installation.
//
// Everything in it is opened from a descriptor of the directory, component by component and without
// following links, so that a link planted in it has no effect.
#pragma once

namespace platform {

// Opens the state directory, located as kvs.h describes, and creates it (mode 0700, missing parents
// included) if `create` is true. The directory must belong to the effective user (or to root) and
// be writable by no other. Returns a descriptor that the caller closes, or -1 with errno set
// (ENOENT if it is missing and `create` is false) after a debug print.
[[nodiscard]] int open_state_dir(bool create);

// Opens the folder `path` (components separated by '/') below `dir`, created with mode 0700 if it
// is missing and `create` is true. No component may be empty, "." or ".."; a link is refused with
// ELOOP. An empty `path` opens `dir` itself again. Returns a descriptor, or -1 with errno set.
[[nodiscard]] int open_folder_below(int dir, const char *path, bool create);

} // namespace platform
