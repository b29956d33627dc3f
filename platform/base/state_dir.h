// The state directory: where the store and the trace buffers of one installation live.
//
// Everything in it is reached from a descriptor of the directory, component by component and
// without following links, so that a link planted in it leads nowhere.
#pragma once

namespace platform {

// Opens the state directory, which the environment names as kvs.h tells, and makes it (mode 0700,
// missing parents included) when `create` is true. The directory must belong to the effective user
// (or to root) and be writable by nobody else. Returns a descriptor that the caller closes, or -1
// with errno set (ENOENT when it is missing and `create` is false) after one line of explanation.
int open_state_dir(bool create);

// Opens the folder `path` (components separated by '/') below `dir`, made with mode 0700 where it
// is missing and `create` is true. No component may be empty, "." or ".."; one that is a link is
// refused with ELOOP. An empty `path` opens `dir` itself again. Returns a descriptor or -1 with
// errno.
int open_folder_below(int dir, const char *path, bool create);

} // namespace platform
