// The writing side of the trace buffers.
//
// A process keeps the buffers it has opened in a table that only grows; a handle is a place in it
// and a mark of the file, so that the way from a handle to its buffer is one look, without a lock.
// A record is put together on the stack and copied into the slot that a shared counter gives it.
// Nobody waits for anybody: a writer that was overtaken by a whole round gives up its record, and
// the claim of one that was killed is simply replaced in the next round.
#include "platform/base/clock.h"
#include "platform/base/export.h"
#include "platform/base/mutex.h"
#include "platform/base/thread_identity.h"
#include "platform/base/utf8.h"
#include "platform/process/loader_watch.h"
#include "platform/ringlog/buffer_file.h"
#include "platform/ringlog/format.h"
#include "ringlog.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <sys/mman.h>

namespace {

using namespace platform;

struct open_buffer {
    std::atomic<uint64_t> handle{0}; // 0 while the place is free; written last
    std::byte *mapping = nullptr;
    uint64_t slot_count = 0;
    dev_t device = 0;
    ino_t inode = 0;
};

constexpr uint32_t max_buffers = 256;
constexpr unsigned place_bits = 16;

constinit open_buffer buffers[max_buffers];
pthread_mutex_t table_mutex = PTHREAD_MUTEX_INITIALIZER;
bool lock_is_kept_across_fork = false;

// The short name of the process, as the words that stand in its records.
uint64_t process_name[process_name_size / sizeof(uint64_t)];

__attribute__((constructor)) void prepare_writing()
{
    const char *const name = program_invocation_short_name;
    const size_t length = strnlen(name, process_name_size - 1);
    memcpy(process_name, name, whole_characters(name, length));
    lock_is_kept_across_fork = keep_across_fork<table_mutex>() == 0;
}

open_buffer *buffer_of(uint64_t handle)
{
    const uint64_t place = (handle & ((1u << place_bits) - 1)) - 1;
    if (place >= max_buffers)
        return nullptr;
    open_buffer &buffer = buffers[place];
    return buffer.handle.load(std::memory_order_acquire) == handle ? &buffer : nullptr;
}

// How many slots hold as many records, and as many bytes of contents, as is asked for; 0 when that
// is nothing or too much.
uint32_t slots_for(uint32_t size_1, uint32_t size_2)
{
    const uint32_t records = std::min(size_1, size_2);
    const uint32_t bytes = std::max(size_1, size_2);
    const uint32_t for_bytes = (bytes - 1) / string_room(0) + 1;
    const uint32_t slots = std::max(records, for_bytes);
    return records == 0 || slots > max_slots ? 0 : slots;
}

uint32_t map_buffer(const ring_file &file, uint32_t place, uint64_t &handle)
{
    const uint64_t slot_count = file.header.slot_count;
    void *const mapping =
        mmap(nullptr, ring_size(slot_count), PROT_READ | PROT_WRITE, MAP_SHARED, file.fd.get(), 0);
    if (mapping == MAP_FAILED)
        return explain("cannot map", "its file", errno);
    const uint64_t origin[] = {file.device, file.inode, file.header.created_ns};
    handle = checksum(origin, std::size(origin), place) << place_bits | (place + 1);
    open_buffer &buffer = buffers[place];
    buffer.mapping = static_cast<std::byte *>(mapping);
    buffer.slot_count = slot_count;
    buffer.device = file.device;
    buffer.inode = file.inode;
    buffer.handle.store(handle, std::memory_order_release);
    return 0;
}

uint32_t open_buffer_handle(const char *name, uint32_t slot_count, uint64_t &handle)
{
    const scoped_lock lock(table_mutex);
    if (!lock_is_kept_across_fork)
        lock_is_kept_across_fork = keep_across_fork<table_mutex>() == 0;
    if (!lock_is_kept_across_fork)
        return RINGLOG_RC_NO_MEMORY;
    ring_file file{};
    if (const uint32_t status = open_or_make_ring(name, slot_count, file); status != 0)
        return status;
    for (uint32_t place = 0; place < max_buffers; ++place) {
        const open_buffer &buffer = buffers[place];
        handle = buffer.handle.load(std::memory_order_relaxed);
        if (handle == 0)
            return map_buffer(file, place, handle);
        if (buffer.device == file.device && buffer.inode == file.inode)
            return 0;
    }
    return RINGLOG_RC_TOO_MANY;
}

struct text_run {
    const char *text;
    uint64_t length;
};

// Shortens the longest of the texts, which together do not fit, so that all do. Each gets an equal
// share of the room, and what the short ones leave of theirs goes to the others.
__attribute__((noinline)) void cut_texts(text_run *texts, uint32_t count, uint64_t room)
{
    uint64_t share = room / count;
    for (uint64_t raised = share;; share = raised) {
        uint64_t left = room;
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

void put_process(uint64_t *words)
{
    const thread_identity thread = this_thread();
    words[word_time] = clock_ns(CLOCK_REALTIME);
    words[word_thread] =
        uint64_t{static_cast<uint32_t>(thread.pid)} << 32 | static_cast<uint32_t>(thread.tid);
    words[word_process] = process_name[0];
    words[word_process + 1] = process_name[1];
}

// Fills the words of a record from the time on; returns how many are in use.
uint32_t put_record(uint64_t *words, uint64_t id, va_list arguments)
{
    put_process(words);
    words[word_id] = id;
    const uint32_t count = argument_count(id);
    const uint64_t room = string_room(count);
    text_run texts[RINGLOG_MAX_ARGS];
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
        const uint64_t length = strnlen(text, room + 1);
        total += length;
        texts[text_count++] = {text, length};
    }
    if (total > room)
        cut_texts(texts, text_count, room);

    char *end = reinterpret_cast<char *>(words + word_arguments + count);
    char *const strings = end;
    const text_run *next = texts;
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
    return words_in_use(count, bytes);
}

uint64_t *slot_of(const open_buffer &buffer, uint64_t n)
{
    return reinterpret_cast<uint64_t *>(buffer.mapping + ring_size(n % buffer.slot_count));
}

std::atomic_ref<uint64_t> next_of(const open_buffer &buffer)
{
    return std::atomic_ref(reinterpret_cast<ring_header *>(buffer.mapping)->next);
}

// Gives a record its number, and asks for the memory of its slot, so that it is at hand by the time
// the record is put together. The number is taken first, because the line of the counter, which all
// writers change, would otherwise travel between the processors twice: once to be read, and once to
// be changed.
uint64_t take_number(const open_buffer &buffer)
{
    const uint64_t n = next_of(buffer).fetch_add(1, std::memory_order_relaxed);
    const uint64_t *const slot = slot_of(buffer, n);
    __builtin_prefetch(slot, 1);
    __builtin_prefetch(slot + slot_words / 4, 1);
    return n;
}

void store_record(const open_buffer &buffer, uint64_t n, uint64_t *words, uint32_t used)
{
    words[word_checksum] = record_checksum(words, used, n);

    uint64_t *const slot = slot_of(buffer, n);
    const std::atomic_ref claim(slot[word_claim]);
    claim.store(claim_writing(n), std::memory_order_relaxed);
    // Released each, so that nobody who sees one of them misses the claim.
    for (uint32_t i = word_checksum; i < used; ++i)
        std::atomic_ref(slot[i]).store(words[i], std::memory_order_release);
    // A writer that slept while the others went once round has lost its slot. Should it lose it at
    // this very moment, the checksum tells that the record under its number is not whole.
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
    uint64_t handle = 0;
    const uint32_t status = open_buffer_handle(name, slot_count, handle);
    if (status == 0)
        std::atomic_ref(*handle_p).store(handle, std::memory_order_release);
    return status;
}

PLATFORM_EXPORT void _ringlog_emit(uint64_t handle, uint64_t id, ...)
{
    const open_buffer *const buffer = buffer_of(handle);
    if (buffer == nullptr)
        return;
    const uint64_t n = take_number(*buffer);
    alignas(16) uint64_t words[slot_words];
    va_list arguments;
    va_start(arguments, id);
    const uint32_t used = put_record(words, id, arguments);
    va_end(arguments);
    store_record(*buffer, n, words, used);
}
