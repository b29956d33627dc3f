// Stored records of any bytes, read, listed, changed and added to.
//
// The library sits on the scripted platform, which hands out records as they are. An input is a
// number of operations; three bytes for each: which one, the record, a number; then the records:
// the database, the length, the bytes. What an operation hands out is as long as it says.
#include "core/state.h"
#include "fuzz.h"
#include "tests/scripted_platform.h"
#include "vs_kvs.h"

#include <numeric>

namespace {

// Looks at all of a record that an operation handed out, and releases it.
void use(void *record, size_t fixed, size_t element)
{
    if (record == nullptr)
        return;
    const auto *const from = static_cast<const uint8_t *>(record);
    uint32_t count = 0;
    memcpy(&count, from + fixed - 4, sizeof count);
    volatile auto sum = std::accumulate(from, from + fixed + count * element, 0u);
    static_cast<void>(sum);
    free(record);
}

template <auto Read, size_t Fixed, size_t Element, class Record>
void read(uint32_t key)
{
    Record *record = nullptr;
    Read(key, &record);
    use(record, Fixed, Element);
}

template <auto List, size_t Fixed, size_t Element, class Record>
void list()
{
    uint32_t count = 0;
    Record **records = nullptr;
    List(&count, &records);
    for (uint32_t i = 0; i < count; ++i)
        use(records[i], Fixed, Element);
    free(records);
}

template <auto Read, auto List, size_t Fixed, size_t Element, class Record>
void look(uint32_t key, uint32_t number)
{
    if (number % 2 == 0)
        read<Read, Fixed, Element, Record>(key);
    else
        list<List, Fixed, Element, Record>();
}

using operation = void (*)(uint32_t key, uint32_t number);
constexpr operation operations[] = {
    look<vs_kvs_get_vs_object_rec, vs_kvs_get_vs_objects_all_recs, 24, 4, vs_objects_kvs_rec>,
    look<vs_kvs_get_clients_info_rec, vs_kvs_get_clients_info_all_recs, 8, 20,
         vs_clients_info_kvs_rec>,
    look<vs_kvs_get_client_objects_reg_rec, vs_kvs_get_client_objects_reg_all_recs, 8, 4,
         vs_client_objects_reg_kvs_rec>,
    [](auto key, auto number) { vs_kvs_update_vs_object_selected_version(key, number); },
    [](auto key, auto number) { vs_kvs_add_new_client_objects_reg_object(key, number); },
    [](auto key, auto number) {
        const vs_client_info_entry client{number, key, {}};
        vs_kvs_add_new_client_info(key, &client);
    },
    [](auto key, auto number) {
        const vs_client_info_entry client{number, key, {}};
        vs_kvs_update_client_info(key, &client);
    },
    [](auto key, auto number) {
        const vs_object_sel_entry chosen{key, number, {}};
        g_vs_kvs_dbs_initialized = 1;
        vs_kvs_update_vs_objects(&chosen, 1);
    },
    [](auto key, auto) { vs_kvs_delete_vs_object(key); },
    [](auto key, auto) { vs_kvs_delete_clients_info_rec(key); },
    [](auto key, auto) {
        kvs_rec_hdl *handle = nullptr;
        vs_kvs_get_client_objects_reg_rec_hdl(key, &handle);
        free(handle);
    },
};

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    scripted::reset();
    fuzz::reader in{data, size};
    const unsigned count = in.next() % 12;
    const fuzz::reader steps = in;
    for (unsigned i = 0; i < 3 * count; ++i)
        in.next();
    std::vector<uint32_t> keys{0, 1};
    while (in.left != 0) {
        const char *const names[] = {"vs_objects", "vs_clients_info", "vs_clientobjectsreg"};
        auto &records = scripted::now.store[names[in.next() % 3]];
        scripted::bytes bytes(in.next());
        for (uint8_t &byte : bytes)
            byte = in.next();
        keys.push_back(fuzz::reader{bytes.data(), bytes.size()}.next<uint32_t>());
        records.push_back({0x9000 + records.size(), std::move(bytes)});
    }
    fuzz::reader step = steps;
    for (unsigned i = 0; i < count; ++i) {
        const operation &operate = operations[step.next() % std::size(operations)];
        const uint32_t key = keys[step.next() % keys.size()];
        operate(key, step.next());
    }
    for (const std::string &problem : scripted::now.problems)
        need(false, problem.c_str());
    need(scripted::live_blocks() == 0, "a block is left");
    return 0;
}
