// The reading side of the trace buffers.
//
// A reader trusts nothing it reads: the file may be damaged, cut short, or written to at this
// moment. It copies one slot at a time by a read of the file (a mapping would kill it when the file
// gets shorter) and shows a record only if the checksum vouches for every word of it.
#include "platform/base/clock.h"
#include "platform/base/export.h"
#include "platform/base/state_dir.h"
#include "platform/ringlog/buffer_file.h"
#include "platform/ringlog/format.h"
#include "ringlog.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <dirent.h>
#include <fcntl.h>
#include <memory>
#include <new>
#include <unistd.h>

struct ringlog_reader {
    platform::descriptor fd;
    uint64_t slot_count;
    uint64_t position; // the record to be read next
    uint64_t end;      // the writers' counter, as last seen
    uint64_t skipped;
};

namespace {

using namespace platform;

// A record that is being written is waited for when later ones are there already, but no longer
// than this: its writer may have been killed, or stopped.
constexpr uint64_t patience_ns = 20'000'000;
constexpr int max_naps = 20;

enum class slot_state { complete, pending, lost };

// Copies the slot of record `n`.
uint32_t read_slot(const ringlog_reader &reader, uint64_t n, uint64_t (&words)[slot_words])
{
    const auto offset = static_cast<off_t>(ring_size(n % reader.slot_count));
    const ssize_t length = pread(reader.fd.get(), words, sizeof words, offset);
    if (length < 0)
        return explain("cannot read", "a record", errno);
    return static_cast<size_t>(length) == sizeof words ? 0 : RINGLOG_RC_DAMAGED;
}

// How many words the record in a slot takes, by its own account; 0 when it cannot be right.
uint32_t words_of(const uint64_t *words)
{
    const uint64_t id = words[word_id];
    const uint32_t count = argument_count(id);
    uint64_t room = string_room(count);
    for (uint32_t i = 0; i < count; ++i) {
        const uint64_t length = is_string(id, i) ? words[word_arguments + i] : 0;
        if (length > room)
            return 0;
        room -= length;
    }
    return words_in_use(count, string_room(count) - room);
}

slot_state state_of(const uint64_t *words, uint64_t n)
{
    if (words[word_claim] < claim_complete(n))
        return slot_state::pending;
    const uint32_t used = words_of(words);
    const bool whole = words[word_claim] == claim_complete(n) && used != 0 &&
                       words[word_checksum] == record_checksum(words, used, n);
    return whole ? slot_state::complete : slot_state::lost;
}

// Takes apart a slot that is known to be complete.
void decode(const uint64_t *words, uint64_t n, ringlog_record &record)
{
    record = {};
    record.sequence = n;
    record.time_ns = words[word_time];
    record.id = words[word_id];
    record.pid = static_cast<int32_t>(words[word_thread] >> 32);
    record.tid = static_cast<int32_t>(words[word_thread] & UINT32_MAX);
    memcpy(record.process, words + word_process, sizeof record.process - 1);
    record.argument_count = argument_count(record.id);
    const auto *from =
        reinterpret_cast<const char *>(words + word_arguments + record.argument_count);
    char *to = record.strings;
    for (uint32_t i = 0; i < record.argument_count; ++i) {
        const uint64_t word = words[word_arguments + i];
        if (!is_string(record.id, i)) {
            record.arguments[i].number = word;
            continue;
        }
        record.arguments[i].text = to;
        memcpy(to, from, word);
        from += word;
        to += word + 1;
    }
}

void skip_to(ringlog_reader &reader, uint64_t position)
{
    reader.skipped += position - reader.position;
    reader.position = position;
}

// Looks where the writers are, and skips what they have overwritten.
uint32_t refresh(ringlog_reader &reader)
{
    ring_header header;
    if (const uint32_t status = read_header(reader.fd.get(), header); status != 0)
        return status;
    if (header.slot_count != reader.slot_count || header.next < reader.end)
        return RINGLOG_RC_DAMAGED;
    reader.end = header.next;
    if (reader.end - reader.position > reader.slot_count)
        skip_to(reader, reader.end - reader.slot_count);
    return 0;
}

// The record to be read next is not complete. If one after it is, waits a little, or gives it up
// with all others before that one; if none is, there is no record to read for now.
uint32_t pass_gap(ringlog_reader &reader, int &naps)
{
    if (const uint32_t status = refresh(reader); status != 0)
        return status;
    uint64_t words[slot_words];
    for (uint64_t n = reader.position; n != reader.end; ++n) {
        if (const uint32_t status = read_slot(reader, n, words); status != 0)
            return status;
        const slot_state state = state_of(words, n);
        if (state == slot_state::pending)
            continue;
        const bool old = state == slot_state::complete &&
                         words[word_time] + patience_ns < clock_ns(CLOCK_REALTIME);
        if (old || naps == max_naps) {
            skip_to(reader, n);
        } else if (n != reader.position) {
            const timespec nap{0, patience_ns / max_naps};
            nanosleep(&nap, nullptr);
            ++naps;
        }
        return 0;
    }
    return RINGLOG_RC_NO_RECORD;
}

// The names of all buffers, collected so that they can be put in order.
class name_list {
public:
    name_list() = default;
    name_list(const name_list &) = delete;
    name_list &operator=(const name_list &) = delete;
    ~name_list()
    {
        for (char **name = begin(); name != end(); ++name)
            free(*name);
        free(names_);
    }

    bool add(const char *name)
    {
        if (count_ == room_) {
            const size_t room = room_ * 2 + 16;
            void *const grown = realloc(names_, room * sizeof(char *));
            if (grown == nullptr)
                return false;
            names_ = static_cast<char **>(grown);
            room_ = room;
        }
        char *const copy = strdup(name);
        if (copy != nullptr)
            names_[count_++] = copy;
        return copy != nullptr;
    }

    char **begin() const { return names_; }
    char **end() const { return names_ + count_; }

private:
    char **names_ = nullptr;
    size_t count_ = 0;
    size_t room_ = 0;
};

struct close_folder {
    void operator()(DIR *folder) const { closedir(folder); }
};

// Adds the files in `fd` and the folders below it; `path` holds its name, of `length` bytes, with
// room for max_buffer_name.
uint32_t collect(descriptor fd, char *path, size_t length, name_list &names)
{
    const std::unique_ptr<DIR, close_folder> folder(fdopendir(fd.get()));
    if (folder == nullptr)
        return explain("cannot read the folder", path, errno);
    const int dir = fd.release();
    for (;;) {
        errno = 0;
        const dirent *const entry = readdir(folder.get());
        if (entry == nullptr)
            return errno == 0 ? 0 : explain("cannot read the folder", path, errno);
        const size_t name_length = strlen(entry->d_name);
        const size_t start = length == 0 ? 0 : length + 1;
        struct stat about;
        if (entry->d_name[0] == '.' || start + name_length > max_buffer_name ||
            fstatat(dir, entry->d_name, &about, AT_SYMLINK_NOFOLLOW) != 0)
            continue;
        if (length != 0)
            path[length] = '/';
        memcpy(path + start, entry->d_name, name_length + 1);
        uint32_t status = 0;
        if (S_ISREG(about.st_mode)) {
            status = names.add(path) ? 0 : RINGLOG_RC_NO_MEMORY;
        } else if (S_ISDIR(about.st_mode)) {
            descriptor below(open_folder_below(dir, entry->d_name, false));
            status = below.valid() ? collect(std::move(below), path, start + name_length, names)
                                   : explain("cannot open the folder", path, errno);
        }
        if (status != 0 && status != RINGLOG_RC_NO_SUCH_BUFFER)
            return status;
        path[length] = '\0';
    }
}

} // namespace

PLATFORM_EXPORT uint32_t ringlog_open(const char *name, ringlog_reader **reader_pp)
{
    if (name == nullptr || reader_pp == nullptr)
        return RINGLOG_RC_NULL_ARG;
    ring_file file{};
    if (const uint32_t status = open_ring(name, file); status != 0)
        return status;
    void *const memory = malloc(sizeof(ringlog_reader));
    if (memory == nullptr)
        return RINGLOG_RC_NO_MEMORY;
    const uint64_t end = file.header.next;
    const uint64_t start = end - std::min(end, file.header.slot_count);
    *reader_pp =
        new (memory) ringlog_reader{std::move(file.fd), file.header.slot_count, start, end, 0};
    return 0;
}

PLATFORM_EXPORT uint32_t ringlog_read(ringlog_reader *reader, ringlog_record *record_p)
{
    if (reader == nullptr || record_p == nullptr)
        return RINGLOG_RC_NULL_ARG;
    for (int naps = 0;;) {
        uint32_t status = 0;
        if (reader->position == reader->end && (status = refresh(*reader)) != 0)
            return status;
        if (reader->position == reader->end)
            return RINGLOG_RC_NO_RECORD;
        const uint64_t n = reader->position;
        uint64_t words[slot_words];
        if ((status = read_slot(*reader, n, words)) != 0)
            return status;
        switch (state_of(words, n)) {
        case slot_state::complete:
            decode(words, n, *record_p);
            ++reader->position;
            return 0;
        case slot_state::pending:
            status = pass_gap(*reader, naps);
            break;
        case slot_state::lost:
            skip_to(*reader, n + 1);
            status = refresh(*reader);
            break;
        }
        if (status != 0)
            return status;
    }
}

PLATFORM_EXPORT uint64_t ringlog_skipped(const ringlog_reader *reader)
{
    return reader != nullptr ? reader->skipped : 0;
}

PLATFORM_EXPORT void ringlog_close(ringlog_reader *reader)
{
    if (reader == nullptr)
        return;
    reader->~ringlog_reader();
    free(reader);
}

PLATFORM_EXPORT uint32_t ringlog_list(int (*each)(const char *name, void *context), void *context)
{
    if (each == nullptr)
        return RINGLOG_RC_NULL_ARG;
    descriptor root;
    uint32_t status = open_ring_root(false, root);
    name_list names;
    char path[max_buffer_name + 1] = {};
    if (status == 0)
        status = collect(std::move(root), path, 0, names);
    if (status != 0)
        return status == RINGLOG_RC_NO_SUCH_BUFFER ? 0 : status;
    std::sort(names.begin(), names.end(),
              [](const char *left, const char *right) { return strcmp(left, right) < 0; });
    for (const char *const name : names)
        if (each(name, context) != 0)
            break;
    return 0;
}
