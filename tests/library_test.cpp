// The library against the scripted platform.
//
// Every scenario prepares a store, runs one operation and leaves a log of all that the platform
// saw. The logs of the regular runs and of the special cases, and what each possible failure of a
// regular run adds, are compared as a whole with expected_reports.txt; run with ACCEPT=1 to write
// it anew, and read the difference before believing it.
#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <span>
#include <sstream>

#include <gtest/gtest.h>

#include "clients/database.h"
#include "frame/change.h"
#include "frame/state.h"
#include "objects/database.h"
#include "registrations/database.h"
#include "tests/scripted_platform.h"

using namespace scripted;

namespace {

constexpr std::uint32_t A = 0x10, B = 0x20, unknown = 0x30;
constexpr std::uint32_t J = 7, K = 8;
constexpr vs_client_info_entry new_client{9, 900, {1, 2, 3}}, same_jid{5, 501, {9}};

// ---- what an operation hands out, in words, and released ----

template <class Db>
std::string words(const typename Db::record *record)
{
    if (!record)
        return "null";
    std::ostringstream text;
    const auto count = vs_kvs::flat_length<Db>(record->*Db::count) / 4;
    for (std::size_t i = 0; i < count; ++i)
        text << (i ? " " : "") << reinterpret_cast<const std::uint32_t *>(record)[i];
    return text.str();
}

struct outcome {
    std::uint32_t status;
    std::string handed_out; // "untouched" when an out-parameter kept its value
};

template <class Record>
Record *const untouched = reinterpret_cast<Record *>(std::uintptr_t{0x11});

template <class Db>
outcome read(std::uint32_t (*operation)(std::uint32_t, typename Db::record **), std::uint32_t key)
{
    auto *record = untouched<typename Db::record>;
    const std::uint32_t status = operation(key, &record);
    if (record == untouched<typename Db::record>)
        return {status, "untouched"};
    const std::string text = words<Db>(record);
    std::free(record);
    return {status, text};
}

template <class Db>
outcome list(std::uint32_t (*operation)(std::uint32_t *, typename Db::record ***))
{
    std::uint32_t count = 77;
    auto **records = untouched<typename Db::record *>;
    const std::uint32_t status = operation(&count, &records);
    if (count == 77 && records == untouched<typename Db::record *>)
        return {status, "untouched"};
    std::string text;
    for (std::uint32_t i = 0; i < count; ++i) {
        text += words<Db>(records[i]) + "; ";
        std::free(records[i]);
    }
    std::free(records);
    return {status, text};
}

outcome handle(std::uint32_t (*operation)(std::uint32_t, kvs_rec_hdl **), std::uint32_t key)
{
    auto *found = untouched<kvs_rec_hdl>;
    const std::uint32_t status = operation(key, &found);
    if (found == untouched<kvs_rec_hdl>)
        return {status, "untouched"};
    const std::string text = std::to_string(found[0] >> 12);
    std::free(found);
    return {status, text};
}

template <class Record>
outcome insert(std::uint32_t (*operation)(const Record *, kvs_rec_hdl *),
               std::initializer_list<std::uint32_t> words)
{
    kvs_rec_hdl handle = 1;
    const std::vector<std::uint32_t> block(words);
    const std::uint32_t status = operation(reinterpret_cast<const Record *>(block.data()), &handle);
    return {status, handle == 1 ? "untouched" : handle == UINT64_MAX ? "all ones" : "handle"};
}

outcome plain(std::uint32_t status) { return {status, ""}; }

// ---- scenarios ----

struct scenario {
    const char *name;
    std::function<outcome()> run;
    std::function<void()> prepare = [] {};
};

void usual_store()
{
    reset();
    put("vs_objects", {A, 2, 0, 5, 6, 3, 1, 2, 3});
    put("vs_objects", {B, 1, 1, 0, 0, 0});
    put("vs_clients_info", {A, 2, 4, 400, 0, 0, 0, 5, 500, 0xAB, 0, 0});
    put("vs_clientobjectsreg", {J, 2, A, B});
    put("vs_clientobjectsreg", {K, 0});
    g_vs_kvs_dbs_initialized = 1;
}

outcome populate(std::uint32_t first_id = 0x40)
{
    const vs_object_sel_entry elements[] = {{first_id, 2, {}}, {0x41, 0, {}}};
    const std::uint32_t versions[] = {1, 2};
    const std::uint32_t *const arrays[] = {versions, nullptr};
    const std::uint32_t counts[] = {2, 0};
    return plain(vs_kvs_insert_vs_objects(elements, 2, arrays, counts));
}

outcome bulk_select(std::uint32_t last)
{
    const vs_object_sel_entry elements[] = {{A, 3, {}}, {unknown, 4, {}}, {last, 5, {}}};
    return plain(vs_kvs_update_vs_objects(elements, 3));
}

const auto get_object = [](std::uint32_t id) {
    return read<vs_kvs::objects::database>(vs_kvs_get_vs_object_rec, id);
};
const auto get_clients = [](std::uint32_t id) {
    return read<vs_kvs::clients::database>(vs_kvs_get_clients_info_rec, id);
};
const auto get_registration = [](std::uint32_t jid) {
    return read<vs_kvs::registrations::database>(vs_kvs_get_client_objects_reg_rec, jid);
};
const auto list_objects = [] {
    return list<vs_kvs::objects::database>(vs_kvs_get_vs_objects_all_recs);
};
const auto list_clients = [] {
    return list<vs_kvs::clients::database>(vs_kvs_get_clients_info_all_recs);
};
const auto list_registrations = [] {
    return list<vs_kvs::registrations::database>(vs_kvs_get_client_objects_reg_all_recs);
};
const auto insert_object = [](std::initializer_list<std::uint32_t> words) {
    return insert<vs_objects_kvs_rec>(vs_kvs_insert_vs_object_rec, words);
};
const auto insert_clients = [](std::initializer_list<std::uint32_t> words) {
    return insert<vs_clients_info_kvs_rec>(vs_kvs_insert_clients_info_rec, words);
};
const auto insert_registration = [](std::initializer_list<std::uint32_t> words) {
    return insert<vs_client_objects_reg_kvs_rec>(vs_kvs_insert_client_objects_reg_rec, words);
};

// One regular run of every operation that reaches the platform; the fault loops take them all.
const scenario regular[] = {
    {"initialize", [] { return plain(vs_kvs_initialize(0x700000ABC)); },
     [] { g_vs_kvs_dbs_initialized = 0; }},
    {"db_init", [] { return plain(vs_kvs_db_init(5, VS_KVS_DB_CLIENTS_INFO)); }},
    {"debug_init", [] { return plain(vs_kvs_debug_init(5)); }},
    {"ringlog_init", [] { return plain(vs_kvs_ringlog_init(-3)); }},
    {"insert object",
     [] {
         return insert_object({unknown, 3, 1, 2, 3, 2, 8, 9, 0xDEAD});
     }},
    {"get object", [] { return get_object(A); }},
    {"get object handle", [] { return handle(vs_kvs_get_vs_object_rec_hdl, A); }},
    {"list objects", list_objects},
    {"select", [] { return plain(vs_kvs_update_vs_object_selected_version(A, 3)); }},
    {"populate", [] { return populate(); }},
    {"bulk select", [] { return bulk_select(B); }},
    {"delete object", [] { return plain(vs_kvs_delete_vs_object(A)); }},
    {"insert clients",
     [] {
         return insert_clients({B, 1, 3, 300, 1, 2, 3, 0xDEAD});
     }},
    {"get clients", [] { return get_clients(A); }},
    {"get clients of an object without", [] { return get_clients(B); }},
    {"get clients handle", [] { return handle(vs_kvs_get_clients_info_rec_hdl, A); }},
    {"list clients", list_clients},
    {"add client", [] { return plain(vs_kvs_add_new_client_info(A, &new_client)); }},
    {"update client", [] { return plain(vs_kvs_update_client_info(A, &same_jid)); }},
    {"delete clients", [] { return plain(vs_kvs_delete_clients_info_rec(A)); }},
    {"insert registration",
     [] {
         return insert_registration({9, 2, A, B, 0xDEAD});
     }},
    {"get registration", [] { return get_registration(J); }},
    {"get registration handle", [] { return handle(vs_kvs_get_client_objects_reg_rec_hdl, J); }},
    {"list registrations", list_registrations},
    {"add object", [] { return plain(vs_kvs_add_new_client_objects_reg_object(J, unknown)); }},
};

// Replaces every record of a database just before the n-th call of the given name.
auto before_nth(const char *call, int n, std::function<void()> change)
{
    return [=, seen = 0](const char *name, int) mutable {
        if (std::strcmp(name, call) == 0 && ++seen == n)
            change();
    };
}

auto replaced(const char *db, std::initializer_list<std::uint32_t> words,
              std::size_t length = SIZE_MAX)
{
    return [db,
            words = bytes(reinterpret_cast<const std::uint8_t *>(std::data(words)),
                          reinterpret_cast<const std::uint8_t *>(std::data(words) + words.size())),
            length] {
        bytes data = words;
        data.resize(std::min(length, data.size()));
        now.store[db][0].data = data;
    };
}

auto twice(const char *db)
{
    return [db] { now.store[db].push_back({0x9999, now.store[db][0].data}); };
}

auto emptied(const char *db)
{
    return [db] { now.store[db].clear(); };
}

const scenario special[] = {
    // arguments, in the order of the checks
    {"insert object: null", [] { return plain(vs_kvs_insert_vs_object_rec(nullptr, nullptr)); }},
    {"insert object: id 0",
     [] {
         return insert_object({0, 1, 0, 0, 0, 0});
     }},
    {"insert object: no versions",
     [] {
         return insert_object({unknown, 0, 0, 0, 0, 0, 7});
     }},
    {"insert object: tolerated",
     [] {
         return insert_object({A, 2, 0, 5, 6, 0});
     },
     [] { now.insert_tolerated = true; }},
    {"insert object: tolerated without a handle",
     [] {
         return insert_object({A, 2, 0, 5, 6, 0});
     },
     [] { now.insert_tolerated = now.insert_without_handle = true; }},
    {"insert object: too many versions",
     [] {
         return insert_object({A, 2, 0, 5, 6, 0x40000000});
     }},
    {"get object: null before id", [] { return plain(vs_kvs_get_vs_object_rec(0, nullptr)); }},
    {"get object: id 0", [] { return get_object(0); }},
    {"get object: unknown", [] { return get_object(unknown); }},
    {"get object: two", [] { return get_object(A); }, twice("vs_objects")},
    {"get object: two, and the find fails", [] { return get_object(A); },
     [] {
         twice("vs_objects")();
         now.fail_call = 2, now.array_on_failure = true;
     }},
    {"get object: empty record", [] { return get_object(A); }, [] { now.size = 0; }},
    {"get object: nothing read", [] { return get_object(A); }, [] { now.read_length = 0; }},
    {"get object: short fixed part", [] { return get_object(A); },
     replaced("vs_objects", {A, 1, 0, 0, 0, 0}, 20)},
    {"get object: fewer versions than counted", [] { return get_object(A); },
     replaced("vs_objects", {A, 1, 0, 0, 0, 3, 1, 2})},
    {"get object: count beyond 32 bits", [] { return get_object(A); },
     replaced("vs_objects", {A, 1, 0, 0, 0, 0xFFFFFFFF, 1, 2})},
    {"get object: longer than counted", [] { return get_object(A); },
     replaced("vs_objects", {A, 1, 0, 0, 0, 1, 1, 2})},
    {"get object: size says more than is read", [] { return get_object(A); },
     [] { now.size = 64; }},
    {"get object: count without an array", [] { return get_object(A); },
     [] { now.arrays_missing = true; }},
    {"get object: lookup without a handle", [] { return get_object(A); },
     [] { now.handle_unset = true; }},
    {"select: first lookup without a handle",
     [] { return plain(vs_kvs_update_vs_object_selected_version(A, 1)); },
     [] {
         now.handle_unset = true;
         now.before = before_nth("kvs_lookup_db_handle", 2, [] { now.handle_unset = false; });
     }},
    {"get object handle: null before id",
     [] { return plain(vs_kvs_get_vs_object_rec_hdl(0, nullptr)); }},
    {"get object handle: id 0", [] { return handle(vs_kvs_get_vs_object_rec_hdl, 0); }},
    {"get object handle: two", [] { return handle(vs_kvs_get_vs_object_rec_hdl, A); },
     twice("vs_objects")},
    {"list objects: no count",
     [] { return plain(vs_kvs_get_vs_objects_all_recs(nullptr, nullptr)); }},
    {"list objects: no array",
     [] {
         std::uint32_t n;
         return plain(vs_kvs_get_vs_objects_all_recs(&n, nullptr));
     }},
    {"list objects: empty", list_objects, emptied("vs_objects")},
    {"list objects: empty record", list_objects, [] { now.size = 0; }},
    {"list objects: empty record that cannot be read", list_objects,
     [] { now.size = 0, now.fail_call = 4; }},
    {"list objects: short record", list_objects, replaced("vs_objects", {A, 1, 0, 0, 0, 3, 1, 2})},
    {"list objects: count without an array", list_objects, [] { now.arrays_missing = true; }},
    {"list objects: second record gone", list_objects,
     [] {
         now.before =
             before_nth("kvs_get_object_size", 2, [] { now.store["vs_objects"].pop_back(); });
     }},
    {"select: id 0", [] { return plain(vs_kvs_update_vs_object_selected_version(0, 1)); }},
    {"select: unknown", [] { return plain(vs_kvs_update_vs_object_selected_version(unknown, 1)); }},
    {"select: empty record", [] { return plain(vs_kvs_update_vs_object_selected_version(A, 1)); },
     [] { now.size = 0; }},
    {"select: empty when read back",
     [] { return plain(vs_kvs_update_vs_object_selected_version(A, 1)); },
     [] { now.before = before_nth("kvs_get_object_size", 2, [] { now.size = 0; }); }},
    {"select: another version read back",
     [] { return plain(vs_kvs_update_vs_object_selected_version(A, 3)); },
     [] {
         now.before =
             before_nth("kvs_get_object_size", 2, replaced("vs_objects", {A, 9, 0, 0, 0, 0}));
     }},
    {"populate: not initialised", [] { return populate(); }, [] { g_vs_kvs_dbs_initialized = 0; }},
    {"populate: nothing",
     [] { return plain(vs_kvs_insert_vs_objects(nullptr, 0, nullptr, nullptr)); }},
    {"populate: no elements",
     [] { return plain(vs_kvs_insert_vs_objects(nullptr, 1, nullptr, nullptr)); }},
    {"populate: no arrays",
     [] {
         const vs_object_sel_entry e{};
         return plain(vs_kvs_insert_vs_objects(&e, 1, nullptr, nullptr));
     }},
    {"populate: no counts",
     [] {
         const vs_object_sel_entry e{};
         const std::uint32_t *const none = nullptr;
         return plain(vs_kvs_insert_vs_objects(&e, 1, &none, nullptr));
     }},
    {"populate: id 0", [] { return populate(0); }},
    {"populate: too many versions",
     [] {
         const vs_object_sel_entry e{A, 1, {}};
         const std::uint32_t *const none = nullptr;
         const std::uint32_t count = 0x40000000;
         return plain(vs_kvs_insert_vs_objects(&e, 1, &none, &count));
     }},
    {"bulk select: not initialised", [] { return bulk_select(B); },
     [] { g_vs_kvs_dbs_initialized = 0; }},
    {"bulk select: nothing", [] { return plain(vs_kvs_update_vs_objects(nullptr, 0)); }},
    {"bulk select: no elements", [] { return plain(vs_kvs_update_vs_objects(nullptr, 1)); }},
    {"bulk select: id 0", [] { return bulk_select(0); }},
    {"delete object: id 0", [] { return plain(vs_kvs_delete_vs_object(0)); }},
    {"delete object: unknown", [] { return plain(vs_kvs_delete_vs_object(unknown)); }},
    {"insert clients: null",
     [] { return plain(vs_kvs_insert_clients_info_rec(nullptr, nullptr)); }},
    {"insert clients: id 0, none",
     [] {
         return insert_clients({0, 0});
     }},
    {"insert clients: tolerated",
     [] {
         return insert_clients({A, 0});
     },
     [] { now.insert_tolerated = true; }},
    {"insert clients: too many",
     [] {
         return insert_clients({A, 0x10000000});
     }},
    {"get clients: null before id", [] { return plain(vs_kvs_get_clients_info_rec(0, nullptr)); }},
    {"get clients: id 0", [] { return get_clients(0); }},
    {"get clients: unknown object", [] { return get_clients(unknown); }},
    {"get clients: object's record empty", [] { return get_clients(B); }, [] { now.size = 0; }},
    {"get clients: two", [] { return get_clients(A); }, twice("vs_clients_info")},
    {"get clients: empty record", [] { return get_clients(A); }, [] { now.size = 0; }},
    {"get clients: fewer than counted", [] { return get_clients(A); },
     replaced("vs_clients_info", {A, 2, 4, 400, 0, 0, 0, 5, 500})},
    {"get clients handle: null before id",
     [] { return plain(vs_kvs_get_clients_info_rec_hdl(0, nullptr)); }},
    {"get clients handle: id 0", [] { return handle(vs_kvs_get_clients_info_rec_hdl, 0); }},
    {"get clients handle: two", [] { return handle(vs_kvs_get_clients_info_rec_hdl, A); },
     twice("vs_clients_info")},
    {"list clients: no count",
     [] { return plain(vs_kvs_get_clients_info_all_recs(nullptr, nullptr)); }},
    {"list clients: no array",
     [] {
         std::uint32_t n;
         return plain(vs_kvs_get_clients_info_all_recs(&n, nullptr));
     }},
    {"list clients: empty", list_clients, emptied("vs_clients_info")},
    {"list clients: empty record", list_clients, [] { now.size = 0; }},
    {"add client: null before id", [] { return plain(vs_kvs_add_new_client_info(0, nullptr)); }},
    {"add client: id 0", [] { return plain(vs_kvs_add_new_client_info(0, &new_client)); }},
    {"add client: no list", [] { return plain(vs_kvs_add_new_client_info(B, &new_client)); }},
    {"add client: listed already", [] { return plain(vs_kvs_add_new_client_info(A, &same_jid)); }},
    {"add client: to an empty list",
     [] { return plain(vs_kvs_add_new_client_info(A, &new_client)); },
     replaced("vs_clients_info", {A, 0})},
    {"add client: empty record", [] { return plain(vs_kvs_add_new_client_info(A, &new_client)); },
     [] { now.size = 0; }},
    {"add client: another jid read back",
     [] { return plain(vs_kvs_add_new_client_info(A, &new_client)); },
     [] {
         now.before = before_nth(
             "kvs_get_object_size", 2,
             replaced("vs_clients_info", {A, 3, 4, 4, 0, 0, 0, 5, 5, 0, 0, 0, 3, 9, 0, 0, 0}));
     }},
    {"add client: jid 0, list shortened",
     [] {
         const vs_client_info_entry nobody{};
         return plain(vs_kvs_add_new_client_info(A, &nobody));
     },
     [] {
         now.before = before_nth("kvs_get_object_size", 2, replaced("vs_clients_info", {A, 0}));
     }},
    {"add client: empty when read back",
     [] { return plain(vs_kvs_add_new_client_info(A, &new_client)); },
     [] { now.before = before_nth("kvs_get_object_size", 2, [] { now.size = 0; }); }},
    {"update client: null before id", [] { return plain(vs_kvs_update_client_info(0, nullptr)); }},
    {"update client: id 0", [] { return plain(vs_kvs_update_client_info(0, &same_jid)); }},
    {"update client: not listed", [] { return plain(vs_kvs_update_client_info(A, &new_client)); }},
    {"update client: empty record", [] { return plain(vs_kvs_update_client_info(A, &same_jid)); },
     [] { now.size = 0; }},
    {"update client: first of two", [] { return plain(vs_kvs_update_client_info(A, &same_jid)); },
     replaced("vs_clients_info", {A, 2, 5, 1, 0, 0, 0, 5, 2, 0, 0, 0})},
    {"update client: record grown meanwhile",
     [] { return plain(vs_kvs_update_client_info(A, &same_jid)); },
     [] {
         now.before = before_nth(
             "kvs_get_object_size", 2,
             replaced("vs_clients_info", {A, 3, 4, 4, 0, 0, 0, 5, 5, 0, 0, 0, 6, 6, 0, 0, 0}));
     }},
    {"update client: another pid read back",
     [] { return plain(vs_kvs_update_client_info(A, &same_jid)); },
     [] {
         now.before = before_nth("kvs_get_object_size", 3,
                                 replaced("vs_clients_info", {A, 2, 4, 4, 0, 0, 0, 5, 8, 0, 0, 0}));
     }},
    {"update client: list shortened", [] { return plain(vs_kvs_update_client_info(A, &same_jid)); },
     [] {
         now.before = before_nth("kvs_get_object_size", 3,
                                 replaced("vs_clients_info", {A, 1, 4, 4, 0, 0, 0}));
     }},
    {"update client: empty when read back",
     [] { return plain(vs_kvs_update_client_info(A, &same_jid)); },
     [] { now.before = before_nth("kvs_get_object_size", 3, [] { now.size = 0; }); }},
    {"delete clients: id 0", [] { return plain(vs_kvs_delete_clients_info_rec(0)); }},
    {"delete clients: none", [] { return plain(vs_kvs_delete_clients_info_rec(B)); }},
    {"delete clients: two", [] { return plain(vs_kvs_delete_clients_info_rec(A)); },
     twice("vs_clients_info")},
    {"insert registration: null",
     [] { return plain(vs_kvs_insert_client_objects_reg_rec(nullptr, nullptr)); }},
    {"insert registration: jid 0, none",
     [] {
         return insert_registration({0, 0});
     }},
    {"insert registration: too many",
     [] {
         return insert_registration({9, 0x3FFFFFFE});
     }},
    {"get registration: null before jid",
     [] { return plain(vs_kvs_get_client_objects_reg_rec(0, nullptr)); }},
    {"get registration: jid 0", [] { return get_registration(0); }},
    {"get registration: none", [] { return get_registration(9); }},
    {"get registration: two", [] { return get_registration(J); }, twice("vs_clientobjectsreg")},
    {"get registration: empty record", [] { return get_registration(J); }, [] { now.size = 0; }},
    {"get registration: short", [] { return get_registration(J); },
     replaced("vs_clientobjectsreg", {J, 2, A, B}, 15)},
    {"get registration handle: null before jid",
     [] { return plain(vs_kvs_get_client_objects_reg_rec_hdl(0, nullptr)); }},
    {"get registration handle: jid 0",
     [] { return handle(vs_kvs_get_client_objects_reg_rec_hdl, 0); }},
    {"get registration handle: none",
     [] { return handle(vs_kvs_get_client_objects_reg_rec_hdl, 9); }},
    {"get registration handle: two",
     [] { return handle(vs_kvs_get_client_objects_reg_rec_hdl, J); }, twice("vs_clientobjectsreg")},
    {"list registrations: no count",
     [] { return plain(vs_kvs_get_client_objects_reg_all_recs(nullptr, nullptr)); }},
    {"list registrations: no array",
     [] {
         std::uint32_t n;
         return plain(vs_kvs_get_client_objects_reg_all_recs(&n, nullptr));
     }},
    {"list registrations: empty", list_registrations, emptied("vs_clientobjectsreg")},
    {"list registrations: empty record", list_registrations, [] { now.size = 0; }},
    {"add object: id 0 before jid 0",
     [] { return plain(vs_kvs_add_new_client_objects_reg_object(0, 0)); }},
    {"add object: jid 0", [] { return plain(vs_kvs_add_new_client_objects_reg_object(0, A)); }},
    {"add object: no registration",
     [] { return plain(vs_kvs_add_new_client_objects_reg_object(9, A)); }},
    {"add object: last one again",
     [] { return plain(vs_kvs_add_new_client_objects_reg_object(J, B)); }},
    {"add object: to an empty registration",
     [] { return plain(vs_kvs_add_new_client_objects_reg_object(K, B)); }},
    {"add object: empty record",
     [] { return plain(vs_kvs_add_new_client_objects_reg_object(J, B)); }, [] { now.size = 0; }},
    {"add object: empty record, filled when read back",
     [] { return plain(vs_kvs_add_new_client_objects_reg_object(J, A)); },
     [] {
         now.size = 0,
         now.before = before_nth("kvs_write_object", 1, [] { now.size = UINT32_MAX; });
     }},
    {"add object: another id read back",
     [] { return plain(vs_kvs_add_new_client_objects_reg_object(J, unknown)); },
     [] {
         now.before =
             before_nth("kvs_get_object_size", 2, replaced("vs_clientobjectsreg", {J, 3, A, B, A}));
     }},
    {"add object: registration shortened",
     [] { return plain(vs_kvs_add_new_client_objects_reg_object(J, unknown)); },
     [] {
         now.before =
             before_nth("kvs_get_object_size", 2, replaced("vs_clientobjectsreg", {J, 1, A}));
     }},
    // the frame
    {"db_init: unknown, set up", [] { return plain(vs_kvs_db_init(5, 3)); },
     [] { g_vs_kvs_debug_initialized = 1; }},
    {"db_init: unknown, not set up", [] { return plain(vs_kvs_db_init(5, 3)); }},
    {"db_init: unknown, set-up refused", [] { return plain(vs_kvs_db_init(5, 3)); },
     [] { now.fail_call = 5; }},
    {"db_init: open, set up", [] { return plain(vs_kvs_db_init(5, 0)); },
     [] { g_vs_kvs_debug_initialized = 1, g_kvs_hdl_vs_objects_db = 1; }},
    {"db_init: open, not set up", [] { return plain(vs_kvs_db_init(5, 0)); },
     [] { g_kvs_hdl_vs_objects_db = 1; }},
    {"db_init: no handle given", [] { return plain(vs_kvs_db_init(5, 2)); },
     [] { now.handle_unset = true; }},
    {"initialize: two failures", [] { return plain(vs_kvs_initialize(5)); },
     [] { now.fail_call = 6, now.calls_to_fail = 2; }},
    {"initialize: three failures", [] { return plain(vs_kvs_initialize(5)); },
     [] { now.fail_call = 7, now.calls_to_fail = 3, g_vs_kvs_dbs_initialized = 0; }},
    {"initialize: again", [] { return plain(vs_kvs_initialize(5)); },
     [] { g_vs_kvs_debug_initialized = 1, g_kvs_hdl_vs_objects_db = 1; }},
    {"debug_init: not a job",
     [] { return plain(vs_kvs_ringlog_init(1)), plain(vs_kvs_debug_init(5)); },
     [] {
         now.job_id = 0;
         now.before = [](const char *call, int) {
             if (std::strcmp(call, "verbose_init") == 0)
                 now.log.push_back(std::string("name ") + g_vs_kvs_proc_name);
         };
     }},
    {"debug_init: not a job, nameless", [] { return plain(vs_kvs_debug_init(5)); },
     [] { now.job_id = 0, now.fail_call = 3; }},
    {"debug_init: name of 64", [] { return plain(vs_kvs_debug_init(5)); },
     [] { now.job_name = std::string(64, 'n'); }},
    {"debug_init: name of 65", [] { return plain(vs_kvs_debug_init(5)); },
     [] { now.job_name = "a/" + std::string(65, 'n'); }},
    {"debug_init: mutex refused", [] { return plain(vs_kvs_debug_init(5)); },
     [] { now.trylock_error = EINVAL; }},
    {"debug_init: mutex busy, then refused", [] { return plain(vs_kvs_debug_init(5)); },
     [] { now.trylock_error = EBUSY, now.lock_error = EDEADLK; }},
    {"load hook", [] { return plain(vs_kvs_dll_main(0, 0, 0)); }},
    {"unload hook", [] { return plain(vs_kvs_dll_main(0, 1, 0)); }},
};

// ---- the log, against the expected one ----

class report_book {
public:
    void add(const std::string &name, const outcome &result, std::size_t from = 0)
    {
        text_ << "== " << name << ": " << std::hex << std::uppercase << "0x" << result.status << ' '
              << result.handed_out << '\n';
        for (std::size_t i = from; i < now.log.size(); ++i)
            text_ << without_pid(now.log[i]) << '\n';
    }

    // Compares with the expected log, up to the given heading and from it on.
    void check(const char *part)
    {
        const std::string path = std::string(EXPECTED_DIR) + "/expected_" + part + ".txt";
        if (std::getenv("ACCEPT"))
            std::ofstream(path) << text_.str();
        std::ifstream file(path);
        std::stringstream expected;
        expected << file.rdbuf();
        std::istringstream got(text_.str());
        std::string heading, want, have;
        while (std::getline(got, have)) {
            if (have.starts_with("=="))
                heading = have;
            ASSERT_TRUE(std::getline(expected, want)) << "more than expected: " << have;
            ASSERT_EQ(want, have) << "in " << heading;
        }
        EXPECT_FALSE(std::getline(expected, want)) << "less than expected: " << want;
    }

private:
    std::ostringstream text_;
    static std::string without_pid(std::string line)
    {
        const std::string pid = "/" + std::to_string(getpid()) + "/";
        const std::size_t at = line.find(pid);
        return at == std::string::npos ? line : line.replace(at, pid.size(), "/PID/");
    }
};

// What the process knows of its own set-up; the log tells when that changes.
std::string state()
{
    return "state " + std::to_string(g_vs_kvs_debug_initialized) + ' ' +
           std::to_string(g_vs_kvs_dbs_initialized) + ' ' + std::to_string(vs_kvs_is_populated());
}

outcome run(const scenario &s)
{
    armed while_it_runs;
    const std::string before = state();
    const outcome result = s.run();
    if (state() != before)
        now.log.push_back(state());
    return result;
}

void expect_clean(const char *name)
{
    // Each debug set-up leaves the process's name in place.
    const auto kept = std::count(now.log.begin(), now.log.end(), "call jobctl_get_job_id");
    EXPECT_EQ(live_blocks(), static_cast<std::size_t>(kept)) << name << " leaks";
    EXPECT_EQ(now.problems, std::vector<std::string>{}) << name;
}

TEST(library, reports_what_it_does)
{
    report_book book;
    for (const auto &table : {std::span<const scenario>(regular), {special}})
        for (const scenario &s : table) {
            usual_store();
            s.prepare();
            book.add(s.name, run(s));
            expect_clean(s.name);
        }
    book.check("reports");
}

// The status that a failure leads to, by the name of what failed.
std::uint32_t expected_status(const std::string &operation, const std::string &failed, bool is_api)
{
    if (failed.starts_with("jobctl") || is_api)
        return 0;
    if (failed == "malloc" || failed == "calloc" || failed == "realloc")
        return operation == "initialize" ? 0 : VS_FAULT_NO_MEMORY;
    if (operation == "initialize")
        return 0; // the second attempt succeeds
    return failed == "kvs_lookup_db_handle" ? VS_FAULT_KVS_DB_LOOKUP : now.fail_status;
}

// The stores that a regular run passes through, by the number of changes made.
std::vector<databases> stages(const scenario &s)
{
    usual_store();
    s.prepare();
    std::vector<databases> seen{now.store};
    now.before = [&](const char *, int) {
        if (seen.size() == static_cast<std::size_t>(now.changes))
            seen.push_back(now.store);
    };
    run(s);
    seen.push_back(now.store);
    return seen;
}

// Fails the n-th call, or the n-th allocation, for every n until a run meets no failure.
TEST(library, survives_every_single_failure)
{
    report_book book;
    int faults = 0;
    for (const scenario &s : regular) {
        const std::vector<databases> seen = stages(s);
        const std::uint32_t regular_status = (usual_store(), s.prepare(), run(s).status);
        for (const bool of_calls : {true, false}) {
            for (int n = 1;; ++n) {
                usual_store();
                s.prepare();
                (of_calls ? now.fail_call : now.fail_allocation) = n;
                now.array_on_failure = true;
                const outcome result = run(s);
                if (now.failed.empty())
                    break;
                ++faults;
                const bool is_api = now.failed == "ringlog_init2" &&
                                    now.log[now.failed_at].find("/api ") != std::string::npos;
                const std::string name =
                    std::string(s.name) + ", " + now.failed + " " + std::to_string(n) + " fails";
                const std::uint32_t status = expected_status(s.name, now.failed, is_api);
                EXPECT_EQ(result.status, status != 0 ? status : regular_status) << name;
                if (result.status != 0) {
                    EXPECT_TRUE(result.handed_out.empty() || result.handed_out == "untouched")
                        << name;
                }
                const auto changes = static_cast<std::size_t>(now.changes);
                ASSERT_LT(changes, seen.size()) << name;
                EXPECT_TRUE(now.store == seen[changes]) << name << " leaves another store";
                expect_clean(name.c_str());
                book.add(name, result, now.failed_at);
            }
        }
    }
    EXPECT_GT(faults, 150);
    book.check("failures");
}

// A growth that 32 bits cannot hold is refused before anything is allocated or written.
TEST(library, refuses_to_outgrow_a_record)
{
    usual_store();
    vs_kvs::block<vs_client_objects_reg_kvs_rec> record(
        static_cast<vs_client_objects_reg_kvs_rec *>(std::calloc(1, 8)));
    record->vs_count = 0x3FFFFFFD;
    const std::uint32_t rc =
        vs_kvs::grow<vs_kvs::registrations::database, vs_kvs::registrations::add_object>(record);
    EXPECT_EQ(rc, VS_FAULT_NO_MEMORY);
    EXPECT_EQ(record->vs_count, 0x3FFFFFFDu);
    EXPECT_EQ(now.log[1], "trace errors 0x1030001026b "
                          "\"vs_kvs_add_new_client_objects_reg_object\" 4294967295 12");
}

TEST(library, key_setters_leave_the_key_alone)
{
    for (auto *set : {set_vs_objects_kvs_db_pk_attr, set_vs_clients_info_kvs_db_pk_attr,
                      set_vs_client_objects_reg_kvs_db_pk_attr}) {
        const int key = 0;
        kvs_key_attr attr{{1, 2, 3}, 4, 5, &key, 6};
        set(&attr, 99);
        EXPECT_EQ(attr.key_flags[0] | attr.key_flags[1] | attr.key_flags[2], 0);
        EXPECT_EQ(attr.key_len, 4u);
        EXPECT_EQ(attr.key_p, &key);
        EXPECT_EQ(attr.key_offset, 0u);
    }
}

} // namespace
