#include "platform/kvs/page.h"

#include <cerrno>
#include <lmdb.h>
#include <unistd.h>

namespace platform {
namespace {

constexpr size_t even(size_t length) { return length + (length & 1); }

} // namespace

node page_nodes::at_offset(size_t offset) const
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

bool page_nodes::holds_node(size_t offset) const
{
    if (offset % 2 != 0 || offset < sizeof header_ || offset + sizeof(node_header) > page_.size())
        return false;
    const size_t key = offset + sizeof(node_header);
    return key + read_from<node_header>(page_, offset).key_length <= page_.size() &&
           at_offset(offset).end <= page_.size();
}

bool page_nodes::are_sound(uint64_t number) const
{
    if (header_.number != number || (header_.flags != branch_page && header_.flags != leaf_page))
        return false;
    if (header_.lower % 2 != 0 || header_.lower < sizeof header_ || header_.upper < header_.lower ||
        header_.upper > page_.size() || count() < (is_branch() ? 2 : 1))
        return false;
    return fill_page();
}

// Each node ends where another begins, or with the page.
bool page_nodes::fill_page() const
{
    unsigned char starts[largest_page / 2 + 1] = {};
    starts[page_.size() / 2] = 1;
    for (size_t i = 0; i < count(); ++i)
        if (offset(i) < header_.upper || !holds_node(offset(i)) || starts[offset(i) / 2]++ != 0)
            return false;
    size_t filled = 0;
    for (size_t i = 0; i < count(); ++i) {
        const size_t end = at(i).end;
        if (starts[end / 2] == 0)
            return false;
        filled += end - offset(i);
    }
    return starts[header_.upper / 2] != 0 && filled == page_.size() - header_.upper;
}

int read_at(int fd, void *buffer, size_t length, uint64_t offset)
{
    const ssize_t got = pread(fd, buffer, length, static_cast<off_t>(offset));
    if (got < 0)
        return errno;
    return static_cast<size_t>(got) == length ? 0 : MDB_CORRUPTED;
}

} // namespace platform
