// The library on the real platform: several processes, threads and forks on one store.
//
// Where a test needs to stand between two steps of an operation, it stands in the way of the
// store's write, as any other platform could.
#include "kvs.h"
#include "ringlog.h"
#include "scratch.h"
#include "state_dir.h"
#include "vs_kvs.h"

#include <atomic>
#include <dlfcn.h>
#include <map>
#include <random>
#include <thread>
#include <utility>
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
    const uint32_t rc = vs_kvs_get_vs_objects_all_recs(&count, &records);
    for (uint32_t i = 0; i < count; ++i) {
        ids.push_back(records[i]->vs_object_id);
        free(records[i]);
    }
    free(records);
    return rc;
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
std::function<void()> before_write, after_write;

void meanwhile(std::function<void()> &work)
{
    EXPECT_TRUE(!work || passes_in_child(std::exchange(work, nullptr)));
}

} // namespace

extern "C" uint32_t kvs_write_object(kvs_hdl hdl, const kvs_rec_hdl *rec_p, uint32_t offset,
                                     const kvs_data_desc *data_p, uint32_t data_count,
                                     uint32_t *value_p, kvs_write_result *result_p)
{
    static const auto real =
        reinterpret_cast<decltype(&kvs_write_object)>(dlsym(RTLD_NEXT, "kvs_write_object"));
    meanwhile(before_write);
    const uint32_t rc = real(hdl, rec_p, offset, data_p, data_count, value_p, result_p);
    meanwhile(after_write);
    return rc;
}

// Programs of their own, for what is settled when the library is loaded.
TEST(DISABLED_program, has_no_common_buffer) { EXPECT_EQ(vs_ringlog, 0u); }

TEST(DISABLED_program, sets_up)
{
    const char *const job = getenv("VS_JOB_ID");
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

// The read-back notices another writer where it touches the field that was changed, and not else.
TEST(service, notices_some_interference)
{
    create_databases();
    ASSERT_EQ(put(vs_kvs_insert_vs_object_rec, {31, 1, 0, 0, 0, 0}), 0u);
    ASSERT_EQ(put(vs_kvs_insert_clients_info_rec, {31, 1, 5, 50, 0, 0, 0}), 0u);
    const vs_client_info_entry mine{5, 51, {}}, theirs{5, 52, {}}, added{6, 60, {}},
        other{7, 70, {}};

    // Of two clients added at once, the one that was written first is lost.
    before_write = [&] { EXPECT_EQ(vs_kvs_add_new_client_info(31, &added), 0u); };
    EXPECT_EQ(vs_kvs_add_new_client_info(31, &other), 0u);
    EXPECT_EQ(get(vs_kvs_get_clients_info_rec, 31), (words{31, 2, 5, 50, 0, 0, 0, 7, 70, 0, 0, 0}));

    after_write = [] { EXPECT_EQ(vs_kvs_update_vs_object_selected_version(31, 9), 0u); };
    EXPECT_EQ(vs_kvs_update_vs_object_selected_version(31, 2), VS_FAULT_KVS_UPDATE_SANITY);
    EXPECT_EQ(get(vs_kvs_get_vs_object_rec, 31)[1], 9u);

    after_write = [&] { EXPECT_EQ(vs_kvs_update_client_info(31, &theirs), 0u); };
    EXPECT_EQ(vs_kvs_update_client_info(31, &mine), VS_FAULT_KVS_UPDATE_SANITY);

    // The record is deleted and stored anew, shorter than what was added to.
    after_write = [] {
        EXPECT_EQ(vs_kvs_delete_clients_info_rec(31), 0u);
        EXPECT_EQ(put(vs_kvs_insert_clients_info_rec, {31, 0}), 0u);
    };
    EXPECT_EQ(vs_kvs_add_new_client_info(31, &added), VS_FAULT_KVS_ADD_SANITY);

    // Between finding and writing, the handle goes stale: the write must not hit the new record.
    before_write = [] {
        EXPECT_EQ(vs_kvs_delete_vs_object(31), 0u);
        EXPECT_EQ(put(vs_kvs_insert_vs_object_rec, {31, 7, 0, 0, 0, 0}), 0u);
    };
    EXPECT_EQ(vs_kvs_update_vs_object_selected_version(31, 2), KVS_RC_NO_SUCH_RECORD);
    EXPECT_EQ(get(vs_kvs_get_vs_object_rec, 31)[1], 7u);
}

// Random operations, each against a picture of the three databases in memory.
TEST(service, agrees_with_a_model)
{
    create_databases();
    std::map<uint32_t, words> objects, lists, jobs; // empty ones are not stored
    const auto expect_put = [](uint32_t status, words &stored, const words &record) {
        const bool is_new = stored.empty();
        EXPECT_EQ(status, is_new || stored == record ? 0u : KVS_RC_RECORD_EXISTS);
        if (is_new)
            stored = record;
    };
    std::mt19937 random(20261122);
    const auto pick = [&](uint32_t n) { return static_cast<uint32_t>(random() % n); };
    ASSERT_EQ(kvs_batch_begin(g_kvs_hdl_vs_objects_db), 0u);
    struct batch {
        ~batch() { kvs_batch_abort(); } // if the test fails half-way
    } const while_it_lasts;
    for (int step = 0; step < 4000; ++step) {
        const uint32_t id = 1000 + pick(12), value = 1 + pick(9), pid = 100 + pick(50);
        const vs_client_info_entry client{value, pid, {static_cast<uint8_t>(value)}};
        words &stored = objects[id], &list = lists[id], &job = jobs[id];
        const uint32_t no_object = stored.empty() ? VS_FAULT_NO_SUCH_OBJECT : 0;
        const uint32_t no_list = list.empty() ? VS_FAULT_NO_SUCH_OBJECT : 0;
        switch (const uint32_t kind = pick(9); kind) {
        case 0: {
            words record{id, value, 0, 0, 0, value % 4};
            record.resize(6 + value % 4, value);
            expect_put(put(vs_kvs_insert_vs_object_rec, record), stored, record);
            break;
        }
        case 1:
            EXPECT_EQ(vs_kvs_update_vs_object_selected_version(id, value), no_object);
            if (!no_object)
                stored[1] = value;
            break;
        case 2:
            EXPECT_EQ(vs_kvs_delete_vs_object(id), no_object);
            stored.clear();
            break;
        case 3:
            expect_put(put(vs_kvs_insert_clients_info_rec, {id, 0}), list, {id, 0});
            break;
        case 4:
        case 5: {
            size_t at = 2;
            while (at < list.size() && list[at] != value)
                at += 5;
            const bool is_found = at < list.size();
            const uint32_t status = kind == 4 ? vs_kvs_add_new_client_info(id, &client)
                                              : vs_kvs_update_client_info(id, &client);
            EXPECT_EQ(status, no_list                  ? no_list
                              : kind == 4 && is_found  ? VS_FAULT_KVS_CLIENT_ALREADY_EXIST
                              : kind == 5 && !is_found ? VS_FAULT_INVALID_CLIENT_JID
                                                       : 0u);
            if (status == 0) {
                list.resize(std::max(list.size(), at + 5));
                memcpy(&list[at], &client, sizeof client);
                list[1] = static_cast<uint32_t>(list.size() / 5);
            }
            break;
        }
        case 6:
            EXPECT_EQ(vs_kvs_delete_clients_info_rec(id), no_list);
            list.clear();
            break;
        case 7:
            expect_put(put(vs_kvs_insert_client_objects_reg_rec, {id, 1, 77}), job, {id, 1, 77});
            break;
        case 8: {
            const bool is_new =
                job.empty() || std::find(job.begin() + 2, job.end(), value) == job.end();
            EXPECT_EQ(vs_kvs_add_new_client_objects_reg_object(id, value),
                      job.empty() ? VS_FAULT_KVS_REG_NOT_EXIST
                      : is_new    ? 0u
                                  : VS_FAULT_KVS_REG_ALREADY_EXIST);
            if (!job.empty() && is_new)
                job.push_back(value), ++job[1];
            break;
        }
        }
        ASSERT_EQ(get(vs_kvs_get_vs_object_rec, id), stored) << "step " << step;
        ASSERT_EQ(get(vs_kvs_get_clients_info_rec, id), list) << "step " << step;
        ASSERT_EQ(get(vs_kvs_get_client_objects_reg_rec, id), job) << "step " << step;
    }
    EXPECT_EQ(kvs_batch_commit(), 0u);
    words listed;
    EXPECT_EQ(list_objects(listed), 0u);
    for (const auto &[id, record] : objects)
        EXPECT_EQ(std::count(listed.begin(), listed.end(), id), !record.empty()) << id;
}

// Threads with records of their own, a lister, and forks in the middle: nobody disturbs anybody.
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
            const uint32_t rc = list_objects(ids);
            EXPECT_TRUE(rc == 0 || rc == KVS_RC_NO_SUCH_RECORD || rc == VS_FAULT_KVS_DB_EMPTY)
                << rc;
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
