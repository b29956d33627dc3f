// The library against the scripted platform.
//
// Every scenario prepares a store, runs one operation and leaves a log of all that the platform
// received. The logs of the regular runs and of the special cases, and what each trouble at each
// point of a regular run changes in its log, are compared as a whole with expected_reports.txt and
// expected_failures.txt; run with ACCEPT=1 to write them anew, and review the difference.
#include "core/state.h"
#include "core/update.h"
#include "startup/messages.h"
#include "tests/scripted_platform.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <set>
#include <span>
#include <sstream>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

using namespace scripted;

namespace {

constexpr uint32_t A = 0x10, B = 0x20, unknown = 0x30;
constexpr uint32_t J = 7, K = 8;

// ---- operations with their arguments, to be called later ----

struct outcome {
    uint32_t status;
    std::string handed_out; // in words, and released; "untouched" when nothing was
};
using call = std::function<outcome()>;
using change = std::function<void()>;

template <class... Parameters>
call plain(uint32_t (*operation)(Parameters...), std::type_identity_t<Parameters>... arguments)
{
    return [=] { return outcome{operation(arguments...), ""}; };
}

// The content of a block that was handed out, which is then freed.
std::string words(void *block)
{
    if (!block)
        return "null";
    std::ostringstream text;
    for (const char *gap = ""; const uint32_t word : content(block))
        text << std::exchange(gap, " ") << word;
    free(block);
    return text.str();
}

template <class Block>
Block *const untouched = reinterpret_cast<Block *>(uintptr_t{0x11});

template <class Block>
call get(uint32_t (*operation)(uint32_t, Block **), uint32_t key)
{
    return [=] {
        auto *block = untouched<Block>;
        const uint32_t status = operation(key, &block);
        return outcome{status, block == untouched<Block> ? "untouched" : words(block)};
    };
}

template <class Record>
call list(uint32_t (*operation)(uint32_t *, Record ***))
{
    return [=] {
        uint32_t count = 77;
        auto **records = untouched<Record *>;
        const uint32_t status = operation(&count, &records);
        if (count == 77 && records == untouched<Record *>)
            return outcome{status, "untouched"};
        std::string text;
        for (uint32_t i = 0; i < count; ++i)
            text += words(records[i]) + "; ";
        free(records);
        return outcome{status, text};
    };
}

template <class Record>
call insert(uint32_t (*operation)(const Record *, kvs_rec_hdl *),
            const std::vector<uint32_t> &words)
{
    return [=] {
        kvs_rec_hdl handle = 1;
        const auto *const record = reinterpret_cast<const Record *>(words.data());
        const uint32_t status = operation(record, &handle);
        return outcome{status, handle == 1            ? "untouched"
                               : handle == UINT64_MAX ? "all ones"
                                                      : "handle"};
    };
}

// ---- what the operations are given ----

constexpr vs_client_info_entry new_client{9, 900, {1, 2, 3}}, same_jid{5, 501, {9}}, no_client{};
constexpr vs_object_sel_entry fresh[] = {{0x40, 2, {}}, {0x41, 0, {}}},
                              stored[] = {{A, 3, {}}, {unknown, 4, {}}, {B, 5, {}}},
                              nameless[] = {{A, 3, {}}, {0, 5, {}}};
constexpr uint32_t versions[] = {1, 2}, version_counts[] = {2, 0}, too_many = 0x40000000;
constexpr const uint32_t *version_arrays[] = {versions, nullptr};
uint32_t ignored;

const call list_objects = list(vs_kvs_get_vs_objects_all_recs);
const call populate = plain(vs_kvs_insert_vs_objects, fresh, 2, version_arrays, version_counts);
const call bulk_select = plain(vs_kvs_update_vs_objects, stored, 3);
const call add_client = plain(vs_kvs_add_new_client_info, A, &new_client);
const call update_client = plain(vs_kvs_update_client_info, A, &same_jid);
const call debug_init = plain(vs_kvs_debug_init, 5);
const call initialize = plain(vs_kvs_initialize, 5);

// ---- scenarios ----

struct scenario {
    const char *name;
    call run;
    change prepare = [] {};
};

void start(const scenario &s)
{
    reset();
    put("vs_objects", {A, 2, 0, 5, 6, 3, 1, 2, 3});
    put("vs_objects", {B, 1, 1, 0, 0, 0});
    put("vs_clients_info", {A, 2, 4, 400, 0, 0, 0, 5, 500, 0xAB, 0, 0});
    put("vs_clientobjectsreg", {J, 2, A, B});
    put("vs_clientobjectsreg", {K, 0});
    g_vs_kvs_dbs_initialized = 1;
    s.prepare();
}

// One regular run of every operation that reaches the platform; the loop below injects faults into
// them all.
const scenario regular[] = {
    {"initialize", plain(vs_kvs_initialize, 0x700000ABC), [] { g_vs_kvs_dbs_initialized = 0; }},
    {"db_init", plain(vs_kvs_db_init, 5, VS_KVS_DB_CLIENTS_INFO)},
    {"debug_init", debug_init},
    {"ringlog_init", plain(vs_kvs_ringlog_init, -3)},
    {"insert object", insert(vs_kvs_insert_vs_object_rec, {unknown, 3, 1, 2, 3, 2, 8, 9, 0xDEAD})},
    {"get object", get(vs_kvs_get_vs_object_rec, A)},
    {"get object handle", get(vs_kvs_get_vs_object_rec_hdl, A)},
    {"list objects", list_objects},
    {"select", plain(vs_kvs_update_vs_object_selected_version, A, 3)},
    {"populate", populate},
    {"bulk select", bulk_select},
    {"delete object", plain(vs_kvs_delete_vs_object, A)},
    {"insert clients", insert(vs_kvs_insert_clients_info_rec, {B, 1, 3, 300, 1, 2, 3, 0xDEAD})},
    {"get clients", get(vs_kvs_get_clients_info_rec, A)},
    {"get clients of an object without", get(vs_kvs_get_clients_info_rec, B)},
    {"get clients handle", get(vs_kvs_get_clients_info_rec_hdl, A)},
    {"list clients", list(vs_kvs_get_clients_info_all_recs)},
    {"add client", add_client},
    {"update client", update_client},
    {"delete clients", plain(vs_kvs_delete_clients_info_rec, A)},
    {"insert registration", insert(vs_kvs_insert_client_objects_reg_rec, {9, 2, A, B, 0xDEAD})},
    {"get registration", get(vs_kvs_get_client_objects_reg_rec, J)},
    {"get registration handle", get(vs_kvs_get_client_objects_reg_rec_hdl, J)},
    {"list registrations", list(vs_kvs_get_client_objects_reg_all_recs)},
    {"add object", plain(vs_kvs_add_new_client_objects_reg_object, J, unknown)},
};

// Makes a change just before the n-th call of the given name.
change before_nth(const std::string &name, int n, const change &make)
{
    return [=] {
        now.before = [=, seen = 0](const std::string &called, int) mutable {
            if (called == name && ++seen == n)
                make();
        };
    };
}

// Another first record in a database.
change replaced(const char *db, const std::vector<uint32_t> &words)
{
    return [=] {
        put(db, words);
        now.store[db].front().data = now.store[db].back().data;
        now.store[db].pop_back();
    };
}

const change no_handle_at_first = [] {
    before_nth("kvs_lookup_db_handle", 2, [] { now.handle_unset = false; })();
    now.handle_unset = true;
};
const change empty_until_written = [] {
    before_nth("kvs_write_object 0", 1, [] { now.size = UINT32_MAX; })();
    now.size = 0;
};

const scenario special[] = {
    // arguments, in the order of the checks
    {"insert object: null", plain(vs_kvs_insert_vs_object_rec, nullptr, nullptr)},
    {"insert object: id 0", insert(vs_kvs_insert_vs_object_rec, {0, 1, 0, 0, 0, 0})},
    {"insert object: no versions",
     insert(vs_kvs_insert_vs_object_rec, {unknown, 0, 0, 0, 0, 0, 7})},
    {"insert object: too many versions",
     insert(vs_kvs_insert_vs_object_rec, {A, 2, 0, 5, 6, too_many})},
    {"get object: null before id", plain(vs_kvs_get_vs_object_rec, 0, nullptr)},
    {"get object: id 0", get(vs_kvs_get_vs_object_rec, 0)},
    {"get object: count beyond 32 bits", get(vs_kvs_get_vs_object_rec, A),
     replaced("vs_objects", {A, 1, 0, 0, 0, UINT32_MAX, 1, 2})},
    {"get object: longer than counted", get(vs_kvs_get_vs_object_rec, A),
     replaced("vs_objects", {A, 1, 0, 0, 0, 1, 1, 2})},
    {"get object: size says more than is read", get(vs_kvs_get_vs_object_rec, A),
     [] { now.size = 64; }},
    {"get object handle: null before id", plain(vs_kvs_get_vs_object_rec_hdl, 0, nullptr)},
    {"get object handle: id 0", get(vs_kvs_get_vs_object_rec_hdl, 0)},
    {"list objects: no count", plain(vs_kvs_get_vs_objects_all_recs, nullptr, nullptr)},
    {"list objects: no array", plain(vs_kvs_get_vs_objects_all_recs, &ignored, nullptr)},
    {"list objects: empty record that cannot be read", list_objects,
     [] { now.size = 0, now.fail_call = 4; }},
    {"select: id 0", plain(vs_kvs_update_vs_object_selected_version, 0, 1)},
    {"select: first lookup without a handle", plain(vs_kvs_update_vs_object_selected_version, A, 1),
     no_handle_at_first},
    {"populate: not initialised", populate, [] { g_vs_kvs_dbs_initialized = 0; }},
    {"populate: nothing", plain(vs_kvs_insert_vs_objects, nullptr, 0, nullptr, nullptr)},
    {"populate: no elements", plain(vs_kvs_insert_vs_objects, nullptr, 1, nullptr, nullptr)},
    {"populate: no arrays", plain(vs_kvs_insert_vs_objects, fresh, 1, nullptr, nullptr)},
    {"populate: no counts", plain(vs_kvs_insert_vs_objects, fresh, 1, version_arrays, nullptr)},
    {"populate: id 0",
     plain(vs_kvs_insert_vs_objects, nameless, 2, version_arrays, version_counts)},
    {"populate: too many versions",
     plain(vs_kvs_insert_vs_objects, fresh, 1, version_arrays, &too_many)},
    {"bulk select: not initialised", bulk_select, [] { g_vs_kvs_dbs_initialized = 0; }},
    {"bulk select: nothing", plain(vs_kvs_update_vs_objects, nullptr, 0)},
    {"bulk select: no elements", plain(vs_kvs_update_vs_objects, nullptr, 1)},
    {"bulk select: id 0", plain(vs_kvs_update_vs_objects, nameless, 2)},
    {"delete object: id 0", plain(vs_kvs_delete_vs_object, 0)},
    {"insert clients: null", plain(vs_kvs_insert_clients_info_rec, nullptr, nullptr)},
    {"insert clients: id 0, none", insert(vs_kvs_insert_clients_info_rec, {0, 0})},
    {"insert clients: too many", insert(vs_kvs_insert_clients_info_rec, {A, 0x10000000})},
    {"get clients: null before id", plain(vs_kvs_get_clients_info_rec, 0, nullptr)},
    {"get clients: id 0", get(vs_kvs_get_clients_info_rec, 0)},
    {"get clients handle: null before id", plain(vs_kvs_get_clients_info_rec_hdl, 0, nullptr)},
    {"get clients handle: id 0", get(vs_kvs_get_clients_info_rec_hdl, 0)},
    {"list clients: no count", plain(vs_kvs_get_clients_info_all_recs, nullptr, nullptr)},
    {"list clients: no array", plain(vs_kvs_get_clients_info_all_recs, &ignored, nullptr)},
    {"add client: null before id", plain(vs_kvs_add_new_client_info, 0, nullptr)},
    {"add client: id 0", plain(vs_kvs_add_new_client_info, 0, &new_client)},
    {"add client: listed already", plain(vs_kvs_add_new_client_info, A, &same_jid)},
    {"add client: to an empty list", add_client, replaced("vs_clients_info", {A, 0})},
    {"add client: jid 0, list shortened", plain(vs_kvs_add_new_client_info, A, &no_client),
     before_nth("kvs_get_object_size", 2, replaced("vs_clients_info", {A, 0}))},
    {"update client: null before id", plain(vs_kvs_update_client_info, 0, nullptr)},
    {"update client: id 0", plain(vs_kvs_update_client_info, 0, &same_jid)},
    {"update client: not listed", plain(vs_kvs_update_client_info, A, &new_client)},
    {"update client: first of two", update_client,
     replaced("vs_clients_info", {A, 2, 5, 1, 0, 0, 0, 5, 2, 0, 0, 0})},
    {"update client: record grown meanwhile", update_client,
     before_nth("kvs_get_object_size", 2,
                replaced("vs_clients_info", {A, 3, 4, 4, 0, 0, 0, 5, 5, 0, 0, 0, 6, 6, 0, 0, 0}))},
    {"update client: longer than counted", update_client,
     replaced("vs_clients_info", {A, 1, 5, 5, 0, 0, 0, 6, 6, 0, 0, 0, 7})},
    {"delete clients: id 0", plain(vs_kvs_delete_clients_info_rec, 0)},
    {"insert registration: null", plain(vs_kvs_insert_client_objects_reg_rec, nullptr, nullptr)},
    {"insert registration: jid 0, none", insert(vs_kvs_insert_client_objects_reg_rec, {0, 0})},
    {"insert registration: too many",
     insert(vs_kvs_insert_client_objects_reg_rec, {9, 0x3FFFFFFE})},
    {"get registration: null before jid", plain(vs_kvs_get_client_objects_reg_rec, 0, nullptr)},
    {"get registration: jid 0", get(vs_kvs_get_client_objects_reg_rec, 0)},
    {"get registration handle: null", plain(vs_kvs_get_client_objects_reg_rec_hdl, 0, nullptr)},
    {"get registration handle: jid 0", get(vs_kvs_get_client_objects_reg_rec_hdl, 0)},
    {"list registrations: no count",
     plain(vs_kvs_get_client_objects_reg_all_recs, nullptr, nullptr)},
    {"list registrations: no array",
     plain(vs_kvs_get_client_objects_reg_all_recs, &ignored, nullptr)},
    {"add object: id 0 before jid 0", plain(vs_kvs_add_new_client_objects_reg_object, 0, 0)},
    {"add object: jid 0", plain(vs_kvs_add_new_client_objects_reg_object, 0, A)},
    {"add object: last one again", plain(vs_kvs_add_new_client_objects_reg_object, J, B)},
    {"add object: to an empty registration", plain(vs_kvs_add_new_client_objects_reg_object, K, B)},
    {"add object: empty record, filled when read back",
     plain(vs_kvs_add_new_client_objects_reg_object, J, A), empty_until_written},
    // start-up
    {"db_init: unknown, set up", plain(vs_kvs_db_init, 5, 3),
     [] { g_vs_kvs_debug_initialized = 1; }},
    {"db_init: unknown, not set up", plain(vs_kvs_db_init, 5, 3)},
    {"db_init: unknown, set-up refused", plain(vs_kvs_db_init, 5, 3), [] { now.fail_call = 5; }},
    {"db_init: open, set up", plain(vs_kvs_db_init, 5, 0),
     [] { g_vs_kvs_debug_initialized = 1, g_kvs_hdl_vs_objects_db = 1; }},
    {"db_init: open, not set up", plain(vs_kvs_db_init, 5, 0), [] { g_kvs_hdl_vs_objects_db = 1; }},
    {"db_init: opened on demand during the set-up", plain(vs_kvs_db_init, 5, 0),
     before_nth("verbose_init", 1, [] { g_kvs_hdl_vs_objects_db = 0x103; })},
    {"initialize: two failures", initialize, [] { now.fail_call = 6, now.calls_to_fail = 2; }},
    {"initialize: three failures", initialize,
     [] { now.fail_call = 7, now.calls_to_fail = 3, g_vs_kvs_dbs_initialized = 0; }},
    {"initialize: again", initialize,
     [] { g_vs_kvs_debug_initialized = 1, g_kvs_hdl_vs_objects_db = 1; }},
    {"debug_init: not a job, nameless", debug_init, [] { now.job_id = 0, now.fail_call = 3; }},
    {"debug_init: name of 65", debug_init, [] { now.job_name = "a/" + std::string(65, 'n'); }},
    {"debug_init: mutex refused", debug_init, [] { now.trylock_error = EINVAL; }},
    {"debug_init: mutex busy, then refused", debug_init,
     [] { now.trylock_error = EBUSY, now.lock_error = EDEADLK; }},
    {"load hook", plain(vs_kvs_dll_main, 0, 0, 0)},
    {"unload hook", plain(vs_kvs_dll_main, 0, 1, 0)},
};

// ---- the log, against the expected one ----

using lines = std::vector<std::string>;

// The texts of the prints that were given in full, without their numbers.
using print_texts = std::set<std::string>;

// The log from one of its lines on, in which a print is given in full until its text is in `given`.
// Adds the texts of this log to them.
std::string events(size_t from, const char *separator, print_texts &given)
{
    std::string all;
    print_texts texts;
    for (size_t i = from; i < now.log.size(); ++i) {
        std::string text = now.log[i];
        std::erase_if(text, [](char c) { return std::isxdigit(static_cast<unsigned char>(c)); });
        const bool is_given = now.log[i].starts_with("print ") && given.contains(text);
        all += separator + (is_given ? "print" : now.log[i]);
        texts.insert(text);
    }
    given.merge(texts);
    return all;
}

std::string result_line(const std::string &name, const outcome &result)
{
    std::ostringstream text;
    text << name << ": " << std::hex << std::uppercase << "0x" << result.status << ' '
         << result.handed_out;
    return text.str();
}

std::string whole(const outcome &result)
{
    print_texts none;
    return result_line("", result) + events(0, "; ", none);
}

void compare(const char *part, const std::string &found)
{
    const std::string path = std::string(EXPECTED_DIR) + "/expected_" + part + ".txt";
    if (getenv("ACCEPT"))
        std::ofstream(path) << found;
    std::ifstream expected(path);
    std::istringstream got(found);
    std::string heading, want, have;
    while (std::getline(got, have)) {
        if (have.starts_with("=="))
            heading = have;
        ASSERT_TRUE(std::getline(expected, want)) << "more than expected: " << have;
        ASSERT_EQ(want, have) << "in " << heading;
    }
    EXPECT_FALSE(std::getline(expected, want)) << "less than expected: " << want;
}

// The state of the process's set-up; a change of it goes into the log.
std::string state()
{
    return "state " + std::to_string(g_vs_kvs_debug_initialized) + ' ' +
           std::to_string(g_vs_kvs_dbs_initialized) + ' ' + std::to_string(vs_kvs_is_populated());
}

// Runs a scenario that was started. It must not leak, but each debug set-up leaves the process's
// name allocated.
outcome run(const scenario &s, const std::string &name)
{
    const std::string before = state();
    const outcome result = s.run();
    if (state() != before)
        now.log.push_back(state());
    const auto kept = std::count(now.log.begin(), now.log.end(), "call jobctl_get_job_id");
    EXPECT_EQ(live_blocks(), static_cast<size_t>(kept)) << name << " leaks";
    EXPECT_EQ(now.problems, lines{}) << name;
    return result;
}

TEST(library, reports_what_it_does)
{
    std::string found;
    print_texts texts;
    for (const auto &table : {std::span<const scenario>(regular), {special}})
        for (const scenario &s : table) {
            start(s);
            const outcome result = run(s, s.name);
            for (auto &[name, records] : now.changes != 0 ? now.store : databases{})
                for (const stored_record &record : records) {
                    void *const copy = malloc(record.data.size());
                    memcpy(copy, record.data.data(), record.data.size());
                    now.log.push_back("stored " + words(copy));
                }
            found +=
                result_line(std::string("== ") + s.name, result) + events(0, "\n", texts) + '\n';
        }
    vs_kvs::for_each_operation([&]<class Operation>(Operation) {
        EXPECT_NE(found.find(Operation::operation), found.npos)
            << "no row for " << Operation::operation;
    });
    compare("reports", found);
}

// ---- trouble at every point ----

struct trouble {
    const char *name;
    std::function<void(int n)> prepare;
};

// What another process, or a faulty platform, may do just before the n-th call.
std::function<void(int)> at_call(const change &make)
{
    return [=](int n) {
        now.before = [=](const std::string &called, int number) {
            if (number == n)
                make(), now.troubled = called;
        };
    };
}

template <class Change>
std::function<void(int)> every_record(const Change &make)
{
    return at_call([=] {
        for (auto &[name, records] : now.store)
            for (auto &record : records)
                make(record.data, name == "vs_objects" ? 5u : 1u);
    });
}

const trouble troubles[] = {
    {"failure", [](int n) { now.fail_call = n, now.array_on_failure = true; }},
    {"no memory", [](int n) { now.fail_allocation = n; }},
    {"every record twice", at_call([] {
         for (auto &[name, records] : now.store)
             for (size_t i = 0, count = records.size(); i < count; ++i)
                 records.push_back({records[i].handle + 0x1000, records[i].data});
     })},
    {"every record gone", at_call([] {
         for (auto &[name, records] : now.store)
             records.clear();
     })},
    {"every record cut", every_record([](bytes &data, auto) { data.resize(data.size() - 4); })},
    {"every record without elements", every_record([](bytes &data, size_t count_at) {
         data.resize(4 * count_at);
         data.resize(4 * count_at + 4);
     })},
    {"every record changed", every_record([](bytes &data, size_t count_at) {
         for (size_t word = 1; word < data.size() / 4; ++word)
             data[4 * word + 1] ^= word != count_at;
     })},
    {"length 0", at_call([] { now.size = 0; })},
    {"nothing read", at_call([] { now.read_length = 0; })},
    {"a count without an array", at_call([] { now.arrays_missing = true; })},
    {"no database handle", at_call([] { now.handle_unset = true; })},
    {"insert tolerated", at_call([] { now.insert_tolerated = true; })},
    {"insert tolerated without a handle",
     at_call([] { now.insert_tolerated = now.insert_without_handle = true; })},
};

// Brings each trouble to the n-th call, or the n-th allocation, of every regular run, for every n
// until a run does not meet it. Each sequence of events is printed once, from where it differs from
// the regular one. A failure leaves the store as one of the changes made before it did.
TEST(library, survives_trouble_at_every_point)
{
    std::string found;
    print_texts texts;
    for (const scenario &s : regular) {
        start(s);
        std::vector<databases> stores{now.store};
        now.before = [&](const std::string &, int) {
            if (stores.size() == static_cast<size_t>(now.changes))
                stores.push_back(now.store);
        };
        std::set<std::string> seen{whole(run(s, s.name))};
        stores.push_back(now.store);
        const lines usual = now.log;

        for (const trouble &t : troubles)
            for (int n = 1;; ++n) {
                start(s);
                t.prepare(n);
                const std::string at = std::string(s.name) + ", " + t.name + " at ";
                const outcome result = run(s, at + std::to_string(n));
                if (now.troubled.empty())
                    break;
                const std::string name = at + now.troubled + ", " + std::to_string(n);
                const auto changes = static_cast<size_t>(now.changes);
                const bool is_failure = now.fail_call != 0 || now.fail_allocation != 0;
                EXPECT_TRUE(!is_failure || now.store == stores.at(changes)) << name;
                const auto ways =
                    std::mismatch(now.log.begin(), now.log.end(), usual.begin(), usual.end());
                if (seen.insert(whole(result)).second)
                    found +=
                        result_line(name, result) +
                        events(static_cast<size_t>(ways.first - now.log.begin()), "; ", texts) +
                        '\n';
            }
    }
    compare("failures", found);
}

// A growth that 32 bits cannot hold is refused before anything is allocated or written.
TEST(library, refuses_to_outgrow_a_record)
{
    reset();
    vs_kvs::sized_record<vs_client_objects_reg_kvs_rec> record;
    record.data.reset(static_cast<vs_client_objects_reg_kvs_rec *>(calloc(1, 8)));
    record.data->vs_count = 0x3FFFFFFD;
    const auto rc =
        vs_kvs::grow<vs_kvs::registrations::database, vs_kvs::registrations::add_object>(record);
    EXPECT_EQ(rc, VS_FAULT_NO_MEMORY);
    EXPECT_EQ(record.data->vs_count, 0x3FFFFFFDu);
    EXPECT_EQ(now.log[1], "trace errors 0x1030001026b "
                          "\"vs_kvs_add_new_client_objects_reg_object\" 4294967295 12");
}

// A fork by the thread that runs the set-up leaves the set-up's lock as it is.
TEST(library, keeps_the_set_up_locked_when_it_forks)
{
    reset();
    uint32_t second = 0;
    now.before = [&](const std::string &, int number) {
        if (number != 1)
            return;
        if (const pid_t child = fork(); child == 0)
            _exit(0);
        else
            waitpid(child, nullptr, 0);
        now.lock_error = EDEADLK; // the answer to a second thread, which may not wait here
        std::thread([&] { second = vs_kvs_debug_init(0); }).join();
        now.lock_error = 0;
    };
    EXPECT_EQ(vs_kvs_debug_init(0), 0u);
    EXPECT_EQ(second, static_cast<uint32_t>(EDEADLK));
}

// A database is a folder of src/ with a schema.
TEST(library, lists_every_database)
{
    const auto folders = std::filesystem::directory_iterator(EXPECTED_DIR "/../src");
    const auto schemas = std::ranges::count_if(
        folders, [](const auto &folder) { return exists(folder.path() / "schema.h"); });
    EXPECT_EQ(vs_kvs::database_entries.size(), static_cast<size_t>(schemas));
}

TEST(library, key_setters_leave_the_key_alone)
{
    for (auto *set : {set_vs_objects_kvs_db_pk_attr, set_vs_clients_info_kvs_db_pk_attr,
                      set_vs_client_objects_reg_kvs_db_pk_attr}) {
        const int key = 0;
        kvs_key_attr attr{{1, 2, 3}, 4, 5, &key, 6};
        set(&attr, 99);
        EXPECT_TRUE(std::ranges::count(attr.key_flags, 0) == 3 && attr.key_len == 4 &&
                    attr.key_p == &key && attr.key_offset == 0);
    }
}

} // namespace
