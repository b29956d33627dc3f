#include "platform/kvs/data_file.h"

#include "platform/kvs/engine_status.h"
#include "platform/kvs/engine_transactions.h"
#include "platform/kvs/environment_info.h"
#include "platform/kvs/page.h"

#include <algorithm>
#include <cerrno>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace platform {

bool is_possible(const meta_data &meta)
{
    const auto is_tree = [&](const tree_root &tree) {
        const bool is_empty = tree.root == no_page;
        return tree.depth <= deepest_tree &&
               (is_empty ? tree.depth == 0 : tree.depth != 0 && tree.root <= meta.last_page);
    };
    return meta.map_size <= largest_file &&
           meta.last_page < meta.map_size / meta.trees[0].page_size && is_tree(meta.trees[0]) &&
           is_tree(meta.trees[1]) &&
           (meta.trees[0].flags | no_directory) == (number_keys | no_directory) &&
           meta.trees[1].flags == 0;
}

int read_header(int fd, uint64_t number, uint32_t page_size, meta_data *meta)
{
    if (const int error = read_at(fd, meta, sizeof *meta, page_size * number); error != 0)
        return error == MDB_CORRUPTED ? MDB_INVALID : error;
    if ((meta->page.flags & meta_page) == 0 || meta->magic != file_magic)
        return MDB_INVALID;
    if (meta->version != file_version)
        return MDB_VERSION_MISMATCH;
    const bool is_own_parity = meta->transaction == 0 || (meta->transaction & 1) == number;
    return is_own_parity ? 0 : MDB_INVALID;
}

namespace {

bool is_page_size(uint32_t size)
{
    return size >= smallest_page && size <= largest_page && (size & (size - 1)) == 0;
}

// The older header is not checked closely: a header write that failed leaves a mixture of old and
// new there.
[[nodiscard]] int check_headers(int fd)
{
    meta_data metas[2];
    if (const int error = read_header(fd, 0, 0, &metas[0]); error != 0)
        return error;
    const uint32_t size = metas[0].trees[0].page_size;
    if (!is_page_size(size))
        return MDB_INVALID;
    if (const int error = read_header(fd, 1, size, &metas[1]); error != 0)
        return error;
    // Commits write the headers by turns.
    const auto [older, newer] = std::minmax(metas[0].transaction, metas[1].transaction);
    if (newer - older > 1)
        return MDB_INVALID;
    const meta_data &in_use = metas[metas[1].transaction > metas[0].transaction ? 1 : 0];
    return metas[1].trees[0].page_size == size && is_possible(in_use) ? 0 : MDB_INVALID;
}

// Reading all pages of a store takes 1.6 us for each: less than 10 ms for this many.
constexpr uint64_t few_pages = 6144;

// A file that is shorter than its header states is not necessarily damaged: pages that were taken
// and given back within one transaction are never written, and they may be the last ones. So it is
// read whole.
walk_extent extent_for(const environment_info &info, const meta_data &meta)
{
    struct stat about;
    const bool is_short = fstat(info.fd, &about) != 0 ||
                          static_cast<uint64_t>(about.st_size) / info.page_size <= meta.last_page;
    return is_short || meta.last_page < few_pages ? walk_extent::pages : walk_extent::main_tree;
}

} // namespace

int check_header(int fd)
{
    // Another process may be writing a header, but not during all the reads.
    int error = check_headers(fd);
    for (int left = 9; left != 0 && error == MDB_INVALID; --left)
        error = check_headers(fd);
    return error;
}

int check_snapshot(MDB_env *environment, MDB_txn *snapshot, walk_extent least)
{
    environment_info info;
    if (const int error = get_environment_info(environment, &info); error != 0)
        return error;
    const size_t id = mdb_txn_id(snapshot);
    meta_data meta;
    if (const int error = read_at(info.fd, &meta, sizeof meta, (id & 1) * info.page_size);
        error != 0)
        return error;
    if (meta.transaction != id)
        return EAGAIN;
    if (meta.trees[0].page_size != info.page_size || !is_possible(meta))
        return MDB_CORRUPTED;
    return check_pages(info.fd, meta, std::max(least, extent_for(info, meta)));
}

int check_last_commit(MDB_env *environment)
{
    for (int left = 100;; --left) {
        MDB_txn *snapshot = nullptr;
        int error = begin_read(environment, &snapshot);
        if (error == MDB_MAP_RESIZED && (error = mdb_env_set_mapsize(environment, 0)) == 0)
            continue;
        if (error != 0)
            return error;
        error = check_snapshot(environment, snapshot, walk_extent::main_tree);
        mdb_txn_abort(snapshot);
        if (error != EAGAIN)
            return error;
        if (left == 0)
            return files_replaced;
    }
}

int rewrite_header(const environment_info &info, uint64_t commit)
{
    meta_data meta;
    const uint64_t offset = (commit & 1) * info.page_size;
    if (const int error = read_at(info.fd, &meta, sizeof meta, offset); error != 0)
        return error;
    const ssize_t written = pwrite(info.fd, &meta, sizeof meta, static_cast<off_t>(offset));
    return written == sizeof meta ? 0 : written < 0 ? errno : EIO;
}

int map_commit_numbers(MDB_env *environment, commit_numbers *numbers)
{
    environment_info info;
    if (const int error = get_environment_info(environment, &info); error != 0)
        return error;
    void *const headers =
        mmap(nullptr, size_t{2} * info.page_size, PROT_READ, MAP_SHARED, info.fd, 0);
    if (headers == MAP_FAILED)
        return errno;
    const auto *const first = static_cast<const unsigned char *>(headers);
    const auto number_in = [](const unsigned char *header) {
        return reinterpret_cast<const uint64_t *>(header + offsetof(meta_data, transaction));
    };
    *numbers = {number_in(first), number_in(first + info.page_size)};
    return 0;
}

void unmap_commit_numbers(const commit_numbers &numbers)
{
    const uintptr_t headers =
        reinterpret_cast<uintptr_t>(numbers.first) - offsetof(meta_data, transaction);
    const auto page_size = static_cast<size_t>(numbers.second - numbers.first) * sizeof(uint64_t);
    munmap(reinterpret_cast<void *>(headers), 2 * page_size);
}

} // namespace platform
