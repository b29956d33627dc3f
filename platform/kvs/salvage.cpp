#include "platform/kvs/salvage.h"

#include "platform/base/crc32c.h"
#include "platform/kvs/record_value.h"

#include <cerrno>

namespace platform {
namespace {

// Whether this one is preferred to another of the same key.
bool is_better(const salvaged_record &left, const salvaged_record &right)
{
    if (left.in_tree != right.in_tree)
        return left.in_tree;
    if (left.generation != right.generation)
        return left.generation > right.generation;
    return left.offset > right.offset;
}

class database_search {
public:
    database_search(const damaged_file &file, const char *name, salvaged_database *database)
        : file_(file), name_({reinterpret_cast<const unsigned char *>(name), strlen(name)}),
          name_checksum_(crc32c(0, name_.data(), name_.size())), database_(database), free_(file),
          main_pages_(file.pages), pages_(file.pages)
    {
    }

    [[nodiscard]] int run(bool is_sound)
    {
        // A page for each level of a tree.
        memory_.reset(static_cast<unsigned char *>(malloc((deepest_tree + 1) * file_.page_size)));
        if (!memory_ || !main_pages_.is_allocated() || !pages_.is_allocated())
            return ENOMEM;
        if (const int error = free_.read(memory_.get()); error != 0)
            return error;
        if (file_.has_header)
            main_page(file_.header.trees[1].root, 0);
        if (database_->has_root && root_.root != no_page)
            tree_page(root_.root, 0);
        if (!is_sound && (!database_->has_root || is_damaged_ || has_other_counts()))
            other_pages();
        database_->records.sort();
        return error_;
    }

private:
    struct page_state {
        uint64_t number; // its place
        bool in_tree;
        bool is_doubtful;
    };

    [[nodiscard]] bytes level(unsigned depth) const
    {
        return {memory_.get() + size_t{depth} * file_.page_size, file_.page_size};
    }

    // Reads a page to the memory of its level.
    [[nodiscard]] bool read_page(page_set &seen, uint64_t number, unsigned depth)
    {
        return depth <= deepest_tree && seen.add(number) &&
               file_.read_page(number, memory_.get() + size_t{depth} * file_.page_size);
    }

    // Searches the main tree for the root of the database.
    void main_page(uint64_t number, unsigned depth)
    {
        if (!read_page(main_pages_, number, depth))
            return;
        const bytes page = level(depth);
        const bool is_branch = page_nodes(page).is_branch();
        for_each_node(page, [&](const node &it) {
            if (is_branch)
                main_page(it.number, depth + 1);
            else if (it.flags == tree_data && it.number == sizeof(tree_root) &&
                     std::ranges::equal(it.key, name_))
                take_root(read_from<tree_root>(page, it.data), free_.has(number));
        });
    }

    void take_root(const tree_root &root, bool is_doubtful)
    {
        root_ = root;
        root_is_doubtful_ = is_doubtful || file_.may_be_previous;
        // Each entry takes its place in the file.
        database_->has_root = root.flags == number_keys &&
                              root.entries <= file_.length / (key_length + trailer_length);
        database_->entries = root.entries;
    }

    void tree_page(uint64_t number, unsigned depth)
    {
        if (!read_page(pages_, number, depth)) {
            is_damaged_ = true;
            return;
        }
        const bytes page = level(depth);
        const page_nodes nodes(page);
        const bool is_free = free_.has(number);
        if (is_free || !nodes.are_sound(number))
            is_damaged_ = true;
        if (nodes.header().number != number && free_.has(nodes.header().number))
            return; // the content of another page, and old
        ++(nodes.is_branch() ? branches_ : leaves_);
        if (nodes.is_branch())
            for_each_node(page, [&](const node &it) { tree_page(it.number, depth + 1); });
        else
            records(page, {number, true, is_free || root_is_doubtful_});
    }

    [[nodiscard]] bool has_other_counts() const
    {
        return branches_ != root_.branch_pages || leaves_ != root_.leaf_pages ||
               database_->records.count() != root_.entries;
    }

    // The pages that are neither in the tree nor free: among them those below a damaged page, and
    // those of the other trees, whose records have other checksums.
    void other_pages()
    {
        const bytes page = level(0);
        for (uint64_t number = 2; number < file_.pages && error_ == 0; ++number) {
            if (pages_.has(number) || !file_.read_page(number, memory_.get()))
                continue;
            const auto header = read_from<page_header>(page, 0);
            const bool is_elsewhere = header.number != number && header.number < file_.pages;
            if (free_.has(is_elsewhere ? header.number : number) ||
                (header.number != number && header.flags != leaf_page))
                continue;
            records(page, {number, false,
                           !free_.are_known() || !database_->has_root || root_is_doubtful_});
        }
    }

    void records(bytes page, const page_state &state)
    {
        for_each_node(page, [&](const node &it) {
            salvaged_record found{0, 0, 0, 0, state.in_tree, state.is_doubtful};
            if (!file_.find_data(page, state.number, it, &found.offset) || !verify(it, &found)) {
                is_damaged_ = true;
                return;
            }
            if (!database_->records.add(found))
                error_ = ENOMEM;
        });
    }

    // The key is taken from the record, where the checksum covers it, and not from the page.
    [[nodiscard]] bool verify(const node &it, salvaged_record *found)
    {
        if (it.number < key_length + trailer_length || it.number > UINT32_MAX)
            return false;
        const block<unsigned char> value(static_cast<unsigned char *>(malloc(it.number)));
        if (!value) {
            error_ = ENOMEM;
            return false;
        }
        uint32_t key = 0;
        stored_record record;
        if (read_at(file_.fd, value.get(), it.number, found->offset) != 0)
            return false;
        memcpy(&key, value.get(), sizeof key);
        if (parse_record(name_checksum_, key, as_value(value.get(), it.number), &record) != 0)
            return false;
        found->key = key;
        found->generation = generation_of(record.handle);
        found->length = static_cast<uint32_t>(it.number);
        return true;
    }

    const damaged_file &file_;
    bytes name_;
    uint32_t name_checksum_;
    salvaged_database *database_;
    free_pages free_;
    page_set main_pages_, pages_;
    block<unsigned char> memory_;
    tree_root root_{};
    bool root_is_doubtful_ = true;
    bool is_damaged_ = false;
    uint64_t branches_ = 0, leaves_ = 0;
    int error_ = 0;
};

} // namespace

bool salvaged_records::add(const salvaged_record &record)
{
    if (count_ == capacity_) {
        const uint64_t capacity = capacity_ * 2 + 256;
        void *const grown = realloc(records_.get(), capacity * sizeof record);
        if (grown == nullptr)
            return false;
        static_cast<void>(records_.release());
        records_.reset(static_cast<salvaged_record *>(grown));
        capacity_ = capacity;
    }
    records_.get()[count_++] = record;
    return true;
}

void salvaged_records::sort()
{
    salvaged_record *const first = records_.get();
    std::sort(first, first + count_, [](const salvaged_record &left, const salvaged_record &right) {
        return left.key != right.key ? left.key < right.key : is_better(left, right);
    });
    salvaged_record *const last = std::unique(
        first, first + count_, [](const salvaged_record &left, const salvaged_record &right) {
            return left.key == right.key;
        });
    count_ = static_cast<uint64_t>(last - first);
}

int salvage_database(const damaged_file &file, const char *name, bool is_sound,
                     salvaged_database *database)
{
    return database_search(file, name, database).run(is_sound);
}

} // namespace platform
