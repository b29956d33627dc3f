// Trace buffers: a record is read back whole or not at all, also after overtaken or killed writers
// and damage.
#include "ringlog.h"
#include "scratch.h"

#include <csignal>
#include <fcntl.h>
#include <random>
#include <sched.h>
#include <set>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <thread>

namespace {

constexpr size_t header_size = 4096, size_of_8 = header_size + 8 * RINGLOG_SLOT_SIZE;
constexpr uint64_t id_of(uint64_t mask, uint64_t count) { return mask << 40 | count << 32 | 7; }
uint64_t text(const std::string &string) { return reinterpret_cast<uint64_t>(string.c_str()); }
std::string row(uint64_t seed) { return std::string(seed % 150, "etaoinshr"[seed % 9]); }
void emit(uint64_t handle, uint64_t count) // records whose parts show whether they belong together
{
    for (uint64_t seed = 0; seed < count * 7919; seed += 7919)
        _ringlog_emit(handle, id_of(2, 3), seed, text(row(seed)), ~seed);
}

struct reader {
    explicit reader(const std::string &name) : status(ringlog_open(name.c_str(), &handle)) {}
    ~reader() { ringlog_close(handle); }
    bool next() { return (status = ringlog_read(handle, &record)) == 0; }
    uint64_t number(int i) const { return record.arguments[i].number; }
    std::string string(int i) const { return record.arguments[i].text; }
    uint64_t rest(uint64_t most = UINT64_MAX) // Counts the records, which are whole and in order.
    {
        uint64_t count = 0, least = 0;
        for (; count < most && handle && next(); ++count, least = record.sequence + 1)
            EXPECT_TRUE(record.id == id_of(2, 3) && number(2) == ~number(0) &&
                        string(1) == row(number(0)) && record.sequence >= least);
        return count;
    }
    ringlog_reader *handle = nullptr;
    ringlog_record record{};
    uint32_t status;
};

struct ringlog : scratch {
    uint64_t open(const std::string &name, uint32_t expected = 0, uint32_t size = 8)
    {
        uint64_t handle = 77;
        const uint32_t status = ringlog_init2(name.c_str(), 0, 0, size, size, 0, &handle);
        EXPECT_TRUE(status == expected && (handle == 77) == (status != 0)) << name << status;
        return handle;
    }
    fs::path file(const std::string &name) const { return root / "state/ringlog" / name; }
};

TEST_F(ringlog, refuses_bad_arguments)
{
    open("good/buffer");
    fs::create_directory_symlink(root, file("link"));
    fs::create_symlink(root / "elsewhere", file("leaf"));
    const std::string longest(241, 'n'), deep = std::string(1024, 'd').replace(200, 1, "/");
    for (const char *name : {"", "/abs", "..", "a/../b", "a//b", "a/", "./a", ".new", "link/x",
                             "leaf", longest.c_str(), deep.c_str()})
        EXPECT_EQ((open(name, RINGLOG_RC_BAD_NAME), reader(name).status), RINGLOG_RC_BAD_NAME);
    EXPECT_FALSE(fs::exists(root / "x") || fs::exists(root / "elsewhere"));
    EXPECT_EQ(reader("none").status, RINGLOG_RC_NO_SUCH_BUFFER);
    for (const uint32_t size : {0u, (1u << 20) + 1})
        open("x", RINGLOG_RC_BAD_SIZE, size);
    open("good", RINGLOG_RC_IO);
}

TEST_F(ringlog, keeps_numbers_and_strings)
{
    uint64_t handle = 0;
    ASSERT_EQ(ringlog_init2("a/b", 0, 0, 2, 1401, 0, &handle), 0u); // A slot holds 200 bytes.
    EXPECT_TRUE(fs::file_size(file("a/b")) == size_of_8 && mode_of(file("a/b")) == 0600);
    const std::string longer(500, 'L'), cut(86, 'L'); // half of what 3 arguments and "kept" leave
    errno = 4711;
    _ringlog_emit(handle, id_of(0b101, 3), text("short"), UINT64_MAX, uint64_t{0});
    _ringlog_emit(handle, id_of(0b111, 3), text(longer), text("kept"), text(longer));
    for (const uint64_t bad : {uint64_t{0}, uint64_t{1}, handle + 1, handle ^ 1u << 20})
        _ringlog_emit(bad, id_of(0, 1), uint64_t{1});
    reader in("a/b");
    ASSERT_TRUE(errno == 4711 && in.next() && in.string(0) + in.string(2) == "short(null)");
    EXPECT_TRUE(in.number(0) == 0 && in.number(1) == UINT64_MAX && !in.record.arguments[1].text);
    EXPECT_EQ(in.record.process, std::string(program_invocation_short_name).substr(0, 15));
    const double seconds = static_cast<double>(in.record.time_ns) / 1e9;
    EXPECT_NEAR(static_cast<double>(time(nullptr)), seconds, 5);
    EXPECT_TRUE(in.next() && in.string(0) + in.string(1) + in.string(2) == cut + "kept" + cut);
    EXPECT_TRUE(!in.next() && in.status == RINGLOG_RC_NO_RECORD);
}

TEST_F(ringlog, is_made_once_and_has_one_handle_also_in_children)
{
    const uint64_t first = open("b");
    std::ofstream(file(".new")) << "left by a killed process";
    for (int i = 0; i < 16; ++i)
        i < 8 ? start_in_child([&] { emit(open("a/raced"), open("b") == first); }) : wait(nullptr);
    open("a.x");
    static std::string names;
    const auto add = [](const char *name, void *) { return names += name, 0; };
    EXPECT_TRUE(ringlog_list(add, nullptr) == 0 && names == "a.xa/racedb") << names;
    EXPECT_TRUE(passes_in_child([&] {
        emit(first, 1);
        reader in("b");
        EXPECT_TRUE(in.next() && in.record.pid == getpid() && in.record.tid == getpid());
        for (const rlim_t size : {0, 1, 8192}) { // A write past it would kill.
            limit(RLIMIT_FSIZE, size);
            emit(open("none", 0, 64), 1);
            EXPECT_EQ(reader("none").status, RINGLOG_RC_NO_SUCH_BUFFER);
        }
        for (uint64_t i = 0, handle = 1; i < 256; ++i)
            ringlog_init2(std::to_string(i).c_str(), 0, 0, 1, 1, 0, &handle);
        open("more", RINGLOG_RC_TOO_MANY);
    }));
    EXPECT_EQ(reader("a/raced").rest(), 8u);
    fs::remove(file("b"));
    emit(first, 2);
    EXPECT_EQ((emit(open("b"), 1), reader("b").rest()), 1u);
}

TEST_F(ringlog, is_not_cancelled_while_a_buffer_is_made)
{
    std::jthread([&] {
        pthread_cancel(pthread_self());
        open("b");
    }).join();
    emit(open("b"), 1);
    EXPECT_EQ(reader("b").rest(), 1u);
}

TEST_F(ringlog, takes_its_space_with_the_first_record)
{
    const auto blocks = [&](const std::string &name) {
        struct stat about {};
        return stat(file(name).c_str(), &about) == 0 ? about.st_blocks * 512 : -1;
    };
    const uint64_t handle = open("b", 0, 64);
    EXPECT_TRUE(blocks("b") == header_size && fs::file_size(file("b")) == size_of_8 + 56 * 256);
    emit(handle, 1);
    EXPECT_GE(blocks("b"), size_of_8 + 56 * 256);
    fs::copy_file(file("b"), file("sparse")); // as a copy that leaves out the zeros
    for (const size_t size : {header_size, size_of_8 + 56 * 256})
        fs::resize_file(file("sparse"), size);
    EXPECT_LT(blocks("sparse"), size_of_8);
    emit(open("sparse"), 1);
    EXPECT_GE(blocks("sparse"), size_of_8 + 56 * 256);
    EXPECT_TRUE(passes_in_child([&] {
        if (unshare(geteuid() == 0 ? CLONE_NEWNS : CLONE_NEWNS | CLONE_NEWUSER) != 0)
            return; // no disk of our own to fill
        fs::create_directory(root / "small");
        const std::string disk = root / "small";
        EXPECT_EQ(mount("", "/", "", MS_REC | MS_PRIVATE, ""), 0);
        EXPECT_EQ(mount("tmpfs", disk.c_str(), "tmpfs", 0, "size=12k,mode=700"), 0);
        setenv("VS_STATE_DIR", disk.c_str(), 1);
        std::ofstream(disk + "/ballast") << std::string(12288, 'b');
        emit(open("b", 0, 64), 1);
        EXPECT_EQ(reader("b").status, RINGLOG_RC_NO_SUCH_BUFFER);
        fs::remove(disk + "/ballast");
        const uint64_t on_full = open("b", 0, 64);
        emit(on_full, 3);
        EXPECT_EQ(reader("b").rest(), 0u);
        EXPECT_EQ(mount("", disk.c_str(), "", MS_REMOUNT, "size=1m"), 0);
        reader in("b");
        for (int i = 0; i < 5000 && in.rest() == 0; ++i)
            emit(on_full, static_cast<uint64_t>(usleep(1000) == 0));
        EXPECT_GE(ringlog_skipped(in.handle), 3u);
    }));
}

// Set before the first buffer is opened, as sanitizers handle the signal.
const auto bus_action = signal(SIGBUS, SIG_DFL);

TEST_F(ringlog, survives_a_file_that_is_cut_short_but_no_other_fault)
{
    for (const size_t length : {size_t{0}, header_size}) {
        const uint64_t handle = open("b", 0, 64);
        emit(handle, 64);
        fs::resize_file(file("b"), length);
        emit(handle, 128);
        EXPECT_EQ((emit(open("b"), 5), reader("b").rest()), 5u);
        EXPECT_TRUE(fs::remove(file("b")) && fs::file_size(file("b.damaged")) == length);
    }
    const auto fault = [&] {
        std::ofstream(root / "other") << "short";
        const int fd = ::open((root / "other").c_str(), O_RDWR);
        static_cast<volatile char *>(mmap(nullptr, 8192, PROT_WRITE, MAP_SHARED, fd, 0))[4096] = 1;
    };
    EXPECT_EQ(finish(start_in_child(fault)), 128 + SIGBUS);
    EXPECT_EQ(finish(start_in_child([] { raise(SIGBUS); })), 128 + SIGBUS);
}

TEST_F(ringlog, keeps_the_newest_buffers_and_those_in_use_below_the_limit)
{
    setenv("VS_RINGLOG_LIMIT", "256k", 1); // each of the buffers takes 20480 bytes
    const auto job = [](int i) { return "job/" + std::to_string(i) + "/api"; };
    const auto bytes = [&] {
        uint64_t sum = 0;
        for (const auto &entry : fs::recursive_directory_iterator(root / "state/ringlog"))
            sum += entry.is_regular_file() ? fs::file_size(entry) : 0;
        return sum;
    };
    const uint64_t live = open("live", 0, 64);
    emit(live, 1);                    // the oldest of all
    for (int i = 0; i < 60; i += 2) { // two makers at once
        for (int j : {i, i + 1})
            start_in_child([&] { emit(open(job(j), 0, 64), 1); });
        for (int status = 0; wait(&status) > 0;)
            EXPECT_EQ(status, 0);
        EXPECT_LE(bytes(), 256u << 10);
    }
    EXPECT_FALSE(fs::exists(file("job/0")) || fs::exists(file("job/1")));
    for (int i = 54; i < 60; ++i)
        EXPECT_EQ(reader(job(i)).rest(), 1u) << i;
    EXPECT_EQ(reader("live").rest(), 1u);
    EXPECT_EQ(mode_of(root / "state/ringlog/.lock"), 0600u);
}

TEST_F(ringlog, replaces_what_is_no_buffer_but_not_other_kinds_of_files)
{
    open("first");
    fs::create_directory(file("folder"));
    ASSERT_EQ(mkfifo(file("fifo").c_str(), 0600), 0);
    for (const char *kind : {"folder", "fifo"})
        open(kind, RINGLOG_RC_IO);
    std::ofstream(file("huge")).flush();
    fs::resize_file(file("huge"), uint64_t{1} << 40);
    EXPECT_EQ((emit(open("huge"), 2), reader("huge").rest()), 2u);
    const int folder = ::open(file("").c_str(), O_RDONLY), locked = flock(folder, LOCK_EX);
    EXPECT_TRUE(locked == 0 && passes_in_child([&] { open("second"); })); // does not wait for it
    close(folder);
}

TEST_F(ringlog, never_shows_a_torn_record_nor_waits_for_killed_writers)
{
    const uint64_t handle = open("small");
    reader in("small");
    for (int round = 0; round < 50; ++round) {
        EXPECT_TRUE((emit(handle, 8), reader("small").rest() == 8 && in.rest() <= 8));
        const pid_t child = start_in_child([&] { emit(handle, UINT64_MAX / 7919); });
        const std::jthread one(emit, handle, 9999), other(emit, handle, 9999);
        in.rest(2000);
        EXPECT_TRUE(kill(child, SIGKILL) == 0 && finish(child) == 128 + SIGKILL);
    }
}

TEST_F(ringlog, survives_any_damage)
{
    emit(open("whole"), 8);
    const std::string whole = content_of(file("whole"));
    std::string hurt = whole;
    const auto put = [&](const std::string &bytes) { std::ofstream(file("hurt")) << bytes; };
    // Left by a writer that was killed before its last word, or before its first.
    for (const auto &[slot, claim] : {std::pair{2ul, 5}, {2, 0}, {7, 15}}) {
        (hurt = whole)[header_size + slot * RINGLOG_SLOT_SIZE] = static_cast<char>(claim);
        EXPECT_EQ((put(hurt), reader("hurt").rest()), 7u);
    }
    const size_t lengths[] = {0, 100, header_size, size_of_8 - 1, size_of_8 + 1, size_of_8};
    std::mt19937 random(2);
    std::set<uint32_t> ends;
    for (uint64_t round = 0, damaged = 0; round < 600; ++round) {
        put(hurt = whole);
        reader before("hurt");
        for (uint64_t i = random() % 16; i > 0; --i)
            hurt[random() % (i % 4 == 0 ? 72 : size_of_8)] = static_cast<char>(random() % 300);
        hurt.resize(lengths[std::min(random() % 40, 5ul)]);
        put(hurt);
        reader after("hurt");
        EXPECT_TRUE(before.rest() <= 8 && after.rest() <= 8);
        EXPECT_TRUE(after.handle == nullptr || hurt.size() == size_of_8);
        ends.merge(std::set{before.status, after.status});
        if (after.handle == nullptr && ++damaged < 150) {
            EXPECT_EQ((emit(open("hurt"), 1), reader("hurt").rest()), 1u);
            EXPECT_EQ(content_of(file("hurt.damaged")), hurt);
            fs::remove(file("hurt"));
        }
    }
    EXPECT_EQ(ends, (std::set{RINGLOG_RC_NO_RECORD, RINGLOG_RC_DAMAGED}));
}

} // namespace
