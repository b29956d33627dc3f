// The engine follows what its pages say, so damage in them makes it crash or show other records.
// Here each page of a snapshot is read and checked on its own and against its parent, through the
// file and not through the map: beyond the end of a file that was cut off, a map raises SIGBUS.
#include "platform/kvs/page_walk.h"

#include "platform/base/block.h"
#include "platform/base/crc32c.h"
#include "platform/kvs/record_value.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <lmdb.h>
#include <span>
#include <unistd.h>

namespace platform {
namespace {

using bytes = std::span<const unsigned char>;

enum class tree_kind { free_pages, main, records };

// A node of a page: its key, and where its data begins.
struct node {
    bytes key;
    uint16_t flags;
    uint64_t number; // the length of the data, or a child's page
    size_t data;
    size_t end; // of the node in its page
};

// The keys of a subtree: from the first, and below the second unless that is empty.
struct key_range {
    bytes first, end;
};

template <class T>
T read_from(bytes page, size_t offset)
{
    T value;
    memcpy(&value, page.data() + offset, sizeof value);
    return value;
}

constexpr size_t even(size_t length) { return length + (length & 1); }

int compare_keys(tree_kind kind, bytes left, bytes right)
{
    if (kind == tree_kind::main) {
        const int order = memcmp(left.data(), right.data(), std::min(left.size(), right.size()));
        return order != 0 ? order : (left.size() > right.size()) - (left.size() < right.size());
    }
    uint64_t numbers[2] = {};
    memcpy(&numbers[0], left.data(), left.size());
    memcpy(&numbers[1], right.data(), right.size());
    return (numbers[0] > numbers[1]) - (numbers[0] < numbers[1]);
}

bool is_key_of(tree_kind kind, bytes key)
{
    if (kind == tree_kind::main)
        return !key.empty() && key.size() <= longest_name;
    return key.size() == (kind == tree_kind::records ? key_length : sizeof(uint64_t));
}

class page_set {
public:
    explicit page_set(uint64_t pages)
        : bits_(static_cast<unsigned char *>(calloc(pages / 8 + 1, 1))), pages_(pages)
    {
    }

    [[nodiscard]] bool is_allocated() const { return bits_ != nullptr; }

    // Adds pages; returns whether they lie in the file and none of them was there already.
    [[nodiscard]] bool add(uint64_t first, uint64_t count = 1)
    {
        if (first < 2 || first >= pages_ || count > pages_ - first)
            return false;
        for (uint64_t page = first; page < first + count; ++page) {
            unsigned char &bits = bits_.get()[page / 8];
            const auto bit = static_cast<unsigned char>(1U << page % 8);
            if ((bits & bit) != 0)
                return false;
            bits = static_cast<unsigned char>(bits | bit);
        }
        return true;
    }

private:
    block<unsigned char> bits_;
    uint64_t pages_;
};

// The nodes of a page, checked.
class page_nodes {
public:
    explicit page_nodes(bytes page) : page_(page), header_(read_from<page_header>(page, 0)) {}

    [[nodiscard]] bool is_branch() const { return header_.flags == branch_page; }
    [[nodiscard]] size_t count() const { return (header_.lower - sizeof header_) / 2; }

    [[nodiscard]] node at(size_t index) const
    {
        const size_t offset = read_from<uint16_t>(page_, sizeof header_ + 2 * index);
        const auto head = read_from<node_header>(page_, offset);
        const size_t data = offset + sizeof head + head.key_length;
        const uint64_t low = head.low | uint64_t{head.high} << 16;
        if (is_branch())
            return {page_.subspan(offset + sizeof head, head.key_length), 0,
                    low | uint64_t{head.flags} << 32, data, even(data)};
        const uint64_t stored = (head.flags & overflow_data) != 0 ? sizeof(uint64_t) : low;
        return {page_.subspan(offset + sizeof head, head.key_length), head.flags, low, data,
                even(data + stored)};
    }

    [[nodiscard]] bool are_sound(uint64_t number) const
    {
        if (header_.number != number ||
            (header_.flags != branch_page && header_.flags != leaf_page))
            return false;
        if (header_.lower % 2 != 0 || header_.lower < sizeof header_ ||
            header_.upper < header_.lower || header_.upper > page_.size() ||
            count() < (is_branch() ? 2 : 1))
            return false;
        return fill_page();
    }

private:
    // Returns whether the nodes fill the page from `upper` to its end, without gap or overlap: each
    // node ends where another begins, or with the page.
    [[nodiscard]] bool fill_page() const
    {
        unsigned char starts[largest_page / 2 + 1] = {};
        starts[page_.size() / 2] = 1;
        for (size_t i = 0; i < count(); ++i) {
            const size_t offset = read_from<uint16_t>(page_, sizeof header_ + 2 * i);
            if (offset % 2 != 0 || offset < header_.upper ||
                offset + sizeof(node_header) > page_.size() || starts[offset / 2]++ != 0 ||
                offset + sizeof(node_header) + read_from<node_header>(page_, offset).key_length >
                    page_.size())
                return false;
        }
        size_t filled = 0;
        for (size_t i = 0; i < count(); ++i) {
            const node it = at(i);
            if (it.end > page_.size() || starts[it.end / 2] == 0)
                return false;
            filled += it.end - read_from<uint16_t>(page_, sizeof header_ + 2 * i);
        }
        return starts[header_.upper / 2] != 0 && filled == page_.size() - header_.upper;
    }

    bytes page_;
    page_header header_;
};

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

    // The first key of a branch page has no meaning.
    static bool are_in_order(tree_kind kind, const page_nodes &nodes, key_range range)
    {
        bytes last = range.first;
        bool may_be_equal = true;
        for (size_t i = nodes.is_branch() ? 1 : 0; i < nodes.count(); ++i) {
            const bytes key = nodes.at(i).key;
            if (!is_key_of(kind, key))
                return false;
            const int order = last.empty() ? 1 : compare_keys(kind, key, last);
            if (order < 0 || (order == 0 && !may_be_equal) ||
                (!range.end.empty() && compare_keys(kind, key, range.end) >= 0))
                return false;
            last = key;
            may_be_equal = false;
        }
        return true;
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
            const int error = walk.kind == tree_kind::main ? main_entry(it, page)
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
        if (walk.kind == tree_kind::records && extent_ != walk_extent::records) {
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

    // In the order of its keys the main tree has the format, then each database with its counter.
    [[nodiscard]] int main_entry(const node &it, bytes page)
    {
        const MDB_val name = as_value(it.key.data(), it.key.size());
        uint32_t number = 0;
        if (!has_format_) {
            has_format_ = true;
            if (!is_format_name(name))
                return MDB_VERSION_MISMATCH;
            const int error =
                it.flags != 0
                    ? MDB_CORRUPTED
                    : parse_number(name, as_value(page.data() + it.data, it.number), &number);
            return error == 0 && number != format_version ? MDB_VERSION_MISMATCH : error;
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
        return parse_number(name, as_value(page.data() + it.data, it.number), &number);
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
    uint32_t name_checksum_ = 0; // of the database
    unsigned char counter_name_[longest_name + 1] = {};
    bytes expected_counter_; // after a database
};

} // namespace

int read_at(int fd, void *buffer, size_t length, uint64_t offset)
{
    const ssize_t got = pread(fd, buffer, length, static_cast<off_t>(offset));
    if (got < 0)
        return errno;
    return static_cast<size_t>(got) == length ? 0 : MDB_CORRUPTED;
}

int check_pages(int fd, const meta_data &meta, walk_extent extent)
{
    return page_walk(fd, meta, extent).all();
}

} // namespace platform
