// The engine does not check its pages, so damage in them makes it crash or return other records.
// Here each page of a snapshot is read and checked on its own and against its parent, through the
// file and not through the map: beyond the end of a file that was cut off, a map raises SIGBUS.
#include "platform/kvs/page_walk.h"

#include "platform/base/crc32c.h"
#include "platform/kvs/key_order.h"
#include "platform/kvs/record_value.h"

#include <cerrno>
#include <cstring>
#include <lmdb.h>

namespace platform {
namespace {

class page_walk {
public:
    page_walk(int fd, const meta_data &meta, walk_extent extent)
        : fd_(fd), page_size_(meta.trees[0].page_size), meta_(meta), extent_(extent),
          seen_(meta.last_page + 1)
    {
    }

    [[nodiscard]] int all()
    {
        if (!seen_.is_allocated())
            return ENOMEM;
        int error = tree(tree_kind::main, meta_.trees[1]);
        if (error == 0 && (!has_format_ || !expected_counter_.empty()))
            error = has_format_ ? MDB_CORRUPTED : MDB_VERSION_MISMATCH;
        if (error == 0 && extent_ != walk_extent::main_tree)
            error = tree(tree_kind::free_pages, meta_.trees[0]);
        return error;
    }

private:
    struct tree_walk {
        tree_kind kind;
        const tree_root &root;
        uint64_t branches = 0, leaves = 0, overflows = 0, entries = 0;
    };

    [[nodiscard]] int tree(tree_kind kind, const tree_root &root)
    {
        tree_walk walk{kind, root};
        if (root.root == no_page && root.depth != 0)
            return MDB_CORRUPTED;
        if (root.root != no_page)
            if (const int error = page(walk, root.root, 1, {}); error != 0)
                return error;
        const bool is_counted = walk.branches == root.branch_pages &&
                                walk.leaves == root.leaf_pages && walk.entries == root.entries &&
                                walk.overflows == root.overflow_pages;
        return is_counted ? 0 : MDB_CORRUPTED;
    }

    [[nodiscard]] int page(tree_walk &walk, uint64_t number, unsigned depth, key_range range)
    {
        if (depth > walk.root.depth || !seen_.add(number))
            return MDB_CORRUPTED;
        const block<unsigned char> memory(static_cast<unsigned char *>(malloc(page_size_)));
        if (memory == nullptr)
            return ENOMEM;
        const int error = read_at(fd_, memory.get(), page_size_, number * page_size_);
        if (error != 0)
            return error;
        const page_nodes nodes({memory.get(), page_size_});
        if (!nodes.are_sound(number) || nodes.is_branch() != (depth < walk.root.depth) ||
            !are_in_order(walk.kind, nodes, range))
            return MDB_CORRUPTED;
        ++(nodes.is_branch() ? walk.branches : walk.leaves);
        return nodes.is_branch() ? children(walk, nodes, depth, range)
                                 : entries(walk, nodes, {memory.get(), page_size_});
    }

    [[nodiscard]] int children(tree_walk &walk, const page_nodes &nodes, unsigned depth,
                               key_range range)
    {
        for (size_t i = 0; i < nodes.count(); ++i) {
            const key_range below{i == 0 ? range.first : nodes.at(i).key,
                                  i + 1 < nodes.count() ? nodes.at(i + 1).key : range.end};
            if (const int error = page(walk, nodes.at(i).number, depth + 1, below); error != 0)
                return error;
        }
        return 0;
    }

    [[nodiscard]] int entries(tree_walk &walk, const page_nodes &nodes, bytes page)
    {
        for (size_t i = 0; i < nodes.count(); ++i) {
            const node it = nodes.at(i);
            ++walk.entries;
            const int error = walk.kind == tree_kind::main ? main_entry(walk, it, page)
                              : it.flags == overflow_data  ? overflow(walk, it, page)
                              : it.flags == 0 ? data(walk.kind, it, page.subspan(it.data))
                                              : MDB_CORRUPTED;
            if (error != 0)
                return error;
        }
        return 0;
    }

    [[nodiscard]] int overflow(tree_walk &walk, const node &it, bytes page)
    {
        const auto first = read_from<uint64_t>(page, it.data);
        overflow_header header;
        if (first > meta_.last_page)
            return MDB_CORRUPTED;
        if (const int error = read_at(fd_, &header, sizeof header, first * page_size_); error != 0)
            return error;
        if (header.number != first || header.flags != overflow_page ||
            header.pages < (sizeof header + it.number + page_size_ - 1) / page_size_ ||
            !seen_.add(first, header.pages))
            return MDB_CORRUPTED;
        walk.overflows += header.pages;
        const uint64_t offset = first * page_size_ + sizeof header;
        if (walk.kind == tree_kind::main ||
            (walk.kind == tree_kind::records && extent_ != walk_extent::records)) {
            unsigned char last = 0; // must be there as well
            return read_at(fd_, &last, sizeof last, offset + it.number - 1);
        }
        const block<unsigned char> memory(static_cast<unsigned char *>(malloc(it.number)));
        if (memory == nullptr)
            return ENOMEM;
        const int error = read_at(fd_, memory.get(), it.number, offset);
        return error != 0 ? error : data(walk.kind, it, {memory.get(), it.number});
    }

    [[nodiscard]] int data(tree_kind kind, const node &it, bytes value)
    {
        if (kind == tree_kind::free_pages)
            return free_list(it, value);
        stored_record record;
        return extent_ == walk_extent::records
                   ? parse_record(name_checksum_, as_value(it.key.data(), it.key.size()),
                                  as_value(value.data(), it.number), &record)
                   : 0;
    }

    // A commit's free pages: their count, and their numbers from the highest down.
    [[nodiscard]] int free_list(const node &it, bytes list)
    {
        if (it.number < sizeof(uint64_t) || read_from<uint64_t>(it.key, 0) > meta_.transaction)
            return MDB_CORRUPTED;
        const auto count = read_from<uint64_t>(list, 0);
        if (count > it.number / sizeof(uint64_t) - 1)
            return MDB_CORRUPTED;
        uint64_t last = no_page;
        for (uint64_t i = 1; i <= count; ++i) {
            const auto number = read_from<uint64_t>(list, i * sizeof(uint64_t));
            if (number >= last || !seen_.add(number))
                return MDB_CORRUPTED;
            last = number;
        }
        return 0;
    }

    // In the order of its keys the main tree has the format, the journal, then each database with
    // its counter.
    [[nodiscard]] int main_entry(tree_walk &walk, const node &it, bytes page)
    {
        const MDB_val name = as_value(it.key.data(), it.key.size());
        uint32_t number = 0;
        if (!has_format_) {
            has_format_ = true;
            if (!is_format_name(name))
                return MDB_VERSION_MISMATCH;
            const int error = it.flags != 0
                                  ? MDB_CORRUPTED
                                  : parse_checked_number(
                                        name, as_value(page.data() + it.data, it.number), &number);
            return error == 0 && number != format_version ? MDB_VERSION_MISMATCH : error;
        }
        if (!has_journal_) {
            has_journal_ = true;
            return is_journal_name(name) && it.flags == overflow_data ? overflow(walk, it, page)
                                                                      : MDB_CORRUPTED;
        }
        if (it.flags == tree_data)
            return it.number == sizeof(tree_root) && expected_counter_.empty()
                       ? database(it, read_from<tree_root>(page, it.data))
                       : MDB_CORRUPTED;
        const bytes counter = expected_counter_;
        expected_counter_ = {};
        if (it.flags != 0 || counter.size() != it.key.size() ||
            memcmp(counter.data(), it.key.data(), it.key.size()) != 0)
            return MDB_CORRUPTED;
        return parse_checked_number(name, as_value(page.data() + it.data, it.number), &number);
    }

    [[nodiscard]] int database(const node &it, const tree_root &root)
    {
        memcpy(counter_name_, it.key.data(), it.key.size());
        counter_name_[it.key.size()] = 0;
        expected_counter_ = {counter_name_, it.key.size() + 1};
        name_checksum_ = crc32c(0, it.key.data(), it.key.size());
        if (root.flags != number_keys || root.depth > deepest_tree)
            return MDB_CORRUPTED;
        return extent_ != walk_extent::main_tree ? tree(tree_kind::records, root) : 0;
    }

    int fd_;
    uint32_t page_size_;
    const meta_data &meta_;
    walk_extent extent_;
    page_set seen_;
    bool has_format_ = false;
    bool has_journal_ = false;
    uint32_t name_checksum_ = 0; // of the database
    unsigned char counter_name_[longest_name + 1] = {};
    bytes expected_counter_; // after a database
};

} // namespace

int check_pages(int fd, const meta_data &meta, walk_extent extent)
{
    return page_walk(fd, meta, extent).all();
}

} // namespace platform
