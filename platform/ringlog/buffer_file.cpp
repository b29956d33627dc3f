// The files of trace buffers.
//
// A buffer comes into being under a temporary name and gets its own when it is whole, so that a
// file under the name of a buffer is one, wherever its maker was killed. Its space is set aside at
// once: a full disk is found out here and not by a writer, whom it would kill. Whoever makes a
// buffer or sets a damaged one aside holds a lock on the folder, so that nobody sets aside what
// another has just made.
#include "platform/ringlog/buffer_file.h"

#include "platform/base/clock.h"
#include "platform/base/state_dir.h"
#include "verbose.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <string_view>
#include <sys/file.h>
#include <sys/resource.h>
#include <unistd.h>

namespace platform {
namespace {

constexpr char magic[] = {'V', 'S', 'R', 'I', 'N', 'G', '\r', '\n'};
constexpr uint32_t format_version = 1;

constexpr char root_name[] = "ringlog";
constexpr char temporary_name[] = ".new";
constexpr char damaged_suffix[] = ".damaged";

// Leaves room for the suffix in the longest file name there can be.
constexpr size_t max_component = 240;

// A leading dot is for temporary files.
bool is_buffer_name(std::string_view name)
{
    if (name.size() > max_buffer_name)
        return false;
    for (;;) {
        const size_t slash = name.find('/');
        const std::string_view component = name.substr(0, slash);
        if (component.empty() || component.front() == '.' || component.size() > max_component)
            return false;
        if (slash == name.npos)
            return true;
        name.remove_prefix(slash + 1);
    }
}

uint64_t header_checksum(const ring_header &header)
{
    uint64_t words[offsetof(ring_header, checksum) / sizeof(uint64_t)];
    memcpy(words, &header, sizeof words);
    return checksum(words, std::size(words), 0);
}

bool is_sound(const ring_header &header)
{
    return memcmp(header.magic, magic, sizeof magic) == 0 && header.version == format_version &&
           header.slot_size == RINGLOG_SLOT_SIZE && header.slot_count >= 1 &&
           header.slot_count <= max_slots && header.next <= largest_next &&
           header.checksum == header_checksum(header);
}

// Opens the folder that the named buffer is in; `leaf` receives the rest of the name.
uint32_t open_folder(const char *name, bool create, descriptor &folder, const char *&leaf)
{
    if (!is_buffer_name(name))
        return RINGLOG_RC_BAD_NAME;
    descriptor root;
    if (const uint32_t status = open_ring_root(create, root); status != 0)
        return status;
    const char *const slash = strrchr(name, '/');
    leaf = slash != nullptr ? slash + 1 : name;
    char path[max_buffer_name + 1] = {};
    if (slash != nullptr)
        memcpy(path, name, static_cast<size_t>(slash - name));
    folder = descriptor(open_folder_below(root.get(), path, create));
    return folder.valid() ? 0 : explain("cannot open the folder of", name, errno);
}

uint32_t open_in(int folder, const char *leaf, int access, ring_file &file)
{
    // O_NONBLOCK so that a pipe in a buffer's place does not hold us up.
    file.fd = descriptor(openat(folder, leaf, access | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK));
    if (!file.fd.valid())
        return explain("cannot open", leaf, errno);
    struct stat about;
    if (fstat(file.fd.get(), &about) != 0)
        return explain("cannot look at", leaf, errno);
    if (!S_ISREG(about.st_mode))
        return explain("cannot use", leaf, ENOTSUP);
    file.device = about.st_dev;
    file.inode = about.st_ino;
    return read_header(file.fd.get(), file.header);
}

int reserve(int fd, uint64_t size)
{
    // Beyond this limit the system does not fail the call, it kills the process.
    rlimit limit;
    if (getrlimit(RLIMIT_FSIZE, &limit) == 0 && size > limit.rlim_cur)
        return EFBIG;
    int error = EINTR;
    while (error == EINTR)
        error = posix_fallocate(fd, 0, static_cast<off_t>(size));
    return error;
}

int write_header(int fd, uint32_t slot_count)
{
    ring_header header{};
    memcpy(header.magic, magic, sizeof magic);
    header.version = format_version;
    header.slot_size = RINGLOG_SLOT_SIZE;
    header.slot_count = slot_count;
    header.created_ns = clock_ns(CLOCK_REALTIME);
    header.checksum = header_checksum(header);
    const ssize_t written = pwrite(fd, &header, sizeof header, 0);
    if (written < 0)
        return errno;
    return static_cast<size_t>(written) == sizeof header ? 0 : ENOSPC;
}

uint32_t make_ring(int folder, const char *leaf, uint32_t slot_count)
{
    // What is there under this name was left by a maker that was killed: we hold the lock.
    unlinkat(folder, temporary_name, 0);
    const descriptor fd(openat(folder, temporary_name,
                               O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC,
                               S_IRUSR | S_IWUSR));
    if (!fd.valid())
        return explain("cannot make", leaf, errno);
    int error = reserve(fd.get(), ring_size(slot_count));
    if (error == 0)
        error = write_header(fd.get(), slot_count);
    if (error == 0 && renameat(folder, temporary_name, folder, leaf) != 0)
        error = errno;
    if (error == 0)
        return 0;
    unlinkat(folder, temporary_name, 0);
    return explain("cannot make", leaf, error);
}

uint32_t set_aside(int folder, const char *leaf)
{
    char aside[max_component + sizeof damaged_suffix];
    snprintf(aside, sizeof aside, "%s%s", leaf, damaged_suffix);
    if (renameat(folder, leaf, folder, aside) != 0)
        return explain("cannot set aside", leaf, errno);
    verbose_printf_local(DBG_VS_PLATFORM, "trace buffer: damaged, set aside as \"%s\"", aside);
    return 0;
}

int lock_folder(int folder)
{
    int result = -1;
    do
        result = flock(folder, LOCK_EX);
    while (result != 0 && errno == EINTR);
    return result;
}

} // namespace

uint32_t explain(const char *what, const char *name, int error)
{
    if (error != ENOENT)
        verbose_printf_local(DBG_VS_PLATFORM, "trace buffer: %s \"%s\": %s", what, name,
                             error_text(error));
    switch (error) {
    case ENOENT:
        return RINGLOG_RC_NO_SUCH_BUFFER;
    case ENOMEM:
        return RINGLOG_RC_NO_MEMORY;
    case ELOOP:
        return RINGLOG_RC_BAD_NAME;
    case ENOSPC:
    case EDQUOT:
    case EFBIG:
        return RINGLOG_RC_NO_SPACE;
    default:
        return RINGLOG_RC_IO;
    }
}

uint32_t open_ring_root(bool create, descriptor &root)
{
    const descriptor dir(open_state_dir(create));
    if (!dir.valid())
        return errno == ENOENT && !create ? RINGLOG_RC_NO_SUCH_BUFFER : RINGLOG_RC_STATE_DIR;
    root = descriptor(open_folder_below(dir.get(), root_name, create));
    return root.valid() ? 0 : explain("cannot open the folder", root_name, errno);
}

uint32_t read_header(int fd, ring_header &header)
{
    struct stat about;
    if (fstat(fd, &about) != 0)
        return explain("cannot look at", "its file", errno);
    const ssize_t length = pread(fd, &header, sizeof header, 0);
    if (length < 0)
        return explain("cannot read", "its header", errno);
    const bool whole = static_cast<size_t>(length) == sizeof header && is_sound(header) &&
                       static_cast<uint64_t>(about.st_size) == ring_size(header.slot_count);
    return whole ? 0 : RINGLOG_RC_DAMAGED;
}

uint32_t open_ring(const char *name, ring_file &file)
{
    descriptor folder;
    const char *leaf = nullptr;
    if (const uint32_t status = open_folder(name, false, folder, leaf); status != 0)
        return status;
    return open_in(folder.get(), leaf, O_RDONLY, file);
}

uint32_t open_or_make_ring(const char *name, uint32_t slot_count, ring_file &file)
{
    descriptor folder;
    const char *leaf = nullptr;
    if (const uint32_t status = open_folder(name, true, folder, leaf); status != 0)
        return status;
    uint32_t status = open_in(folder.get(), leaf, O_RDWR, file);
    if (status != RINGLOG_RC_NO_SUCH_BUFFER && status != RINGLOG_RC_DAMAGED)
        return status;
    // Whoever had the lock before us may have made it meanwhile.
    if (lock_folder(folder.get()) != 0)
        return explain("cannot lock the folder of", name, errno);
    status = open_in(folder.get(), leaf, O_RDWR, file);
    if (status == RINGLOG_RC_DAMAGED && (status = set_aside(folder.get(), leaf)) == 0)
        status = RINGLOG_RC_NO_SUCH_BUFFER;
    if (status == RINGLOG_RC_NO_SUCH_BUFFER)
        status = make_ring(folder.get(), leaf, slot_count);
    return status == 0 ? open_in(folder.get(), leaf, O_RDWR, file) : status;
}

} // namespace platform
