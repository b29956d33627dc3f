// The statuses that errors of the engine and of the system become.
#pragma once

#include <cstdint>

namespace platform {

// What keeps the store from working, beside the errors of the engine, which lie far below, and of
// the system.
constexpr int not_open = -1;           // the store has no environment
constexpr int files_replaced = -2;     // the store's files are not those that are in use
constexpr int descriptors_lost = -3;   // the program closed descriptors of the store
constexpr int no_proc = -4;            // /proc is not mounted
constexpr int other_namespace = -5;    // processes of another PID namespace use the store
constexpr int writer_is_busy = -6;     // another process writes, or is next
constexpr int interrupted_commit = -7; // a commit is in the journal only

// Returns whether the environment is useless after this error, and is to be opened anew.
[[nodiscard]] bool needs_reopening(int error);

// Returns the status for an error of the engine or an errno; KVS_RC_IO if there is no closer one.
[[nodiscard]] uint32_t status_of_engine_error(int error);

// Returns the status for the errno of a state directory that cannot be opened; `create` is
// whether it was to be made.
[[nodiscard]] uint32_t status_of_state_dir_error(int error, bool create);

// As status_of_engine_error, after one debug line that names the failed action and the error.
[[nodiscard]] uint32_t log_engine_error(const char *action, int error);

} // namespace platform
