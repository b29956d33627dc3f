// The record store as documented in kvs.h, on real files, with real processes and forks.
//
// Every test runs in a child process, since a process cannot close a store. This executable takes
// over the system and allocator calls of store and engine, so that each of them can be made to
// fail.
#include "kvs.h"
#include "platform/base/crc32c.h"
#include "ringlog.h"
#include "scratch.h"

#include <atomic>
#include <climits>
#include <csignal>
#include <lmdb.h>
#include <map>
#include <set>
#include <sys/file.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <thread>

namespace {

// What fails, and how: allocations when the error is ENOMEM, otherwise what changes a file.
std::atomic<int> fault{0}, calls{0}, good_calls{INT_MAX};
std::atomic<bool> fault_stays{false};
std::atomic<int> flushes{0};

bool fails(bool allocates = false)
{
    if (allocates != (fault == ENOMEM) || calls++ < good_calls)
        return false;
    if (!fault_stays)
        good_calls = INT_MAX;
    if (fault == ECANCELED) // the process is
        kill(getpid(), SIGKILL);
    errno = fault;
    return true;
}

} // namespace

extern "C" {
ssize_t pwrite(int fd, const void *from, size_t length, off_t offset)
{
    flushes += (fcntl(fd, F_GETFL) & O_DSYNC) != 0;
    return fails() ? -1 : syscall(SYS_pwrite64, fd, from, length, offset);
}
ssize_t writev(int fd, const iovec *from, int count)
{
    return fails() ? -1 : syscall(SYS_writev, fd, from, count);
}
int fdatasync(int fd)
{
    ++flushes;
    return fails() ? -1 : static_cast<int>(syscall(SYS_fdatasync, fd));
}
int fsync(int fd)
{
    ++flushes;
    return fails() ? -1 : static_cast<int>(syscall(SYS_fsync, fd));
}
int posix_fallocate(int fd, off_t offset, off_t length)
{
    return fails() || syscall(SYS_fallocate, fd, 0, offset, length) != 0 ? errno : 0;
}
}

#ifndef ALLOCATOR_IS_TAKEN
extern "C" {
void *__libc_malloc(size_t);
void *__libc_calloc(size_t, size_t);
void *malloc(size_t size) { return fails(true) ? nullptr : __libc_malloc(size); }
void *calloc(size_t n, size_t size) { return fails(true) ? nullptr : __libc_calloc(n, size); }
}
// The tests' own never fails. Apart, so that valgrind can take it over.
[[gnu::noinline]] void *operator new(size_t size) { return __libc_malloc(size); }
#endif

namespace {

fs::path state; // of the running test

struct store : scratch {
    store() { state = root / "state"; }
};

#define STORE_TEST(name)                                                                           \
    void name();                                                                                   \
    TEST_F(store, name) { EXPECT_TRUE(passes_in_child(name)); }                                    \
    void name()

std::string record(uint32_t key, const std::string &body = "")
{
    return std::string(reinterpret_cast<const char *>(&key), sizeof key) + body;
}

using records = std::map<uint32_t, std::string>;

// A database, with short calls for what the tests do.
struct db {
    kvs_hdl hdl = 0;
    uint32_t bound;

    explicit db(const char *name = "db")
    {
        kvs_appdesc about;
        kvs_appdesc_init(&about);
        bound = kvs_init(name, &about, 0, &hdl);
    }
    uint32_t insert(const std::string &bytes, kvs_rec_hdl *out = nullptr) const
    {
        kvs_rec_hdl rec = 0;
        const kvs_key_attr key{{0, 0, 0}, 0, 4, nullptr, 0};
        const kvs_data_desc data{bytes.data(), bytes.size()};
        return kvs_insert_object(hdl, &data, 1, &key, 1, 0, 0, out ? out : &rec);
    }
    // Inserts this many records within one batch, which stays open.
    uint32_t fill(uint32_t first, uint32_t count, const std::string &body = "") const
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
        return kvs_write_object(hdl, &rec, offset, &data, 1, nullptr, &result);
    }
    uint32_t remove(kvs_rec_hdl rec) const { return kvs_delete_object(hdl, &rec); }
    kvs_rec_hdl find(uint32_t key) const
    {
        const kvs_key_attr by_key{{0, 0, 0}, 0, 4, &key, 99}; // the offset is ignored in a lookup
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

// Opens the store's files with the engine itself, in a process that does not use them otherwise.
void in_engine(const std::function<void(MDB_env *)> &work)
{
    EXPECT_TRUE(passes_in_child([&] {
        MDB_env *env = nullptr;
        mdb_env_create(&env);
        mdb_env_set_maxdbs(env, 1);
        mdb_env_set_mapsize(env, 64 << 20);
        ASSERT_EQ(mdb_env_open(env, (state / "store.mdb").c_str(), MDB_NOSUBDIR, 0600), 0);
        work(env);
        mdb_env_close(env);
    }));
}

// Puts a value into a database past the store; without a name, into the engine's main one.
void plant(const char *database, std::string name, std::string bytes)
{
    in_engine([&](MDB_env *env) {
        MDB_txn *txn = nullptr;
        MDB_dbi dbi = 0;
        MDB_val key{name.size(), name.data()}, value{bytes.size(), bytes.data()};
        ASSERT_EQ(mdb_txn_begin(env, nullptr, 0, &txn), 0);
        EXPECT_EQ(mdb_dbi_open(txn, database, 0, &dbi), 0);
        EXPECT_EQ(mdb_put(txn, dbi, &key, &value, 0), 0);
        EXPECT_EQ(mdb_txn_commit(txn), 0);
    });
}

// The bytes with the checksum that the store puts behind them under this name.
std::string checked(const std::string &name, const std::string &bytes)
{
    const uint32_t of_name = platform::crc32c(0, name.data(), name.size());
    return bytes + record(platform::crc32c(of_name, bytes.data(), bytes.size()));
}

// Checks whether the process has a slot in the reader table.
void expect_slot(pid_t reader, bool expected)
{
    in_engine([&](MDB_env *env) {
        std::string slots;
        const auto add = [](const char *line, void *to) {
            return static_cast<std::string *>(to)->append(line), 0;
        };
        mdb_reader_list(env, add, &slots);
        EXPECT_EQ(slots.find(std::to_string(reader)) != slots.npos, expected) << slots;
    });
}

STORE_TEST(refuses_what_it_cannot_do)
{
    const db d;
    kvs_rec_hdl rec = 0, *found = nullptr;
    ASSERT_EQ(d.insert(record(1, "abc"), &rec), 0u);
    kvs_hdl hdl = 5;
    uint32_t n = 1;
    kvs_appdesc about;
    kvs_appdesc_init(&about);
    for (size_t i = 0; i < sizeof about; ++i) {
        kvs_appdesc changed = about;
        reinterpret_cast<unsigned char *>(&changed)[i] ^= 1;
        EXPECT_EQ(kvs_init("db", &changed, 0, &hdl), KVS_RC_UNSUPPORTED) << i;
    }
    const auto look_up = [&](const std::string &name) {
        return kvs_lookup_db_handle(name.c_str(), &hdl);
    };
    const auto find = [&](const kvs_key_attr &key, uint32_t count = 1, uint32_t flags = 0) {
        return kvs_find_objects(d.hdl, &key, count, flags, &found, &n);
    };
    const auto insert = [&](kvs_data_desc data, uint64_t key_offset = 0, uint32_t reserved = 0) {
        const kvs_key_attr key{{0, 0, 0}, 0, 4, nullptr, key_offset};
        return kvs_insert_object(d.hdl, &data, 1, &key, 1, reserved & 1, reserved & 2, &rec);
    };
    const auto size = [&](kvs_hdl of) { return kvs_get_object_size(of, &rec, &n); };
    const kvs_key_attr plain{{0, 0, 0}, 0, 4, &rec, 0};
    const std::pair<uint32_t, std::vector<uint32_t>> refusals[] = {
        {KVS_RC_NULL_ARG,
         {kvs_appdesc_init(nullptr), kvs_init(nullptr, &about, 0, &hdl),
          kvs_init("db", nullptr, 0, &hdl), kvs_lookup_db_handle("db", nullptr),
          find({{0, 0, 0}, 0, 4, nullptr, 0}), insert({nullptr, 6}),
          kvs_read_object(d.hdl, &rec, 0, nullptr, &n), kvs_delete_object(d.hdl, nullptr)}},
        {KVS_RC_BAD_NAME, {look_up(""), look_up(std::string(65, 'x'))}},
        {KVS_RC_NO_SUCH_DB, {look_up("other")}},
        {KVS_RC_BAD_HDL, {size(0), size(UINT64_MAX), size(d.hdl + 1), size(d.hdl + 256)}},
        {KVS_RC_UNSUPPORTED,
         {find(plain, 2), find(plain, 1, 1), insert({"abcdef", 6}, 0, 1),
          insert({"abcdef", 6}, 0, 2)}},
        {KVS_RC_BAD_KEY,
         {find({{0, 0, 0}, 0, 8, &rec, 0}), find({{0, 0, 1}, 0, 4, &rec, 0}),
          insert({"abcdef", 6}, 4), insert({"abc", 3})}},
        {KVS_RC_KEY_CHANGED, {d.write(rec, 3, "x")}},
        {KVS_RC_RECORD_TOO_BIG, {insert({"", UINT64_C(0xFFFFFFF8)}), insert({"", UINT64_MAX})}},
        {KVS_RC_BAD_OFFSET, {kvs_read_object(d.hdl, &rec, 8, &hdl, &n), d.write(rec, 8, "x")}},
        {KVS_RC_NO_SUCH_RECORD, {d.remove(1)}},
        {KVS_RC_NO_BATCH, {kvs_batch_commit(), kvs_batch_abort()}},
    };
    for (const auto &[expected, statuses] : refusals)
        for (const uint32_t status : statuses)
            EXPECT_EQ(status, expected);
    EXPECT_EQ(hdl, 5u);
    EXPECT_EQ(d.all(), (records{{1, record(1, "abc")}}));
}

STORE_TEST(keeps_records_as_they_are_written)
{
    const db d;
    EXPECT_TRUE(d.all().empty());
    kvs_rec_hdl rec = 0, again = 0;
    ASSERT_EQ(d.insert(record(7, "0123456789"), &rec), 0u);
    const int calls_before = calls;
    EXPECT_EQ(d.insert(record(7, "0123456789"), &again), KVS_RC_TOLERATED_ON_INSERT);
    EXPECT_EQ(d.insert(record(7, "012345678")), KVS_RC_RECORD_EXISTS);
    EXPECT_TRUE(calls == calls_before && rec == again && rec == d.find(7));
    EXPECT_EQ(d.write(rec, 6, "ab"), 0u);
    EXPECT_EQ(d.write(rec, 14, "long" + std::string(5000, 'x')), 0u);
    EXPECT_EQ(d.write(rec, 14, ""), 0u);
    const std::string key_tail = record(7).substr(1);
    const kvs_data_desc parts[] = {{key_tail.data(), 3}, {nullptr, 0}, {"XY", 2}};
    kvs_write_result result{{1, 1, 1, 1, 1, 1, 1, 1}};
    EXPECT_EQ(kvs_write_object(d.hdl, &rec, 1, parts, 3, nullptr, &result), 0u);
    EXPECT_EQ(result.words[7], 0u);
    EXPECT_EQ(d.all(), (records{{7, record(7, "XYab456789long" + std::string(5000, 'x'))}}));
    uint32_t length = 4;
    char part[4];
    EXPECT_EQ(kvs_read_object(d.hdl, &rec, 4, part, &length), 0u);
    EXPECT_EQ(std::string(part, length), "XYab");

    EXPECT_EQ(d.remove(rec), 0u);
    std::string bytes;
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
    std::string got;
    for (int round = 0; round < 2; ++round)
        for (const auto &[key, bytes] : wanted)
            ASSERT_TRUE(d.read(d.find(key), &got) == 0 && got == bytes) << key;
}

STORE_TEST(sees_every_commit_of_another_process_at_once)
{
    const db d;
    kvs_rec_hdl rec = 0;
    ASSERT_EQ(d.insert(record(1, "0"), &rec), 0u);
    ASSERT_EQ(d.insert(record(2, "-")), 0u);
    const auto write_elsewhere = [&](uint32_t length) {
        const std::string body(length, 'x');
        EXPECT_TRUE(passes_in_child([&] { EXPECT_EQ(d.write(d.find(1), 4, body), 0u); }));
    };
    for (uint32_t i = 2; i < 20; i += 2) {
        EXPECT_EQ(i % 4 == 0 ? d.all().begin()->first : static_cast<uint32_t>(d.find(1)), 1u);
        write_elsewhere(i);
        uint32_t size = 0, length = 30;
        char bytes[30];
        EXPECT_EQ(kvs_get_object_size(d.hdl, &rec, &size), 0u);
        EXPECT_EQ(size, 4 + i);
        write_elsewhere(i + 1);
        EXPECT_EQ(kvs_read_object(d.hdl, &rec, 0, bytes, &length), 0u);
        EXPECT_EQ(length, 4 + i + 1);
    }
    EXPECT_TRUE(passes_in_child([&] { EXPECT_EQ(d.remove(rec), 0u); }));
    std::string gone;
    EXPECT_EQ(d.read(rec, &gone), KVS_RC_NO_SUCH_RECORD);
    EXPECT_EQ(d.find(1), 0u);
}

STORE_TEST(makes_a_batch_one_change_of_its_thread)
{
    const db d, second("second");
    ASSERT_EQ(second.insert(record(5, "old")), 0u);
    EXPECT_TRUE(d.all().empty());
    const kvs_rec_hdl seen_before = second.find(5);
    ASSERT_EQ(d.fill(1, 1), 0u);
    EXPECT_EQ(second.write(seen_before, 4, "new"), 0u);
    EXPECT_EQ(second.insert(record(1)), 0u);
    EXPECT_EQ(d.insert(record(1)), KVS_RC_TOLERATED_ON_INSERT);
    EXPECT_EQ(kvs_batch_begin(d.hdl), KVS_RC_BATCH_ACTIVE);
    EXPECT_EQ(db("new").bound, KVS_RC_BATCH_ACTIVE);
    EXPECT_EQ(db("second").hdl, second.hdl);

    auto &has_looked = shared<std::atomic<bool>>();
    const pid_t child = start_in_child([&] {
        EXPECT_EQ(kvs_batch_abort(), KVS_RC_NO_BATCH);
        EXPECT_TRUE(d.all().empty());
        has_looked = true;
        EXPECT_EQ(d.insert(record(2)), 0u); // when the batch is over
        EXPECT_TRUE(passes_in_child([&] { EXPECT_EQ(d.insert(record(3)), 0u); }));
    });
    EXPECT_TRUE(comes([&] { return has_looked.load(); }));
    expect_slot(child, true); // of its own
    std::thread([&] { EXPECT_TRUE(d.all().empty()); }).join();
    EXPECT_EQ(second.all(), (records{{1, record(1)}, {5, record(5, "new")}}));
    EXPECT_EQ(kvs_batch_commit(), 0u);
    EXPECT_EQ(finish(child), 0);
    EXPECT_EQ(d.all().size(), 3u);
    EXPECT_EQ(second.all().size(), 2u);

    EXPECT_TRUE(passes_in_child([] { EXPECT_EQ(db("late").bound, 0u); }));
    ASSERT_EQ(d.fill(4, 1), 0u);
    kvs_hdl late = 0;
    std::thread([&] { EXPECT_EQ(kvs_lookup_db_handle("late", &late), 0u); }).join();
    EXPECT_EQ(kvs_delete_object(late, &late), KVS_RC_BATCH_ACTIVE);
    EXPECT_EQ(kvs_batch_abort(), 0u);
    std::thread([&] { EXPECT_EQ(d.fill(5, 1), 0u); }).join(); // which aborts it
    EXPECT_EQ(d.insert(record(6)), 0u);
    EXPECT_EQ(d.all().size(), 4u);
}

// What the process was last told of its wait for another.
std::atomic<const char *> notice{nullptr};

bool is_told()
{
    kvs_set_wait_notice([](const char *line) { notice = strdup(line); });
    return comes([] { return notice != nullptr; });
}

// In a child: begins a batch, which stays open.
pid_t start_batch(const std::function<uint32_t()> &begin)
{
    auto &has_batch = shared<std::atomic<bool>>();
    const pid_t writer = start_in_child([&] {
        alarm(patience);
        EXPECT_EQ(begin(), 0u);
        has_batch = true;
        pause();
    });
    EXPECT_TRUE(comes([&] { return has_batch.load(); }));
    return writer;
}

// The writer has made the file grow beyond the map of this process.
STORE_TEST(names_a_stopped_writer_and_reads_meanwhile)
{
    const db d;
    for (const uint32_t first : {0, 1000}) {
        const bool batch = first != 0;
        const size_t before = d.all().size();
        const pid_t writer = start_batch([&] {
            EXPECT_EQ(d.fill(first, 60, std::string(100'000, 'x')), 0u);
            EXPECT_EQ(kvs_batch_commit(), 0u);
            return d.fill(first + 100, 1);
        });
        kill(writer, SIGSTOP);
        waitpid(writer, nullptr, WUNTRACED);
        std::thread waiting([&] {
            EXPECT_EQ(batch ? d.fill(first + 200, 1) : d.insert(record(first + 200)), 0u);
            EXPECT_EQ(batch ? kvs_batch_commit() : 0, 0u);
        });
        EXPECT_TRUE(is_told());
        const std::string line = notice.exchange(nullptr);
        const std::string who = " process " + std::to_string(writer) + " (store_test)";
        EXPECT_TRUE(line.ends_with(who + ", which is stopped")) << line;
        alarm(20);
        EXPECT_EQ(d.all().size(), before + 60);
        alarm(0);
        kill(writer, SIGKILL);
        finish(writer);
        waiting.join();
        EXPECT_EQ(d.all().size(), before + 61);
    }
}

STORE_TEST(lets_processes_write_in_turn)
{
    const db d;
    auto &is_over = shared<std::atomic<bool>>();
    const pid_t busy = start_in_child([&] { // leaves hardly a gap between its batches
        alarm(patience);
        while (!is_over) {
            EXPECT_EQ(d.fill(0, 1), 0u);
            usleep(20'000);
            EXPECT_EQ(kvs_batch_abort(), 0u);
        }
    });
    alarm(20);
    for (uint32_t key = 1; key < 10; ++key, usleep(1000))
        EXPECT_EQ(d.insert(record(key)), 0u);
    is_over = true;
    EXPECT_EQ(finish(busy), 0);

    // Nor does a process that is next, and does not run, hold up the others.
    auto &is_next = shared<std::atomic<bool>>();
    const pid_t next = start([&] {
        alarm(patience);
        struct flock lock {};
        lock.l_type = F_WRLCK;
        lock.l_start = lock.l_len = 1;
        is_next = fcntl(open((state / "store.mdb").c_str(), O_RDWR), F_SETLK, &lock) == 0;
        pause();
    });
    EXPECT_TRUE(comes([&] { return is_next.load(); }));
    EXPECT_EQ(d.insert(record(1000)), 0u);
    kill(next, SIGSTOP);
    waitpid(next, nullptr, WUNTRACED);
    for (uint32_t key = 1001; key < 1050; ++key, usleep(10'000))
        EXPECT_EQ(d.insert(record(key)), 0u);
    kill(next, SIGKILL);
    finish(next);
}

STORE_TEST(breaks_a_batch_that_fills_its_map)
{
    if (memory_is_taken())
        return;
    // Address space is short when the batch begins, so it gets little room.
    const db d;
    const rlim_t usual = limit(RLIMIT_AS, memory_in_use() + (24u << 20));
    ASSERT_EQ(kvs_batch_begin(d.hdl), 0u);
    limit(RLIMIT_AS, usual);
    const std::string body(1 << 20, 'x');
    uint32_t status = 0;
    for (uint32_t key = 0; status == 0 && key < 60; ++key)
        status = d.insert(record(key, body));
    records nothing;
    EXPECT_EQ(status, KVS_RC_BATCH_FULL);
    EXPECT_EQ(d.insert(record(99)), KVS_RC_BATCH_BROKEN);
    EXPECT_EQ(d.list(&nothing), KVS_RC_BATCH_BROKEN);
    EXPECT_EQ(kvs_batch_commit(), KVS_RC_BATCH_BROKEN);
    EXPECT_EQ(kvs_batch_commit(), KVS_RC_NO_BATCH);
    EXPECT_TRUE(d.all().empty());
    EXPECT_EQ(d.fill(0, 60, body), 0u);
    EXPECT_EQ(kvs_batch_commit(), 0u);
    EXPECT_EQ(d.all().size(), 60u);
}

STORE_TEST(serves_threads_and_processes_while_it_outgrows_its_map)
{
    const db d;
    const auto work = [&d](uint32_t t) {
        const bool is_big = t % 2 == 0;
        const std::string body(is_big ? 100000 : 10, 'x');
        for (uint32_t key = t * 1000; key < t * 1000 + 30; ++key) {
            const bool batch = t < 3 && key % 1000 > 20; // which gets more room at once
            kvs_rec_hdl rec = 0;
            std::string got;
            EXPECT_EQ(batch ? kvs_batch_begin(d.hdl) : 0, 0u);
            EXPECT_EQ(d.insert(record(key, body), &rec), 0u);
            EXPECT_EQ(d.find(key), rec);
            EXPECT_EQ(d.write(rec, 4, "y"), 0u);
            EXPECT_EQ(d.read(rec, &got), 0u);
            EXPECT_EQ(got, record(key, "y" + body.substr(1)));
            EXPECT_EQ(is_big ? 0 : d.remove(rec), 0u);
            EXPECT_EQ(batch ? kvs_batch_commit() : 0, 0u);
            records others; // which may go while they are listed
            const uint32_t status = d.list(&others);
            EXPECT_TRUE(status == 0 || status == KVS_RC_NO_SUCH_RECORD);
            EXPECT_TRUE(t != 7 || key % 5 != 0 ||
                        passes_in_child([&] { EXPECT_EQ(d.insert(record(key + 500)), 0u); }));
        }
    };
    const pid_t other = start_in_child([&] { work(8); });
    std::vector<std::jthread> threads;
    for (uint32_t t = 0; t < 8; ++t)
        threads.emplace_back(work, t);
    threads.clear();
    EXPECT_EQ(finish(other), 0);
    EXPECT_EQ(d.all().size(), 5u * 30 + 6);
}

// A change that finds nothing to do is quick, so threads meet at every step of their queue.
STORE_TEST(gives_each_thread_the_status_of_its_own_change)
{
    const db d;
    EXPECT_EQ(d.insert(record(1)), 0u);
    alarm(100);
    std::vector<std::jthread> threads;
    for (int t = 0; t < 8; ++t)
        threads.emplace_back([&d] {
            unsigned tolerated = 0;
            for (int i = 0; i < 40000; ++i)
                tolerated += d.insert(record(1)) == KVS_RC_TOLERATED_ON_INSERT ? 1 : 0;
            EXPECT_EQ(tolerated, 40000u);
        });
}

STORE_TEST(is_made_once_however_many_make_it)
{
    for (uint32_t round = 0; round < 30; ++round) {
        setenv("VS_STATE_DIR", (state / std::to_string(round)).c_str(), 1);
        pid_t makers[4];
        for (uint32_t key = 0; key < 4; ++key)
            makers[key] = start_in_child([=] { EXPECT_EQ(db().insert(record(key)), 0u); });
        usleep(round * 30);
        kill(makers[3], SIGKILL);
        for (const pid_t each : makers)
            EXPECT_TRUE(finish(each) == 0 || each == makers[3]);
        EXPECT_TRUE(passes_in_child([] { EXPECT_GE(db().all().size(), 3u); }));
    }
}

STORE_TEST(takes_the_slots_of_dead_readers)
{
    constexpr int threads = 300; // of each process, which makes more than there are slots
    pid_t crowd[4];
    auto &came = shared<std::atomic<int>>(), &refused = shared<std::atomic<int>>();
    const db d;
    kvs_rec_hdl rec = 0;
    EXPECT_EQ(d.insert(record(1), &rec), 0u);
    const auto read = [&] {
        uint32_t size = 0;
        return kvs_get_object_size(d.hdl, &rec, &size);
    };
    const pid_t victim = start_in_child([&] {
        EXPECT_EQ(read(), 0u);
        kill(getpid(), SIGKILL);
    });
    EXPECT_EQ(finish(victim), 128 + SIGKILL);
    EXPECT_TRUE(passes_in_child([&] { EXPECT_EQ(read(), 0u); })); // opens the store for itself
    expect_slot(victim, false);
    for (int i = 0; i < 1100; ++i) // more than there are slots, one after the other
        std::thread([&] { EXPECT_EQ(read(), 0u); }).join();

    const auto read_and_stay = [&] {
        refused += read() == KVS_RC_READERS_FULL;
        ++came;
        pause();
    };
    for (pid_t &part : crowd)
        part = start_in_child([&] {
            for (int i = 0; i < threads; ++i)
                std::thread(read_and_stay).detach();
            pause();
        });
    EXPECT_TRUE(comes([&] { return came == 4 * threads; }));
    EXPECT_TRUE(refused > 100 && refused < 200) << refused;
    for (const pid_t part : crowd)
        EXPECT_TRUE(kill(part, SIGKILL) == 0 && finish(part) == 128 + SIGKILL);
    std::thread([&] { EXPECT_EQ(read(), 0u); }).join();
}

STORE_TEST(tells_stores_apart_by_their_directory)
{
    const auto go_to = [](const fs::path &dir) { setenv("VS_STATE_DIR", dir.c_str(), 1); };
    const db d;
    ASSERT_EQ(d.insert(record(1)), 0u);
    fs::create_symlink(".", state / "link");
    go_to(state / "link/.");
    EXPECT_EQ(db().hdl, d.hdl);
    go_to(state / "inner/most");
    kvs_hdl hdl = 5;
    EXPECT_EQ(kvs_lookup_db_handle("db", &hdl), KVS_RC_NO_SUCH_DB);
    EXPECT_FALSE(fs::exists(state / "inner"));
    const db other;
    EXPECT_TRUE(other.all().empty());
    EXPECT_EQ(other.insert(record(1, "other")), 0u); // both stores are at the same commit number
    EXPECT_EQ(d.all(), (records{{1, record(1)}}));
    EXPECT_EQ(other.all(), (records{{1, record(1, "other")}}));
    EXPECT_EQ(kvs_batch_begin(other.hdl), 0u);
    EXPECT_EQ(d.insert(record(2)), 0u); // an ordinary change: the batch is in the other store
    EXPECT_EQ(kvs_batch_abort(), 0u);
    EXPECT_EQ(d.all().size(), 2u);
    for (int i = 1; i <= 16; ++i)
        EXPECT_EQ(db(std::to_string(i).c_str()).bound, i < 16 ? 0 : KVS_RC_TOO_MANY_DBS);
    for (int i = 3; i <= 9; ++i) {
        go_to(state / std::to_string(i));
        EXPECT_EQ(db().bound, i <= 8 ? 0 : KVS_RC_TOO_MANY_DBS);
    }
}

// Counts the writes and syncs, then the allocations, of each call of the store and of a trace
// record. Unlike times, these are the same in every run.
STORE_TEST(makes_no_more_calls_than_needed)
{
    const db d;
    kvs_rec_hdl rec = 0;
    uint64_t trace = 0;
    EXPECT_EQ(ringlog_init2("trace", 0, 0, 8, 8, 0, &trace), 0u);
    std::string got;
    const struct {
        const char *name;
        int counts[3]; // of flushes, of what changes the file, and of allocations
        std::function<uint32_t()> work;
    } rows[] = {
        {"insert", {1, 4, 2}, [&] { return d.insert(record(1, "abc"), &rec); }},
        {"again",
         {0, 0, 1},
         [&] { return d.insert(record(1, "abc")) - KVS_RC_TOLERATED_ON_INSERT; }},
        {"find", {0, 0, 1}, [&] { return d.find(1) - rec; }},
        {"read", {0, 0, 0}, [&] { return d.read(rec, &got); }},
        {"list", {0, 0, 2}, [&] { return static_cast<uint32_t>(d.all().size() - 1); }},
        {"write", {1, 5, 3}, [&] { return d.write(rec, 4, "x"); }},
        {"remove", {1, 4, 1}, [&] { return d.remove(rec); }},
        {"batch", {1, 4, 3}, [&] { return d.fill(2, 2) | kvs_batch_commit(); }},
        {"remove two", {2, 9, 4}, [&] { return d.remove(d.find(2)) | d.remove(d.find(3)); }},
        {"trace", {0, 0, 0}, [&] { return _ringlog_emit(trace, 7), 0u; }},
    };
    for (int round = 0; round < (memory_is_taken() ? 4 : 5); ++round)
        for (const auto &row : rows) {
            fault = round == 4 ? ENOMEM : 0, calls = flushes = 0;
            EXPECT_EQ(row.work(), 0u) << row.name;
            EXPECT_TRUE(round < 3 || calls == row.counts[round - 2]) << row.name << ' ' << calls;
            EXPECT_TRUE(round < 3 || flushes == row.counts[0]) << row.name << ' ' << flushes;
        }
}

// Makes all kinds of changes, the second half without faults, and checks that what is stored is
// what was acknowledged. Returns whether anything failed.
bool meets_fault(uint32_t expected)
{
    records wanted, found;
    bool met = false;
    const auto acknowledged = [&](uint32_t status) {
        EXPECT_TRUE(status == 0 || status == expected) << std::hex << status;
        met = met || status != 0;
        return status == 0;
    };
    for (uint32_t key = 0; key < 20; key += 10, good_calls = INT_MAX) {
        const db d;
        kvs_rec_hdl rec = 0;
        if (!acknowledged(d.bound))
            continue;
        if (acknowledged(d.insert(record(key, "abc"), &rec))) {
            wanted[key] = record(key, "abc");
            if (acknowledged(d.write(rec, 4, "x")))
                wanted[key] = record(key, "xbc");
            if (acknowledged(d.remove(rec)))
                wanted.erase(key);
        }
        const bool filled = acknowledged(d.fill(key + 1, 4, "abc"));
        if (filled ? acknowledged(kvs_batch_commit()) : (kvs_batch_abort(), false))
            for (uint32_t k = key + 1; k < key + 5; ++k)
                wanted[k] = record(k, "abc");
        EXPECT_TRUE(!acknowledged(d.list(&found)) || found == wanted);
    }
    EXPECT_EQ(wanted.count(14), 1u);
    EXPECT_TRUE(passes_in_child([&] { EXPECT_EQ(db().all(), wanted); }));
    return met;
}

STORE_TEST(survives_a_disk_and_a_memory_that_fail)
{
    const struct {
        int error;
        uint32_t status;
    } faults[] = {{ENOSPC, KVS_RC_NO_SPACE}, {EIO, KVS_RC_IO}, {ENOMEM, KVS_RC_NO_MEMORY}};
    auto &met = shared<bool>();
    for (const auto &it : faults)
        for (const bool stays : {false, true}) {
            if (it.error == ENOMEM && memory_is_taken())
                continue;
            int n = 0;
            do {
                fs::remove_all(state);
                EXPECT_TRUE(passes_in_child([&] {
                    fault = it.error, fault_stays = stays, calls = 0, good_calls = n;
                    met = meets_fault(it.status);
                }));
                ASSERT_FALSE(testing::Test::HasFailure()) << it.error << " after calls: " << n;
                ++n;
            } while (met);
            EXPECT_GT(n, 15);
        }
}

// Reads what is left of the journal's changes, and checks their order.
std::vector<uint32_t> read_kinds(kvs_journal *journal)
{
    std::vector<uint32_t> kinds;
    kvs_change change;
    uint64_t last = 0;
    while (kvs_journal_next(journal, &change) == 0) {
        EXPECT_TRUE(last == 0 || change.sequence == last + 1) << last << ' ' << change.sequence;
        last = change.sequence;
        kinds.push_back(change.kind);
    }
    return kinds;
}

kvs_journal *open_journal(const db &of, uint64_t first)
{
    kvs_journal *journal = nullptr;
    EXPECT_EQ(kvs_journal_open(of.hdl, first, &journal), 0u);
    return journal;
}

// Others finish the commit of a writer that is killed between the writes of it, although they know
// neither its database nor the size that it gave the map; but not that of a batch too long.
STORE_TEST(finishes_what_a_killed_writer_has_begun)
{
    const db d;
    kvs_journal *const journal = open_journal(d, KVS_JOURNAL_NEXT);
    for (uint32_t key = 0; key < 40; ++key) {
        SCOPED_TRACE(key);
        const std::string name = "db " + std::to_string(key), body(150'000, 'x');
        const bool is_long = key % 8 == 7;
        EXPECT_EQ(finish(start_in_child([&] {
                      const db own(name.c_str());
                      EXPECT_EQ(own.bound, 0u);
                      EXPECT_EQ(is_long ? own.fill(key + 1, 3, body) : 0, 0u);
                      fault = ECANCELED, good_calls = calls + static_cast<int>(key % 4);
                      is_long ? kvs_batch_commit() : own.insert(record(key, body));
                  })),
                  128 + SIGKILL);
        const bool is_whole = key % 4 != 0 && !is_long;
        if (key % 3 == 0) { // a newcomer finishes it, or this process
            EXPECT_TRUE(
                passes_in_child([&] { EXPECT_EQ(db(name.c_str()).all().size(), is_whole); }));
        }
        EXPECT_EQ(d.insert(record(key)), 0u);
        EXPECT_TRUE(passes_in_child([&] { EXPECT_EQ(db(name.c_str()).all().size(), is_whole); }));
        EXPECT_EQ(read_kinds(journal),
                  std::vector<uint32_t>(is_whole ? 2 : 1, KVS_CHANGE_INSERTED));
    }
    EXPECT_EQ(d.all().size(), 40u);
    kvs_journal_close(journal);
}

// While a batch is open, threads gather that share the next commit.
STORE_TEST(commits_the_changes_of_waiting_threads_together)
{
    constexpr uint32_t threads = 20;
    const db d;
    ASSERT_EQ(d.insert(record(0, "old")), 0u);
    for (const uint32_t length : {10u, 60'000u}) // together too long for an entry of the journal
        for (const int error : {0, EIO}) {
            SCOPED_TRACE(std::to_string(length) + " " + std::to_string(error));
            kvs_journal *const journal = open_journal(d, KVS_JOURNAL_NEXT);
            const uint32_t first = length + 1000u * (error != 0);
            EXPECT_EQ(kvs_batch_begin(d.hdl), 0u);
            std::atomic<uint32_t> ready{0};
            std::vector<std::jthread> all;
            for (uint32_t i = 0; i < threads; ++i)
                all.emplace_back([&, i] {
                    ++ready;
                    const uint32_t expected[] = {0, KVS_RC_RECORD_EXISTS, KVS_RC_NO_SUCH_RECORD};
                    const uint32_t status =
                        i % 5 == 1   ? d.insert(record(0, "new"))
                        : i % 5 == 2 ? d.remove(first + i)
                                     : d.insert(record(first + i, std::string(length, 'x')));
                    EXPECT_EQ(status, expected[i % 5 < 3 ? i % 5 : 0]);
                });
            EXPECT_TRUE(comes([&] { return ready == threads; }));
            usleep(100'000);
            flushes = 0;
            fault = error, good_calls = error != 0 ? calls.load() : INT_MAX;
            EXPECT_EQ(kvs_batch_abort(), 0u);
            all.clear();
            fault = 0, good_calls = INT_MAX;
            EXPECT_LT(flushes, 12 + 2 * (error != 0)); // for twelve changes
            EXPECT_EQ(read_kinds(journal), std::vector<uint32_t>(12, KVS_CHANGE_INSERTED));
            kvs_journal_close(journal);
        }
    EXPECT_EQ(d.all().size(), 1u + 4 * 12);
}

STORE_TEST(wakes_those_that_wait_for_a_change)
{
    setenv("VS_JOURNAL_SIZE", "64K", 1);
    const db d;
    auto &waits = shared<std::atomic<bool>>();
    kvs_journal *const journal = open_journal(d, KVS_JOURNAL_NEXT);
    EXPECT_EQ(kvs_journal_wait(journal, 20), KVS_RC_NO_CHANGE);
    const pid_t waiter = start_in_child([&] {
        waits = true;
        EXPECT_EQ(kvs_journal_wait(journal, 1000 * patience), 0u);
        EXPECT_EQ(read_kinds(journal), std::vector<uint32_t>(1, KVS_CHANGE_INSERTED));
        struct sigaction action {};
        action.sa_handler = [](int) {};
        sigaction(SIGUSR1, &action, nullptr);
        waits = false;
        EXPECT_EQ(kvs_journal_wait(journal, 1000 * patience), KVS_RC_NO_CHANGE);
        waits = true;
    });
    EXPECT_TRUE(comes([&] { return waits.load(); }));
    EXPECT_EQ(d.insert(record(0)), 0u);
    EXPECT_TRUE(comes([&] { return !waits; }));
    EXPECT_TRUE(comes([&] { return usleep(1000), kill(waiter, SIGUSR1), waits.load(); }));
    EXPECT_EQ(finish(waiter), 0);

    size_t seen = read_kinds(journal).size(); // of the reader that keeps up
    for (uint32_t key = 1; key < 300; ++key, seen += read_kinds(journal).size())
        EXPECT_EQ(d.insert(record(key, std::string(key * 5, 'x'))), 0u);
    EXPECT_EQ(seen, 300u);
    kvs_journal_close(journal);
    for (const uint64_t first : {KVS_JOURNAL_OLDEST, UINT64_C(1), UINT64_C(290), UINT64_C(301)}) {
        kvs_journal *const from = open_journal(d, first);
        const size_t count = read_kinds(from).size();
        EXPECT_TRUE(first < 290 ? count > 20 && count < 290 : count == 301 - first) << count;
        kvs_journal_close(from);
    }
}

STORE_TEST(computes_the_same_checksum_in_both_ways)
{
    EXPECT_EQ(platform::crc32c(0, "123456789", 9), 0xE3069283u);
    std::string bytes;
    for (uint32_t length = 0; length < 300; ++length, bytes += static_cast<char>(length * 7)) {
        const auto all = [&](auto *sum, uint32_t part) {
            return sum(sum(0, bytes.data(), part), bytes.data() + part, length - part);
        };
        for (uint32_t part = 0; part <= length; part += 5)
            EXPECT_TRUE(all(platform::crc32c_by_table, part) == all(platform::crc32c, 0));
    }
}

STORE_TEST(finds_damage_without_falling_over)
{
    EXPECT_TRUE(passes_in_child([] {
        const db d;
        EXPECT_EQ(d.fill(0, 5000, std::string(50, 'x')), 0u);
        EXPECT_EQ(d.insert(record(9000, std::string(9000, 'x'))), 0u);
        EXPECT_EQ(kvs_batch_commit(), 0u);
        EXPECT_EQ(d.insert(record(9001)), 0u);
        EXPECT_EQ(d.fill(9002, 2, std::string(200000, 'x')), 0u);
        EXPECT_EQ(d.remove(d.find(9003)), 0u);
        EXPECT_EQ(kvs_batch_commit(), 0u);
    }));
    const fs::path data = state / "store.mdb", sound = state / "sound";
    fs::copy_file(data, sound);
    const auto size = fs::file_size(sound);
    const auto look = [&](uint32_t expected, const auto &damage) {
        fs::copy_file(sound, data, fs::copy_options::overwrite_existing);
        damage();
        EXPECT_TRUE(passes_in_child([&] {
            const db d;
            records found;
            EXPECT_EQ(d.bound != 0 ? d.bound : d.list(&found), expected);
        }));
    };
    look(0, [] {}); // although it is short: its last pages were given back before they were written
    for (const auto length : {size_t{0}, size_t{100}, size_t{4096}, size_t{8192}, size_t{20000},
                              size / 2, size - 4096, size - 1})
        look(KVS_RC_DAMAGED, [&] { fs::resize_file(data, length); });
    for (const int offset : {10, 16, 20, 40}) // flags, magic, version, page size
        look(offset == 20 ? KVS_RC_OTHER_FORMAT : KVS_RC_DAMAGED, [&] {
            std::fstream(data, std::ios::in | std::ios::out).seekp(offset).write("\0\0", 3);
        });
    for (const std::string &value :
         {std::string(), record(9) + "abc", checked("db", record(8) + record(1)),
          checked("db", record(9) + record(0)), checked("other", record(9) + record(1))})
        look(KVS_RC_DAMAGED, [&] { plant("db", record(9), value); });
    look(0, [] { plant("db", record(9), checked("db", record(9) + record(1))); });
    const std::string format("\0format", 7);
    look(KVS_RC_DAMAGED, [&] { plant(nullptr, format, record(1) + record(1)); });
    look(KVS_RC_OTHER_FORMAT, [&] { plant(nullptr, format, checked(format, record(1))); });
    look(KVS_RC_OTHER_FORMAT, [&] { plant(nullptr, std::string(2, '\0'), record(1)); });
    look(KVS_RC_DAMAGED, [&] { plant(nullptr, "nobody's", record(1)); });
}

// Such a file is not read whole when it is opened.
STORE_TEST(verifies_a_large_file_when_asked)
{
    EXPECT_TRUE(passes_in_child([] {
        const db d;
        EXPECT_EQ(d.fill(0, 150, std::string(200000, 'x')), 0u);
        EXPECT_EQ(kvs_verify(d.hdl), KVS_RC_BATCH_ACTIVE);
        EXPECT_EQ(kvs_batch_commit(), 0u);
        EXPECT_EQ(kvs_verify(d.hdl), 0u);
        EXPECT_EQ(kvs_verify(0), KVS_RC_BAD_HDL);
    }));
    const fs::path data = state / "store.mdb";
    const auto middle = static_cast<std::streamoff>(fs::file_size(data) / 2);
    std::fstream(data, std::ios::in | std::ios::out).seekp(middle).write("y", 1);
    EXPECT_TRUE(passes_in_child([] {
        const db d;
        EXPECT_TRUE(d.bound == 0 && kvs_verify(d.hdl) == KVS_RC_DAMAGED);
    }));

    const auto all = [](const void *, uint32_t length, void *) { return length != 200004 ? 1 : 0; };
    const auto first = [](const void *, uint32_t, void *) { return 1; };
    kvs_salvage_result result{};
    EXPECT_EQ(kvs_salvage("db", all, nullptr, &result), 0u);
    EXPECT_TRUE(result.salvaged == 149 && result.lost == 1 && result.doubtful == 0);
    EXPECT_TRUE(result.is_whole == 0 && kvs_salvage("db", first, nullptr, &result) == 0);
    EXPECT_EQ(result.salvaged, 1u);
    EXPECT_EQ(kvs_salvage("none", all, nullptr, &result), 0u);
    EXPECT_TRUE(result.salvaged == 0 && result.lost == KVS_SALVAGE_UNKNOWN);
    EXPECT_EQ(kvs_salvage("", all, nullptr, &result), KVS_RC_BAD_NAME);
    EXPECT_TRUE(passes_in_child([&] {
        const db bound;
        EXPECT_EQ(kvs_salvage("db", all, nullptr, &result), KVS_RC_UNSUPPORTED);
    }));
    EXPECT_EQ(kvs_salvage(nullptr, all, nullptr, &result), KVS_RC_NULL_ARG);
    EXPECT_EQ(kvs_salvage("db", nullptr, nullptr, &result), KVS_RC_NULL_ARG);
    EXPECT_EQ(kvs_salvage("db", all, nullptr, nullptr), KVS_RC_NULL_ARG);

    EXPECT_TRUE(passes_in_child([&] { // in headers that no commit writes again
        const db d;
        std::fstream file(data, std::ios::in | std::ios::out);
        for (const int header : {0, 1})
            file.seekp(header * sysconf(_SC_PAGESIZE) + 144).write("\xff", 1).flush();
        alarm(patience);
        EXPECT_EQ(kvs_verify(d.hdl), KVS_RC_FILES_REPLACED);
    }));
}

// A cache is current by the file that is open, and not by one that could not be opened.
STORE_TEST(leaves_nothing_of_a_file_that_it_could_not_open)
{
    EXPECT_TRUE(passes_in_child([] { EXPECT_EQ(db().insert(record(1)), 0u); }));
    fs::copy_file(state / "store.mdb", state / "whole");
    plant(nullptr, std::string("\0journal", 8), std::string(5000, 'x'));
    EXPECT_EQ(db().bound, KVS_RC_DAMAGED);
    fs::rename(state / "whole", state / "store.mdb");
    const db d;
    EXPECT_EQ(d.insert(record(2)), 0u); // as many commits as the damaged file has
    EXPECT_NE(d.find(1), 0u);
    EXPECT_TRUE(passes_in_child([&] { EXPECT_EQ(d.remove(d.find(1)), 0u); }));
    EXPECT_EQ(d.find(1), 0u);
}

// After a power cut the last commit may be in the journal only; a damaged journal cannot tell.
STORE_TEST(salvages_nothing_as_new_that_the_journal_may_have_changed)
{
    const fs::path data = state / "store.mdb";
    const auto content = [&] {
        std::ifstream from(data, std::ios::binary);
        return std::string(std::istreambuf_iterator<char>(from), {});
    };
    EXPECT_TRUE(passes_in_child([] { EXPECT_EQ(db().insert(record(1)), 0u); }));
    const std::string before = content();
    EXPECT_TRUE(passes_in_child([] { EXPECT_EQ(db().remove(db().find(1)), 0u); }));
    const std::string after = content();
    constexpr size_t page = 4096, headers = 2 * page, flags = 10, first_value = 16;
    size_t journal = headers;
    while (after[journal + flags] != 4)
        journal += page;
    const auto salvages = [&](const std::string &bytes, uint64_t found, uint64_t whole) {
        std::ofstream(data, std::ios::binary) << bytes;
        const auto take = [](const void *, uint32_t, void *) { return 0; };
        kvs_salvage_result result{};
        EXPECT_EQ(kvs_salvage("db", take, nullptr, &result), 0u);
        EXPECT_TRUE(result.salvaged == found && result.doubtful == found);
        EXPECT_EQ(result.is_whole, whole);
    };
    salvages(after, 0, 1);
    salvages(before.substr(0, headers) + after.substr(headers), 1, 0);
    std::string no_journal = before;
    no_journal[journal + first_value] ^= 1;
    salvages(no_journal, 1, 0);
}

// A new process maps the file as far as the header says, and at least 5 MB.
STORE_TEST(finishes_a_commit_that_outgrows_the_map)
{
    const fs::path data = state / "store.mdb";
    constexpr std::streamsize headers = 8192;
    const std::string big(200000, 'x');
    for (uint32_t key = 1; key <= 30; ++key) {
        char before[headers] = {};
        EXPECT_TRUE(passes_in_child([] { EXPECT_EQ(db().bound, 0u); }));
        std::ifstream(data, std::ios::binary).read(before, headers);
        EXPECT_TRUE(passes_in_child([&] { EXPECT_EQ(db().insert(record(key, big)), 0u); }));
        std::fstream(data, std::ios::in | std::ios::out | std::ios::binary).write(before, headers);
        EXPECT_TRUE(passes_in_child([&] {
            const db d;
            EXPECT_TRUE(d.bound == 0 && d.all().size() == key && kvs_verify(d.hdl) == 0);
        }));
    }
}

STORE_TEST(gives_out_no_handle_twice_when_there_are_none_left)
{
    const db d;
    kvs_rec_hdl rec = 0;
    const std::string counter("db", 3);
    plant(nullptr, counter, checked(counter, record(UINT32_MAX - 1)));
    EXPECT_EQ(d.insert(record(1), &rec), 0u);
    EXPECT_EQ(d.insert(record(2)), 0u);
    EXPECT_EQ(d.remove(rec), 0u);
    EXPECT_EQ(d.remove(d.find(2)), 0u);
    EXPECT_EQ(d.insert(record(1)), KVS_RC_EXHAUSTED);
    EXPECT_TRUE(d.all().empty());
}

STORE_TEST(opens_although_the_directory_is_locked)
{
    const db d;
    const int dir = open(state.c_str(), O_RDONLY | O_DIRECTORY);
    ASSERT_EQ(flock(dir, LOCK_EX), 0);
    EXPECT_TRUE(passes_in_child([&] {
        alarm(10);
        EXPECT_EQ(db("second").insert(record(1)), 0u);
    }));
    EXPECT_EQ(mode_of(state / "store.mdb-open"), 0600u);
}

// Has a store open while `harm` is done to its files, and a process that comes then use it too.
// Record 0 is there before; the newcomer's first change comes before the user's next, and its
// second one after it.
void share_harmed_files(const std::function<void()> &harm, uint32_t newcomers, uint32_t users,
                        bool batch)
{
    struct {
        std::atomic<int> turn;
        std::atomic<uint32_t> status;
    } &both = shared<std::remove_reference_t<decltype(both)>>();
    const auto give_turn = [&] {
        const int turn = ++both.turn;
        EXPECT_TRUE(comes([&] { return both.turn > turn; }));
        return both.status.load();
    };
    const pid_t newcomer = start_in_child([&] {
        for (const uint32_t key : {1u, 3u}) {
            EXPECT_TRUE(comes([&] { return both.turn == static_cast<int>(key); }));
            const db d;
            both.status = d.bound != 0 ? d.bound : d.insert(record(key));
            ++both.turn;
        }
    });
    const db d;
    EXPECT_EQ(d.insert(record(0)), 0u);
    EXPECT_EQ(d.find(9), 0u); // and looks at the files
    EXPECT_EQ(batch ? d.fill(10, 1) : 0, 0u);
    harm();
    EXPECT_EQ(give_turn(), newcomers);
    const uint32_t of_batch = newcomers != 0 ? newcomers : users;
    EXPECT_EQ(batch ? kvs_batch_commit() : of_batch, of_batch);
    EXPECT_EQ(d.insert(record(2)), users);
    if (const db again; again.hdl == d.hdl || again.hdl == 0) { // of the same directory
        EXPECT_EQ(again.bound, users);
    }
    records found;
    EXPECT_EQ(d.list(&found), users);
    EXPECT_EQ(give_turn(), 0u);
    EXPECT_EQ(finish(newcomer), 0);
}

STORE_TEST(loses_no_change_when_its_files_are_taken_away)
{
    const fs::path data = state / "store.mdb", lock = state / "store.mdb-lock", away = state / "x";
    const auto replace = [&](const fs::path &file) {
        fs::rename(file, away);
        fs::copy_file(away, file);
    };
    const struct {
        std::function<void()> harm;
        uint32_t newcomers, users;
        std::set<uint32_t> left; // outside a batch
    } harms[] = {
        {[&] { fs::remove(state / "store.mdb-open"); }, 0, 0, {0, 1, 2, 3}},
        {[&] { fs::remove(lock); }, KVS_RC_FILES_REPLACED, 0, {0, 2, 3}},
        {[&] { replace(lock); }, KVS_RC_FILES_REPLACED, 0, {0, 2, 3}},
        {[&] { fs::remove(data); }, 0, KVS_RC_FILES_REPLACED, {1, 3}},
        {[&] { replace(data); }, 0, KVS_RC_FILES_REPLACED, {0, 1, 3}},
        {[&] { fs::remove(data), fs::remove(lock); }, 0, KVS_RC_FILES_REPLACED, {1, 3}},
        {[&] { fs::rename(state, state.parent_path() / "y"); }, 0, 0, {1, 3}},
        {[&] { fs::remove_all(state); }, 0, KVS_RC_FILES_REPLACED, {1, 3}},
    };
    for (const auto &it : harms)
        for (const bool batch : {false, true}) {
            if (batch && it.newcomers == it.users) // who would wait for the batch
                continue;
            SCOPED_TRACE(std::to_string(&it - harms) + (batch ? " in a batch" : ""));
            fs::remove_all(state);
            EXPECT_TRUE(passes_in_child(
                [&] { share_harmed_files(it.harm, it.newcomers, it.users, batch); }));
            EXPECT_TRUE(passes_in_child([&] {
                std::set<uint32_t> left;
                for (const auto &[key, bytes] : db().all())
                    left.insert(key);
                EXPECT_EQ(left, it.left);
            }));
        }
}

// A thread that only reads, from its cache, looks at the files too.
STORE_TEST(tells_readers_that_its_data_file_is_gone)
{
    const db d;
    kvs_rec_hdl *found = nullptr;
    uint32_t status = 0, count = 0, key = 1;
    const kvs_key_attr by_key{{0, 0, 0}, 0, 4, &key, 0};
    ASSERT_EQ(d.insert(record(1)), 0u);
    ASSERT_NE(d.find(1), 0u);
    fs::rename(state / "store.mdb", state / "x");
    EXPECT_TRUE(comes([&] {
        status = kvs_find_objects(d.hdl, &by_key, 1, 0, &found, &count);
        free(status == 0 ? found : nullptr);
        return status != 0;
    }));
    EXPECT_EQ(status, KVS_RC_FILES_REPLACED);
    EXPECT_EQ(kvs_verify(d.hdl), KVS_RC_FILES_REPLACED);
    fs::rename(state / "x", state / "store.mdb");
    EXPECT_NE(d.find(1), 0u);
    EXPECT_EQ(d.insert(record(2)), 0u);
}

// Takes descriptors that lead into the state directory for another file, which is to stay as it is:
// each alone, then all of them.
STORE_TEST(writes_into_no_file_of_the_program)
{
    const fs::path victim = state.parent_path() / "victim";
    std::ofstream(victim) << "the program's";
    const auto leads_into_store = [](int fd) {
        std::error_code none;
        const auto to = fs::read_symlink("/proc/self/fd/" + std::to_string(fd), none).string();
        return to.starts_with(state.string());
    };
    const auto steal = [&](int which) {
        const int own = open(victim.c_str(), O_RDWR);
        for (int fd = 3, seen = 0; fd < 64; ++fd)
            if (leads_into_store(fd) && (seen++ == which || which < 0)) {
                EXPECT_EQ(dup2(own, fd), fd);
            }
        close(own);
    };
    const auto count_own = [&] {
        int count = 0;
        for (int fd = 3; fd < 64; ++fd) {
            struct stat about, wanted;
            count += fstat(fd, &about) == 0 && stat(victim.c_str(), &wanted) == 0 &&
                     about.st_ino == wanted.st_ino && about.st_dev == wanted.st_dev;
        }
        return count;
    };
    for (int which = -1; which < 4; ++which)
        for (const int when :
             {0, 1, 2}) { // without a batch, before its commit, and before a long change
            SCOPED_TRACE(std::to_string(which) + " " + std::to_string(when));
            fs::remove_all(state);
            EXPECT_TRUE(passes_in_child([&] {
                const db d;
                EXPECT_EQ(d.insert(record(1)), 0u);
                EXPECT_EQ(when != 0 ? d.fill(10, 1) : 0, 0u);
                steal(which);
                const int owned = count_own();
                EXPECT_EQ(owned, which < 0 ? 4 : 1);
                const uint32_t status =
                    when == 1 ? kvs_batch_commit() : d.insert(record(2, std::string(70'000, 'x')));
                EXPECT_TRUE(status == KVS_RC_DESCRIPTORS_LOST || status == KVS_RC_FILES_REPLACED ||
                            (which >= 0 && status == 0))
                    << std::hex << status;
                EXPECT_TRUE(when != 1 || status != 0);
                EXPECT_TRUE(when != 2 || kvs_batch_abort() == 0);
                EXPECT_TRUE(passes_in_child([] { EXPECT_EQ(db().insert(record(3)), 0u); }));
                EXPECT_TRUE(which >= 0 || d.insert(record(4)) == KVS_RC_DESCRIPTORS_LOST);
                EXPECT_EQ(db().hdl, d.hdl); // which gives the store its directory back
                EXPECT_EQ(d.insert(record(4)), 0u);
                EXPECT_EQ(count_own(), owned);
            }));
            EXPECT_EQ(content_of(victim), "the program's");
        }
}

// Writing to a hole in the lock file on a full disk would raise SIGBUS.
STORE_TEST(fills_the_holes_of_its_lock_file)
{
    EXPECT_TRUE(passes_in_child([] { EXPECT_EQ(db().insert(record(1)), 0u); }));
    const fs::path lock = state / "store.mdb-lock";
    const auto size = fs::file_size(lock);
    fs::resize_file(lock, 0);
    fs::resize_file(lock, size);
    EXPECT_TRUE(passes_in_child([] { EXPECT_EQ(db().insert(record(2)), 0u); }));
    struct stat about;
    ASSERT_EQ(stat(lock.c_str(), &about), 0);
    EXPECT_GE(static_cast<uint64_t>(about.st_blocks) * 512, size);
}

// The child gets no lock of a thread that began to use the store.
STORE_TEST(forks_while_threads_begin_to_use_it)
{
    EXPECT_TRUE(passes_in_child([] { EXPECT_EQ(db().insert(record(1)), 0u); }));
    for (int round = 0; round < 300; ++round)
        ASSERT_TRUE(passes_in_child([&] {
            std::atomic<bool> begins{false};
            std::thread user([&] {
                begins = true;
                EXPECT_EQ(db().all().size(), 1u);
            });
            while (!begins)
                continue;
            for (std::atomic<int> wait = round * 20; wait > 0; --wait)
                continue;
            EXPECT_TRUE(passes_in_child([] {
                alarm(20);
                EXPECT_EQ(db().all().size(), 1u);
            }));
            user.join();
        })) << round;
}

// A thread that waits to open the store anew, for the end of a batch, holds up no fork.
STORE_TEST(forks_in_a_batch_while_a_reader_waits_for_its_end)
{
    alarm(patience);
    const db d;
    EXPECT_EQ(d.insert(record(1)), 0u);
    EXPECT_EQ(d.fill(2, 1), 0u);
    fs::remove(state / "store.mdb-lock");
    std::thread reader([&] { EXPECT_EQ(d.all().size(), 1u); });
    usleep(100'000);
    EXPECT_TRUE(passes_in_child([&] {
        alarm(patience);
        EXPECT_EQ(kvs_verify(d.hdl), KVS_RC_FILES_REPLACED);
    }));
    EXPECT_EQ(kvs_batch_commit(), KVS_RC_FILES_REPLACED);
    reader.join();
}

// A thread that is cancelled in a call ends after the call, and leaves no lock behind.
STORE_TEST(leaves_no_lock_when_a_thread_is_cancelled)
{
    const db d;
    for (uint32_t round = 0; round < 30; ++round) {
        pthread_t thread;
        std::pair<const db *, uint32_t> work{&d, round * 1000};
        const auto change = [](void *argument) -> void * {
            const auto [to, first] = *static_cast<decltype(work) *>(argument);
            for (uint32_t key = first; key < first + 990; ++key, pthread_testcancel())
                EXPECT_TRUE(key % 3 == 0 ? to->fill(key, 1) + kvs_batch_commit() == 0
                                         : to->insert(record(key)) == 0);
            pause();
            return nullptr;
        };
        ASSERT_EQ(pthread_create(&thread, nullptr, change, &work), 0);
        usleep(round * 50);
        pthread_cancel(thread);
        pthread_join(thread, nullptr);
        EXPECT_TRUE(passes_in_child([&] {
            alarm(10);
            EXPECT_EQ(d.insert(record(round * 1000 + 999)), 0u);
        }));
        alarm(10);
        EXPECT_EQ(d.insert(record(round * 1000 + 998)), 0u);
        alarm(0);
    }
}

} // namespace
