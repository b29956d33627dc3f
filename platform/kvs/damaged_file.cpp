#include "platform/kvs/damaged_file.h"

#include "platform/kvs/data_file.h"
#include "platform/kvs/journal.h"
#include "platform/kvs/record_value.h"

#include <cerrno>
#include <sys/stat.h>
#include <unistd.h>

namespace platform {
namespace {

// Reads a header whose page size may have to be guessed from where the second one is.
bool find_header(int fd, uint64_t number, meta_data *meta)
{
    for (uint32_t size = smallest_page; size <= largest_page; size *= 2)
        if (read_header(fd, number, size, meta) == 0 && meta->trees[0].page_size == size &&
            is_possible(*meta))
            return true;
    return false;
}

// Takes the newer one of the headers. It is surely the last commit's if both are as they have to
// be.
void choose_header(damaged_file *file)
{
    meta_data other;
    const bool has_first = find_header(file->fd, 0, &file->header);
    const bool has_second = find_header(file->fd, 1, &other);
    if (has_second && (!has_first || other.transaction > file->header.transaction))
        file->header = other;
    file->has_header = has_first || has_second;
    if (file->has_header)
        file->page_size = file->header.trees[0].page_size;
    file->may_be_previous = check_header(file->fd) != 0;
}

[[nodiscard]] int find_journal_on(const damaged_file &file, bytes leaf, uint64_t number,
                                  journal_area *area)
{
    const page_nodes nodes(leaf);
    for (size_t i = 0; i < nodes.count(); ++i) {
        const node it = nodes.at(i);
        uint64_t offset = 0;
        if (is_journal_name(as_value(it.key.data(), it.key.size())))
            return it.flags == overflow_data && file.find_data(leaf, number, it, &offset)
                       ? read_area(file.fd, offset, it.number, area)
                       : MDB_CORRUPTED;
    }
    return MDB_CORRUPTED;
}

// The journal is on the first leaf of the main tree.
[[nodiscard]] int locate_journal(const damaged_file &file, journal_area *area)
{
    const block<unsigned char> memory(static_cast<unsigned char *>(malloc(file.page_size)));
    if (!memory)
        return ENOMEM;
    const bytes page(memory.get(), file.page_size);
    uint64_t number = file.header.trees[1].root;
    for (unsigned depth = 0; depth <= deepest_tree; ++depth) {
        if (!file.read_page(number, memory.get()) || !page_nodes(page).are_sound(number))
            return MDB_CORRUPTED;
        if (!page_nodes(page).is_branch())
            return find_journal_on(file, page, number, area);
        number = page_nodes(page).at(0).number;
    }
    return MDB_CORRUPTED;
}

// A commit may be in the journal and have no header yet, or have lost it in a power cut.
[[nodiscard]] int compare_with_journal(damaged_file *file)
{
    journal_area area;
    journal_end end;
    int error = locate_journal(*file, &area);
    if (error == 0)
        error = find_end(file->fd, area, file->header.transaction, &end);
    if (error == ENOMEM)
        return error;
    if (error != 0 || end.last_transaction > file->header.transaction)
        file->may_be_previous = true;
    return 0;
}

} // namespace

bool damaged_file::read_page(uint64_t number, unsigned char *page) const
{
    const ssize_t got = pread(fd, page, page_size, static_cast<off_t>(number * page_size));
    if (got <= 0)
        return false;
    memset(page + got, 0, page_size - static_cast<size_t>(got));
    return true;
}

bool damaged_file::find_data(bytes page, uint64_t page_number, const node &it,
                             uint64_t *offset) const
{
    *offset = page_number * page_size + it.data;
    if ((it.flags & overflow_data) != 0) {
        const auto first = read_from<uint64_t>(page, it.data);
        if (first >= pages)
            return false;
        *offset = first * page_size + sizeof(overflow_header);
    }
    return *offset <= length && it.number <= length - *offset;
}

int examine_file(int fd, damaged_file *file)
{
    struct stat about;
    if (fstat(fd, &about) != 0)
        return errno;
    *file = {};
    file->fd = fd;
    file->length = static_cast<uint64_t>(about.st_size);
    file->page_size = static_cast<uint32_t>(sysconf(_SC_PAGESIZE));
    choose_header(file);
    file->pages = (file->length + file->page_size - 1) / file->page_size;
    return file->may_be_previous ? 0 : compare_with_journal(file);
}

bool is_filled(bytes page)
{
    const page_nodes nodes(page);
    size_t offset = nodes.header().upper;
    while (offset < page.size() && nodes.holds_node(offset))
        offset = nodes.at_offset(offset).end;
    return offset == page.size();
}

int free_pages::read(unsigned char *page)
{
    if (!pages_.is_allocated())
        return ENOMEM;
    if (file_.has_header) {
        const tree_root &root = file_.header.trees[0];
        tree_counts counts;
        if (root.root != no_page)
            read_tree(root.root, 1, counts);
        are_known_ = counts.is_sound && counts.entries == root.entries &&
                     counts.pages == root.branch_pages + root.leaf_pages;
    }
    if (!are_known_)
        find_newest_leaf(page);
    return 0;
}

void free_pages::read_tree(uint64_t number, unsigned depth, tree_counts &counts)
{
    const block<unsigned char> memory(static_cast<unsigned char *>(malloc(file_.page_size)));
    if (!memory || depth > deepest_tree || counts.pages++ > file_.pages ||
        !file_.read_page(number, memory.get())) {
        counts.is_sound = false;
        return;
    }
    const bytes page(memory.get(), file_.page_size);
    const page_nodes nodes(page);
    if (!nodes.are_sound(number)) {
        counts.is_sound = false;
        return;
    }
    if (nodes.is_branch()) {
        for (size_t i = 0; i < nodes.count(); ++i)
            read_tree(nodes.at(i).number, depth + 1, counts);
        return;
    }
    counts.entries += nodes.count();
    if (!add_lists(page, number))
        counts.is_sound = false;
}

// A commit writes its own free pages under its number, so the leaf with the highest one is part of
// the last list; it is all of it in a store that is not large.
void free_pages::find_newest_leaf(unsigned char *page)
{
    uint64_t found = no_page, newest = 0;
    for (uint64_t number = 2; number < file_.pages; ++number) {
        uint64_t last = 0;
        if (file_.read_page(number, page) && is_leaf({page, file_.page_size}, number, &last) &&
            last > newest && (!file_.has_header || last <= file_.header.transaction)) {
            newest = last;
            found = number;
        }
    }
    if (found != no_page && file_.read_page(found, page))
        static_cast<void>(add_lists({page, file_.page_size}, found));
}

// Returns whether the page is a leaf of the free pages' tree, and its highest key.
bool free_pages::is_leaf(bytes page, uint64_t number, uint64_t *newest) const
{
    const page_nodes nodes(page);
    if (!nodes.are_sound(nodes.header().number) || nodes.is_branch())
        return false;
    for (size_t i = 0; i < nodes.count(); ++i) {
        const node it = nodes.at(i);
        uint64_t offset = 0, count = 0;
        if (it.key.size() != sizeof(uint64_t) || (it.flags | overflow_data) != overflow_data ||
            !file_.find_data(page, number, it, &offset) ||
            read_at(file_.fd, &count, sizeof count, offset) != 0 ||
            count > it.number / sizeof(uint64_t))
            return false;
        *newest = std::max(*newest, read_from<uint64_t>(it.key, 0));
    }
    return true;
}

bool free_pages::add_lists(bytes page, uint64_t number)
{
    bool is_sound = true;
    const page_nodes nodes(page);
    for (size_t i = 0; i < nodes.count(); ++i) {
        const node it = nodes.at(i);
        uint64_t offset = 0;
        is_sound =
            file_.find_data(page, number, it, &offset) && add_list(offset, it.number) && is_sound;
    }
    return is_sound;
}

// A list is its count, and its numbers from the highest down.
bool free_pages::add_list(uint64_t offset, uint64_t length)
{
    const block<uint64_t> list(static_cast<uint64_t *>(malloc(length + sizeof(uint64_t))));
    if (!list || length < sizeof(uint64_t) || read_at(file_.fd, list.get(), length, offset) != 0 ||
        list.get()[0] > length / sizeof(uint64_t) - 1)
        return false;
    uint64_t last = no_page;
    for (uint64_t i = 1; i <= list.get()[0]; ++i) {
        const uint64_t number = list.get()[i];
        if (number >= last || (number < file_.pages && !pages_.add(number)))
            return false;
        last = number;
    }
    return true;
}

} // namespace platform
