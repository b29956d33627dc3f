// Trace buffer files of arbitrary bytes, given to the reader and in some runs to the writer.
//
// An input is the number of records written; then for each slot its words, and whether claim and
// checksum are computed for them; then single bytes that are changed anywhere in the file.
#include "fuzz.h"
#include "platform/ringlog/format.h"

#include <fstream>
#include <iterator>
#include <string>
#include <time.h>

OWN_STATE_DIR(true);

// Waiting for a writer would only take time.
extern "C" int nanosleep(const timespec *, timespec *) { return 0; }

namespace {

using namespace platform;

constexpr uint32_t slots = 8;

// A valid buffer without records.
const std::string &valid_file()
{
    static const std::string file = [] {
        uint64_t handle = 0;
        need(ringlog_init2("valid", 0, 0, slots, slots, 0, &handle) == 0, "creating a buffer");
        std::ifstream from(own.path / "ringlog/valid", std::ios::binary);
        return std::string(std::istreambuf_iterator<char>(from), {});
    }();
    return file;
}

void fill(uint64_t *slot, uint64_t n, fuzz::reader &in)
{
    const auto how = in.next();
    for (unsigned i = 0; i < how % (slot_words + 1); ++i)
        slot[i] = in.next<uint64_t>() >> in.next() % 64;
    uint64_t text = 0;
    for (uint32_t i = 0; i < argument_count(slot[word_id]); ++i)
        text += is_string(slot[word_id], i) ? slot[word_arguments + i] % RINGLOG_SLOT_SIZE : 0;
    const uint32_t used = words_in_use(argument_count(slot[word_id]), text);
    if ((how & 64) != 0)
        slot[word_claim] = claim_complete(n);
    if ((how & 128) != 0 && used <= slot_words)
        slot[word_checksum] = record_checksum(slot, used, n);
}

// Reads all records; returns the identifier of the last one.
uint64_t read_all()
{
    ringlog_reader *reader = nullptr;
    ringlog_record record{};
    if (ringlog_open("fuzz", &reader) != 0)
        return 0;
    unsigned count = 0;
    while (ringlog_read(reader, &record) == 0) {
        need(++count <= slots, "more records than slots");
        need(std::memchr(record.process, 0, sizeof record.process), "the process's name");
        for (uint32_t i = 0; i < record.argument_count; ++i) {
            const char *const text = record.arguments[i].text;
            const char *const end = std::end(record.strings);
            need(text == nullptr || (text >= record.strings && text < end), "a string");
            need(text == nullptr || std::memchr(text, 0, static_cast<size_t>(end - text)),
                 "the end of a string");
        }
    }
    ringlog_close(reader);
    return record.id;
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzz::reader in{data, size};
    std::string file = valid_file();
    need(file.size() == file_size(slots), "the size of a buffer");
    const bool also_write = in.next() % 16 == 0;
    const uint64_t next = in.next<uint64_t>() >> in.next() % 64;
    memcpy(&file[offsetof(buffer_header, next)], &next, sizeof next);
    for (uint64_t n = next - slots; n != next; ++n) {
        uint64_t slot[slot_words] = {};
        fill(slot, n, in);
        memcpy(&file[slot_offset(n % slots)], slot, sizeof slot);
    }
    while (in.left != 0)
        file[in.next<uint16_t>() % file.size()] = static_cast<char>(in.next());
    std::ofstream(own.path / "ringlog/fuzz", std::ios::binary) << file;
    read_all();
    const auto write = [] {
        uint64_t handle = 0;
        const uint64_t id = 0x10200000077; // a string and a number
        need(ringlog_init2("fuzz", 0, 0, slots, slots, 0, &handle) == 0, "opening it");
        _ringlog_emit(handle, id, "text", UINT64_C(7));
        need(read_all() == id, "a new record is the last one");
    };
    need(!also_write || in_child(write) == 0, "the writer");
    return 0;
}
