// How much a store holds.
#pragma once

namespace platform {

constexpr unsigned name_limit = 64;     // bytes of a database's name
constexpr unsigned database_limit = 16; // databases of a store

} // namespace platform
