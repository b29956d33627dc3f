// What the parts of the torture program share: random changes whose outcome is known without
// looking at the store.
#pragma once

#include "state_dir.h"
#include "tools/records.h"

#include <map>
#include <utility>

namespace torture {

using vskvs::words;
using contents = std::map<std::pair<unsigned, uint32_t>, words>; // by database and key

// Random numbers that are the same everywhere for the same seed.
struct dice {
    uint64_t state;
    uint32_t operator()();
    uint32_t below(uint32_t end) { return (*this)() % end; }
};

// Adds a record with `count` random elements to `all` and, when it is `for_real`, to the store.
// Returns the store's status.
uint32_t insert(dice &roll, unsigned db, uint32_t key, uint32_t count, contents &all,
                bool for_real);

// Makes a random change of the records with keys from `first_key` on, or a batch of such changes:
// always the same one for the same seed and contents.
uint32_t change(uint64_t seed, uint32_t first_key, contents &all, bool for_real);

void open_databases();
contents stored();

// The outcome of a change that may be in flight.
enum class finding { before, after, wrong };
finding judge(const contents &found, const contents &before, const contents &after);

// Checks that the journal's changes follow one another without a gap, that each begins with what
// the one before it left of its record, and that the last ones left what is stored. Returns the
// last change's transaction.
uint64_t check_journal(const contents &found);

extern const fs::path &root; // of all state directories
fs::path use_new_state(const char *name);

// Each prints a summary, and returns whether all is well.
bool kills(unsigned count, uint64_t seed);
bool powercut(unsigned states, uint64_t seed);
bool exhaustion(unsigned, uint64_t);
bool privilege(unsigned, uint64_t);

} // namespace torture
