// The data file, read page by page without the engine's help.
//
// A file that is shorter than its header says is no damage yet: pages that were taken and given
// back within one transaction are never written, and they may be the last ones. So a short file,
// and only that, is walked from its roots, to see whether a page that is in use is missing.
#include "platform/kvs/data_file.h"

#include "platform/base/block.h"
#include "platform/kvs/store_file.h"

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace platform {
namespace {

static_assert(sizeof(size_t) == 8 && __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__,
              "the layouts below are those of 64-bit little-endian machines");

constexpr uint32_t file_magic = 0xBEEFC0DE;
constexpr uint32_t file_version = 1;
constexpr uint64_t no_page = ~uint64_t{0};
constexpr unsigned deepest_tree = 32;
constexpr uint64_t largest_file = uint64_t{1} << 47;

enum page_flag : uint16_t { branch_page = 1, leaf_page = 2, overflow_page = 4, meta_page = 8 };
enum tree_flag : uint16_t { reversed_keys = 2, several_data = 4 };
enum node_flag : uint16_t { overflow_data = 1, tree_data = 2 };

struct page_header {
    uint64_t number;
    uint16_t padding;
    uint16_t flags;
    uint16_t lower; // end of the node offsets, which follow this header
    uint16_t upper;
};

struct tree_root {
    uint32_t page_size; // in the first tree of a meta page
    uint16_t flags;
    uint16_t depth;
    uint64_t branch_pages, leaf_pages, overflow_pages, entries;
    uint64_t root;
};

struct meta_data {
    page_header page;
    uint32_t magic;
    uint32_t version;
    uint64_t address, map_size;
    tree_root trees[2]; // the free pages, and the main tree with all others below it
    uint64_t last_page;
    uint64_t transaction;
};

struct node_header {
    uint16_t low, high; // of the length of the data, or of a child's page number
    uint16_t flags;     // or the top of a child's page number
    uint16_t key_length;
};

static_assert(sizeof(page_header) == 16 && sizeof(tree_root) == 48 && sizeof(node_header) == 8);

int read_at(int fd, void *buffer, size_t length, uint64_t offset)
{
    const ssize_t got = pread(fd, buffer, length, static_cast<off_t>(offset));
    if (got < 0)
        return errno;
    return static_cast<size_t>(got) == length ? 0 : MDB_CORRUPTED;
}

template <class T>
bool take(std::span<const unsigned char> page, size_t offset, T *out)
{
    if (offset > page.size() || page.size() - offset < sizeof *out)
        return false;
    memcpy(out, page.data() + offset, sizeof *out);
    return true;
}

class page_walk {
public:
    page_walk(int fd, uint32_t page_size, uint64_t pages)
        : fd_(fd), page_size_(page_size), pages_(pages), unseen_(pages)
    {
    }

    int tree(uint64_t root, unsigned depth = 0)
    {
        if (root == no_page)
            return 0;
        // A page is met once at most, unless the damaged tree runs in circles.
        if (root >= pages_ || depth == deepest_tree || unseen_-- == 0)
            return MDB_CORRUPTED;
        const block<unsigned char> memory(static_cast<unsigned char *>(malloc(page_size_)));
        if (!memory)
            return ENOMEM;
        if (const int error = read_at(fd_, memory.get(), page_size_, root * page_size_); error != 0)
            return error;
        return nodes({memory.get(), page_size_}, depth);
    }

private:
    int nodes(std::span<const unsigned char> page, unsigned depth)
    {
        page_header header;
        if (!take(page, 0, &header) || header.lower < sizeof header)
            return MDB_CORRUPTED;
        const bool is_branch = (header.flags & branch_page) != 0;
        if (!is_branch && (header.flags & leaf_page) == 0)
            return MDB_CORRUPTED;
        for (size_t at = sizeof header; at + 2 <= header.lower; at += 2) {
            uint16_t offset = 0;
            node_header node;
            if (!take(page, at, &offset) || !take(page, offset, &node))
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

    int data(std::span<const unsigned char> page, size_t offset, uint16_t flags, uint64_t length,
             unsigned depth)
    {
        if ((flags & overflow_data) != 0) {
            uint64_t first = 0;
            const uint64_t count = (sizeof(page_header) + length + page_size_ - 1) / page_size_;
            const bool inside =
                take(page, offset, &first) && first < pages_ && count <= pages_ - first;
            return inside ? 0 : MDB_CORRUPTED;
        }
        if ((flags & tree_data) != 0) {
            tree_root below;
            return take(page, offset, &below) ? tree(below.root, depth + 1) : MDB_CORRUPTED;
        }
        return 0;
    }

    int fd_;
    uint32_t page_size_;
    uint64_t pages_;
    uint64_t unseen_;
};

// Whether the engine, which believes it all, can live with what the header in use says.
bool is_possible(const meta_data &meta)
{
    const auto is_tree = [&](const tree_root &tree) {
        const bool is_empty = tree.root == no_page;
        return (tree.flags & (reversed_keys | several_data)) == 0 && tree.depth <= deepest_tree &&
               (is_empty ? tree.depth == 0 : tree.depth != 0 && tree.root <= meta.last_page);
    };
    return meta.map_size <= largest_file &&
           meta.last_page < meta.map_size / meta.trees[0].page_size && is_tree(meta.trees[0]) &&
           is_tree(meta.trees[1]);
}

// Reads one of the two headers, which transactions of its own parity wrote.
int read_header(int fd, uint64_t number, uint32_t page_size, meta_data *meta)
{
    if (const int error = read_at(fd, meta, sizeof *meta, page_size * number); error != 0)
        return error == MDB_CORRUPTED ? MDB_INVALID : error;
    if ((meta->page.flags & meta_page) == 0 || meta->magic != file_magic)
        return MDB_INVALID;
    if (meta->version != file_version)
        return MDB_VERSION_MISMATCH;
    const bool is_its_own = meta->transaction == 0 || (meta->transaction & 1) == number;
    return is_its_own ? 0 : MDB_INVALID;
}

// The older header is not looked at closely: the engine leaves a mixture of old and new there when
// it could not write it.
int check_headers(int fd)
{
    meta_data metas[2];
    if (const int error = read_header(fd, 0, 0, &metas[0]); error != 0)
        return error;
    const uint32_t size = metas[0].trees[0].page_size;
    if (size < 512 || size > 32768 || (size & (size - 1)) != 0)
        return MDB_INVALID;
    if (const int error = read_header(fd, 1, size, &metas[1]); error != 0)
        return error;
    const meta_data &in_use = metas[metas[1].transaction > metas[0].transaction ? 1 : 0];
    return metas[1].trees[0].page_size == size && is_possible(in_use) ? 0 : MDB_INVALID;
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

} // namespace

int check_header(int fd)
{
    // Another process may be writing a header at this moment, but not all three times.
    int error = check_headers(fd);
    for (int left = 2; left != 0 && error == MDB_INVALID; --left)
        error = check_headers(fd);
    return error;
}

int check_extent(MDB_env *engine)
{
    int fd = -1;
    MDB_stat about;
    int error = mdb_env_get_fd(engine, &fd);
    if (error != 0 || (error = mdb_env_stat(engine, &about)) != 0)
        return error;
    // The header is read again when another process has written the next but one in the meantime.
    for (;;) {
        MDB_txn *pinned = nullptr;
        error = begin_reading(engine, &pinned);
        if (error == MDB_MAP_RESIZED && (error = mdb_env_set_mapsize(engine, 0)) == 0)
            continue;
        if (error != 0)
            return error;
        const size_t id = mdb_txn_id(pinned);
        meta_data meta;
        error = read_at(fd, &meta, sizeof meta, (id & 1) * about.ms_psize);
        const bool settled = error != 0 || meta.transaction == id;
        if (error == 0 && settled)
            error = check_pages(fd, meta);
        mdb_txn_abort(pinned);
        if (settled)
            return error;
    }
}

int map_commit_numbers(MDB_env *engine, commit_numbers *numbers)
{
    int fd = -1;
    MDB_stat about;
    int error = mdb_env_get_fd(engine, &fd);
    if (error != 0 || (error = mdb_env_stat(engine, &about)) != 0)
        return error;
    void *const headers = mmap(nullptr, size_t{2} * about.ms_psize, PROT_READ, MAP_SHARED, fd, 0);
    if (headers == MAP_FAILED)
        return errno;
    const auto *const first = static_cast<const unsigned char *>(headers);
    const auto number_in = [](const unsigned char *header) {
        return reinterpret_cast<const uint64_t *>(header + offsetof(meta_data, transaction));
    };
    *numbers = {number_in(first), number_in(first + about.ms_psize)};
    return 0;
}

} // namespace platform
