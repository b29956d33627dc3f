#include "torture_tape.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>

namespace torture {

const event &record(what kind, off_t offset, const iovec *parts, int count)
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

namespace {

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
    if (is_recorded(fd) && lost_syncs != nullptr && lost_syncs->below(8) == 0) {
        record(what::lost_sync);
        errno = EIO;
        return -1;
    }
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
