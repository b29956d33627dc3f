// How much a store holds.
#pragma once

namespace platform {

constexpr unsigned name_limit = 64;     // bytes of a database's name
constexpr unsigned database_limit = 16; // databases of a store

// The engine's numbers of databases begin with two of its own. Beside those that are bound, those
// are open for a while that an interrupted commit changed.
constexpr unsigned first_named_database = 2;
constexpr unsigned open_database_limit = 2 * database_limit;

} // namespace platform
