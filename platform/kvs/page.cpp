#include "platform/kvs/page.h"

#include <cerrno>
#include <lmdb.h>
#include <unistd.h>

namespace platform {

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
    unsigned char starts[largest_page / 2 + 1];
    memset(starts, 0, page_.size() / 2);
    starts[page_.size() / 2] = 1;
    for (size_t i = 0; i < count(); ++i) {
        const size_t start = offset(i);
        if (start < header_.upper || !holds_node(start) || starts[start / 2]++ != 0)
            return false;
    }
    size_t filled = 0;
    for (size_t i = 0; i < count(); ++i) {
        const size_t start = offset(i), end = at_offset(start).end;
        if (starts[end / 2] == 0)
            return false;
        filled += end - start;
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
