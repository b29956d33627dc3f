// The statuses that errors of the engine and of the system become.
#pragma once

#include <cstdint>

namespace platform {

// Returns the status for an error of the engine or an errno; KVS_RC_IO if there is no closer one.
[[nodiscard]] uint32_t status_of_engine_error(int error);

// Returns the status for the errno of a state directory that cannot be opened; `create` says
// whether it was to be made.
[[nodiscard]] uint32_t status_of_state_dir_error(int error, bool create);

// As status_of_engine_error, after one debug line that names the failed action and the error.
[[nodiscard]] uint32_t log_engine_error(const char *action, int error);

} // namespace platform
