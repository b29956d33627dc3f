// The library on the real platform: several processes, threads and forks on one store.
#include "kvs.h"
#include "ringlog.h"
#include "scratch.h"
#include "state_dir.h"
#include "vs_kvs.h"

#include <atomic>
#include <thread>
#include <vector>

namespace {

OWN_STATE_DIR(false);

using words = std::vector<uint32_t>;

template <class Record>
uint32_t put(uint32_t (*insert)(const Record *, kvs_rec_hdl *), const words &record)
{
    kvs_rec_hdl handle;
    return insert(reinterpret_cast<const Record *>(record.data()), &handle);
}

// The length in words that a record has by its count.
size_t length(const vs_objects_kvs_rec &object) { return 6 + object.supp_count; }
size_t length(const vs_clients_info_kvs_rec &list) { return 2 + 5 * list.clients_count; }
size_t length(const vs_client_objects_reg_kvs_rec &job) { return 2 + job.vs_count; }

template <class Record>
words get(uint32_t (*operation)(uint32_t, Record **), uint32_t key)
{
    Record *record = nullptr;
    if (operation(key, &record) != 0)
        return {};
    const auto *const from = reinterpret_cast<const uint32_t *>(record);
    const words found(from, from + length(*record));
    free(record);
    return found;
}

// The ids of the listed objects, or the status of a listing that failed.
uint32_t list_objects(words &ids)
{
    vs_objects_kvs_rec **records = nullptr;
    uint32_t count = 0;
    const uint32_t status = vs_kvs_get_vs_objects_all_recs(&count, &records);
    for (uint32_t i = 0; i < count; ++i) {
        ids.push_back(records[i]->vs_object_id);
        free(records[i]);
    }
    free(records);
    return status;
}

std::vector<uint64_t> traced(const std::string &buffer)
{
    std::vector<uint64_t> ids;
    ringlog_reader *reader = nullptr;
    if (ringlog_open(buffer.c_str(), &reader) != 0)
        return ids;
    for (ringlog_record record; ringlog_read(reader, &record) == 0;)
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

// What another process does to the store around the next write of this one.
} // namespace

// Programs of their own, for what is settled when the library is loaded.
TEST(DISABLED_program, has_no_common_buffer) { EXPECT_EQ(vs_ringlog, 0u); }

TEST(DISABLED_program, sets_up)
{
    const char *const job = getenv("VS_JOB_ID");
    EXPECT_EQ(vs_kvs_update_vs_objects(nullptr, 0), VS_FAULT_KVS_DB_LOOKUP);
    EXPECT_EQ(vs_kvs_initialize(1), 0u);
    EXPECT_EQ(g_vs_kvs_proc_name, job ? std::string(64, 'n') : "service_test");
    EXPECT_EQ(vs_kvs_get_vs_object_rec(0, nullptr), VS_FAULT_NULL_ARG);
    EXPECT_EQ(get(vs_kvs_get_vs_object_rec, 0), words{});
    const std::string home = "install/vs/kvs/" + (job ? job : std::to_string(getpid()));
    EXPECT_EQ(traced(home + "/api"),
              (std::vector<uint64_t>{0x3020001010b, 0x30500010101, 0x30500010101, 0x30500010101,
                                     0x10100010102}));
    EXPECT_EQ(traced(home + "/errors"), std::vector<uint64_t>{0x10200010206});
    EXPECT_EQ(traced("install/vs/vs").back(), 0x603000055f0u);
}

TEST(service, knows_its_process)
{
    const auto passes = [](const std::string &environment, const char *program) {
        return std::system((environment + ' ' + fs::read_symlink("/proc/self/exe").string() +
                            " --gtest_brief=1 --gtest_also_run_disabled_tests" +
                            " --gtest_filter=DISABLED_program." + program)
                               .c_str()) == 0;
    };
    EXPECT_TRUE(passes("NO_DLLMAIN=", "has_no_common_buffer"));
    EXPECT_TRUE(passes("", "sets_up"));
    EXPECT_TRUE(passes("VS_JOB_ID=4242 VS_JOB_NAME=/sbin/" + std::string(64, 'n'), "sets_up"));
}

// A fork waits for the set-up of another thread, so that every child can run its own.
TEST(service, forks_during_the_set_up)
{
    EXPECT_TRUE(passes_in_child([] { // each set-up leaves a name in place
        std::atomic<bool> is_done{false};
        std::thread busy([&] {
            while (!is_done)
                EXPECT_EQ(vs_kvs_debug_init(0), 0u);
        });
        for (int i = 0; i < 40; ++i)
            EXPECT_TRUE(passes_in_child([] {
                alarm(20);
                EXPECT_EQ(vs_kvs_debug_init(0), 0u);
            }));
        is_done = true;
        busy.join();
    }));
}

// Threads with records of their own, a lister, and forks in between.
TEST(service, serves_many_threads)
{
    create_databases();
    std::vector<std::thread> threads;
    for (uint32_t id = 2000; id < 2004; ++id)
        threads.emplace_back([id] {
            EXPECT_EQ(put(vs_kvs_insert_vs_object_rec, {id, 0, 0, 0, 0, 1, 5}), 0u);
            EXPECT_EQ(put(vs_kvs_insert_clients_info_rec, {id, 0}), 0u);
            EXPECT_EQ(put(vs_kvs_insert_client_objects_reg_rec, {id, 0}), 0u);
            for (uint32_t i = 1; i <= 10; ++i) {
                const vs_client_info_entry client{i, i, {}};
                EXPECT_EQ(vs_kvs_update_vs_object_selected_version(id, i), 0u);
                EXPECT_EQ(vs_kvs_add_new_client_info(id, &client), 0u);
                EXPECT_EQ(vs_kvs_add_new_client_objects_reg_object(id, i), 0u);
            }
            EXPECT_EQ(get(vs_kvs_get_vs_object_rec, id)[1], 10u);
            EXPECT_EQ(get(vs_kvs_get_clients_info_rec, id)[1], 10u);
            EXPECT_EQ(get(vs_kvs_get_client_objects_reg_rec, id),
                      (words{id, 10, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10}));
            EXPECT_EQ(vs_kvs_delete_vs_object(id), 0u);
            EXPECT_EQ(vs_kvs_delete_clients_info_rec(id), 0u);
        });
    std::atomic<bool> is_done{false};
    std::thread lister([&] {
        for (words ids; !is_done; ids.clear()) {
            const uint32_t status = list_objects(ids);
            EXPECT_TRUE(status == 0 || status == KVS_RC_NO_SUCH_RECORD ||
                        status == VS_FAULT_KVS_DB_EMPTY)
                << status;
        }
    });
    for (int i = 0; i < 5; ++i)
        EXPECT_TRUE(passes_in_child([] {
            EXPECT_EQ(put(vs_kvs_insert_clients_info_rec, {3000, 0}), 0u);
        }));
    for (auto &thread : threads)
        thread.join();
    is_done = true;
    lister.join();
}
