// What a reader gets of a store whose data file is damaged anywhere: a byte changed, the file cut
// off, pages of random bytes, swapped pages.
//
//   fuzz_store_damage [TRIALS [SEED]]
//
// Each trial reads all records in a child. That either gives what was stored or is refused: other
// contents, a crash or a hang make the program fail. A reader that got everything then changes the
// store, since the engine takes pages of the free list for that.
#include "kvs.h"
#include "tests/state_dir.h"

#include <iterator>
#include <random>
#include <vector>

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

// Deletes every eighth record, and inserts some of new keys.
void change(const kvs_hdl (&databases)[3], uint32_t first_key)
{
    for (const kvs_hdl database : databases) {
        kvs_rec_hdl *found = nullptr;
        uint32_t count = 0;
        kvs_batch_begin(database);
        kvs_find_objects(database, nullptr, 0, 0, &found, &count);
        for (uint32_t i = 0; i < count; i += 8)
            kvs_delete_object(database, &found[i]);
        free(found);
        for (uint32_t i = 0; i < count / 8; ++i)
            insert(database, first_key + i, i % 10 == 0 ? 6000 : 30);
        kvs_batch_commit();
    }
}

void make_store()
{
    kvs_hdl databases[3] = {};
    kvs_appdesc about;
    kvs_appdesc_init(&about);
    for (size_t i = 0; i < std::size(names); ++i)
        need(kvs_init(names[i], &about, 0, &databases[i]) == 0, "making a store");
    kvs_batch_begin(databases[0]);
    for (uint32_t i = 0; i < records; ++i)
        need(insert(databases[i % 3], i, i % 50 == 0 ? 9000 : 20 + i % 100) == 0, "filling it");
    need(kvs_batch_commit() == 0, "filling it");
    change(databases, 1000);
    change(databases, 2000);
}

// Appends all records; returns a status.
uint32_t read_all(kvs_hdl database, std::string &contents)
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
        contents += std::to_string(length) + ":" + record;
    }
    free(found);
    return status;
}

uint32_t read_store(kvs_hdl (&databases)[3], std::string &contents)
{
    uint32_t status = 0;
    for (size_t i = 0; i < std::size(names) && status == 0; ++i) {
        status = kvs_lookup_db_handle(names[i], &databases[i]);
        contents += names[i];
        if (status == 0)
            status = read_all(databases[i], contents);
    }
    return status;
}

outcome try_file(const std::string &sound_contents, bool verifies)
{
    const pid_t child = start([&] {
        alarm(20);
        kvs_hdl databases[3] = {};
        std::string contents;
        if (verifies && kvs_lookup_db_handle(names[0], &databases[0]) == 0 &&
            kvs_verify(databases[0]) != 0)
            _exit(first_code + refused);
        if (read_store(databases, contents) != 0)
            _exit(first_code + refused);
        if (contents != sound_contents)
            _exit(first_code + wrong);
        change(databases, 3000);
    });
    const int status = finish(child);
    if (status == 128 + SIGALRM)
        return hung;
    if (status == 0)
        return right;
    return status == first_code + refused || status == first_code + wrong
               ? static_cast<outcome>(status - first_code)
               : crashed;
}

void flip_byte(std::string &file, std::mt19937_64 &roll)
{
    char &byte = file[roll() % file.size()];
    byte = static_cast<char>(byte ^ static_cast<char>(1 + roll() % 255));
}

// The headers end with the number of their commit. Any change of its lowest byte but that of the
// parity could make the commit before the last one, which is not detected.
void flip_header_byte(std::string &file, std::mt19937_64 &roll)
{
    const size_t at = roll() % 152;
    char &byte = file[roll() % 2 * page + at];
    byte = static_cast<char>(byte ^ static_cast<char>(at == 144 ? 1 : 1 + roll() % 255));
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

constexpr struct {
    const char *name;
    void (*damage)(std::string &file, std::mt19937_64 &roll);
    unsigned share; // of the trials, in 20
} kinds[] = {{"flips", flip_byte, 10},
             {"truncations", cut_off, 2},
             {"random pages", fill_page, 2},
             {"swapped pages", swap_pages, 2},
             {"flips in the headers", flip_header_byte, 4}};

} // namespace

int main(int count, char **arguments)
{
    const unsigned trials = count > 1 ? static_cast<unsigned>(std::atoi(arguments[1])) : 300;
    std::mt19937_64 roll(count > 2 ? static_cast<unsigned>(std::atoi(arguments[2])) : 1);
    const fs::path data = own.path / "store.mdb";
    need(in_child(make_store) == 0, "making a store");
    const std::string sound = content_of(data);
    const auto write_contents = [] {
        kvs_hdl databases[3] = {};
        std::string contents;
        need(read_store(databases, contents) == 0, "reading the store");
        std::ofstream(own.path / "contents", std::ios::binary) << contents;
    };
    need(in_child(write_contents) == 0, "reading the store");
    const std::string contents = content_of(own.path / "contents");
    need(try_file(contents, true) == right, "reading the store again");
    bool is_good = true;
    for (const auto &kind : kinds) {
        unsigned counts[outcomes] = {};
        for (unsigned i = 0; i < trials * kind.share / 20; ++i) {
            std::string file = sound;
            kind.damage(file, roll);
            std::ofstream(data, std::ios::binary) << file;
            fs::remove(own.path / "store.mdb-lock");
            ++counts[try_file(contents, i % 2 == 0)];
        }
        printf("store damage: %u %s:", trials * kind.share / 20, kind.name);
        for (unsigned i = 0; i < outcomes; ++i)
            printf(" %u %s%s", counts[i], outcome_names[i], i + 1 < outcomes ? "," : "\n");
        fflush(stdout);
        is_good = is_good && counts[wrong] + counts[crashed] + counts[hung] == 0;
    }
    return is_good ? 0 : 1;
}
