#include "platform/kvs/journal_entry.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace platform {
namespace {

constexpr size_t first_capacity = 4096;

constexpr size_t aligned(size_t length)
{
    return (length + entry_alignment - 1) / entry_alignment * entry_alignment;
}

size_t length_of(const change_header &header)
{
    return aligned(sizeof header + header.name_length + size_t{header.old_kept} +
                   header.new_length);
}

} // namespace

bool next_change(const unsigned char *entry, size_t *offset, journal_change *change)
{
    entry_header whole;
    memcpy(&whole, entry, sizeof whole);
    if (*offset > whole.length || whole.length - *offset < sizeof(change_header))
        return false;
    const unsigned char *const begin = entry + *offset;
    change_header &header = change->header;
    memcpy(&header, begin, sizeof header);
    if (header.length != length_of(header) || header.length > whole.length - *offset)
        return false;
    const unsigned char *const name = begin + sizeof header;
    change->name = reinterpret_cast<const char *>(name);
    change->old_bytes = name + header.name_length;
    change->new_bytes = change->old_bytes + header.old_kept;
    *offset += header.length;
    return true;
}

void entry_builder::reset(size_t limit)
{
    used_ = sizeof(entry_header);
    limit_ = limit;
    change_count_ = 0;
    is_summary_ = false;
    database_count_ = 0;
}

void entry_builder::add(change_kind kind, const char *database, uint64_t handle,
                        const changed_bytes &before, const changed_bytes &after)
{
    count_change(database, handle);
    if (is_summary_)
        return;
    change_header header{};
    header.kind = kind;
    header.name_length = static_cast<uint8_t>(strlen(database));
    header.handle = handle;
    header.count = 1;
    header.old_length = static_cast<uint32_t>(before.length);
    header.old_kept = static_cast<uint32_t>(std::min(before.length, longest_kept_old));
    header.new_length = static_cast<uint32_t>(after.length);
    const size_t length = length_of(header);
    header.length = static_cast<uint32_t>(length);
    if (length > limit_ - used_ || !ensure_room(length)) {
        is_summary_ = true;
        return;
    }
    append(header, database, before.data, after.data);
}

unsigned char *entry_builder::finish()
{
    if (is_summary_ && !write_summaries())
        return nullptr;
    entry_header header{};
    header.length = static_cast<uint32_t>(used_);
    header.change_count = is_summary_ ? database_count_ : static_cast<uint32_t>(change_count_);
    header.is_summary = is_summary_;
    memcpy(bytes_, &header, sizeof header);
    return bytes_;
}

void entry_builder::count_change(const char *database, uint64_t handle)
{
    ++change_count_;
    const auto end = databases_ + database_count_;
    auto *const found = std::find_if(
        databases_, end, [&](const auto &other) { return strcmp(other.name, database) == 0; });
    if (found == databases_ + database_limit)
        return;
    if (found == end) {
        ++database_count_;
        strcpy(found->name, database);
        found->first = handle;
        found->count = 0;
    }
    found->last = handle;
    ++found->count;
}

bool entry_builder::ensure_room(size_t length)
{
    if (length <= capacity_ - std::min(used_, capacity_))
        return true;
    const size_t wanted = std::max({first_capacity, 2 * capacity_, used_ + length});
    auto *const grown = static_cast<unsigned char *>(realloc(bytes_, wanted));
    if (grown == nullptr)
        return false;
    bytes_ = grown;
    capacity_ = wanted;
    return true;
}

void entry_builder::append(const change_header &header, const char *database, const void *before,
                           const void *after)
{
    unsigned char *to = bytes_ + used_;
    unsigned char *const end = to + header.length;
    const auto put = [&to](const void *data, size_t length) {
        if (length != 0)
            memcpy(to, data, length);
        to += length;
    };
    put(&header, sizeof header);
    put(database, header.name_length);
    put(before, header.old_kept);
    put(after, header.new_length);
    memset(to, 0, static_cast<size_t>(end - to));
    used_ += header.length;
}

bool entry_builder::write_summaries()
{
    used_ = sizeof(entry_header);
    if (!ensure_room(least_entry_limit))
        return false;
    for (unsigned i = 0; i < database_count_; ++i) {
        const database_summary &summary = databases_[i];
        change_header header{};
        header.kind = change_kind::summary;
        header.name_length = static_cast<uint8_t>(strlen(summary.name));
        header.handle = summary.first;
        header.last = summary.last;
        header.count = summary.count;
        header.length = static_cast<uint32_t>(length_of(header));
        append(header, summary.name, nullptr, nullptr);
    }
    return true;
}

} // namespace platform
