// The files of trace buffers.
//
// A buffer is created under a temporary name and renamed when it is complete, so that a file under
// the name of a buffer is one, wherever its creator was killed. It has its full length, but only
// its header is allocated; the first record allocates the slots. A process that creates a buffer or
// quarantines a damaged one holds a lock on the folder, so that it does not quarantine what another
// has just created.
#include "platform/ringlog/buffer_file.h"

#include "platform/base/clock.h"
#include "platform/base/state_dir.h"
#include "platform/ringlog/byte_limit.h"
#include "verbose.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <string_view>
#include <sys/file.h>
#include <unistd.h>

namespace platform {
namespace {

constexpr char magic[] = {'V', 'S', 'R', 'I', 'N', 'G', '\r', '\n'};
constexpr uint32_t format_version = 1;

constexpr char root_folder[] = "ringlog";
constexpr char temporary_name[] = ".new";
constexpr char damaged_suffix[] = ".damaged";

// Leaves space for the suffix in the longest file name of the system.
constexpr size_t max_component = 240;

// The unit of st_blocks.
constexpr off_t block_size = 512;

// A leading dot is reserved for temporary files.
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

uint64_t header_checksum(const buffer_header &header)
{
    uint64_t words[offsetof(buffer_header, checksum) / sizeof(uint64_t)];
    memcpy(words, &header, sizeof words);
    return checksum(words, std::size(words), 0);
}

bool is_valid(const buffer_header &header)
{
    return memcmp(header.magic, magic, sizeof magic) == 0 && header.version == format_version &&
           header.slot_size == RINGLOG_SLOT_SIZE && header.slot_count >= 1 &&
           header.slot_count <= max_slots && header.next <= max_next &&
           header.checksum == header_checksum(header);
}

struct buffer_location {
    descriptor folder;
    const char *file_name; // in the folder
};

// Opens the folder that contains the named buffer.
[[nodiscard]] uint32_t locate_buffer(const char *name, bool create, buffer_location &location)
{
    if (!is_buffer_name(name))
        return RINGLOG_RC_BAD_NAME;
    descriptor root;
    if (const uint32_t status = open_buffer_root(create, root); status != 0)
        return status;
    const char *const slash = strrchr(name, '/');
    location.file_name = slash != nullptr ? slash + 1 : name;
    char path[max_buffer_name + 1] = {};
    if (slash != nullptr)
        memcpy(path, name, static_cast<size_t>(slash - name));
    location.folder = descriptor(open_folder_below(root.get(), path, create));
    return location.folder.valid() ? 0 : log_file_error("cannot open the folder of", name, errno);
}

[[nodiscard]] uint32_t open_at(const buffer_location &location, int access, buffer_file &file)
{
    const char *const name = location.file_name;
    // O_NONBLOCK because the open would wait on a pipe of this name.
    constexpr int flags = O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK;
    file.fd = descriptor(openat(location.folder.get(), name, access | flags));
    if (!file.fd.valid())
        return log_file_error("cannot open", name, errno);
    struct stat about;
    if (fstat(file.fd.get(), &about) != 0)
        return log_file_error("cannot read the attributes of", name, errno);
    if (!S_ISREG(about.st_mode))
        return log_file_error("cannot use", name, ENOTSUP);
    file.device = about.st_dev;
    file.inode = about.st_ino;
    file.allocated = about.st_blocks * block_size >= about.st_size;
    return read_header(file.fd.get(), file.header);
}

// Sets the length of the file, and allocates its header.
[[nodiscard]] int allocate(int fd, uint64_t size)
{
    int error = EINTR;
    while (error == EINTR)
        error = posix_fallocate(fd, 0, header_size);
    if (error == 0 && ftruncate(fd, static_cast<off_t>(size)) != 0)
        error = errno;
    return error;
}

[[nodiscard]] int write_header(int fd, uint32_t slot_count)
{
    buffer_header header{};
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

[[nodiscard]] uint32_t create_buffer(int folder, const char *file_name, uint32_t slot_count)
{
    // The lock is held, so a file of this name was left by a creator that was killed.
    unlinkat(folder, temporary_name, 0);
    const descriptor fd(openat(folder, temporary_name,
                               O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC,
                               S_IRUSR | S_IWUSR));
    if (!fd.valid())
        return log_file_error("cannot create", file_name, errno);
    int error = allocate(fd.get(), file_size(slot_count));
    if (error == 0)
        error = write_header(fd.get(), slot_count);
    if (error == 0 && renameat(folder, temporary_name, folder, file_name) != 0)
        error = errno;
    if (error == 0)
        return 0;
    unlinkat(folder, temporary_name, 0);
    return log_file_error("cannot create", file_name, error);
}

[[nodiscard]] uint32_t quarantine(int folder, const char *file_name)
{
    char new_name[max_component + sizeof damaged_suffix];
    snprintf(new_name, sizeof new_name, "%s%s", file_name, damaged_suffix);
    if (renameat(folder, file_name, folder, new_name) != 0)
        return log_file_error("cannot rename", file_name, errno);
    verbose_printf_local(DBG_VS_PLATFORM, "trace buffer: damaged, renamed to \"%s\"", new_name);
    return 0;
}

// Marks the file as in use for as long as it is open or mapped. Returns false if it is being
// removed.
bool mark_in_use(const buffer_file &file)
{
    // A file system without locks has no buffers removed.
    if (flock(file.fd.get(), LOCK_SH | LOCK_NB) != 0 && errno == EWOULDBLOCK)
        return false;
    struct stat about;
    return fstat(file.fd.get(), &about) == 0 && about.st_nlink != 0;
}

// Opens the buffer if it is there and undamaged.
[[nodiscard]] uint32_t open_for_use(const buffer_location &location, buffer_file &file)
{
    const uint32_t status = open_at(location, O_RDWR, file);
    return status == 0 && !mark_in_use(file) ? RINGLOG_RC_NO_SUCH_BUFFER : status;
}

} // namespace

uint32_t log_file_error(const char *what, const char *name, int error)
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

uint32_t open_buffer_root(bool create, descriptor &root)
{
    const descriptor dir(open_state_dir(create));
    if (!dir.valid())
        return errno == ENOENT && !create ? RINGLOG_RC_NO_SUCH_BUFFER : RINGLOG_RC_STATE_DIR;
    root = descriptor(open_folder_below(dir.get(), root_folder, create));
    return root.valid() ? 0 : log_file_error("cannot open the folder", root_folder, errno);
}

uint32_t read_header(int fd, buffer_header &header)
{
    struct stat about;
    if (fstat(fd, &about) != 0)
        return log_file_error("cannot read the attributes of", "its file", errno);
    const ssize_t length = pread(fd, &header, sizeof header, 0);
    if (length < 0)
        return log_file_error("cannot read", "its header", errno);
    const bool whole = static_cast<size_t>(length) == sizeof header && is_valid(header) &&
                       static_cast<uint64_t>(about.st_size) == file_size(header.slot_count);
    return whole ? 0 : RINGLOG_RC_DAMAGED;
}

uint32_t open_existing_buffer(const char *name, buffer_file &file)
{
    buffer_location location{};
    if (const uint32_t status = locate_buffer(name, false, location); status != 0)
        return status;
    return open_at(location, O_RDONLY, file);
}

uint32_t open_or_create_buffer(const char *name, uint32_t slot_count, buffer_file &file)
{
    buffer_location location{};
    uint32_t status = locate_buffer(name, false, location);
    if (status == 0)
        status = open_for_use(location, file);
    if (status != RINGLOG_RC_NO_SUCH_BUFFER && status != RINGLOG_RC_DAMAGED)
        return status;
    // Another process may have created it before this one got the lock, or removed its folder.
    descriptor root, lock;
    if ((status = open_buffer_root(true, root)) != 0)
        return status;
    if (const int error = lock_root(root.get(), lock); error != 0)
        return log_file_error("cannot lock the folder of", name, error);
    status = locate_buffer(name, false, location);
    if (status == 0)
        status = open_for_use(location, file);
    if (status == RINGLOG_RC_DAMAGED &&
        (status = quarantine(location.folder.get(), location.file_name)) == 0)
        status = RINGLOG_RC_NO_SUCH_BUFFER;
    if (status != RINGLOG_RC_NO_SUCH_BUFFER)
        return status;
    make_room(root.get(), lock, file_size(slot_count));
    // The folder, which may have been removed with its last buffer.
    if ((status = locate_buffer(name, true, location)) != 0)
        return status;
    status = create_buffer(location.folder.get(), location.file_name, slot_count);
    return status == 0 ? open_for_use(location, file) : status;
}

} // namespace platform
