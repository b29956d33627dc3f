#include "platform/kvs/key_order.h"

#include "platform/kvs/record.h"

#include <algorithm>
#include <cstring>

namespace platform {
namespace {

// A key of 4 bytes, as those of records are, or of 8.
uint64_t number_in(bytes key)
{
    return key.size() == key_length ? read_from<uint32_t>(key, 0) : read_from<uint64_t>(key, 0);
}

int compare_keys(tree_kind kind, bytes left, bytes right)
{
    if (kind == tree_kind::main) {
        const int order = memcmp(left.data(), right.data(), std::min(left.size(), right.size()));
        return order != 0 ? order : (left.size() > right.size()) - (left.size() < right.size());
    }
    const uint64_t numbers[] = {number_in(left), number_in(right)};
    return (numbers[0] > numbers[1]) - (numbers[0] < numbers[1]);
}

bool is_key_of(tree_kind kind, bytes key)
{
    if (kind == tree_kind::main)
        return !key.empty() && key.size() <= longest_name;
    return key.size() == (kind == tree_kind::records ? key_length : sizeof(uint64_t));
}

} // namespace

// The first key of a branch page has no meaning.
bool are_in_order(tree_kind kind, const page_nodes &nodes, key_range range)
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

} // namespace platform
