// Harms the store in several ways, and checks that no acknowledged change is lost.
//
//   torture kills [COUNT [SEED]]      writers killed at random instants, in batches too
//   torture powercut [STATES [SEED]]  what a disk may contain after a power cut, by what was synced
//   torture exhaustion                no room, no memory, no descriptors, no permission
//   torture privilege                 other users, planted links, a set-user-ID program
//
// The last line of the output sums up; the exit status is 1 when anything was lost or went wrong. A
// seed repeats the random choices of a run, though not the instants.
#include "torture.h"

#include "vs_kvs.h"

#include <random>

OWN_STATE_DIR(false);

namespace torture {

const fs::path &root = own.path;

namespace {

// Adds an element to a client list or a registration, or replaces a listed client.
uint32_t change_element(dice &roll, unsigned db, words &record, bool for_real)
{
    const vskvs::shape &shape = vskvs::databases[db]->shape;
    const bool is_listed = db == 1 && record[1] != 0 && roll.below(3) == 0;
    const size_t at = shape.length(is_listed ? roll.below(record[1]) : record[1]++);
    record.resize(shape.length(record[1]));
    for (size_t i = at + is_listed; i < at + shape.element_words(); ++i)
        record[i] = roll() | 1;
    if (!for_real)
        return 0;
    if (db == 2)
        return vs_kvs_add_new_client_objects_reg_object(record[0], record[at]);
    const auto *const client = reinterpret_cast<const vs_client_info_entry *>(&record[at]);
    return (is_listed ? vs_kvs_update_client_info : vs_kvs_add_new_client_info)(record[0], client);
}

uint32_t change_one(dice &roll, uint32_t first_key, contents &all, bool for_real)
{
    const unsigned db = roll.below(3);
    const uint32_t key = first_key + roll.below(10), action = roll.below(4);
    const auto at = all.find({db, key});
    if (at == all.end()) // and now and then with pages of its own
        return insert(roll, db, key, roll.below(action == 0 ? 1000 : 12), all, for_real);
    const auto erase = vskvs::databases[db]->erase;
    if (action == 0 && erase != nullptr) {
        all.erase(at);
        return for_real ? erase(key) : 0;
    }
    words &record = at->second;
    if (db != 0)
        return change_element(roll, db, record, for_real);
    record[1] = roll();
    return for_real ? vs_kvs_update_vs_object_selected_version(key, record[1]) : 0;
}

} // namespace

uint32_t dice::operator()()
{
    uint64_t z = state += 0x9E3779B97F4A7C15;
    z = (z ^ z >> 30) * 0xBF58476D1CE4E5B9;
    z = (z ^ z >> 27) * 0x94D049BB133111EB;
    return static_cast<uint32_t>(z >> 32);
}

uint32_t insert(dice &roll, unsigned db, uint32_t key, uint32_t count, contents &all, bool for_real)
{
    const vskvs::database &into = *vskvs::databases[db];
    words record(into.shape.length(count));
    for (uint32_t &word : record)
        word = roll();
    record[0] = key;
    record[into.shape.fixed() - 1] = count;
    const uint32_t status = for_real ? into.insert(record) : 0;
    if (status == 0)
        all[{db, key}] = std::move(record);
    return status;
}

uint32_t change(uint64_t seed, uint32_t first_key, contents &all, bool for_real)
{
    dice roll{seed};
    if (roll.below(3) != 0)
        return change_one(roll, first_key, all, for_real);
    const bool keep = roll.below(4) != 0;
    contents changed = all;
    uint32_t status = for_real ? kvs_batch_begin(g_kvs_hdl_vs_objects_db) : 0;
    for (uint32_t left = 2 + roll.below(12); status == 0 && left != 0; --left)
        status = change_one(roll, first_key, changed, for_real);
    if (for_real && status == 0)
        status = keep ? kvs_batch_commit() : kvs_batch_abort();
    if (keep)
        all = std::move(changed);
    return status;
}

void open_databases()
{
    const uint32_t status = vs_kvs_initialize(1);
    need(status == 0, "opening the databases", status);
}

contents stored()
{
    contents all;
    for (unsigned db = 0; db < 3; ++db)
        for (words &record : vskvs::read_all(*vskvs::databases[db]))
            all[{db, record[0]}] = std::move(record);
    return all;
}

finding judge(const contents &found, const contents &before, const contents &after)
{
    return found == before ? finding::before : found == after ? finding::after : finding::wrong;
}

fs::path use_new_state(const char *name)
{
    const fs::path state = root / name;
    fs::remove_all(state);
    setenv("VS_STATE_DIR", state.c_str(), 1);
    return state;
}

} // namespace torture

int main(int count, char **arguments)
{
    using namespace torture;
    const struct {
        const char *name;
        bool (*run)(unsigned, uint64_t);
        int times;
    } parts[] = {{"kills", kills, 100},
                 {"powercut", powercut, 600},
                 {"exhaustion", exhaustion, 0},
                 {"privilege", privilege, 0}};
    for (const auto &part : parts)
        if (count > 1 && strcmp(arguments[1], part.name) == 0) {
            const int times = count > 2 ? std::atoi(arguments[2]) : part.times;
            const uint64_t seed =
                count > 3 ? strtoull(arguments[3], nullptr, 10) : std::random_device{}();
            return part.run(static_cast<unsigned>(times), seed) ? 0 : 1;
        }
    fprintf(stderr, "usage: torture kills|powercut|exhaustion|privilege [COUNT [SEED]]\n");
    return 2;
}
