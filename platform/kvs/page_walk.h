// The page trees of a data file, read without the engine.
#pragma once

#include "platform/kvs/file_layout.h"

namespace platform {

// The main tree has the format and the databases; it is a page or two. With the records their
// checksums are verified too.
enum class walk_extent { main_tree, pages, records };

// Checks the pages in use by the commit of this header, and the version of the format. The pages
// must not be written meanwhile. Returns 0, MDB_CORRUPTED, MDB_VERSION_MISMATCH if the store is of
// another format, or an error number.
[[nodiscard]] int check_pages(int fd, const meta_data &meta, walk_extent extent);

} // namespace platform
