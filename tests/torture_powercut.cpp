// Opens what a disk may contain after a power cut.
//
// This executable takes over the calls by which the engine writes, and records those on its data
// file, between marks at which changes start. From the record it makes files as a disk might hold
// them after a cut at some point: what was synced is there, and of what was not any part, cut up in
// sectors, in any order. A write through a descriptor opened with O_DSYNC counts as synced once it
// has returned. Each file must open with every change acknowledged before the cut, which are all
// but the last one started.
#include "torture.h"

#include <algorithm>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/uio.h>

namespace torture {
namespace {

enum class what { start, write, return_synced, sync, rename, sync_names };

struct event {
    what kind;
    size_t offset;     // of a write
    size_t first, end; // of its bytes, among all that were written
};

struct recording {
    unsigned count;
    event events[1 << 16];
    char bytes[256 << 20];
};

recording *tape = nullptr;
bool is_recording = false; // in this process

const event &record(what kind, off_t offset = 0, const iovec *parts = nullptr, int count = 0)
{
    const size_t first = tape->count != 0 ? tape->events[tape->count - 1].end : 0;
    need(tape->count < std::size(tape->events), "room to record");
    event &it = tape->events[tape->count++];
    it = {kind, static_cast<size_t>(offset), first, first};
    for (const iovec &part : std::span(parts, static_cast<size_t>(count))) {
        need(part.iov_len <= sizeof tape->bytes - it.end, "room to record");
        memcpy(tape->bytes + it.end, part.iov_base, part.iov_len);
        it.end += part.iov_len;
    }
    return it;
}

// Whether this is the file with the name in the state directory, which is its own for no name.
bool leads_to(int fd, const char *name)
{
    std::error_code none;
    return fs::read_symlink("/proc/self/fd/" + std::to_string(fd), none) ==
           getenv("VS_STATE_DIR") + std::string(name);
}

bool is_recorded(int fd)
{
    return is_recording && (leads_to(fd, "/store.mdb") || leads_to(fd, "/store.mdb.new"));
}

template <class Call>
ssize_t record_write(int fd, off_t offset, const iovec *parts, int count, const Call &call)
{
    if (!is_recorded(fd))
        return call();
    const event &it = record(what::write, offset, parts, count);
    const ssize_t written = call();
    need(written == static_cast<ssize_t>(it.end - it.first), "a whole write");
    if ((fcntl(fd, F_GETFL) & O_DSYNC) != 0)
        record(what::return_synced);
    return written;
}

int record_sync(int fd, long number)
{
    const auto result = static_cast<int>(syscall(number, fd));
    if (is_recorded(fd))
        record(what::sync);
    else if (is_recording && leads_to(fd, ""))
        record(what::sync_names);
    return result;
}

} // namespace
} // namespace torture

extern "C" {
ssize_t pwrite(int fd, const void *data, size_t length, off_t offset)
{
    const iovec part{const_cast<void *>(data), length};
    return torture::record_write(fd, offset, &part, 1, [&] {
        return static_cast<ssize_t>(syscall(SYS_pwrite64, fd, data, length, offset));
    });
}

ssize_t writev(int fd, const iovec *parts, int count)
{
    return torture::record_write(fd, lseek(fd, 0, SEEK_CUR), parts, count, [&] {
        return static_cast<ssize_t>(syscall(SYS_writev, fd, parts, count));
    });
}

int fdatasync(int fd) { return torture::record_sync(fd, SYS_fdatasync); }
int fsync(int fd) { return torture::record_sync(fd, SYS_fsync); }

int renameat(int from_dir, const char *from, int to_dir, const char *to) noexcept
{
    if (torture::is_recording && strcmp(to, "store.mdb") == 0)
        torture::record(torture::what::rename);
    return static_cast<int>(syscall(SYS_renameat, from_dir, from, to_dir, to));
}
}

namespace torture {
namespace {

using file = std::string; // its bytes

// The disk at one point of the recording.
class disk {
public:
    void take(const event &it)
    {
        if (it.kind == what::write)
            pending_.push_back({&it, false});
        if (it.kind == what::return_synced)
            pending_.back().synced = true;
        if (it.kind == what::sync) {
            file_ = everything();
            pending_.clear();
        }
        renamed_ |= it.kind == what::rename;
        name_synced_ |= renamed_ && it.kind == what::sync_names;
    }

    file everything() const
    {
        file result = file_;
        for (const auto &[write, synced] : pending_)
            put(result, *write, write->first, write->end);
        return result;
    }

    // What a cut leaves of the file.
    file after_cut(dice &roll) const
    {
        const size_t sector = roll.below(2) == 0 ? 512 : 4096;
        const uint32_t shares[] = {0, 5, 50, 95, 100}, share = shares[roll.below(5)];
        file result = file_;
        if (roll.below(2) == 0) // the length may be there and the bytes not
            result.resize(everything().size());
        for (const auto &[write, synced] : pending_)
            for (size_t from = write->first, end; from < write->end; from = end) {
                end = std::min(from + sector - (write->offset + from - write->first) % sector,
                               write->end);
                if (synced || roll.below(100) < share)
                    put(result, *write, from, end);
            }
        return result;
    }

    const char *name_after_cut(dice &roll) const
    {
        return name_synced_ || (renamed_ && roll.below(2) == 0) ? "store.mdb" : "store.mdb.new";
    }

private:
    struct pending_write {
        const event *write;
        bool synced;
    };

    static void put(file &to, const event &write, size_t from, size_t end)
    {
        const size_t at = write.offset + from - write.first;
        to.resize(std::max(to.size(), at + end - from));
        to.replace(at, end - from, tape->bytes + from, end - from);
    }

    file file_; // what is there for sure
    std::vector<pending_write> pending_;
    bool renamed_ = false, name_synced_ = false;
};

constexpr unsigned changes_of_a_session = 60, states_of_a_session = 100;
constexpr uint32_t first_key = 1;

void record_session(uint64_t seed)
{
    tape->count = 0;
    const fs::path state = use_new_state("recorded");
    const int status = in_child([&] {
        is_recording = true;
        contents all;
        open_databases();
        for (unsigned i = 0; i < changes_of_a_session; ++i) {
            record(what::start);
            need(change(seed + i, first_key, all, true) == 0, "changing");
        }
    });
    disk replayed;
    for (unsigned i = 0; i < tape->count; ++i)
        replayed.take(tape->events[i]);
    need(status == 0 && replayed.everything() == content_of(state / "store.mdb"),
         "the recording makes the file that the engine made");
}

// Checks the store after a cut, in a process of its own, and changes it once more.
[[noreturn]] void try_out(const fs::path &state, const disk &now, dice roll, const contents &before,
                          const contents &after)
{
    alarm(patience);
    for (const char *const old : {"store.mdb", "store.mdb.new", "store.mdb-lock"})
        fs::remove(state / old);
    std::ofstream(state / now.name_after_cut(roll), std::ios::binary) << now.after_cut(roll);
    if (roll.below(2) == 0) // the lock file is never synced
        std::ofstream(state / "store.mdb-lock") << file(roll.below(2) * 65536, '\0');
    open_databases();
    contents found = stored();
    const finding result = judge(found, before, after);
    if (result != finding::wrong) {
        need(change(roll(), first_key, found, true) == 0, "a change after the cut");
        need(stored() == found, "the contents after one more change");
    }
    _exit(10 + static_cast<int>(result));
}

} // namespace

bool powercut(unsigned states, uint64_t seed)
{
    tape = &shared<recording>();
    setenv("VS_JOB_ID", "1", 1); // so that all share their trace buffers
    umask(077);
    dice roll{seed};
    unsigned done = 0, without = 0, with = 0;
    while (done < states && done == without + with) {
        const uint64_t change_seed = uint64_t{roll()} << 32;
        record_session(change_seed);
        const fs::path state = use_new_state("replayed");
        fs::create_directory(state);
        std::vector<unsigned> cuts(std::min(states_of_a_session, states - done));
        for (unsigned &cut : cuts)
            cut = roll.below(tape->count + 1);
        std::sort(cuts.begin(), cuts.end());

        disk now;
        contents before, after;
        unsigned changes = 0, passed = 0;
        for (const unsigned cut : cuts) {
            for (; passed < cut; ++passed) {
                now.take(tape->events[passed]);
                if (tape->events[passed].kind == what::start) {
                    before = after;
                    change(change_seed + changes++, first_key, after, false);
                }
            }
            const dice its{roll()}; // rolled here, as a child would roll the same each time
            const int status = in_child([&] { try_out(state, now, its, before, after); });
            without += status == 10 + static_cast<int>(finding::before);
            with += status == 10 + static_cast<int>(finding::after);
            ++done;
        }
    }
    printf("torture powercut: %u states, %u without and %u with the change in flight, %u lost, "
           "torn or failed (seed %llu)\n",
           done, without, with, done - without - with, static_cast<unsigned long long>(seed));
    return done == without + with;
}

} // namespace torture
