// The library on the real platform: several processes, threads, forks and kills on one store.
//
// The state directory is a folder of the test's own, chosen before any library is loaded. Where a
// test needs to stand between two steps of an operation, it stands in the way of the store's write,
// as any other platform could.
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <map>
#include <random>
#include <thread>
#include <vector>

#include <csignal>
#include <dlfcn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "kvs.h"
#include "ringlog.h"
#include "vs_kvs.h"

namespace {

// Runs before the constructors of the libraries, one of which opens a trace buffer. Nothing that is
// set in the environment that early lasts, so the program starts itself again.
void choose_state_dir(int, char **arguments, char **environment)
{
    static char setting[] = "VS_STATE_DIR=/tmp/vs_kvs_service.XXXXXX", mark[] = "SERVICE_TEST=1";
    static char *changed[1000] = {setting, mark};
    std::size_t count = 2;
    for (char **at = environment; *at && count < 999; ++at) {
        if (std::strcmp(*at, mark) == 0)
            return;
        if (std::strncmp(*at, setting, 13) != 0)
            changed[count++] = *at;
    }
    if (mkdtemp(std::strchr(setting, '/')))
        execve("/proc/self/exe", arguments, changed);
    _exit(1);
}
__attribute__((section(".preinit_array"), used)) auto *const before_all = &choose_state_dir;

// The folder goes with the process that made it; children leave by _exit.
struct state_dir {
    ~state_dir()
    {
        if (!std::getenv("SERVICE_TEST_PROGRAM"))
            std::filesystem::remove_all(std::getenv("VS_STATE_DIR"));
    }
} const scratch;

std::function<void()> before_write, after_write;

// Forks, runs `body`, and gives the child's wait status; a failed expectation is exit status 1.
int run(const std::function<void()> &body)
{
    const pid_t pid = fork();
    if (pid == 0) {
        body();
        _exit(testing::Test::HasFailure() ? 1 : 0);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    return status;
}

// Runs one test of the suite DISABLED_program in a fresh process with more in its environment.
int run_program(const char *test, const std::map<std::string, std::string> &environment = {})
{
    return run([&] {
        setenv("SERVICE_TEST_PROGRAM", "1", 1);
        for (const auto &[name, value] : environment)
            setenv(name.c_str(), value.c_str(), 1);
        execl("/proc/self/exe", "service_test", "--gtest_also_run_disabled_tests",
              "--gtest_brief=1", (std::string("--gtest_filter=DISABLED_program.") + test).c_str(),
              nullptr);
    });
}

using words = std::vector<std::uint32_t>;

std::uint32_t insert_object(const words &record)
{
    kvs_rec_hdl handle;
    return vs_kvs_insert_vs_object_rec(reinterpret_cast<const vs_objects_kvs_rec *>(record.data()),
                                       &handle);
}

std::uint32_t insert_clients(const words &record)
{
    kvs_rec_hdl handle;
    return vs_kvs_insert_clients_info_rec(
        reinterpret_cast<const vs_clients_info_kvs_rec *>(record.data()), &handle);
}

std::uint32_t insert_registration(const words &record)
{
    kvs_rec_hdl handle;
    return vs_kvs_insert_client_objects_reg_rec(
        reinterpret_cast<const vs_client_objects_reg_kvs_rec *>(record.data()), &handle);
}

template <class Record>
words taken(Record *record, std::size_t length)
{
    const auto *const from = reinterpret_cast<const std::uint32_t *>(record);
    words result = record ? words(from, from + length / 4) : words{};
    std::free(record);
    return result;
}

words object(std::uint32_t id)
{
    vs_objects_kvs_rec *record = nullptr;
    vs_kvs_get_vs_object_rec(id, &record);
    return taken(record, record ? 24 + 4 * record->supp_count : 0);
}

words clients(std::uint32_t id)
{
    vs_clients_info_kvs_rec *record = nullptr;
    vs_kvs_get_clients_info_rec(id, &record);
    return taken(record, record ? 8 + 20 * record->clients_count : 0);
}

words registration(std::uint32_t jid)
{
    vs_client_objects_reg_kvs_rec *record = nullptr;
    vs_kvs_get_client_objects_reg_rec(jid, &record);
    return taken(record, record ? 8 + 4 * record->vs_count : 0);
}

std::vector<std::uint64_t> traced(const std::string &buffer)
{
    std::vector<std::uint64_t> ids;
    ringlog_reader *reader = nullptr;
    if (ringlog_open(buffer.c_str(), &reader) != 0)
        return ids;
    ringlog_record record;
    while (ringlog_read(reader, &record) == 0)
        ids.push_back(record.id);
    ringlog_close(reader);
    return ids;
}

void create_databases()
{
    if (!vs_kvs_is_populated()) {
        ASSERT_EQ(vs_kvs_initialize(1), 0u);
        ASSERT_EQ(vs_kvs_insert_vs_objects(nullptr, 0, nullptr, nullptr), 0u);
    }
}

} // namespace

extern "C" std::uint32_t kvs_write_object(kvs_hdl hdl, const kvs_rec_hdl *rec_p,
                                          std::uint32_t offset, const kvs_data_desc *data_p,
                                          std::uint32_t data_count, std::uint32_t *value_p,
                                          kvs_write_result *result_p)
{
    static const auto real =
        reinterpret_cast<decltype(&kvs_write_object)>(dlsym(RTLD_NEXT, "kvs_write_object"));
    if (before_write)
        std::exchange(before_write, nullptr)();
    const std::uint32_t rc = real(hdl, rec_p, offset, data_p, data_count, value_p, result_p);
    if (after_write)
        std::exchange(after_write, nullptr)();
    return rc;
}

// ---- what the programs below do ----

TEST(DISABLED_program, stores_and_dies)
{
    create_databases();
    EXPECT_EQ(insert_object({1, 2, 0, 0, 0, 3, 1, 2, 3}), 0u);
    EXPECT_EQ(vs_kvs_update_vs_object_selected_version(1, 3), 0u);
    if (!HasFailure())
        kill(getpid(), SIGKILL);
}

TEST(DISABLED_program, reads_without_initialising)
{
    EXPECT_EQ(object(1), (words{1, 3, 0, 0, 0, 3, 1, 2, 3}));
    EXPECT_EQ(vs_kvs_is_populated(), 0u);
    EXPECT_EQ(vs_kvs_api_trace | vs_kvs_errors_trace, 0u);
    EXPECT_NE(vs_ringlog, 0u);
    EXPECT_EQ(vs_kvs_update_vs_objects(nullptr, 0), VS_FAULT_KVS_DB_LOOKUP);
}

TEST(DISABLED_program, has_no_common_buffer) { EXPECT_EQ(vs_ringlog, 0u); }

TEST(DISABLED_program, sets_up)
{
    EXPECT_EQ(vs_kvs_initialize(1), 0u);
    EXPECT_STREQ(g_vs_kvs_proc_name,
                 std::getenv("VS_JOB_NAME") ? std::string(64, 'n').c_str() : "service_test");
    EXPECT_EQ(vs_kvs_get_vs_object_rec(0, nullptr), VS_FAULT_NULL_ARG);
    EXPECT_EQ(object(0), words{});
    const char *const job = std::getenv("VS_JOB_ID");
    const std::string home = "install/vs/kvs/" + (job ? job : std::to_string(getpid()));
    EXPECT_EQ(traced(home + "/api"),
              (std::vector<std::uint64_t>{0x3020001010b, 0x30500010101, 0x30500010101,
                                          0x30500010101, 0x10100010102}));
    EXPECT_EQ(traced(home + "/errors"), std::vector<std::uint64_t>{0x10200010206});
    EXPECT_EQ(traced("install/vs/vs").back(), 0x603000055f0u);
}

// ---- the tests ----

TEST(service, keeps_what_a_killed_process_stored)
{
    const int status = run_program("stores_and_dies");
    ASSERT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL);
    EXPECT_EQ(run_program("reads_without_initialising"), 0);
}

TEST(service, knows_its_process)
{
    EXPECT_EQ(run_program("has_no_common_buffer", {{"NO_DLLMAIN", ""}}), 0);
    EXPECT_EQ(run_program("sets_up"), 0);
    EXPECT_EQ(run_program("sets_up", {{"VS_JOB_ID", "4242"},
                                      {"VS_JOB_NAME", "/sbin/" + std::string(64, 'n')}}),
              0);
}

TEST(service, populating_again_is_harmless_and_other_records_are_kept)
{
    create_databases();
    const vs_object_sel_entry elements[] = {{10, 2, {}}, {11, 0, {}}};
    const std::uint32_t versions[] = {1, 2};
    const std::uint32_t *const arrays[] = {versions, nullptr};
    const std::uint32_t counts[] = {2, 0};
    EXPECT_EQ(vs_kvs_insert_vs_objects(elements, 2, arrays, counts), 0u);
    EXPECT_EQ(vs_kvs_insert_vs_objects(elements, 2, arrays, counts), 0u);
    EXPECT_EQ(vs_kvs_update_vs_object_selected_version(10, 1), 0u);
    EXPECT_EQ(vs_kvs_insert_vs_objects(elements, 2, arrays, counts), KVS_RC_RECORD_EXISTS);
    EXPECT_EQ(object(10), (words{10, 1, 0, 0, 1, 2, 1, 2}));
}

TEST(service, refuses_damaged_records_everywhere)
{
    create_databases();
    struct {
        kvs_hdl db;
        words record;
        std::function<std::uint32_t(std::uint32_t)> read, change;
        std::function<std::uint32_t(std::uint32_t *)> list;
    } const cases[] = {
        {g_kvs_hdl_vs_objects_db,
         {20, 1, 0, 0, 0, 9, 1},
         [](auto id) {
             vs_objects_kvs_rec *r;
             return vs_kvs_get_vs_object_rec(id, &r);
         },
         [](auto id) { return vs_kvs_update_vs_object_selected_version(id, 5); },
         [](auto *n) {
             vs_objects_kvs_rec **r;
             return vs_kvs_get_vs_objects_all_recs(n, &r);
         }},
        {g_kvs_hdl_vs_clients_info_db,
         {20, 2, 7, 7},
         [](auto id) {
             vs_clients_info_kvs_rec *r;
             return vs_kvs_get_clients_info_rec(id, &r);
         },
         [](auto id) {
             const vs_client_info_entry e{};
             return vs_kvs_add_new_client_info(id, &e);
         },
         [](auto *n) {
             vs_clients_info_kvs_rec **r;
             return vs_kvs_get_clients_info_all_recs(n, &r);
         }},
        {g_kvs_hdl_vs_client_objects_reg_db,
         {20, 0xFFFFFFFF, 1},
         [](auto jid) {
             vs_client_objects_reg_kvs_rec *r;
             return vs_kvs_get_client_objects_reg_rec(jid, &r);
         },
         [](auto jid) { return vs_kvs_add_new_client_objects_reg_object(jid, 5); },
         [](auto *n) {
             vs_client_objects_reg_kvs_rec **r;
             return vs_kvs_get_client_objects_reg_all_recs(n, &r);
         }},
    };
    for (const auto &c : cases) {
        const kvs_data_desc data{c.record.data(), c.record.size() * 4};
        kvs_key_attr key{};
        set_vs_objects_kvs_db_pk_attr(&key, 0);
        kvs_rec_hdl handle;
        ASSERT_EQ(kvs_insert_object(c.db, &data, 1, &key, 1, 0, 0, &handle), 0u);
        std::uint32_t count = 77;
        EXPECT_EQ(c.read(20), VS_FAULT_KVS_READ_NULL_REC);
        EXPECT_EQ(c.change(20), VS_FAULT_KVS_READ_NULL_REC);
        EXPECT_EQ(c.list(&count), VS_FAULT_KVS_READ_NULL_REC);
        EXPECT_EQ(count, 77u);
        EXPECT_EQ(kvs_delete_object(c.db, &handle), 0u);
    }
}

// Of two changes of one record at once, the one that wrote first is lost, and nobody notices when
// the later one finds its own entry in its place.
TEST(service, a_change_made_meanwhile_is_lost)
{
    create_databases();
    ASSERT_EQ(insert_clients({30, 0}), 0u);
    const vs_client_info_entry mine{1, 100, {}}, theirs{2, 200, {}};
    before_write = [&] {
        EXPECT_EQ(run([&] { EXPECT_EQ(vs_kvs_add_new_client_info(30, &theirs), 0u); }), 0);
    };
    EXPECT_EQ(vs_kvs_add_new_client_info(30, &mine), 0u);
    EXPECT_EQ(clients(30), (words{30, 1, 1, 100, 0, 0, 0}));
}

// The read-back notices another writer where it touches the field that was changed.
TEST(service, the_read_back_notices_interference)
{
    create_databases();
    ASSERT_EQ(insert_object({31, 1, 0, 0, 0, 0}), 0u);
    ASSERT_EQ(insert_clients({31, 1, 5, 50, 0, 0, 0}), 0u);
    ASSERT_EQ(insert_registration({31, 1, 8}), 0u);
    const vs_client_info_entry mine{5, 51, {}}, theirs{5, 52, {}}, added{6, 60, {}};

    after_write = [] {
        EXPECT_EQ(run([] { vs_kvs_update_vs_object_selected_version(31, 9); }), 0);
    };
    EXPECT_EQ(vs_kvs_update_vs_object_selected_version(31, 2), VS_FAULT_KVS_UPDATE_SANITY);
    EXPECT_EQ(object(31)[1], 9u);

    after_write = [&] { EXPECT_EQ(run([&] { vs_kvs_update_client_info(31, &theirs); }), 0); };
    EXPECT_EQ(vs_kvs_update_client_info(31, &mine), VS_FAULT_KVS_UPDATE_SANITY);

    // The record is deleted and stored anew, shorter than what was added to.
    after_write = [] {
        EXPECT_EQ(run([] {
                      EXPECT_EQ(vs_kvs_delete_clients_info_rec(31), 0u);
                      EXPECT_EQ(insert_clients({31, 0}), 0u);
                  }),
                  0);
    };
    EXPECT_EQ(vs_kvs_add_new_client_info(31, &added), VS_FAULT_KVS_ADD_SANITY);

    // Between finding and writing, the handle goes stale: the write must not hit the new record.
    before_write = [] {
        EXPECT_EQ(run([] {
                      EXPECT_EQ(vs_kvs_delete_vs_object(31), 0u);
                      EXPECT_EQ(insert_object({31, 7, 0, 0, 0, 0}), 0u);
                  }),
                  0);
    };
    EXPECT_EQ(vs_kvs_update_vs_object_selected_version(31, 2), KVS_RC_NO_SUCH_RECORD);
    EXPECT_EQ(object(31)[1], 7u);
}

TEST(service, a_forked_child_goes_on)
{
    create_databases();
    ASSERT_EQ(insert_registration({40, 0}), 0u);
    for (std::uint32_t id = 1; id <= 6; ++id) {
        if (id % 2) {
            EXPECT_EQ(run([&] { EXPECT_EQ(vs_kvs_add_new_client_objects_reg_object(40, id), 0u); }),
                      0);
        } else {
            EXPECT_EQ(vs_kvs_add_new_client_objects_reg_object(40, id), 0u);
        }
    }
    EXPECT_EQ(registration(40), (words{40, 6, 1, 2, 3, 4, 5, 6}));
}

// Random operations, each against a picture of the three databases in memory.
TEST(service, agrees_with_a_model)
{
    create_databases();
    std::map<std::uint32_t, words> objects, lists, jobs;
    std::mt19937 random(20261122);
    const auto pick = [&](std::uint32_t n) { return static_cast<std::uint32_t>(random() % n); };
    ASSERT_EQ(kvs_batch_begin(g_kvs_hdl_vs_objects_db), 0u);
    struct batch {
        ~batch() { kvs_batch_abort(); } // if the test fails half-way
    } const while_it_lasts;
    for (int step = 0; step < 4000; ++step) {
        const std::uint32_t id = 1000 + pick(12), value = 1 + pick(9);
        const bool known = objects.contains(id), listed = lists.contains(id),
                   job = jobs.contains(id);
        const vs_client_info_entry client{
            value, 100 + pick(50), {static_cast<std::uint8_t>(value)}};
        switch (pick(9)) {
        case 0: {
            words record{id, value, 0, 0, 0, value % 4};
            record.insert(record.end(), {1, 2, 3});
            const words stored(record.begin(), record.begin() + 6 + value % 4);
            const bool same = known && objects[id] == stored;
            EXPECT_EQ(insert_object(record), known && !same ? KVS_RC_RECORD_EXISTS : 0u);
            objects.try_emplace(id, stored);
            break;
        }
        case 1:
            EXPECT_EQ(vs_kvs_update_vs_object_selected_version(id, value),
                      known ? 0 : VS_FAULT_NO_SUCH_OBJECT);
            if (known)
                objects[id][1] = value;
            break;
        case 2:
            EXPECT_EQ(vs_kvs_delete_vs_object(id), known ? 0 : VS_FAULT_NO_SUCH_OBJECT);
            objects.erase(id);
            break;
        case 3:
            EXPECT_EQ(insert_clients({id, 0}),
                      listed && lists[id].size() > 2 ? KVS_RC_RECORD_EXISTS : 0u);
            lists.try_emplace(id, words{id, 0});
            break;
        case 4:
        case 5: {
            words &list = lists[id];
            std::size_t at = 2;
            while (at < list.size() && list[at] != value)
                at += 5;
            const bool add = pick(2) != 0, found = at < list.size();
            const std::uint32_t status = add ? vs_kvs_add_new_client_info(id, &client)
                                             : vs_kvs_update_client_info(id, &client);
            EXPECT_EQ(status, !listed  ? VS_FAULT_NO_SUCH_OBJECT
                              : add    ? (found ? VS_FAULT_KVS_CLIENT_ALREADY_EXIST : 0u)
                              : !found ? VS_FAULT_INVALID_CLIENT_JID
                                       : 0u);
            if (!listed) {
                lists.erase(id);
            } else if (status == 0) {
                list.resize(std::max(list.size(), at + 5));
                std::memcpy(&list[at], &client, sizeof client);
                list[1] = static_cast<std::uint32_t>((list.size() - 2) / 5);
            }
            break;
        }
        case 6:
            EXPECT_EQ(vs_kvs_delete_clients_info_rec(id), listed ? 0 : VS_FAULT_NO_SUCH_OBJECT);
            lists.erase(id);
            break;
        case 7:
            EXPECT_EQ(insert_registration({id, 1, 77}),
                      job && jobs[id].size() > 3 ? KVS_RC_RECORD_EXISTS : 0u);
            jobs.try_emplace(id, words{id, 1, 77});
            break;
        case 8: {
            const bool there =
                job && std::find(jobs[id].begin() + 2, jobs[id].end(), value) != jobs[id].end();
            EXPECT_EQ(vs_kvs_add_new_client_objects_reg_object(id, value),
                      !job    ? VS_FAULT_KVS_REG_NOT_EXIST
                      : there ? VS_FAULT_KVS_REG_ALREADY_EXIST
                              : 0u);
            if (job && !there)
                jobs[id].push_back(value), ++jobs[id][1];
            break;
        }
        }
        const auto at = [id](auto &map) { return map.contains(id) ? map[id] : words{}; };
        ASSERT_EQ(object(id), at(objects)) << "step " << step;
        ASSERT_EQ(clients(id), at(lists)) << "step " << step;
        ASSERT_EQ(registration(id), at(jobs)) << "step " << step;
    }
    EXPECT_EQ(kvs_batch_commit(), 0u);
    vs_objects_kvs_rec **records = nullptr;
    std::uint32_t count = 0, seen = 0;
    ASSERT_EQ(vs_kvs_get_vs_objects_all_recs(&count, &records), 0u);
    for (std::uint32_t i = 0; i < count; ++i) {
        const std::uint32_t id = records[i]->vs_object_id;
        seen += objects.contains(id) &&
                objects[id] == taken(records[i], 24 + 4 * records[i]->supp_count);
        if (!objects.contains(id))
            std::free(records[i]);
    }
    std::free(records);
    EXPECT_EQ(seen, objects.size());
}

// Threads with records of their own, a lister, and forks in the middle: nobody disturbs anybody.
TEST(service, serves_many_threads)
{
    create_databases();
    std::atomic<bool> done{false};
    std::vector<std::thread> threads;
    for (std::uint32_t t = 0; t < 4; ++t)
        threads.emplace_back([t] {
            const std::uint32_t id = 2000 + t;
            EXPECT_EQ(insert_object({id, 0, 0, 0, 0, 1, 5}), 0u);
            EXPECT_EQ(insert_clients({id, 0}), 0u);
            EXPECT_EQ(insert_registration({id, 0}), 0u);
            for (std::uint32_t i = 1; i <= 10; ++i) {
                const vs_client_info_entry client{i, i, {}};
                EXPECT_EQ(vs_kvs_update_vs_object_selected_version(id, i), 0u);
                EXPECT_EQ(vs_kvs_add_new_client_info(id, &client), 0u);
                EXPECT_EQ(vs_kvs_add_new_client_objects_reg_object(id, i), 0u);
            }
            EXPECT_EQ(object(id)[1], 10u);
            EXPECT_EQ(clients(id)[1], 10u);
            EXPECT_EQ(registration(id), (words{id, 10, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10}));
            EXPECT_EQ(vs_kvs_delete_vs_object(id), 0u);
            EXPECT_EQ(vs_kvs_delete_clients_info_rec(id), 0u);
        });
    std::thread lister([&] {
        while (!done) {
            vs_objects_kvs_rec **records = nullptr;
            std::uint32_t count = 0;
            const std::uint32_t rc = vs_kvs_get_vs_objects_all_recs(&count, &records);
            EXPECT_TRUE(rc == 0 || rc == KVS_RC_NO_SUCH_RECORD || rc == VS_FAULT_KVS_DB_EMPTY)
                << rc;
            for (std::uint32_t i = 0; rc == 0 && i < count; ++i)
                std::free(records[i]);
            std::free(records);
        }
    });
    for (int i = 0; i < 5; ++i)
        EXPECT_EQ(run([] { EXPECT_EQ(insert_clients({3000, 0}), 0u); }), 0);
    for (auto &thread : threads)
        thread.join();
    done = true;
    lister.join();
}
