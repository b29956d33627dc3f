// A store's data file with damage in it, through the record store.
//
// Any status is right; a crash or a hang is not. The engine does not check its file, so only that
// is damaged what the store checks before it opens the file with the engine, or what the engine
// never interprets: the headers except for the roots of their trees, the file's length, and the
// records. An input is a list of changes, five bytes each: what, where and the new value.
#include "fuzz.h"
#include "kvs.h"

#include <fstream>
#include <iterator>
#include <string>
#include <vector>

OWN_STATE_DIR(true);

namespace {

constexpr const char *names[] = {"one", "two", "three"};
constexpr uint32_t records = 60;
constexpr size_t page = 4096;

// Where the fields of a header are that may be damaged: from, and past the end.
constexpr size_t header_parts[][2] = {{10, 12}, {16, 48}, {88, 96}, {136, 152}};

bool bind(kvs_hdl (&databases)[3])
{
    kvs_appdesc about;
    kvs_appdesc_init(&about);
    for (size_t i = 0; i < std::size(names); ++i)
        if (kvs_init(names[i], &about, 0, &databases[i]) != 0)
            return false;
    return true;
}

uint32_t insert(kvs_hdl database, uint32_t key, size_t length)
{
    std::string record(length, 'r');
    memcpy(record.data(), &key, sizeof key);
    const kvs_data_desc bytes{record.data(), record.size()};
    const kvs_key_attr where{{}, 0, 4, nullptr, 0};
    kvs_rec_hdl handle = 0;
    return kvs_insert_object(database, &bytes, 1, &where, 1, 0, 0, &handle);
}

void work()
{
    alarm(20);
    kvs_hdl databases[3] = {};
    if (!bind(databases))
        return;
    for (const kvs_hdl database : databases) {
        kvs_rec_hdl *found = nullptr;
        uint32_t count = 0, length = 0;
        kvs_find_objects(database, nullptr, 0, 0, &found, &count);
        for (uint32_t i = 0; i < count; ++i) {
            std::vector<char> record(kvs_get_object_size(database, &found[i], &length) == 0 ? length
                                                                                            : 0);
            length = static_cast<uint32_t>(record.size());
            kvs_read_object(database, &found[i], 0, record.data(), &length);
            if (i % 8 == 0)
                kvs_delete_object(database, &found[i]);
        }
        free(found);
        for (uint32_t key = 1000; key < 1003; ++key)
            insert(database, key, key * 5);
    }
}

struct base {
    std::string file;
    std::vector<size_t> positions; // of bytes of records
};

const base &sound()
{
    static const base made = [] {
        base it;
        const auto make = [] {
            kvs_hdl databases[3] = {};
            need(bind(databases), "making a store");
            for (uint32_t i = 0; i < 3 * records; ++i)
                insert(databases[i % 3], i, i % 20 == 0 ? 9000 : 20 + i);
        };
        need(in_child(make) == 0, "making a store");
        std::ifstream from(own.path / "store.mdb", std::ios::binary);
        it.file.assign(std::istreambuf_iterator<char>(from), {});
        // The body of a record, with the key before and the generation behind it.
        for (size_t i = 2 * page; i < it.file.size(); ++i)
            if (it.file.compare(i, 4, "rrrr") == 0)
                it.positions.insert(it.positions.end(), {i - 4, i, i + 4});
        return it;
    }();
    return made;
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzz::reader in{data, size};
    std::string file = sound().file;
    size_t length = file.size();
    while (in.left != 0) {
        const auto what = in.next();
        const size_t where = in.next<uint16_t>();
        const auto value = static_cast<char>(in.next<uint16_t>());
        if (what % 8 == 0) {
            length = where * 7 % file.size();
        } else if (what % 2 == 0) {
            const auto &[from, end] = header_parts[where % std::size(header_parts)];
            file[what / 8 % 2 * page + from + where / 8 % (end - from)] = value;
        } else {
            file[sound().positions[(where << 8 | what) % sound().positions.size()]] = value;
        }
    }
    file.resize(length);
    std::ofstream(own.path / "store.mdb", std::ios::binary) << file;
    fs::remove(own.path / "store.mdb-lock");
    need(in_child(work) == 0, "the store died of its file, or hangs");
    return 0;
}
