// One page of a data file, and sets of pages.
#pragma once

#include "platform/base/block.h"
#include "platform/kvs/file_layout.h"

#include <cstring>
#include <span>

namespace platform {

using bytes = std::span<const unsigned char>;

// Reads a part of a file. Returns 0, an error number, or MDB_CORRUPTED if the file ends before it.
[[nodiscard]] int read_at(int fd, void *buffer, size_t length, uint64_t offset);

template <class T>
T read_from(bytes page, size_t offset)
{
    T value;
    memcpy(&value, page.data() + offset, sizeof value);
    return value;
}

constexpr size_t even(size_t length) { return length + (length & 1); }

// A node of a page: its key, and where its data begins.
struct node {
    bytes key;
    uint16_t flags;
    uint64_t number; // the length of the data, or a child's page
    size_t data;
    size_t end; // of the node in its page

    // The length of the data in the page: of long data it holds the first page only.
    [[nodiscard]] uint64_t stored() const
    {
        return (flags & overflow_data) != 0 ? sizeof(uint64_t) : number;
    }
};

// The nodes of a page.
class page_nodes {
public:
    explicit page_nodes(bytes page) : page_(page), header_(read_from<page_header>(page, 0)) {}

    [[nodiscard]] const page_header &header() const { return header_; }
    [[nodiscard]] bool is_branch() const { return header_.flags == branch_page; }
    [[nodiscard]] size_t count() const { return (header_.lower - sizeof header_) / 2; }
    [[nodiscard]] size_t offset(size_t index) const
    {
        return read_from<uint16_t>(page_, sizeof header_ + 2 * index);
    }

    // Where a page is sound these have no bounds to keep; elsewhere first holds_node(), whose
    // `offset` may be any number.
    [[nodiscard]] node at(size_t index) const { return at_offset(offset(index)); }
    [[nodiscard]] node at_offset(size_t offset) const;
    [[nodiscard]] bool holds_node(size_t offset) const;

    // Returns whether this is a branch page or a leaf page of this number, and its nodes fill it
    // without gap or overlap.
    [[nodiscard]] bool are_sound(uint64_t number) const;

private:
    [[nodiscard]] bool fill_page() const;

    bytes page_;
    page_header header_;
};

inline node page_nodes::at_offset(size_t offset) const
{
    const auto head = read_from<node_header>(page_, offset);
    const size_t data = offset + sizeof head + head.key_length;
    const uint64_t low = head.low | uint64_t{head.high} << 16;
    const bytes key = page_.subspan(offset + sizeof head, head.key_length);
    if (is_branch())
        return {key, 0, low | uint64_t{head.flags} << 32, data, even(data)};
    node leaf{key, head.flags, low, data, 0};
    leaf.end = even(data + leaf.stored());
    return leaf;
}

inline bool page_nodes::holds_node(size_t offset) const
{
    if (offset % 2 != 0 || offset < sizeof header_ || offset + sizeof(node_header) > page_.size())
        return false;
    const size_t key = offset + sizeof(node_header);
    return key + read_from<node_header>(page_, offset).key_length <= page_.size() &&
           at_offset(offset).end <= page_.size();
}

// Some of the pages of a file, not counting its two headers.
class page_set {
public:
    explicit page_set(uint64_t pages)
        : bits_(static_cast<unsigned char *>(calloc(pages / 8 + 1, 1))), pages_(pages)
    {
    }

    [[nodiscard]] bool is_allocated() const { return bits_ != nullptr; }
    [[nodiscard]] bool has(uint64_t page) const
    {
        return page < pages_ && (bits_.get()[page / 8] >> page % 8 & 1U) != 0;
    }

    // Adds pages; returns whether they lie in the file and none of them was there already.
    [[nodiscard]] bool add(uint64_t first, uint64_t count = 1)
    {
        if (first < 2 || first >= pages_ || count > pages_ - first)
            return false;
        for (uint64_t page = first; page < first + count; ++page) {
            if (has(page))
                return false;
            unsigned char &bits = bits_.get()[page / 8];
            bits = static_cast<unsigned char>(bits | 1U << page % 8);
        }
        return true;
    }

private:
    block<unsigned char> bits_;
    uint64_t pages_;
};

} // namespace platform
