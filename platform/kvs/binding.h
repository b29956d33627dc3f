// Binding databases: from a name in the current state directory to a handle.
#pragma once

#include "kvs.h"

#include <cstdint>

namespace platform {

// Binds the named database and returns its handle; makes store and database if `create` is true.
[[nodiscard]] uint32_t bind_database(const char *name, bool create, kvs_hdl *hdl);

} // namespace platform
