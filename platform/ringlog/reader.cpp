// The reading side of the trace buffers.
//
// The file may be damaged, cut short, or written to during the read. A reader copies one slot at a
// time by a read of the file (a mapping would kill it if the file gets shorter) and returns a
// record only if the checksum fits all its words.
#include "platform/base/clock.h"
#include "platform/base/export.h"
#include "platform/ringlog/buffer_file.h"
#include "platform/ringlog/format.h"
#include "ringlog.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <new>
#include <unistd.h>

struct ringlog_reader {
    platform::descriptor fd;
    uint64_t slot_count;
    uint64_t position; // the record to be read next
    uint64_t end;      // the writers' counter, as last read
    uint64_t skipped;
};

namespace {

using namespace platform;

// How long, and in how many intervals, an incomplete record is waited for if later ones are
// complete; its writer may have been killed or stopped.
constexpr uint64_t wait_limit_ns = 20'000'000;
constexpr int max_waits = 20;

enum class slot_state { complete, pending, lost };

// Copies the slot of record `n`.
[[nodiscard]] uint32_t read_slot(const ringlog_reader &reader, uint64_t n,
                                 uint64_t (&words)[slot_words])
{
    const auto offset = static_cast<off_t>(slot_offset(n % reader.slot_count));
    const ssize_t length = pread(reader.fd.get(), words, sizeof words, offset);
    if (length < 0)
        return log_file_error("cannot read", "a record", errno);
    return static_cast<size_t>(length) == sizeof words ? 0 : RINGLOG_RC_DAMAGED;
}

// Returns the number of words in use according to the slot itself; 0 if that is impossible.
uint32_t words_of(const uint64_t *words)
{
    const uint64_t id = words[word_id];
    const uint32_t count = argument_count(id);
    uint64_t left = string_capacity(count);
    for (uint32_t i = 0; i < count; ++i) {
        const uint64_t length = is_string(id, i) ? words[word_arguments + i] : 0;
        if (length > left)
            return 0;
        left -= length;
    }
    return words_in_use(count, string_capacity(count) - left);
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

// Decodes a complete slot.
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

// Reads the writers' counter and skips the records that are overwritten.
[[nodiscard]] uint32_t refresh(ringlog_reader &reader)
{
    buffer_header header;
    if (const uint32_t status = read_header(reader.fd.get(), header); status != 0)
        return status;
    if (header.slot_count != reader.slot_count || header.next < reader.end)
        return RINGLOG_RC_DAMAGED;
    reader.end = header.next;
    if (reader.end - reader.position > reader.slot_count)
        skip_to(reader, reader.end - reader.slot_count);
    return 0;
}

// Called if the next record is incomplete. If a later one is complete, waits for an interval or,
// past the limit, skips to that one; if none is, there is no record to read for now.
[[nodiscard]] uint32_t resolve_gap(ringlog_reader &reader, int &waits)
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
                         words[word_time] + wait_limit_ns < clock_ns(CLOCK_REALTIME);
        if (old || waits == max_waits) {
            skip_to(reader, n);
        } else if (n != reader.position) {
            const timespec interval{0, wait_limit_ns / max_waits};
            nanosleep(&interval, nullptr);
            ++waits;
        }
        return 0;
    }
    return RINGLOG_RC_NO_RECORD;
}

} // namespace

PLATFORM_EXPORT uint32_t ringlog_open(const char *name, ringlog_reader **reader_pp)
{
    if (name == nullptr || reader_pp == nullptr)
        return RINGLOG_RC_NULL_ARG;
    buffer_file file{};
    if (const uint32_t status = open_existing_buffer(name, file); status != 0)
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
    for (int waits = 0;;) {
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
            status = resolve_gap(*reader, waits);
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
