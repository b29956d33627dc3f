// The environment of a store: opened, replaced, and given a larger map.
#pragma once

#include "platform/kvs/threads.h"

namespace platform {

// All return 0, an error of the engine, or an error number. All but the first need the environment
// mutex, and get exclusive access themselves.

// Opens the environment of a store that no other thread can see yet, in the directory `dir`. If
// `create` is true, the store is made first when it is missing.
[[nodiscard]] int open_environment(store &store, int dir, bool create);

// Opens the environment anew, with all databases. If the data file is not the one that the store
// was opened with, this fails with files_replaced: the record handles that the program keeps could
// name other records in it.
[[nodiscard]] int reopen_environment(store &store);

// Moves to a map of at least `bytes`, and of at least the store's size.
[[nodiscard]] int enlarge_map(store &store, uint64_t bytes);
[[nodiscard]] int double_map(store &store);

} // namespace platform
