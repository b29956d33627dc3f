#include "platform/kvs/journal.h"

#include "platform/base/crc32c.h"
#include "platform/kvs/file_layout.h"
#include "platform/kvs/page.h"
#include "platform/kvs/record_value.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <sys/random.h>
#include <unistd.h>

namespace platform {
namespace {

constexpr uint64_t first_offset = sizeof(journal_header);

uint32_t checksum_of(const journal_header &header)
{
    return crc32c(0, &header, offsetof(journal_header, checksum));
}

uint32_t checksum_of(const journal_area &area, uint64_t offset, const unsigned char *entry,
                     uint32_t length)
{
    const uint64_t start[] = {area.salt, offset};
    return crc32c(crc32c(0, start, sizeof start), entry + sizeof(uint32_t),
                  length - sizeof(uint32_t));
}

bool is_plausible(const journal_area &area, uint64_t offset, const entry_header &header)
{
    return header.length >= sizeof header && header.length % entry_alignment == 0 &&
           header.length <= area.longest_entry() && header.length <= area.size - offset &&
           header.change_count != 0;
}

struct ring_range {
    uint64_t offset, end;
};

// Returns whether a whole entry lies at the beginning of a copied part of the ring.
bool is_whole(const journal_area &area, const unsigned char *bytes, ring_range range,
              entry_header *header)
{
    if (range.end - range.offset < sizeof *header)
        return false;
    memcpy(header, bytes, sizeof *header);
    return is_plausible(area, range.offset, *header) &&
           header->length <= range.end - range.offset &&
           header->checksum == checksum_of(area, range.offset, bytes, header->length);
}

// A write that is cut short is continued, which gives the reason.
[[nodiscard]] int write_at(int fd, const void *data, size_t length, uint64_t offset)
{
    const auto *next = static_cast<const unsigned char *>(data);
    while (length != 0) {
        const ssize_t written = pwrite(fd, next, length, static_cast<off_t>(offset));
        if (written <= 0)
            return written < 0 ? errno : EIO;
        const auto count = static_cast<size_t>(written);
        next += count;
        offset += count;
        length -= count;
    }
    return 0;
}

// Reads the entry at an offset of the ring; MDB_NOTFOUND if there is none with this sequence
// number.
[[nodiscard]] int read_entry(int fd, const journal_area &area, uint64_t offset, uint64_t sequence,
                             block<unsigned char> *entry)
{
    entry_header header;
    if (area.size - offset < sizeof header)
        return MDB_NOTFOUND;
    if (const int error = read_at(fd, &header, sizeof header, area.offset + offset); error != 0)
        return error;
    if (header.sequence != sequence || !is_plausible(area, offset, header))
        return MDB_NOTFOUND;
    entry->reset(static_cast<unsigned char *>(malloc(header.length)));
    if (*entry == nullptr)
        return ENOMEM;
    if (const int error = read_at(fd, entry->get(), header.length, area.offset + offset);
        error != 0)
        return error;
    const bool is_same = memcmp(entry->get(), &header, sizeof header) == 0 &&
                         header.checksum == checksum_of(area, offset, entry->get(), header.length);
    return is_same ? 0 : MDB_NOTFOUND;
}

// Moves `end` over the entries that lie in the next piece of the ring, as far as they are whole.
[[nodiscard]] int follow_in_piece(int fd, const journal_area &area, journal_end *end)
{
    constexpr uint64_t piece_size = 16 * 1024;
    const uint64_t start = end->offset;
    const uint64_t stop = start + std::min(piece_size, area.size - start);
    const block<unsigned char> piece(static_cast<unsigned char *>(malloc(stop - start)));
    if (piece == nullptr)
        return ENOMEM;
    if (const int error = read_at(fd, piece.get(), stop - start, area.offset + start); error != 0)
        return error;
    entry_header header;
    while (is_whole(area, piece.get() + (end->offset - start), {end->offset, stop}, &header) &&
           header.sequence == end->next_sequence)
        *end = end_behind(end->offset, header);
    return 0;
}

// Moves `end` over the entries that other processes wrote behind it.
[[nodiscard]] int follow(int fd, const journal_area &area, journal_end *end)
{
    block<unsigned char> entry;
    int error = read_next_entry(fd, area, end, &entry);
    while (error == 0)
        if ((error = follow_in_piece(fd, area, end)) == 0)
            error = read_next_entry(fd, area, end, &entry);
    return error == MDB_NOTFOUND ? 0 : error;
}

[[nodiscard]] int search(int fd, const journal_area &area, journal_end *end)
{
    block<unsigned char> ring;
    if (const int error = copy_ring(fd, area, &ring); error != 0)
        return error;
    *end = {};
    end->offset = first_offset;
    for_each_entry(area, ring.get(), [&](uint64_t offset, const entry_header &header) {
        if (header.sequence >= end->next_sequence)
            *end = end_behind(offset, header);
    });
    return 0;
}

// Where the engine has put the value: behind the header of its first page.
[[nodiscard]] int locate(int fd, uint32_t page_size, const MDB_val &value, journal_area *area)
{
    overflow_header page;
    memcpy(&page, static_cast<const unsigned char *>(value.mv_data) - sizeof page, sizeof page);
    if (page.flags != overflow_page || page.number > largest_file / page_size)
        return MDB_CORRUPTED;
    return read_area(fd, page.number * page_size + sizeof page, value.mv_size, area);
}

} // namespace

int create_journal(MDB_txn *txn, uint64_t size)
{
    journal_header header{};
    if (getrandom(&header.salt, sizeof header.salt, 0) != sizeof header.salt)
        return EIO;
    header.size = size;
    header.checksum = checksum_of(header);
    MDB_dbi main = 0;
    if (const int error = mdb_dbi_open(txn, nullptr, 0, &main); error != 0)
        return error;
    MDB_val name = as_value(journal_name, sizeof journal_name - 1);
    MDB_val value{size, nullptr};
    if (const int error = mdb_put(txn, main, &name, &value, MDB_RESERVE | MDB_NOOVERWRITE);
        error != 0)
        return error;
    memset(value.mv_data, 0, size);
    memcpy(value.mv_data, &header, sizeof header);
    return 0;
}

int read_area(int fd, uint64_t offset, uint64_t size, journal_area *area)
{
    journal_header header;
    if (const int error = read_at(fd, &header, sizeof header, offset); error != 0)
        return error;
    if (header.checksum != checksum_of(header) || header.size != size ||
        header.size < least_journal_size || header.size > largest_journal_size)
        return MDB_CORRUPTED;
    *area = {offset, header.size, header.salt};
    return 0;
}

int find_journal(MDB_txn *snapshot, const environment_info &info, journal_area *area)
{
    MDB_dbi main = 0;
    MDB_val name = as_value(journal_name, sizeof journal_name - 1);
    MDB_val value;
    int error = mdb_dbi_open(snapshot, nullptr, 0, &main);
    if (error == 0 && (error = mdb_get(snapshot, main, &name, &value)) == 0)
        error = locate(info.fd, info.page_size, value, area);
    return error == MDB_NOTFOUND ? MDB_CORRUPTED : error;
}

int read_next_entry(int fd, const journal_area &area, journal_end *end, block<unsigned char> *entry)
{
    uint64_t offset = end->offset;
    int error = read_entry(fd, area, offset, end->next_sequence, entry);
    // An entry is put at the beginning only if the end of the ring may have no room for it.
    if (error == MDB_NOTFOUND && area.size - offset < area.longest_entry()) {
        offset = first_offset;
        error = read_entry(fd, area, offset, end->next_sequence, entry);
    }
    if (error != 0)
        return error;
    entry_header header;
    memcpy(&header, entry->get(), sizeof header);
    *end = end_behind(offset, header);
    return 0;
}

int find_end(int fd, const journal_area &area, uint64_t last_commit, journal_end *end)
{
    if (end->offset != 0) {
        if (const int error = follow(fd, area, end); error != 0)
            return error;
        // Else the ring has been written around meanwhile, or a commit left no entry.
        if (end->last_transaction >= last_commit)
            return 0;
    }
    return search(fd, area, end);
}

int append_entry(int fd, const journal_area &area, const entry_origin &origin, unsigned char *entry,
                 journal_end *end)
{
    entry_header header;
    memcpy(&header, entry, sizeof header);
    const uint64_t offset = header.length <= area.size - end->offset ? end->offset : first_offset;
    header.sequence = end->next_sequence;
    header.transaction = origin.transaction;
    header.time = origin.time;
    header.author = origin.author;
    memcpy(entry, &header, sizeof header);
    header.checksum = checksum_of(area, offset, entry, header.length);
    memcpy(entry, &header, sizeof header);
    if (const int error = write_at(fd, entry, header.length, area.offset + offset); error != 0)
        return error;
    *end = end_behind(offset, header);
    return 0;
}

int strike_entry(int fd, const journal_area &area, uint64_t offset)
{
    const entry_header nothing{};
    const int error = write_at(fd, &nothing, sizeof nothing, area.offset + offset);
    return error != 0 || fdatasync(fd) == 0 ? error : errno;
}

int copy_ring(int fd, const journal_area &area, block<unsigned char> *ring)
{
    ring->reset(static_cast<unsigned char *>(malloc(area.size)));
    return *ring == nullptr ? ENOMEM : read_at(fd, ring->get(), area.size, area.offset);
}

bool is_entry(const journal_area &area, const unsigned char *ring, uint64_t offset,
              entry_header *header)
{
    return is_whole(area, ring + offset, {offset, area.size}, header);
}

} // namespace platform
