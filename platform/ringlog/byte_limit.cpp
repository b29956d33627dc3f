#include "platform/ringlog/byte_limit.h"

#include "platform/base/number.h"
#include "platform/base/state_dir.h"
#include "platform/ringlog/buffer_file.h"
#include "platform/ringlog/format.h"
#include "ringlog.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

namespace platform {
namespace {

constexpr char lock_name[] = ".lock";
constexpr uint64_t default_limit = UINT64_C(64) << 20;
constexpr off_t block_size = 512; // the unit of st_blocks

uint64_t limit_from_environment()
{
    const char *const text = secure_getenv("VS_RINGLOG_LIMIT");
    return text == nullptr ? default_limit : parse_bytes(text).value_or(default_limit);
}

struct unused_buffer {
    char *name;
    uint64_t last_ns; // time of the last record
    uint64_t bytes;
};

// The buffers that are in use by no process, and the bytes of all.
class usage {
public:
    explicit usage(int root) : root_(root) {}
    usage(const usage &) = delete;
    usage &operator=(const usage &) = delete;
    ~usage()
    {
        for (size_t i = 0; i < count_; ++i)
            free(unused_[i].name);
        free(unused_);
    }

    uint64_t total() const { return total_; }
    void add(const char *name);
    void remove_oldest(uint64_t target);

private:
    void add_unused(const unused_buffer &buffer);
    [[nodiscard]] bool remove(const char *name) const;

    int root_;
    uint64_t total_ = 0;
    unused_buffer *unused_ = nullptr;
    size_t count_ = 0;
    size_t capacity_ = 0;
};

// Returns the time of the last record, or of the last change of a file that is no whole buffer.
uint64_t last_record_time(int fd, const struct stat &about)
{
    buffer_header header;
    if (read_header(fd, header) == 0) {
        uint64_t words[slot_words];
        const uint64_t last = (header.next - 1) % header.slot_count;
        const auto offset = static_cast<off_t>(slot_offset(last));
        const bool read = header.next != 0 && pread(fd, words, sizeof words, offset) ==
                                                  static_cast<ssize_t>(sizeof words);
        if (read && words[word_time] != 0)
            return words[word_time];
    }
    return static_cast<uint64_t>(about.st_mtim.tv_sec) * 1'000'000'000u +
           static_cast<uint64_t>(about.st_mtim.tv_nsec);
}

descriptor open_file(int root, const char *name, struct stat &about)
{
    const char *const slash = strrchr(name, '/');
    char path[max_buffer_name + 1] = "";
    if (slash != nullptr)
        memcpy(path, name, static_cast<size_t>(slash - name));
    const descriptor folder(open_folder_below(root, path, false));
    constexpr int flags = O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK;
    descriptor file(openat(folder.get(), slash != nullptr ? slash + 1 : name, flags));
    const bool usable = file.valid() && fstat(file.get(), &about) == 0 && S_ISREG(about.st_mode);
    return usable ? std::move(file) : descriptor();
}

void usage::add(const char *name)
{
    struct stat about;
    const descriptor file = open_file(root_, name, about);
    if (!file.valid())
        return;
    const auto bytes = static_cast<uint64_t>(about.st_blocks * block_size);
    if (flock(file.get(), LOCK_EX | LOCK_NB) == 0) {
        total_ += bytes;
        add_unused({strdup(name), last_record_time(file.get(), about), bytes});
    } else {
        // Its slots may be allocated at any time.
        total_ += std::max(bytes, static_cast<uint64_t>(about.st_size));
    }
}

void usage::add_unused(const unused_buffer &buffer)
{
    if (count_ == capacity_) {
        const size_t capacity = capacity_ * 2 + 64;
        void *const grown = realloc(unused_, capacity * sizeof(unused_buffer));
        if (grown != nullptr) {
            unused_ = static_cast<unused_buffer *>(grown);
            capacity_ = capacity;
        }
    }
    // Without memory a buffer stays until the next scan.
    if (count_ < capacity_ && buffer.name != nullptr)
        unused_[count_++] = buffer;
    else
        free(buffer.name);
}

// Removes a buffer unless it has come into use since the scan, and the folders that are then empty.
bool usage::remove(const char *name) const
{
    struct stat about;
    const descriptor file = open_file(root_, name, about);
    if (!file.valid() || flock(file.get(), LOCK_EX | LOCK_NB) != 0)
        return false;
    char path[max_buffer_name + 1];
    strcpy(path, name);
    if (unlinkat(root_, path, 0) != 0)
        return false;
    for (char *slash = strrchr(path, '/'); slash != nullptr; slash = strrchr(path, '/')) {
        *slash = '\0';
        if (unlinkat(root_, path, AT_REMOVEDIR) != 0)
            break;
    }
    return true;
}

void usage::remove_oldest(uint64_t target)
{
    std::sort(unused_, unused_ + count_, [](const unused_buffer &left, const unused_buffer &right) {
        return left.last_ns < right.last_ns;
    });
    for (size_t i = 0; i < count_ && total_ > target; ++i)
        if (remove(unused_[i].name))
            total_ -= unused_[i].bytes;
}

} // namespace

int lock_root(int root, descriptor &lock)
{
    constexpr int flags = O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK;
    lock = descriptor(openat(root, lock_name, flags, S_IRUSR | S_IWUSR));
    if (!lock.valid())
        return errno;
    while (flock(lock.get(), LOCK_EX) != 0)
        if (errno != EINTR)
            return errno;
    return 0;
}

void make_room(int root, const descriptor &lock, uint64_t bytes)
{
    const uint64_t limit = limit_from_environment();
    uint64_t total = 0;
    // A new lock file has no sum: the buffers there are scanned.
    bool scan = pread(lock.get(), &total, sizeof total, 0) != sizeof total;
    scan = scan || total > limit || bytes > limit - total;
    if (scan) {
        usage found(root);
        const auto add = [](const char *name, void *to) {
            return static_cast<usage *>(to)->add(name), 0;
        };
        static_cast<void>(ringlog_list(add, &found));
        if (found.total() + bytes > limit)
            found.remove_oldest(limit - std::min(limit, limit / 4 + bytes));
        // If too many are in use to get below the limit, the next scan is after an eighth of it.
        total = std::min(found.total(), limit - limit / 8);
    }
    total += bytes;
    // Without the stored sum the next creation scans again.
    if (pwrite(lock.get(), &total, sizeof total, 0) != sizeof total)
        static_cast<void>(ftruncate(lock.get(), 0));
}

} // namespace platform
