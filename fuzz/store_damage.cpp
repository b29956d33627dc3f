// What a reader gets of a store whose data file is damaged anywhere: a byte changed, the file cut
// off, pages of random bytes, swapped pages.
//
//   fuzz_store_damage [TRIALS [SEED]]
//
// Each trial reads all records in a child. That either gives what was stored or is refused: other
// contents, a crash or a hang make the program fail. A reader that got everything then changes the
// store, since the engine takes pages of the free list for that.
//
// And each trial salvages what it can in another child, which must give no record that was never
// stored, none of an older version that it does not count as doubtful, and call a store whole just
// when it is.
#include "kvs.h"
#include "tests/state_dir.h"

#include <iterator>
#include <random>
#include <set>

OWN_STATE_DIR(true);

namespace {

constexpr const char *names[] = {"one", "two", "three"};
constexpr uint32_t records = 1000;
constexpr size_t page = 4096;

enum outcome { right, refused, wrong, crashed, hung, outcomes };
constexpr const char *outcome_names[outcomes] = {"right", "refused", "silently wrong", "crashed",
                                                 "hung"};

constexpr int first_code = 40; // of the exit statuses of a child: a sanitizer's is 1

uint32_t insert(kvs_hdl database, uint32_t key, size_t length)
{
    std::string record(length, static_cast<char>('a' + key % 26));
    memcpy(record.data(), &key, sizeof key);
    const kvs_data_desc bytes{record.data(), record.size()};
    const kvs_key_attr where{{}, 0, 4, nullptr, 0};
    kvs_rec_hdl handle = 0;
    return kvs_insert_object(database, &bytes, 1, &where, 1, 0, 0, &handle);
}

// Deletes every eighth record, changes the next one, and inserts some of new keys.
void change(const kvs_hdl (&databases)[3], uint32_t first_key)
{
    for (const kvs_hdl database : databases) {
        kvs_rec_hdl *found = nullptr;
        uint32_t count = 0;
        kvs_batch_begin(database);
        kvs_find_objects(database, nullptr, 0, 0, &found, &count);
        for (uint32_t i = 0; i + 1 < count; i += 8) {
            const kvs_data_desc version{&first_key, sizeof first_key};
            kvs_write_result result;
            kvs_delete_object(database, &found[i]);
            kvs_write_object(database, &found[i + 1], 4, &version, 1, nullptr, &result);
        }
        free(found);
        for (uint32_t i = 0; i < count / 8; ++i)
            insert(database, first_key + i, i % 10 == 0 ? 6000 : 30);
        kvs_batch_commit();
    }
}

// Records, each behind the name of its database.
using contents = std::set<std::string>;

// Adds all records; returns a status.
uint32_t read_all(const std::string &name, kvs_hdl database, contents &all)
{
    kvs_rec_hdl *found = nullptr;
    uint32_t count = 0;
    uint32_t status = kvs_find_objects(database, nullptr, 0, 0, &found, &count);
    for (uint32_t i = 0; i < count && status == 0; ++i) {
        uint32_t length = 0;
        status = kvs_get_object_size(database, &found[i], &length);
        std::string record(status == 0 ? length : 0, 0);
        if (status == 0)
            status = kvs_read_object(database, &found[i], 0, record.data(), &length);
        all.insert(name + record);
    }
    free(found);
    return status;
}

uint32_t read_store(kvs_hdl (&databases)[3], contents &all)
{
    uint32_t status = 0;
    for (size_t i = 0; i < std::size(names) && status == 0; ++i) {
        status = kvs_lookup_db_handle(names[i], &databases[i]);
        if (status == 0)
            status = read_all(names[i], databases[i], all);
    }
    return status;
}

// Adds the records of the store to a file, in a child.
void save_contents(const char *file)
{
    const auto save = [&] {
        kvs_hdl databases[3] = {};
        contents all;
        need(read_store(databases, all) == 0, "reading the store");
        std::ofstream to(own.path / file, std::ios::binary | std::ios::app);
        for (const std::string &record : all)
            to << record.size() << ' ' << record;
    };
    need(in_child(save) == 0, "reading the store");
}

contents saved_contents(const char *file)
{
    contents all;
    std::ifstream from(own.path / file, std::ios::binary);
    for (size_t length = 0; from >> length;) {
        std::string record(length, 0);
        from.get();
        from.read(record.data(), static_cast<std::streamsize>(length));
        all.insert(record);
    }
    return all;
}

void make_store()
{
    kvs_hdl databases[3] = {};
    kvs_appdesc about;
    kvs_appdesc_init(&about);
    setenv("VS_JOURNAL_SIZE", "64K", 1); // so that most of the damage meets records
    for (size_t i = 0; i < std::size(names); ++i)
        need(kvs_init(names[i], &about, 0, &databases[i]) == 0, "making a store");
    kvs_batch_begin(databases[0]);
    for (uint32_t i = 0; i < records; ++i)
        need(insert(databases[i % 3], i, i % 50 == 0 ? 9000 : 20 + i % 100) == 0, "filling it");
    need(kvs_batch_commit() == 0, "filling it");
    save_contents("ever");
    for (const uint32_t first_key : {1000, 2000}) {
        change(databases, first_key);
        save_contents("ever");
    }
}

outcome outcome_of(int status)
{
    if (status == 128 + SIGALRM)
        return hung;
    if (status == 0)
        return right;
    return status == first_code + refused || status == first_code + wrong
               ? static_cast<outcome>(status - first_code)
               : crashed;
}

outcome try_file(const contents &sound_contents, bool verifies)
{
    const pid_t child = start([&] {
        alarm(20);
        kvs_hdl databases[3] = {};
        contents all;
        if (verifies && kvs_lookup_db_handle(names[0], &databases[0]) == 0 &&
            kvs_verify(databases[0]) != 0)
            _exit(first_code + refused);
        if (read_store(databases, all) != 0)
            _exit(first_code + refused);
        if (all != sound_contents)
            _exit(first_code + wrong);
        change(databases, 3000);
    });
    return outcome_of(finish(child));
}

// What the children salvaged, of all kinds of damage so far.
struct salvage_counts {
    uint64_t whole, salvaged, doubtful, old;
};

struct salvage_of_one {
    std::string name;
    contents found;
};

// Salvages one database; returns whether what was found may be.
bool salvage(const char *name, const contents &current, const contents &ever, contents &all,
             kvs_salvage_result &result, salvage_counts &counts)
{
    salvage_of_one one{name, {}};
    const auto add = [](const void *record, uint32_t length, void *to) {
        auto &into = *static_cast<salvage_of_one *>(to);
        into.found.insert(into.name + std::string(static_cast<const char *>(record), length));
        return 0;
    };
    if (kvs_salvage(name, add, &one, &result) != 0 || one.found.size() != result.salvaged)
        return false;
    uint64_t old = 0;
    for (const std::string &record : one.found) {
        if (!ever.contains(record))
            return false;
        old += current.contains(record) ? 0 : 1;
    }
    counts.salvaged += result.salvaged - old;
    counts.doubtful += result.doubtful;
    counts.old += old;
    all.merge(one.found);
    return old <= result.doubtful;
}

// Returns right if the store is called whole, refused if damaged.
outcome try_salvage(const contents &current, const contents &ever, salvage_counts &counts)
{
    const pid_t child = start([&] {
        alarm(20);
        contents all;
        unsigned whole = 0;
        for (const char *const name : names) {
            kvs_salvage_result result;
            if (!salvage(name, current, ever, all, result, counts))
                _exit(first_code + wrong);
            whole += result.is_whole != 0 && result.lost == 0 && result.doubtful == 0 ? 1 : 0;
        }
        if (whole == std::size(names) ? all != current : whole != 0)
            _exit(first_code + wrong);
        counts.whole += whole != 0 ? 1 : 0;
        _exit(whole != 0 ? 0 : first_code + refused);
    });
    return outcome_of(finish(child));
}

void flip_byte(std::string &file, std::mt19937_64 &roll)
{
    char &byte = file[roll() % file.size()];
    byte = static_cast<char>(byte ^ static_cast<char>(1 + roll() % 255));
}

void cut_off(std::string &file, std::mt19937_64 &roll) { file.resize(roll() % file.size()); }

void fill_page(std::string &file, std::mt19937_64 &roll)
{
    const size_t at = roll() % (file.size() / page) * page;
    for (size_t i = 0; i < page; ++i)
        file[at + i] = static_cast<char>(roll());
}

void swap_pages(std::string &file, std::mt19937_64 &roll)
{
    const size_t one = roll() % (file.size() / page), other = roll() % (file.size() / page);
    std::swap_ranges(&file[one * page], &file[one * page] + page, &file[other * page]);
}

// By how many commits the second header is the newer one.
int64_t header_distance(const std::string &file)
{
    constexpr size_t commit = 144; // where a header has its number
    int64_t numbers[2];
    for (size_t i = 0; i < 2; ++i)
        memcpy(&numbers[i], &file[i * page + commit], sizeof numbers[i]);
    return numbers[1] - numbers[0];
}

// The header of the commit before the last one is whole as well. So damage that makes just that one
// look like the last is not detected, and left out.
void flip_header(std::string &file, std::mt19937_64 &roll)
{
    const std::string headers = file.substr(0, 2 * page);
    do {
        file.replace(0, headers.size(), headers);
        for (uint64_t i = 0; i <= roll() % 3; ++i)
            file[roll() % 2 * page + roll() % 160] ^= static_cast<char>(1 << roll() % 8);
    } while (header_distance(file) == -header_distance(headers));
}

// Lets a node of a branch page, or in its absence what is there in another page, lead anywhere.
void link_anywhere(std::string &file, std::mt19937_64 &roll)
{
    constexpr size_t flags = 10, first_offset = 16;
    size_t at = roll() % (file.size() / page) * page;
    for (size_t left = file.size() / page; left != 0 && file[at + flags] != 1; --left)
        at = (at + page) % file.size();
    uint16_t offset = 0;
    memcpy(&offset, &file[at + first_offset + roll() % 8 * 2], sizeof offset);
    const bool to_itself = roll() % 4 == 0;
    const auto target =
        static_cast<uint16_t>(to_itself ? at / page : roll() % (file.size() / page));
    memcpy(&file[at + offset % (page - sizeof target)], &target, sizeof target);
}

constexpr struct {
    const char *name;
    void (*damage)(std::string &file, std::mt19937_64 &roll);
    unsigned share; // of the trials, in 20
} kinds[] = {{"flips", flip_byte, 10},       {"truncations", cut_off, 2},
             {"random pages", fill_page, 2}, {"swapped pages", swap_pages, 2},
             {"headers", flip_header, 3},    {"wrong links", link_anywhere, 1}};

// Does the trials of one kind of damage; returns whether none went wrong.
bool try_kind(const auto &kind, unsigned trials, const std::string &sound, std::mt19937_64 &roll,
              salvage_counts &salvaged)
{
    const contents current = saved_contents("current"), ever = saved_contents("ever");
    unsigned counts[outcomes] = {}, wrong_salvages = 0;
    salvaged = {};
    for (unsigned i = 0; i < trials; ++i) {
        std::string file = sound;
        kind.damage(file, roll);
        std::ofstream(own.path / "store.mdb", std::ios::binary) << file;
        fs::remove(own.path / "store.mdb-lock");
        const bool verifies = i % 2 == 0;
        const outcome salvage = try_salvage(current, ever, salvaged);
        const outcome reading = try_file(current, verifies);
        ++counts[reading];
        if (salvage > refused || (verifies ? salvage != reading : salvage < reading))
            printf("store damage: trial %u: wrong salvage: %s, reading: %s\n", i,
                   outcome_names[salvage], outcome_names[reading]),
                ++wrong_salvages;
    }
    printf("store damage: %u %s:", trials, kind.name);
    for (unsigned i = 0; i < outcomes; ++i)
        printf(" %u %s,", counts[i], outcome_names[i]);
    const auto share = [&](uint64_t part) {
        return 100.0 * static_cast<double>(part) / static_cast<double>(trials * current.size());
    };
    printf(" %u wrong salvages; salvaged %.2f%% of the records and %.2f%% old ones, %.2f%% "
           "doubtful\n",
           wrong_salvages, share(salvaged.salvaged), share(salvaged.old), share(salvaged.doubtful));
    fflush(stdout);
    return counts[wrong] + counts[crashed] + counts[hung] + wrong_salvages == 0;
}

} // namespace

int main(int count, char **arguments)
{
    const unsigned trials = count > 1 ? static_cast<unsigned>(std::atoi(arguments[1])) : 300;
    std::mt19937_64 roll(count > 2 ? static_cast<unsigned>(std::atoi(arguments[2])) : 1);
    need(in_child(make_store) == 0, "making a store");
    save_contents("current");
    const std::string sound = content_of(own.path / "store.mdb");
    auto &salvaged = shared<salvage_counts>();
    const contents current = saved_contents("current"), ever = saved_contents("ever");
    need(ever.size() > current.size() && try_salvage(current, ever, salvaged) == right &&
             try_file(current, true) == right,
         "reading the store again");
    bool is_good = true;
    for (const auto &kind : kinds)
        is_good = try_kind(kind, trials * kind.share / 20, sound, roll, salvaged) && is_good;
    return is_good ? 0 : 1;
}
