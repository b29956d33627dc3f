#include "platform/kvs/data_file.h"

#include "platform/kvs/engine_transactions.h"
#include "platform/kvs/environment_info.h"
#include "platform/kvs/page_walk.h"

#include <cerrno>
#include <sys/mman.h>

namespace platform {
namespace {

// Returns whether the engine, which checks none of it, can work with the header in use.
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

// Reads one of the two headers. Each is written by transactions of its own parity.
[[nodiscard]] int read_header(int fd, uint64_t number, uint32_t page_size, meta_data *meta)
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

// The older header is not checked closely: a header write that failed leaves a mixture of old and
// new there.
[[nodiscard]] int check_headers(int fd)
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

} // namespace

int check_header(int fd)
{
    // Another process may be writing a header, but not during all three reads.
    int error = check_headers(fd);
    for (int left = 2; left != 0 && error == MDB_INVALID; --left)
        error = check_headers(fd);
    return error;
}

int check_extent(MDB_env *environment)
{
    environment_info info;
    if (const int error = get_environment_info(environment, &info); error != 0)
        return error;
    // The header is read again if another process has written the next but one since.
    for (;;) {
        MDB_txn *snapshot = nullptr;
        int error = begin_read(environment, &snapshot);
        if (error == MDB_MAP_RESIZED && (error = mdb_env_set_mapsize(environment, 0)) == 0)
            continue;
        if (error != 0)
            return error;
        const size_t id = mdb_txn_id(snapshot);
        meta_data meta;
        error = read_at(info.fd, &meta, sizeof meta, (id & 1) * info.page_size);
        const bool is_settled = error != 0 || meta.transaction == id;
        if (error == 0 && is_settled)
            error = check_pages(info.fd, meta);
        mdb_txn_abort(snapshot);
        if (is_settled)
            return error;
    }
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

} // namespace platform
