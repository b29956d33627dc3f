// What the parts of the torture program share: random changes whose outcome is known without
// looking at the store.
#pragma once

#include <map>
#include <utility>

#include "state_dir.h"
#include "tools/records.h"

namespace torture {

using vskvs::words;
using contents = std::map<std::pair<unsigned, std::uint32_t>, words>; // by database and key

// Random numbers that are the same everywhere for the same seed.
struct dice {
    std::uint64_t state;
    std::uint32_t operator()();
    std::uint32_t below(std::uint32_t end) { return (*this)() % end; }
};

// Adds a record with `count` random elements to `all` and, when it is `for_real`, to the store.
// Returns the store's status.
std::uint32_t insert(dice &roll, unsigned db, std::uint32_t key, std::uint32_t count, contents &all,
                     bool for_real);

// Makes a random change of the records with keys from `first_key` on, or a batch of such changes:
// always the same one for the same seed and contents.
std::uint32_t change(std::uint64_t seed, std::uint32_t first_key, contents &all, bool for_real);

void open_databases();
contents stored();

// What came of a change that may be in flight.
enum class finding { before, after, wrong };
finding judge(const contents &found, const contents &before, const contents &after);

extern const fs::path &root; // of all state directories
fs::path use_new_state(const char *name);

void show_progress(const char *what, unsigned done, unsigned total);

// Each prints a summary, and returns whether all is well.
bool kills(unsigned count, std::uint64_t seed);
bool powercut(unsigned states, std::uint64_t seed);
bool exhaustion(unsigned, std::uint64_t);
bool privilege(unsigned, std::uint64_t);

} // namespace torture
