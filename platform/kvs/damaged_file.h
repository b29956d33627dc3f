// A data file that may be damaged anywhere, read as far as it goes.
//
// Nothing of it is taken for granted but the checksums of its records. A page is known by the
// number in it as well as by its place, since either may be wrong.
#pragma once

#include "platform/kvs/page.h"

#include <algorithm>

namespace platform {

struct damaged_file {
    int fd;
    uint64_t length;
    uint32_t page_size;
    uint64_t pages; // with the part of one at the end
    meta_data header;
    bool has_header;
    bool may_be_previous; // the header may be that of a commit before the last one

    // Reads a page, zeros beyond the end of the file. Returns false if nothing of it can be read.
    [[nodiscard]] bool read_page(uint64_t number, unsigned char *page) const;

    // Where the data of a leaf page's node begins in the file. Returns false if it ends beyond it.
    [[nodiscard]] bool find_data(bytes page, uint64_t page_number, const node &it,
                                 uint64_t *offset) const;
};

// Finds out what can be known of the file. Returns 0 or an error number.
[[nodiscard]] int examine_file(int fd, damaged_file *file);

// Returns whether the nodes of a page, one after another, reach from its `upper` to its end.
[[nodiscard]] bool is_filled(bytes page);

// Calls `take` with each node of a page that lies within it. If the nodes fill the page the list of
// their offsets is not needed; otherwise the list finds those that are not damaged.
template <class Take>
void for_each_node(bytes page, Take take)
{
    const page_nodes nodes(page);
    if (is_filled(page)) {
        for (size_t offset = nodes.header().upper; offset < page.size();) {
            const node it = nodes.at_offset(offset);
            take(it);
            offset = it.end;
        }
        return;
    }
    const size_t most = (page.size() - sizeof(page_header)) / 2;
    for (size_t i = 0; i < std::min(nodes.count(), most); ++i)
        if (nodes.holds_node(nodes.offset(i)))
            take(nodes.at(i));
}

// The pages that the last commit left free, which hold older versions of records.
class free_pages {
public:
    explicit free_pages(const damaged_file &file) : file_(file), pages_(file.pages) {}

    // Reads the list of free pages, from any page that holds it if its tree is damaged. Returns 0
    // or ENOMEM.
    [[nodiscard]] int read(unsigned char *page);

    [[nodiscard]] bool has(uint64_t page) const { return pages_.has(page); }
    [[nodiscard]] bool are_known() const { return are_known_; } // all of them

private:
    struct tree_counts {
        uint64_t pages = 0, entries = 0;
        bool is_sound = true;
    };

    void read_tree(uint64_t number, unsigned depth, tree_counts &counts);
    void find_newest_leaf(unsigned char *page);
    [[nodiscard]] bool is_leaf(bytes page, uint64_t number, uint64_t *newest) const;
    [[nodiscard]] bool add_lists(bytes page, uint64_t number);
    [[nodiscard]] bool add_list(uint64_t offset, uint64_t length);

    const damaged_file &file_;
    page_set pages_;
    bool are_known_ = false;
};

} // namespace platform
