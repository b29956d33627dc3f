// The keys of the trees of a data file, and their order.
#pragma once

#include "platform/kvs/page.h"

namespace platform {

enum class tree_kind { free_pages, main, records };

// The keys of a subtree: from the first, and below the second unless that is empty.
struct key_range {
    bytes first, end;
};

// Returns whether the keys of a page are such as the tree has, in order, and in the range of its
// parent. The page's nodes must be sound.
[[nodiscard]] bool are_in_order(tree_kind kind, const page_nodes &nodes, key_range range);

} // namespace platform
