// The library on the real platform: several processes, threads and forks on one store.
#include "kvs.h"
#include "ringlog.h"
#include "scratch.h"
#include "state_dir.h"
#include "tools/records.h"
#include "vs_kvs.h"

#include <atomic>
#include <thread>
#include <vector>

namespace {

OWN_STATE_DIR(false);

using vskvs::words;

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
    words none;
    EXPECT_EQ(vskvs::objects.get(vskvs::objects.shape, 0, none), vskvs::objects.invalid_key);
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

// Threads with records of their own, and forks in between.
TEST(service, serves_many_threads)
{
    ASSERT_EQ(vs_kvs_initialize(1), 0u);
    std::vector<std::thread> threads;
    for (uint32_t id = 2000; id < 2004; ++id)
        threads.emplace_back([id] {
            for (const auto *db : vskvs::databases) {
                words record(db->shape.length(0));
                record[0] = id;
                EXPECT_EQ(db->insert(record), 0u);
            }
            for (uint32_t i = 1; i <= 10; ++i) {
                const vs_client_info_entry client{i, i, {}};
                EXPECT_EQ(vs_kvs_update_vs_object_selected_version(id, i), 0u);
                EXPECT_EQ(vs_kvs_add_new_client_info(id, &client), 0u);
                EXPECT_EQ(vs_kvs_add_new_client_objects_reg_object(id, i), 0u);
            }
            for (const auto *db : vskvs::databases) {
                words record(2);
                EXPECT_EQ(db->get(db->shape, id, record), 0u);
                EXPECT_EQ(record[1], 10u);
                std::vector<words> all; // those of other threads may go meanwhile
                const uint32_t status = db->list(db->shape, all);
                EXPECT_TRUE(status == 0 || status == KVS_RC_NO_SUCH_RECORD) << status;
                EXPECT_EQ(db->erase ? db->erase(id) : 0, 0u);
            }
        });
    // A child of a sanitized program may find the sanitizer's own locks held by no thread.
    for (int i = memory_is_taken() ? 5 : 0; i < 5; ++i)
        EXPECT_TRUE(passes_in_child([] { EXPECT_EQ(vskvs::clients.insert({3000, 0}), 0u); }));
    for (auto &thread : threads)
        thread.join();
}
