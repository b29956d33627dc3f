// The writing side of the trace buffers.
//
// A process keeps the buffers it has opened in a table that only grows; a handle is an index of it
// and a hash of the file, so that finding the buffer of a handle is one load, without a lock. A
// record is composed on the stack and copied into the slot that a shared counter assigns. No writer
// waits for another: one that was overtaken by a whole round drops its record, and the claim of one
// that was killed is replaced in the next round.
#include "platform/base/clock.h"
#include "platform/base/export.h"
#include "platform/base/interruption.h"
#include "platform/base/mutex.h"
#include "platform/base/process_end.h"
#include "platform/base/thread_identity.h"
#include "platform/base/utf8.h"
#include "platform/ringlog/buffer_file.h"
#include "platform/ringlog/fault_guard.h"
#include "platform/ringlog/format.h"
#include "platform/ringlog/mapping.h"
#include "ringlog.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <sys/mman.h>

namespace {

using namespace platform;

constexpr unsigned index_bits = 16;

// What a caller gets instead of a buffer that there is no space for: its records are dropped.
constexpr uint64_t handle_of_no_buffer = (1u << index_bits) - 1;
static_assert(handle_of_no_buffer - 1 >= max_buffers);

pthread_mutex_t table_mutex = PTHREAD_MUTEX_INITIALIZER;
bool lock_survives_fork = false;

// The short name of the process, as the words of its records.
uint64_t process_name[process_name_size / sizeof(uint64_t)];

__attribute__((constructor)) void prepare_writing()
{
    const char *const name = program_invocation_short_name;
    const size_t length = strnlen(name, process_name_size - 1);
    memcpy(process_name, name, whole_characters(name, length));
    lock_survives_fork = keep_across_fork<table_mutex>() == 0;
}

mapped_buffer *find_buffer(uint64_t handle)
{
    const uint64_t index = (handle & ((1u << index_bits) - 1)) - 1;
    if (index >= max_buffers)
        return nullptr;
    mapped_buffer &buffer = buffers[index];
    return buffer.handle.load(std::memory_order_acquire) == handle ? &buffer : nullptr;
}

// Returns the number of slots for the requested records and bytes of contents; 0 if the request is
// zero or too large.
uint32_t slots_for(uint32_t size_1, uint32_t size_2)
{
    const uint32_t records = std::min(size_1, size_2);
    const uint32_t bytes = std::max(size_1, size_2);
    const uint32_t for_bytes = (bytes - 1) / string_capacity(0) + 1;
    const uint32_t slots = std::max(records, for_bytes);
    return records == 0 || slots > max_slots ? 0 : slots;
}

[[nodiscard]] uint32_t map_buffer(const buffer_file &file, uint32_t index, uint64_t &handle)
{
    install_fault_guard();
    const uint64_t slot_count = file.header.slot_count;
    void *const mapping =
        mmap(nullptr, file_size(slot_count), PROT_READ | PROT_WRITE, MAP_SHARED, file.fd.get(), 0);
    if (mapping == MAP_FAILED)
        return log_file_error("cannot map", "its file", errno);
    const uint64_t origin[] = {file.device, file.inode, file.header.created_ns};
    handle = checksum(origin, std::size(origin), index) << index_bits | (index + 1);
    mapped_buffer &buffer = buffers[index];
    buffer.allocated.store(file.allocated, std::memory_order_relaxed);
    buffer.mapping = static_cast<std::byte *>(mapping);
    buffer.slot_count = slot_count;
    buffer.device = file.device;
    buffer.inode = file.inode;
    buffer.created_ns = file.header.created_ns;
    buffer.handle.store(handle, std::memory_order_release);
    return 0;
}

[[nodiscard]] uint32_t open_buffer_handle(const char *name, uint32_t slot_count, uint64_t &handle)
{
    const scoped_lock lock(table_mutex);
    if (!lock_survives_fork)
        lock_survives_fork = keep_across_fork<table_mutex>() == 0;
    if (!lock_survives_fork)
        return RINGLOG_RC_NO_MEMORY;
    buffer_file file{};
    if (const uint32_t status = open_or_create_buffer(name, slot_count, file); status != 0)
        return status;
    for (uint32_t index = 0; index < max_buffers; ++index) {
        const mapped_buffer &buffer = buffers[index];
        handle = buffer.handle.load(std::memory_order_relaxed);
        if (handle == 0)
            return map_buffer(file, index, handle);
        if (buffer.device == file.device && buffer.inode == file.inode &&
            buffer.created_ns == file.header.created_ns)
            return 0;
    }
    return RINGLOG_RC_TOO_MANY;
}

struct text_span {
    const char *text;
    uint64_t length;
};

// Truncates the longest of the texts, which together exceed the capacity, until they fit. Each gets
// an equal share, and the unused parts of the shares of short ones are divided among the others.
__attribute__((noinline)) void truncate_texts(text_span *texts, uint32_t count, uint64_t capacity)
{
    uint64_t share = capacity / count;
    for (uint64_t raised = share;; share = raised) {
        uint64_t left = capacity;
        uint64_t longer = 0;
        for (uint32_t i = 0; i < count; ++i) {
            if (texts[i].length > share)
                ++longer;
            else
                left -= texts[i].length;
        }
        raised = left / longer;
        if (raised == share)
            break;
    }
    for (uint32_t i = 0; i < count; ++i)
        if (texts[i].length > share)
            texts[i].length = whole_characters(texts[i].text, share);
}

void fill_origin(uint64_t *words)
{
    const thread_identity thread = this_thread();
    words[word_time] = clock_ns(CLOCK_REALTIME);
    words[word_thread] =
        uint64_t{static_cast<uint32_t>(thread.pid)} << 32 | static_cast<uint32_t>(thread.tid);
    words[word_process] = process_name[0];
    words[word_process + 1] = process_name[1];
}

// Replaces string arguments by the lengths of their texts, and copies the texts behind the
// arguments. Returns the number of bytes copied.
uint64_t copy_texts(uint64_t *words, uint64_t id, const text_span *next)
{
    const uint32_t count = argument_count(id);
    char *const strings = reinterpret_cast<char *>(words + word_arguments + count);
    char *end = strings;
    for (uint32_t i = 0; i < count; ++i) {
        if (!is_string(id, i))
            continue;
        words[word_arguments + i] = next->length;
        memcpy(end, next->text, next->length);
        end += next->length;
        ++next;
    }
    const auto bytes = static_cast<uint64_t>(end - strings);
    memset(end, 0, -bytes % sizeof(uint64_t));
    return bytes;
}

// Fills the words of a record from the time on; returns the number in use.
uint32_t compose_record(uint64_t *words, uint64_t id, va_list arguments)
{
    fill_origin(words);
    words[word_id] = id;
    const uint32_t count = argument_count(id);
    const uint64_t capacity = string_capacity(count);
    text_span texts[RINGLOG_MAX_ARGS];
    uint32_t text_count = 0;
    uint64_t total = 0;
    for (uint32_t i = 0; i < count; ++i) {
        const uint64_t argument = va_arg(arguments, uint64_t);
        words[word_arguments + i] = argument;
        if (!is_string(id, i))
            continue;
        const auto *text = reinterpret_cast<const char *>(argument);
        if (text == nullptr)
            text = "(null)";
        const uint64_t length = strnlen(text, capacity + 1);
        total += length;
        texts[text_count++] = {text, length};
    }
    if (total > capacity)
        truncate_texts(texts, text_count, capacity);
    return words_in_use(count, copy_texts(words, id, texts));
}

uint64_t *slot_of(const mapped_buffer &buffer, uint64_t n)
{
    return reinterpret_cast<uint64_t *>(buffer.mapping + slot_offset(n % buffer.slot_count));
}

std::atomic_ref<uint64_t> next_of(const mapped_buffer &buffer)
{
    return std::atomic_ref(reinterpret_cast<buffer_header *>(buffer.mapping)->next);
}

// Allocates the sequence number of a record and prefetches its slot while the record is composed.
// The counter is incremented without a load before: its cache line, which all writers change, would
// otherwise move between the processors twice.
uint64_t next_sequence(const mapped_buffer &buffer)
{
    const uint64_t n = next_of(buffer).fetch_add(1, std::memory_order_relaxed);
    const uint64_t *const slot = slot_of(buffer, n);
    __builtin_prefetch(slot, 1);
    __builtin_prefetch(slot + slot_words / 4, 1);
    return n;
}

void store_record(const mapped_buffer &buffer, uint64_t n, uint64_t *words, uint32_t used)
{
    words[word_checksum] = record_checksum(words, used, n);

    uint64_t *const slot = slot_of(buffer, n);
    const std::atomic_ref claim(slot[word_claim]);
    claim.store(claim_writing(n), std::memory_order_relaxed);
    // Each is a release store, so that a reader that sees one of them also sees the claim.
    for (uint32_t i = word_checksum; i < used; ++i)
        std::atomic_ref(slot[i]).store(words[i], std::memory_order_release);
    // A writer that was suspended for a whole round has lost its slot. If it loses it between the
    // load and the store, the checksum shows that the record is not whole.
    if (claim.load(std::memory_order_relaxed) == claim_writing(n))
        claim.store(claim_complete(n), std::memory_order_release);
}

} // namespace

PLATFORM_EXPORT uint32_t ringlog_init2(const char *name, uint32_t, uint32_t, uint32_t size_1,
                                       uint32_t size_2, uint32_t, uint64_t *handle_p)
{
    if (name == nullptr || handle_p == nullptr)
        return RINGLOG_RC_NULL_ARG;
    const uint32_t slot_count = slots_for(size_1, size_2);
    if (slot_count == 0)
        return RINGLOG_RC_BAD_SIZE;
    watch_process_end();
    const interruption_guard guard;
    uint64_t handle = 0;
    uint32_t status = open_buffer_handle(name, slot_count, handle);
    if (status == RINGLOG_RC_NO_SPACE) {
        handle = handle_of_no_buffer;
        status = 0;
    }
    if (status == 0)
        std::atomic_ref(*handle_p).store(handle, std::memory_order_release);
    return status;
}

PLATFORM_EXPORT void _ringlog_emit(uint64_t handle, uint64_t id, ...)
{
    mapped_buffer *const buffer = find_buffer(handle);
    if (buffer == nullptr)
        return;
    const uint64_t n = next_sequence(*buffer);
    // A record that finds no space has a sequence number, so that readers count it as skipped.
    if (!buffer->allocated.load(std::memory_order_relaxed)) [[unlikely]]
        if (!allocate_slots(*buffer))
            return;
    alignas(16) uint64_t words[slot_words];
    va_list arguments;
    va_start(arguments, id);
    const uint32_t used = compose_record(words, id, arguments);
    va_end(arguments);
    store_record(*buffer, n, words, used);
}
