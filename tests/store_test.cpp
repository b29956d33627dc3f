// The record store as kvs.h promises it, on real files, with real processes, kills and forks.
//
// Every test runs in a child process with a state directory of its own, since a process cannot let
// go of a store. System calls that write are taken over by this executable, to fail when a test
// says so.
#include "kvs.h"

#include <algorithm>
#include <atomic>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <functional>
#include <gtest/gtest.h>
#include <lmdb.h>
#include <map>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace fs = std::filesystem;

namespace {

std::atomic<int> fault{0};      // what the calls below fail with, within the store
std::atomic<int> calls_left{0}; // that go well before
std::atomic<bool> fault_stays{false};
std::atomic<int> syncs{0};
thread_local bool in_store = false;

struct enter_store {
    enter_store() { in_store = true; }
    ~enter_store() { in_store = false; }
};

bool fails(bool allocates = false)
{
    if (fault == 0 || !in_store || allocates != (fault == ENOMEM) || calls_left-- > 0)
        return false;
    errno = fault;
    if (!fault_stays)
        fault = 0;
    return true;
}

} // namespace

extern "C" ssize_t pwrite(int fd, const void *from, size_t length, off_t offset)
{
    return fails() ? -1 : syscall(SYS_pwrite64, fd, from, length, offset);
}
extern "C" ssize_t writev(int fd, const iovec *from, int count)
{
    return fails() ? -1 : syscall(SYS_writev, fd, from, count);
}
extern "C" int fdatasync(int fd)
{
    ++syncs;
    return fails() ? -1 : static_cast<int>(syscall(SYS_fdatasync, fd));
}
extern "C" int fsync(int fd) { return fails() ? -1 : static_cast<int>(syscall(SYS_fsync, fd)); }
extern "C" int posix_fallocate(int fd, off_t offset, off_t length)
{
    return fails() || syscall(SYS_fallocate, fd, 0, offset, length) != 0 ? errno : 0;
}

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
#define ALLOCATION_FAULTS ENOMEM
extern "C" void *__libc_malloc(size_t);
extern "C" void *__libc_calloc(size_t, size_t);
extern "C" void *malloc(size_t size) { return fails(true) ? nullptr : __libc_malloc(size); }
extern "C" void *calloc(size_t n, size_t size)
{
    return fails(true) ? nullptr : __libc_calloc(n, size);
}
#else
#define ALLOCATION_FAULTS EIO
#endif

namespace {

using task = std::function<void()>;

int failures()
{
    return testing::UnitTest::GetInstance()->current_test_info()->result()->total_part_count();
}

pid_t start(const task &work)
{
    fflush(nullptr);
    const pid_t child = fork();
    if (child == 0) {
        const int before = failures();
        work();
        fflush(nullptr);
        _exit(failures() != before);
    }
    return child;
}

int finish(pid_t child)
{
    int status = -1;
    waitpid(child, &status, 0);
    return status;
}

void in_child(const task &work)
{
    const int status = finish(start(work));
    EXPECT_EQ(status, 0);
}

void kill_and_wait(pid_t child)
{
    kill(child, SIGKILL);
    finish(child);
}

struct pipe_pair {
    int ends[2];
    pipe_pair() { EXPECT_EQ(pipe(ends), 0); }
    void tell(uint32_t what = 1) const { EXPECT_EQ(write(ends[1], &what, sizeof what), 4); }
    uint32_t hear() const
    {
        uint32_t what = 0;
        EXPECT_EQ(read(ends[0], &what, sizeof what), 4);
        return what;
    }
};

fs::path state;

void set_state_dir(const fs::path &path) { setenv("VS_STATE_DIR", path.c_str(), 1); }

void in_new_store(const task &work)
{
    char name[] = "/tmp/store_testXXXXXX";
    state = mkdtemp(name);
    set_state_dir(state);
    in_child(work);
    fs::remove_all(state);
}

#define STORE_TEST(name)                                                                           \
    void name();                                                                                   \
    TEST(store, name) { in_new_store(name); }                                                      \
    void name()

std::string record(uint32_t key, const std::string &body = "")
{
    return std::string(reinterpret_cast<const char *>(&key), sizeof key) + body;
}

using records = std::map<uint32_t, std::string>;

const kvs_key_attr plain_key{{0, 0, 0}, 0, 4, nullptr, 0};

// A database, in fewer words.
struct db {
    kvs_hdl hdl = 0;
    uint32_t bound;

    explicit db(const char *name = "db")
    {
        kvs_appdesc about;
        kvs_appdesc_init(&about);
        const enter_store inside;
        bound = kvs_init(name, &about, 0, &hdl);
    }
    uint32_t insert(const std::string &bytes, kvs_rec_hdl *out = nullptr) const
    {
        kvs_rec_hdl rec = 0;
        const kvs_data_desc data{bytes.data(), bytes.size()};
        const enter_store inside;
        return kvs_insert_object(hdl, &data, 1, &plain_key, 1, 0, 0, out ? out : &rec);
    }
    // Inserts this many records within one batch, which stays open.
    uint32_t fill(uint32_t first, uint32_t count, const std::string &body) const
    {
        uint32_t status = kvs_batch_begin(hdl);
        for (uint32_t key = first; status == 0 && key < first + count; ++key)
            status = insert(record(key, body));
        return status;
    }
    uint32_t write(kvs_rec_hdl rec, uint32_t offset, const std::string &bytes) const
    {
        const kvs_data_desc data{bytes.empty() ? nullptr : bytes.data(), bytes.size()};
        kvs_write_result result;
        const enter_store inside;
        return kvs_write_object(hdl, &rec, offset, &data, 1, nullptr, &result);
    }
    uint32_t remove(kvs_rec_hdl rec) const
    {
        const enter_store inside;
        return kvs_delete_object(hdl, &rec);
    }
    kvs_rec_hdl find(uint32_t key) const
    {
        const kvs_key_attr by_key{{0, 0, 0}, 0, 4, &key, 99}; // nobody sets the offset to look up
        kvs_rec_hdl *found = nullptr;
        uint32_t count = 0;
        EXPECT_EQ(kvs_find_objects(hdl, &by_key, 1, 0, &found, &count), 0u);
        const kvs_rec_hdl rec = count == 1 ? *found : 0;
        free(found);
        return rec;
    }
    uint32_t read(kvs_rec_hdl rec, std::string *out) const
    {
        uint32_t length = 0;
        uint32_t status = kvs_get_object_size(hdl, &rec, &length);
        out->resize(length);
        if (status == 0)
            status = kvs_read_object(hdl, &rec, 0, out->data(), &length);
        EXPECT_TRUE(status != 0 || length == out->size());
        return status;
    }
    uint32_t list(records *out) const
    {
        kvs_rec_hdl *found = nullptr;
        uint32_t count = 0;
        uint32_t status = kvs_find_objects(hdl, nullptr, 0, 0, &found, &count);
        for (uint32_t i = 0, last = 0; status == 0 && i < count; ++i) {
            const auto key = static_cast<uint32_t>(found[i]);
            EXPECT_TRUE(i == 0 || key > last);
            status = read(found[i], &(*out)[last = key]);
        }
        free(found);
        return status;
    }
    records all() const
    {
        records found;
        EXPECT_EQ(list(&found), 0u);
        return found;
    }
};

uint32_t commit()
{
    const enter_store inside;
    return kvs_batch_commit();
}

// Opens the store's files with the engine itself, in a process that has no other use of them.
void raw(const std::function<void(MDB_env *, MDB_txn *, MDB_dbi main, MDB_dbi db)> &work)
{
    in_child([&] {
        MDB_env *env = nullptr;
        MDB_txn *txn = nullptr;
        MDB_dbi dbi[2] = {};
        mdb_env_create(&env);
        mdb_env_set_maxdbs(env, 4);
        mdb_env_open(env, (state / "store.mdb").c_str(), MDB_NOSUBDIR, 0600);
        ASSERT_EQ(mdb_txn_begin(env, nullptr, 0, &txn), 0);
        mdb_dbi_open(txn, nullptr, 0, &dbi[0]);
        ASSERT_EQ(mdb_dbi_open(txn, "db", MDB_INTEGERKEY, &dbi[1]), 0);
        work(env, txn, dbi[0], dbi[1]);
        EXPECT_EQ(mdb_txn_commit(txn), 0);
    });
}

void raw_put(MDB_txn *txn, MDB_dbi dbi, std::string name, std::string bytes)
{
    MDB_val key{name.size(), name.data()};
    MDB_val value{bytes.size(), bytes.data()};
    EXPECT_EQ(mdb_put(txn, dbi, &key, &value, 0), 0);
}

STORE_TEST(refuses_what_it_cannot_do)
{
    const db d;
    kvs_rec_hdl rec = 0;
    ASSERT_EQ(d.insert(record(1, "abc"), &rec), 0u);
    kvs_appdesc about;
    kvs_appdesc_init(&about);
    kvs_hdl hdl = 5;
    kvs_rec_hdl *found = nullptr;
    uint32_t n = 0;
    char buffer[8];
    const auto init = [&](const std::string &name, auto change) {
        kvs_appdesc changed = about;
        change(changed);
        return kvs_init(name.c_str(), &changed, 0, &hdl);
    };
    const auto find = [&](uint32_t count, uint32_t flags, auto change) {
        kvs_key_attr key{{0, 0, 0}, 0, 4, &rec, 0};
        change(key);
        return kvs_find_objects(d.hdl, &key, count, flags, &found, &n);
    };
    const auto insert = [&](kvs_data_desc data, uint32_t r1, uint32_t r2, uint64_t key_offset) {
        const kvs_key_attr key{{0, 0, 0}, 0, 4, nullptr, key_offset};
        return kvs_insert_object(d.hdl, &data, 1, &key, 1, r1, r2, &rec);
    };
    const auto size = [&](kvs_hdl h) { return kvs_get_object_size(h, &rec, &n); };
    const auto same = [](auto &) {};
    const std::pair<uint32_t, uint32_t> table[] = {
        {KVS_RC_NULL_ARG, kvs_appdesc_init(nullptr)},
        {KVS_RC_NULL_ARG, kvs_init(nullptr, &about, 0, &hdl)},
        {KVS_RC_NULL_ARG, kvs_init("db", nullptr, 0, &hdl)},
        {KVS_RC_NULL_ARG, kvs_lookup_db_handle("db", nullptr)},
        {KVS_RC_BAD_NAME, init("", same)},
        {KVS_RC_BAD_NAME, init(std::string(65, 'x'), same)},
        {KVS_RC_UNSUPPORTED, init("db", [](auto &a) { a.mark = 0; })},
        {KVS_RC_UNSUPPORTED, init("db", [](auto &a) { a.key_count = 2; })},
        {KVS_RC_UNSUPPORTED, init("db", [](auto &a) { a.context = 1; })},
        {KVS_RC_NO_SUCH_DB, kvs_lookup_db_handle("other", &hdl)},
        {KVS_RC_UNSUPPORTED, find(2, 0, same)},
        {KVS_RC_UNSUPPORTED, find(1, 1, same)},
        {KVS_RC_BAD_KEY, find(1, 0, [](auto &k) { k.key_len = 8; })},
        {KVS_RC_BAD_KEY, find(1, 0, [](auto &k) { k.key_flags[2] = 1; })},
        {KVS_RC_NULL_ARG, find(1, 0, [](auto &k) { k.key_p = nullptr; })},
        {KVS_RC_UNSUPPORTED, insert({"abcdef", 6}, 1, 0, 0)},
        {KVS_RC_UNSUPPORTED, insert({"abcdef", 6}, 0, 1, 0)},
        {KVS_RC_BAD_KEY, insert({"abcdef", 6}, 0, 0, 4)},
        {KVS_RC_BAD_KEY, insert({"abc", 3}, 0, 0, 0)},
        {KVS_RC_NULL_ARG, insert({nullptr, 6}, 0, 0, 0)},
        {KVS_RC_RECORD_TOO_BIG, insert({"", UINT64_C(0xFFFFFFFC)}, 0, 0, 0)},
        {KVS_RC_RECORD_TOO_BIG, insert({"", UINT64_MAX}, 0, 0, 0)},
        {KVS_RC_NULL_ARG, kvs_read_object(d.hdl, &rec, 0, nullptr, &(n = 1))},
        {KVS_RC_BAD_OFFSET, kvs_read_object(d.hdl, &rec, 8, buffer, &n)},
        {KVS_RC_BAD_OFFSET, d.write(rec, 8, "x")},
        {KVS_RC_KEY_CHANGED, d.write(rec, 3, "x")},
        {KVS_RC_NULL_ARG, kvs_delete_object(d.hdl, nullptr)},
        {KVS_RC_BAD_HDL, size(0)},
        {KVS_RC_BAD_HDL, size(UINT64_MAX)},
        {KVS_RC_BAD_HDL, size(d.hdl + 1)},
        {KVS_RC_BAD_HDL, size(d.hdl + 256)},
        {KVS_RC_NO_SUCH_RECORD, d.remove(1)},
        {KVS_RC_NO_BATCH, kvs_batch_commit()},
        {KVS_RC_NO_BATCH, kvs_batch_abort()},
    };
    for (size_t i = 0; i < std::size(table); ++i)
        EXPECT_EQ(table[i].first, table[i].second) << "row " << i;
    EXPECT_EQ(hdl, 5u);
    EXPECT_EQ(d.all(), (records{{1, record(1, "abc")}}));
}

STORE_TEST(keeps_records_as_they_are_written)
{
    const db d;
    EXPECT_TRUE(d.all().empty());
    kvs_rec_hdl rec = 0;
    kvs_rec_hdl again = 0;
    std::string bytes;
    const int before = syncs;
    ASSERT_EQ(d.insert(record(7, "0123456789"), &rec), 0u);
    EXPECT_EQ(d.insert(record(7, "0123456789"), &again), KVS_RC_TOLERATED_ON_INSERT);
    EXPECT_EQ(d.insert(record(7, "012345678")), KVS_RC_RECORD_EXISTS);
    EXPECT_EQ(rec, again);
    EXPECT_EQ(syncs - before, 1);
    EXPECT_EQ(rec, d.find(7));
    EXPECT_EQ(d.write(rec, 6, "ab"), 0u);
    EXPECT_EQ(d.write(rec, 14, "long" + std::string(5000, 'x')), 0u);
    EXPECT_EQ(d.write(rec, 14, ""), 0u);
    const std::string key_tail = record(7).substr(1);
    const kvs_data_desc parts[] = {{key_tail.data(), 3}, {nullptr, 0}, {"XY", 2}};
    kvs_write_result result{{1, 1, 1, 1, 1, 1, 1, 1}};
    EXPECT_EQ(kvs_write_object(d.hdl, &rec, 1, parts, 3, nullptr, &result), 0u);
    EXPECT_EQ(result.words[7], 0u);
    EXPECT_EQ(d.read(rec, &bytes), 0u);
    EXPECT_EQ(bytes, record(7, "XYab456789long" + std::string(5000, 'x')));
    uint32_t length = 4;
    char part[4];
    EXPECT_EQ(kvs_read_object(d.hdl, &rec, 4, part, &length), 0u);
    EXPECT_EQ(std::string(part, length), "XYab");

    EXPECT_EQ(d.remove(rec), 0u);
    for (const bool batch : {false, true}) {
        kvs_rec_hdl old = 0;
        EXPECT_EQ(batch ? kvs_batch_begin(d.hdl) : 0, 0u);
        EXPECT_EQ(d.insert(record(7), &old), 0u);
        EXPECT_EQ(d.remove(old), 0u);
        EXPECT_EQ(d.insert(record(7), &rec), 0u);
        for (const kvs_rec_hdl stale : {old, again})
            for (const uint32_t status : {d.read(stale, &bytes), d.write(stale, 4, "x"),
                                          d.write(stale, 4, ""), d.remove(stale)})
                EXPECT_EQ(status, KVS_RC_NO_SUCH_RECORD);
        EXPECT_EQ(d.remove(d.find(7)), 0u);
        EXPECT_EQ(batch ? kvs_batch_commit() : 0, 0u);
    }
}

STORE_TEST(lists_what_is_stored_whatever_its_size)
{
    const db d;
    records wanted;
    ASSERT_EQ(kvs_batch_begin(d.hdl), 0u);
    for (uint32_t i = 0; i < 3000; ++i) {
        const uint32_t key = i * 2654435769u;
        wanted[key] = record(key, std::string(i % 500 == 7 ? 70000 : i % 97, 'a'));
        EXPECT_EQ(d.insert(wanted[key]), 0u);
    }
    EXPECT_EQ(d.all(), wanted);
    EXPECT_EQ(kvs_batch_commit(), 0u);
    EXPECT_EQ(d.all(), wanted);
    for (int round = 0; round < 2; ++round)
        for (const auto &[key, bytes] : wanted) {
            std::string got;
            EXPECT_EQ(d.read(d.find(key), &got), 0u);
            ASSERT_EQ(got, bytes);
        }
}

STORE_TEST(sees_every_commit_of_another_process_at_once)
{
    const db d;
    const pipe_pair go;
    const pipe_pair done;
    kvs_rec_hdl rec = 0;
    ASSERT_EQ(d.insert(record(1, "0"), &rec), 0u);
    ASSERT_EQ(d.insert(record(2, "-")), 0u);
    const pid_t other = start([&] {
        while (const uint32_t what = go.hear()) {
            const kvs_rec_hdl mine = d.find(1);
            EXPECT_EQ(what == 99 ? d.remove(mine) : d.write(mine, 4, std::string(what, 'x')), 0u);
            done.tell();
        }
    });
    const auto change = [&](uint32_t what) { go.tell(what), done.hear(); };
    for (uint32_t i = 2; i < 20; i += 2) {
        EXPECT_EQ(i % 4 == 0 ? d.all().begin()->first : static_cast<uint32_t>(d.find(1)), 1u);
        change(i);
        uint32_t size = 0;
        uint32_t length = 30;
        char bytes[30];
        EXPECT_EQ(kvs_get_object_size(d.hdl, &rec, &size), 0u);
        EXPECT_EQ(size, 4 + i);
        change(i + 1);
        EXPECT_EQ(kvs_read_object(d.hdl, &rec, 0, bytes, &length), 0u);
        EXPECT_EQ(length, 4 + i + 1);
    }
    change(99);
    std::string gone;
    EXPECT_EQ(d.read(rec, &gone), KVS_RC_NO_SUCH_RECORD);
    EXPECT_EQ(d.find(1), 0u);
    go.tell(0);
    EXPECT_EQ(finish(other), 0);
}

STORE_TEST(makes_a_batch_one_change)
{
    const db d;
    const db second("second");
    const auto elsewhere = [&] {
        size_t seen = 0;
        std::thread([&] { seen = d.all().size(); }).join();
        in_child([&] { EXPECT_EQ(d.all().size(), seen); });
        return seen;
    };
    EXPECT_EQ(second.insert(record(5, "old")), 0u);
    const kvs_rec_hdl seen_before = second.find(5);
    ASSERT_EQ(d.fill(1, 1, ""), 0u);
    EXPECT_EQ(second.write(seen_before, 4, "new"), 0u);
    std::string bytes;
    EXPECT_EQ(second.read(seen_before, &bytes), 0u);
    EXPECT_EQ(bytes, record(5, "new"));
    EXPECT_EQ(kvs_batch_begin(d.hdl), KVS_RC_BATCH_ACTIVE);
    EXPECT_EQ(db("new").bound, KVS_RC_BATCH_ACTIVE);
    EXPECT_EQ(db("second").hdl, second.hdl);
    kvs_hdl late = 0;
    in_child([] { EXPECT_EQ(kvs_batch_abort(), KVS_RC_NO_BATCH); });
    EXPECT_EQ(second.insert(record(1)), 0u);
    EXPECT_EQ(d.insert(record(1)), KVS_RC_TOLERATED_ON_INSERT);
    EXPECT_EQ(d.all().size(), 1u);
    EXPECT_EQ(elsewhere(), 0u);
    EXPECT_EQ(kvs_batch_commit(), 0u);
    EXPECT_EQ(elsewhere(), 1u);
    EXPECT_EQ(second.all().size(), 2u);

    in_child([] { EXPECT_EQ(db("late").bound, 0u); });
    ASSERT_EQ(d.fill(2, 1, ""), 0u);
    std::thread([&] { EXPECT_EQ(kvs_lookup_db_handle("late", &late), 0u); }).join();
    EXPECT_EQ(kvs_delete_object(late, &late), KVS_RC_BATCH_ACTIVE);
    EXPECT_EQ(kvs_batch_abort(), 0u);
    std::thread([&] { EXPECT_EQ(d.fill(3, 1, ""), 0u); }).join();
    const pipe_pair ready;
    const pid_t victim = start([&] {
        EXPECT_EQ(d.fill(10, 1000, std::string(1000, 'x')), 0u);
        ready.tell();
        pause();
    });
    ready.hear();
    kill_and_wait(victim);
    EXPECT_EQ(d.insert(record(4)), 0u);
    EXPECT_EQ(d.all().size(), 2u);
}

STORE_TEST(outgrows_every_map)
{
    const db d;
    const pipe_pair go;
    const pid_t other = start([&] {
        EXPECT_EQ(d.insert(record(1000000)), 0u);
        go.tell();
        for (uint32_t i = 0; d.find(3999) == 0; ++i)
            EXPECT_EQ(d.write(d.find(1000000), 4, std::string(i % 100 + 1, 'x')), 0u);
        EXPECT_EQ(d.all().size(), 4001u);
    });
    go.hear();
    std::atomic<bool> growing{true};
    std::vector<std::thread> readers;
    for (int i = 0; i < 3; ++i)
        readers.emplace_back([&] {
            std::string bytes;
            for (uint32_t key = 0; growing; key = (key + 1) % 100) {
                const uint32_t status = d.read(d.find(key), &bytes);
                EXPECT_TRUE(status != 0 || bytes == record(key, std::string(80000, 'x')));
            }
        });
    for (uint32_t key = 0; key < 100; ++key)
        EXPECT_EQ(d.insert(record(key, std::string(80000, 'x'))), 0u);
    growing = false;
    for (std::thread &each : readers)
        each.join();
    for (uint32_t key = 100; key < 4000; key += 650) {
        ASSERT_EQ(d.fill(key, 650, std::string(8000, 'x')), 0u);
        ASSERT_EQ(kvs_batch_commit(), 0u);
    }
    EXPECT_EQ(finish(other), 0);
    EXPECT_GT(fs::file_size(state / "store.mdb"), 38u << 20);
    EXPECT_EQ(d.all().size(), 4001u);
}

STORE_TEST(gives_a_batch_that_fills_its_map_more_room)
{
    // Address space is short when the batch begins, so it gets little room.
    const db d;
    rlimit limit{};
    getrlimit(RLIMIT_AS, &limit);
    rlim_t pages = 0;
    std::ifstream("/proc/self/statm") >> pages;
    if (pages > rlim_t{1} << 28)
        return; // a sanitizer has taken it all
    const rlimit tight{pages * 4096 + (24u << 20), limit.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_AS, &tight), 0);
    ASSERT_EQ(kvs_batch_begin(d.hdl), 0u);
    ASSERT_EQ(setrlimit(RLIMIT_AS, &limit), 0);
    const std::string body(1 << 20, 'x');
    uint32_t status = 0;
    for (uint32_t key = 0; status == 0 && key < 60; ++key)
        status = d.insert(record(key, body));
    EXPECT_EQ(status, KVS_RC_BATCH_FULL);
    EXPECT_EQ(d.insert(record(99)), KVS_RC_BATCH_BROKEN);
    records nothing;
    EXPECT_EQ(d.list(&nothing), KVS_RC_BATCH_BROKEN);
    EXPECT_EQ(kvs_batch_commit(), KVS_RC_BATCH_BROKEN);
    EXPECT_EQ(kvs_batch_commit(), KVS_RC_NO_BATCH);
    EXPECT_TRUE(d.all().empty());
    EXPECT_EQ(d.fill(0, 60, body), 0u);
    EXPECT_EQ(kvs_batch_commit(), 0u);
    EXPECT_EQ(d.all().size(), 60u);
}

STORE_TEST(goes_on_in_a_forked_child)
{
    const db d;
    ASSERT_EQ(d.insert(record(1)), 0u);
    EXPECT_EQ(d.all().size(), 1u);
    ASSERT_EQ(d.fill(2, 1, ""), 0u);
    const pipe_pair seen;
    const pid_t child = start([&] {
        EXPECT_EQ(d.all().size(), 1u);
        seen.tell();
        EXPECT_EQ(d.insert(record(3)), 0u);
        in_child([&] { EXPECT_EQ(d.insert(record(4)), 0u); });
    });
    seen.hear();
    EXPECT_EQ(d.all().size(), 2u);
    EXPECT_EQ(kvs_batch_commit(), 0u);
    EXPECT_EQ(finish(child), 0);
    EXPECT_EQ(d.all().size(), 4u);
    raw([](MDB_env *env, MDB_txn *, MDB_dbi, MDB_dbi) {
        MDB_envinfo about;
        mdb_env_info(env, &about);
        EXPECT_GE(about.me_numreaders, 3u); // nobody shared the slot of another
    });
}

STORE_TEST(serves_many_threads_and_the_children_they_fork)
{
    const db d;
    const auto work = [&d](uint32_t t) {
        for (uint32_t key = t * 1000; key < t * 1000 + 30; ++key) {
            const bool batch = t < 3 && key % 4 == 0;
            const std::string body(t == 0 ? 100000 : 10, 'x');
            kvs_rec_hdl rec = 0;
            std::string got;
            EXPECT_EQ(batch ? kvs_batch_begin(d.hdl) : 0, 0u);
            EXPECT_EQ(d.insert(record(key, body), &rec), 0u);
            EXPECT_EQ(d.find(key), rec);
            EXPECT_EQ(d.write(rec, 4, "y"), 0u);
            EXPECT_EQ(d.read(rec, &got), 0u);
            EXPECT_EQ(got, record(key, "y" + body.substr(1)));
            EXPECT_EQ(key % 2 ? d.remove(rec) : 0, 0u);
            EXPECT_EQ(batch ? kvs_batch_commit() : 0, 0u);
            records others; // which may go while they are listed
            const uint32_t status = d.list(&others);
            EXPECT_TRUE(status == 0 || status == KVS_RC_NO_SUCH_RECORD);
            if (t == 7 && key % 5 == 0)
                in_child([&] { EXPECT_EQ(d.insert(record(key + 500)), 0u); });
        }
    };
    std::vector<std::thread> threads;
    for (uint32_t t = 0; t < 8; ++t)
        threads.emplace_back(work, t);
    for (std::thread &each : threads)
        each.join();
    EXPECT_EQ(d.all().size(), 8u * 15 + 6);
}

STORE_TEST(is_made_once_however_many_make_it)
{
    for (uint32_t round = 0; round < 30; ++round) {
        set_state_dir(state / std::to_string(round));
        std::vector<pid_t> makers;
        for (uint32_t key = 0; key < 4; ++key)
            makers.push_back(start([key] { EXPECT_EQ(db().insert(record(key)), 0u); }));
        usleep(round * 30);
        kill_and_wait(makers.back());
        makers.pop_back();
        for (const pid_t each : makers)
            EXPECT_EQ(finish(each), 0);
        in_child([] { EXPECT_GE(db().all().size(), 3u); });
    }
}

STORE_TEST(clears_the_slots_of_dead_readers)
{
    const pipe_pair reading;
    const db d;
    EXPECT_EQ(d.insert(record(1)), 0u);
    for (int i = 0; i < 30; ++i) {
        const pid_t victim = start([&] {
            reading.tell(static_cast<uint32_t>(d.all().size()));
            for (uint32_t key = 2;; ++key)
                EXPECT_EQ(d.find(key), 0u);
        });
        EXPECT_EQ(reading.hear(), 1u);
        kill_and_wait(victim);
    }
    raw([](MDB_env *env, MDB_txn *, MDB_dbi, MDB_dbi) {
        MDB_envinfo about;
        mdb_env_info(env, &about);
        EXPECT_LT(about.me_numreaders, 8u);
        EXPECT_GT(about.me_maxreaders, 1000u);
    });
    const pid_t crowd = start([&] {
        std::atomic<uint32_t> refused{0};
        for (int i = 0; i < 1100; ++i)
            std::thread([&] {
                const uint32_t key = 1;
                uint32_t size = 0;
                const kvs_rec_hdl rec = uint64_t{1} << 32 | key;
                refused += kvs_get_object_size(d.hdl, &rec, &size) == KVS_RC_READERS_FULL;
                reading.tell(refused);
                pause();
            }).detach();
        pause();
    });
    uint32_t refused = 0;
    for (int i = 0; i < 1100; ++i)
        refused = std::max(refused, reading.hear());
    EXPECT_GT(refused, 50u);
    kill_and_wait(crowd);
    EXPECT_EQ(d.all().size(), 1u);
}

STORE_TEST(tells_stores_apart_by_their_directory)
{
    const db d;
    ASSERT_EQ(d.insert(record(1)), 0u);
    fs::create_symlink(".", state / "link");
    set_state_dir(state / "link/.");
    EXPECT_EQ(db().hdl, d.hdl);
    set_state_dir(state / "inner/most");
    kvs_hdl hdl = 5;
    EXPECT_EQ(kvs_lookup_db_handle("db", &hdl), KVS_RC_NO_SUCH_DB);
    EXPECT_FALSE(fs::exists(state / "inner"));
    const db other;
    EXPECT_TRUE(other.all().empty());
    EXPECT_EQ(kvs_batch_begin(other.hdl), 0u);
    EXPECT_EQ(d.insert(record(2)), 0u); // an ordinary change: the batch is in the other store
    EXPECT_EQ(kvs_batch_abort(), 0u);
    EXPECT_EQ(d.all().size(), 2u);
    EXPECT_EQ(kvs_lookup_db_handle("db", &hdl), 0u);
    EXPECT_EQ(hdl, other.hdl);
    for (int i = 1; i <= 16; ++i)
        EXPECT_EQ(db(std::to_string(i).c_str()).bound, i < 16 ? 0 : KVS_RC_TOO_MANY_DBS);
    for (int i = 3; i <= 9; ++i) {
        set_state_dir(state / std::to_string(i));
        EXPECT_EQ(db().bound, i <= 8 ? 0 : KVS_RC_TOO_MANY_DBS);
    }
}

// Goes through all kinds of changes with a disk that fails after some calls, then with a sound one.
// What is stored is what was acknowledged, all along. Returns whether any change failed.
bool meets_fault(int error, bool stays, int calls)
{
    records wanted;
    bool met = false;
    fault_stays = stays;
    calls_left = calls;
    fault = error;
    const auto acknowledged = [&](uint32_t status) {
        const uint32_t expected = error == EIO      ? KVS_RC_IO
                                  : error == ENOSPC ? KVS_RC_NO_SPACE
                                                    : KVS_RC_NO_MEMORY;
        EXPECT_TRUE(status == 0 || status == expected) << std::hex << status;
        met = met || status != 0;
        return status == 0;
    };
    for (uint32_t key = 0; key < 20; key += 10, fault = 0) {
        const db d;
        if (!acknowledged(d.bound))
            continue;
        if (acknowledged(d.insert(record(key, "abc"))))
            wanted[key] = record(key, "abc");
        if (const kvs_rec_hdl rec = d.find(key); rec != 0) {
            if (acknowledged(d.write(rec, 4, "x")))
                wanted[key] = record(key, "xbc");
            if (acknowledged(d.remove(rec)))
                wanted.erase(key);
        }
        const bool filled = acknowledged(d.fill(key + 1, 4, "abc"));
        if (filled ? acknowledged(commit()) : (kvs_batch_abort(), false))
            for (uint32_t k = key + 1; k < key + 5; ++k)
                wanted[k] = record(k, "abc");
        EXPECT_EQ(d.all(), wanted);
    }
    EXPECT_EQ(wanted.count(14), 1u);
    in_child([&] { EXPECT_EQ(db().all(), wanted); });
    return met;
}

STORE_TEST(survives_a_disk_and_a_memory_that_fail)
{
    const pipe_pair met;
    for (const int error : {ENOSPC, EIO, ALLOCATION_FAULTS})
        for (const bool stays : {false, true}) {
            int calls = 0;
            do {
                fs::remove(state / "store.mdb");
                fs::remove(state / "store.mdb-lock");
                in_child([&] { met.tell(meets_fault(error, stays, calls)); });
                ASSERT_FALSE(testing::Test::HasFailure()) << error << " after calls: " << calls;
                ++calls;
            } while (met.hear() != 0);
            EXPECT_GT(calls, 15);
        }
}

STORE_TEST(refuses_a_directory_it_cannot_trust)
{
    const auto bound = [](const fs::path &dir) {
        set_state_dir(dir);
        return db().bound;
    };
    for (const char *name : {"store.mdb", "store.mdb-lock"})
        for (const bool is_link : {true, false}) {
            const fs::path dir = state / (name + std::to_string(is_link));
            fs::create_directory(dir);
            EXPECT_EQ(is_link ? symlink("../elsewhere", (dir / name).c_str())
                              : mkfifo((dir / name).c_str(), 0600),
                      0);
            EXPECT_EQ(bound(dir), KVS_RC_STATE_DIR) << name;
        }
    EXPECT_FALSE(fs::exists(state / "elsewhere"));
    EXPECT_EQ(bound("/dev/null"), KVS_RC_STATE_DIR);
    if (geteuid() != 0)
        return;
    fs::create_directory(state / "unwritable");
    fs::permissions(state, fs::perms(0755));
    ASSERT_EQ(setuid(65534), 0);
    EXPECT_EQ(bound(state / "unwritable"), KVS_RC_ACCESS);
}

STORE_TEST(finds_damage_without_falling_over)
{
    in_child([] {
        const db d;
        EXPECT_EQ(d.fill(0, 5000, std::string(50, 'x')), 0u);
        EXPECT_EQ(d.insert(record(9000, std::string(9000, 'x'))), 0u);
        EXPECT_EQ(kvs_batch_commit(), 0u);
    });
    const fs::path data = state / "store.mdb";
    const fs::path sound = state / "sound";
    fs::copy_file(data, sound);
    const auto size = static_cast<off_t>(fs::file_size(sound));
    const auto look = [&](const task &damage) {
        fs::copy_file(sound, data, fs::copy_options::overwrite_existing);
        damage();
        in_child([] {
            const db d;
            records found;
            EXPECT_EQ(d.bound != 0 ? d.bound : d.list(&found), KVS_RC_DAMAGED);
        });
    };
    for (const off_t length : {off_t{0}, off_t{100}, off_t{4096}, off_t{8192}, off_t{20000},
                               size / 2, size - 4096, size - 1})
        look([&] { EXPECT_EQ(truncate(data.c_str(), length), 0); });
    for (const int offset : {10, 16, 20, 40}) // flags, magic, version, page size
        look([&] {
            std::fstream(data, std::ios::in | std::ios::out).seekp(offset).write("\0\0", 3);
        });
    for (const std::string &value :
         {std::string(), record(9) + "abc", record(8) + record(1), record(9) + record(0)})
        look([&] {
            raw([&](auto, auto txn, auto, auto db) { raw_put(txn, db, record(9), value); });
        });
}

STORE_TEST(takes_a_short_file_whose_last_pages_are_free)
{
    in_child([] {
        const db d;
        for (uint32_t key = 10; key < 20; ++key)
            EXPECT_EQ(d.insert(record(key)), 0u);
        EXPECT_EQ(d.fill(1, 2, std::string(200000, 'x')), 0u);
        EXPECT_EQ(d.remove(d.find(2)), 0u);
        EXPECT_EQ(kvs_batch_commit(), 0u);
    });
    raw([](MDB_env *env, MDB_txn *, MDB_dbi, MDB_dbi) {
        MDB_envinfo about;
        mdb_env_info(env, &about);
        EXPECT_LT(fs::file_size(state / "store.mdb"), (about.me_last_pgno + 1) * 4096);
    });
    EXPECT_EQ(db().all().size(), 11u);
}

STORE_TEST(gives_out_no_handle_twice_when_there_are_none_left)
{
    const db d;
    kvs_rec_hdl rec = 0;
    raw([](MDB_env *, MDB_txn *txn, MDB_dbi main, MDB_dbi) {
        raw_put(txn, main, std::string("db", 3), record(UINT32_MAX - 1));
    });
    EXPECT_EQ(d.insert(record(1), &rec), 0u);
    EXPECT_EQ(d.insert(record(UINT32_MAX)), 0u);
    EXPECT_EQ(d.remove(rec), 0u);
    EXPECT_EQ(d.remove(d.find(UINT32_MAX)), 0u);
    EXPECT_EQ(d.insert(record(1), &rec), KVS_RC_EXHAUSTED);
    EXPECT_TRUE(d.all().empty());
}

} // namespace
