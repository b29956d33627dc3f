// How the engine lays out its data file, as far as the file is read without the engine.
#pragma once

#include <cstddef>
#include <cstdint>

namespace platform {

static_assert(sizeof(size_t) == 8 && __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__,
              "the layouts below are those of 64-bit little-endian machines");

constexpr uint32_t file_magic = 0xBEEFC0DE;
constexpr uint32_t file_version = 1;
constexpr uint64_t no_page = ~uint64_t{0};
constexpr unsigned deepest_tree = 32;
constexpr uint32_t smallest_page = 512, largest_page = 32768;
constexpr size_t longest_name = 511;
constexpr uint64_t largest_file = uint64_t{1} << 47;

enum page_flag : uint16_t { branch_page = 1, leaf_page = 2, overflow_page = 4, meta_page = 8 };
enum tree_flag : uint16_t { number_keys = 8, no_directory = 0x4000 };
enum node_flag : uint16_t { overflow_data = 1, tree_data = 2 };

struct page_header {
    uint64_t number;
    uint16_t padding;
    uint16_t flags;
    uint16_t lower; // end of the node offsets, which follow this header
    uint16_t upper;
};

// Of a run of pages with one long value.
struct overflow_header {
    uint64_t number;
    uint16_t padding;
    uint16_t flags;
    uint32_t pages;
};

struct tree_root {
    uint32_t page_size; // in the first tree of a meta page
    uint16_t flags;
    uint16_t depth;
    uint64_t branch_pages, leaf_pages, overflow_pages, entries;
    uint64_t root;
};

struct meta_data {
    page_header page;
    uint32_t magic;
    uint32_t version;
    uint64_t address, map_size;
    tree_root trees[2]; // the free pages, and the main tree with all others below it
    uint64_t last_page;
    uint64_t transaction;
};

struct node_header {
    uint16_t low, high; // of the length of the data, or of a child's page number
    uint16_t flags;     // or the top of a child's page number
    uint16_t key_length;
};

static_assert(sizeof(page_header) == 16 && sizeof(tree_root) == 48 && sizeof(node_header) == 8);

} // namespace platform
