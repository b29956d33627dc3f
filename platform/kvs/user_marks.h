// Marks by which the processes that use a store's files together recognize one another.
//
// A mark is a lock on a byte far beyond a file's end that all users may hold. Its place carries a
// number, and the system removes it when its process ends, or closes any descriptor of the file. A
// user marks the data file with the lock file's number and the lock file with the data file's, so
// that no process joins users that have other files open under these names. And it marks the data
// file with its PID namespace: the engine identifies processes by their PIDs.
#pragma once

#include <sys/types.h>

namespace platform {

enum class mark : off_t { other_file = off_t{1} << 62, pid_namespace = off_t{1} << 61 };

// Both return 0 or an error number.

[[nodiscard]] int set_mark(int fd, mark kind, ino_t number);

// Sets `*found` to whether another process has a mark of this kind with a different number.
[[nodiscard]] int find_different_mark(int fd, mark kind, ino_t number, bool *found);

} // namespace platform
