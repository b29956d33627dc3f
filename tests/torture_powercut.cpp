// What a disk may hold after a power cut, tried out.
//
// This executable takes over the calls by which the engine writes, and records them for its data
// file, with the changes between them. From the record it makes files as a disk might hold them
// after a cut at some point: what was synced is there, and of what was not any part, cut up in
// sectors, in any order. A write through a descriptor opened with O_DSYNC counts as synced once it
// has returned. Each file must open with every change acknowledged before the cut.
#include "torture.h"

#include <algorithm>
#include <fcntl.h>
#include <fstream>
#include <iterator>
#include <string>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/uio.h>

namespace torture {
namespace {

enum class what : std::uint32_t {
    start,
    acknowledge,
    write,
    return_synced,
    sync,
    rename,
    sync_names
};

// On the tape, with the bytes of a write behind it.
struct event {
    what kind;
    std::uint32_t length;
    std::uint64_t offset;

    const unsigned char *bytes() const { return reinterpret_cast<const unsigned char *>(this + 1); }
    const event *next() const
    {
        return reinterpret_cast<const event *>(bytes() + (length + 7) / 8 * 8);
    }
};

struct recording {
    std::size_t used;
    unsigned count;
    alignas(event) unsigned char bytes[256 << 20];

    const event *begin() const { return reinterpret_cast<const event *>(bytes); }
};

recording *tape = nullptr; // in the process that records

void record(what kind, std::uint64_t offset = 0, const iovec *parts = nullptr, int count = 0)
{
    event it{kind, 0, offset};
    unsigned char *const at = tape->bytes + tape->used;
    for (int i = 0; i < count; ++i) {
        need(tape->used + it.length + parts[i].iov_len + 64 < sizeof tape->bytes, "room to record");
        std::memcpy(at + sizeof it + it.length, parts[i].iov_base, parts[i].iov_len);
        it.length += static_cast<std::uint32_t>(parts[i].iov_len);
    }
    std::memcpy(at, &it, sizeof it);
    tape->used += sizeof it + (it.length + 7) / 8 * 8;
    ++tape->count;
}

bool leads_to(int fd, const std::string &path)
{
    char link[4096];
    const ssize_t length =
        readlink(("/proc/self/fd/" + std::to_string(fd)).c_str(), link, sizeof link);
    return length > 0 && path.compare(0, path.npos, link, static_cast<std::size_t>(length)) == 0;
}

bool is_data(int fd)
{
    if (tape == nullptr)
        return false;
    const std::string data = std::getenv("VS_STATE_DIR") + std::string("/store.mdb");
    return leads_to(fd, data) || leads_to(fd, data + ".new");
}

template <class Call>
ssize_t record_write(int fd, off_t offset, const iovec *parts, int count, const Call &call)
{
    if (!is_data(fd))
        return call();
    record(what::write, static_cast<std::uint64_t>(offset), parts, count);
    const ssize_t written = call();
    std::size_t whole = 0;
    for (int i = 0; i < count; ++i)
        whole += parts[i].iov_len;
    need(written == static_cast<ssize_t>(whole), "a whole write");
    if ((fcntl(fd, F_GETFL) & O_DSYNC) != 0)
        record(what::return_synced);
    return written;
}

int record_sync(int fd, long number)
{
    const auto result = static_cast<int>(syscall(number, fd));
    if (is_data(fd))
        record(what::sync);
    else if (tape != nullptr && leads_to(fd, std::getenv("VS_STATE_DIR")))
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
    if (torture::tape != nullptr && std::strcmp(to, "store.mdb") == 0)
        torture::record(torture::what::rename);
    return static_cast<int>(syscall(SYS_renameat, from_dir, from, to_dir, to));
}
}

namespace torture {
namespace {

using file = std::vector<unsigned char>;

void put(file &to, const event &write, std::uint64_t from, std::uint64_t end)
{
    to.resize(std::max<std::size_t>(to.size(), end));
    std::memcpy(&to[from], write.bytes() + (from - write.offset), end - from);
}

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
            put(result, *write, write->offset, write->offset + write->length);
        return result;
    }

    // What a cut leaves of the file, and its name.
    file after_cut(dice &roll, std::string &name) const
    {
        const std::uint64_t sector = roll.below(2) == 0 ? 512 : 4096;
        const std::uint32_t shares[] = {0, 5, 50, 95, 100}, share = shares[roll.below(5)];
        file result = file_;
        if (roll.below(2) == 0) // the length may be there and the bytes not
            result.resize(everything().size());
        for (const auto &[write, synced] : pending_) {
            const std::uint64_t end = write->offset + write->length;
            for (std::uint64_t at = write->offset, stop; at < end; at = stop) {
                stop = std::min((at / sector + 1) * sector, end);
                if (synced || roll.below(100) < share)
                    put(result, *write, at, stop);
            }
        }
        name = name_synced_ || (renamed_ && roll.below(2) == 0) ? "store.mdb" : "store.mdb.new";
        return result;
    }

private:
    struct pending_write {
        const event *write;
        bool synced;
    };

    file file_; // what is there for sure
    std::vector<pending_write> pending_;
    bool renamed_ = false, name_synced_ = false;
};

constexpr unsigned changes_of_a_session = 60, states_of_a_session = 100;
constexpr std::uint32_t first_key = 1;

void make_session(recording &session, std::uint64_t seed)
{
    session.used = session.count = 0;
    const fs::path state = use_new_state("recorded");
    const int status = in_child([&] {
        tape = &session;
        contents all;
        open_databases();
        for (unsigned i = 0; i < changes_of_a_session; ++i) {
            record(what::start);
            need(change(seed + i, first_key, all, true) == 0, "changing");
            record(what::acknowledge);
        }
    });
    disk replayed;
    const event *it = session.begin();
    for (unsigned i = 0; i < session.count; ++i, it = it->next())
        replayed.take(*it);
    std::ifstream from(state / "store.mdb", std::ios::binary);
    need(status == 0 && replayed.everything() == file(std::istreambuf_iterator<char>(from), {}),
         "the recording makes the file that the engine made");
}

// Looks at the store after a cut, in a process of its own, and goes on with it.
[[noreturn]] void try_out(const fs::path &state, const file &data, const std::string &name,
                          dice roll, const contents &before, const contents &after)
{
    alarm(patience);
    const auto write = [&](const std::string &to, const file &bytes) {
        std::ofstream(state / to, std::ios::binary)
            .write(reinterpret_cast<const char *>(bytes.data()),
                   static_cast<std::streamsize>(bytes.size()));
    };
    for (const char *const old : {"store.mdb", "store.mdb.new", "store.mdb-lock"})
        fs::remove(state / old);
    write(name, data);
    if (roll.below(2) == 0) // the lock file is never synced
        write("store.mdb-lock", file(roll.below(2) * 65536));
    open_databases();
    contents found = stored();
    const finding result = judge(found, before, after);
    if (result == finding::before || result == finding::after) {
        need(change(roll(), first_key, found, true) == 0, "a change after the cut");
        need(stored() == found, "the contents after one more change");
    }
    _exit(10 + static_cast<int>(result));
}

} // namespace

bool powercut(unsigned states, std::uint64_t seed)
{
    auto &session = shared<recording>();
    setenv("VS_JOB_ID", "1", 1); // so that all share their trace buffers
    umask(077);
    dice roll{seed};
    unsigned done = 0, came_to[4] = {}, failed = 0;
    const auto all_well = [&] { return came_to[2] + came_to[3] + failed == 0; };
    while (done < states && all_well()) {
        const std::uint64_t change_seed = std::uint64_t{roll()} << 32;
        make_session(session, change_seed);
        const fs::path state = use_new_state("replayed");
        fs::create_directory(state);
        std::vector<unsigned> cuts(std::min(states_of_a_session, states - done));
        for (unsigned &cut : cuts)
            cut = roll.below(session.count + 1);
        std::sort(cuts.begin(), cuts.end());

        disk now;
        contents before, after;
        const event *it = session.begin();
        unsigned changes = 0, passed = 0;
        for (const unsigned cut : cuts) {
            if (!all_well())
                break;
            for (; passed < cut; ++passed, it = it->next()) {
                now.take(*it);
                if (it->kind == what::start)
                    change(change_seed + changes++, first_key, after, false);
                else if (it->kind == what::acknowledge)
                    before = after;
            }
            std::string name;
            const file data = now.after_cut(roll, name);
            const int status =
                in_child([&] { try_out(state, data, name, {roll()}, before, after); });
            status >= 10 && status < 14 ? ++came_to[status - 10] : ++failed;
            show_progress("powercut", ++done, states);
        }
    }
    std::printf(
        "torture powercut: %u states, %u without and %u with the change in flight, %u lost, "
        "%u torn, %u failed (seed %llu)\n",
        done, came_to[0], came_to[1], came_to[2], came_to[3], failed,
        static_cast<unsigned long long>(seed));
    return all_well();
}

} // namespace torture
