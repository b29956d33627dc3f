// A file that is shorter than its header says is not damaged yet: pages that were taken and given
// back within one transaction are never written, and they may be the last ones. So a short file,
// and only that, is walked from its roots, to find out if a page in use is missing.
#include "platform/kvs/page_walk.h"

#include "platform/base/block.h"

#include <cerrno>
#include <cstring>
#include <lmdb.h>
#include <span>
#include <sys/stat.h>
#include <unistd.h>

namespace platform {
namespace {

template <class T>
bool read_from(std::span<const unsigned char> page, size_t offset, T *out)
{
    if (offset > page.size() || page.size() - offset < sizeof *out)
        return false;
    memcpy(out, page.data() + offset, sizeof *out);
    return true;
}

class page_walk {
public:
    page_walk(int fd, uint32_t page_size, uint64_t pages)
        : fd_(fd), page_size_(page_size), pages_(pages), unread_(pages)
    {
    }

    [[nodiscard]] int tree(uint64_t root, unsigned depth = 0)
    {
        if (root == no_page)
            return 0;
        // Each page is read once at most, unless the damaged tree contains a cycle.
        if (root >= pages_ || depth == deepest_tree || unread_-- == 0)
            return MDB_CORRUPTED;
        const block<unsigned char> memory(static_cast<unsigned char *>(malloc(page_size_)));
        if (!memory)
            return ENOMEM;
        if (const int error = read_at(fd_, memory.get(), page_size_, root * page_size_); error != 0)
            return error;
        return nodes({memory.get(), page_size_}, depth);
    }

private:
    [[nodiscard]] int nodes(std::span<const unsigned char> page, unsigned depth)
    {
        page_header header;
        if (!read_from(page, 0, &header) || header.lower < sizeof header)
            return MDB_CORRUPTED;
        const bool is_branch = (header.flags & branch_page) != 0;
        if (!is_branch && (header.flags & leaf_page) == 0)
            return MDB_CORRUPTED;
        for (size_t at = sizeof header; at + 2 <= header.lower; at += 2) {
            uint16_t offset = 0;
            node_header node;
            if (!read_from(page, at, &offset) || !read_from(page, offset, &node))
                return MDB_CORRUPTED;
            const uint64_t number = node.low | uint64_t{node.high} << 16;
            const int error = is_branch ? tree(number | uint64_t{node.flags} << 32, depth + 1)
                                        : data(page, offset + sizeof node + node.key_length,
                                               node.flags, number, depth);
            if (error != 0)
                return error;
        }
        return 0;
    }

    [[nodiscard]] int data(std::span<const unsigned char> page, size_t offset, uint16_t flags,
                           uint64_t length, unsigned depth)
    {
        if ((flags & overflow_data) != 0) {
            uint64_t first = 0;
            const uint64_t count = (sizeof(page_header) + length + page_size_ - 1) / page_size_;
            const bool inside =
                read_from(page, offset, &first) && first < pages_ && count <= pages_ - first;
            return inside ? 0 : MDB_CORRUPTED;
        }
        if ((flags & tree_data) != 0) {
            tree_root below;
            return read_from(page, offset, &below) ? tree(below.root, depth + 1) : MDB_CORRUPTED;
        }
        return 0;
    }

    int fd_;
    uint32_t page_size_;
    uint64_t pages_;
    uint64_t unread_;
};

} // namespace

int read_at(int fd, void *buffer, size_t length, uint64_t offset)
{
    const ssize_t got = pread(fd, buffer, length, static_cast<off_t>(offset));
    if (got < 0)
        return errno;
    return static_cast<size_t>(got) == length ? 0 : MDB_CORRUPTED;
}

int check_pages(int fd, const meta_data &meta)
{
    struct stat about;
    if (fstat(fd, &about) != 0)
        return errno;
    const uint32_t page_size = meta.trees[0].page_size;
    const uint64_t pages = static_cast<uint64_t>(about.st_size) / page_size;
    if (meta.last_page < pages)
        return 0;
    page_walk walk(fd, page_size, pages);
    for (const tree_root &tree : meta.trees)
        if (const int error = walk.tree(tree.root); error != 0)
            return error;
    return 0;
}

} // namespace platform
