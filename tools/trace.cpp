// The trace buffers of all processes, merged in the order of time.
//
// A buffer is opened, read to its end and closed, and what passes the filters is kept as text until
// it is sorted and printed. While buffers are followed, those that had records last stay open; the
// others are opened again, a few at a time, and read on from where they were.
#include "ringlog.h"
#include "tools/catalogue.h"
#include "tools/commands.h"

#include <algorithm>
#include <csignal>
#include <ctime>
#include <list>
#include <map>
#include <memory>
#include <poll.h>
#include <unistd.h>

namespace vskvs {
namespace {

constexpr uint64_t second = 1'000'000'000;
constexpr int poll_interval_ms = 100;

volatile std::sig_atomic_t is_interrupted = 0;

// How many buffers stay open while they are followed, and how many others are opened in between.
constexpr size_t most_open = 128;
constexpr size_t most_reopened = 256;

struct close_reader {
    void operator()(ringlog_reader *reader) const { ringlog_close(reader); }
};

struct buffer {
    std::unique_ptr<ringlog_reader, close_reader> reader; // null when it is closed
    uint64_t next = 0;                                    // the first record not yet read
    bool is_named = false;                                // by its name
    bool is_ended = false;                                // it could not be read
};

// A record as it is to be printed.
struct printed_record {
    uint64_t time_ns;
    std::string text;
};

// Local time as 2026-11-22 22:07:31, followed by the given number of digits of the second.
std::string time_text(uint64_t time_ns, const char *format, int digits)
{
    const auto seconds = static_cast<std::time_t>(time_ns / second);
    tm parts{};
    localtime_r(&seconds, &parts);
    char date[64], fraction[16], zone[16] = "";
    std::strftime(date, sizeof date, format, &parts);
    snprintf(fraction, sizeof fraction, "%09llu",
             static_cast<unsigned long long>(time_ns % second));
    if (digits == 9)
        std::strftime(zone, sizeof zone, "%z", &parts);
    return std::string(date) + "." + std::string(fraction, static_cast<size_t>(digits)) + zone;
}

// The printed form of a record, empty if another operation is selected.
std::string text_of(const ringlog_record &record, const std::string &name, const arguments &given)
{
    const trace_sentence shown = decode(record);
    if (!given.operation.empty() && shown.operation != given.operation)
        return {};
    if (given.as_json)
        return json_text({{"time", time_text(record.time_ns, "%Y-%m-%dT%H:%M:%S", 9)},
                          {"process", record.process},
                          {"pid", record.pid},
                          {"tid", record.tid},
                          {"buffer", name},
                          {"sequence", record.sequence},
                          {"id", hex(record.id)},
                          {"message_id", static_cast<uint32_t>(record.id)},
                          {"operation", shown.operation},
                          {"text", shown.sentence},
                          {"facts", shown.facts}});
    return time_text(record.time_ns, "%Y-%m-%d %H:%M:%S", 6) + "  " + printable(record.process) +
           "[" + std::to_string(record.pid) + "]  " + printable(name) + "  " +
           bold(printable(shown.operation)) + ": " + printable(shown.sentence);
}

class viewer {
public:
    explicit viewer(const arguments &given) : given_(given)
    {
        for (const std::string &name : given.buffers)
            add(name, true);
    }

    // Prints the records that came since the last call.
    void print_new()
    {
        const std::vector<named_buffer *> open(open_.begin(), open_.end());
        for (named_buffer *const one : open)
            read_on(*one);
        if (given_.follow)
            reopen_some();
        if (given_.buffers.empty())
            add_new_buffers();
        std::ranges::stable_sort(records_, {}, &printed_record::time_ns);
        for (const printed_record &record : records_)
            print(record.text + "\n");
        records_.clear();
        flush();
    }

    // Throws when a buffer could not be read.
    void finish() const
    {
        if (damaged_ != 0)
            throw failure(counted(damaged_, "trace buffer") + " could not be read");
    }

private:
    using named_buffer = std::map<std::string, buffer>::value_type;

    void add(const std::string &name, bool is_named)
    {
        const auto [at, is_new] = buffers_.try_emplace(name);
        if (!is_new)
            return;
        at->second.is_named = is_named;
        read_on(*at);
    }

    // A buffer that was set aside as damaged is read only when it is named.
    void add_new_buffers()
    {
        std::vector<std::string> names;
        const uint32_t status = ringlog_list(
            [](const char *name, void *context) {
                static_cast<std::vector<std::string> *>(context)->push_back(name);
                return 0;
            },
            &names);
        require(status, "trace buffers");
        const std::string job =
            given_.job ? "install/vs/kvs/" + std::to_string(static_cast<int32_t>(*given_.job)) + "/"
                       : "";
        for (const std::string &name : names)
            if (name.starts_with(job) && !name.ends_with(".damaged"))
                add(name, false);
    }

    // Reads on in the closed buffers that are next in the order of names.
    void reopen_some()
    {
        auto at = buffers_.upper_bound(last_reopened_);
        for (size_t i = std::min(most_reopened, buffers_.size()); i > 0; --i, ++at) {
            if (at == buffers_.end())
                at = buffers_.begin();
            last_reopened_ = at->first;
            if (at->second.reader == nullptr && !at->second.is_ended)
                read_on(*at);
        }
    }

    void read_on(named_buffer &one)
    {
        auto &[name, from] = one;
        const bool was_open = from.reader != nullptr;
        const uint64_t first = from.next;
        const uint32_t status = read_records(name, from);
        if (status == RINGLOG_RC_NO_SUCH_BUFFER && !from.is_named) {
            from.next = 0; // it was removed, and may be made anew
        } else if (status != 0) {
            from.is_ended = true;
            give_up(name, status);
        }
        if (!given_.follow || status != 0)
            close(one);
        else if (from.next != first)
            keep_open(one);
        else if (!was_open)
            from.reader.reset();
    }

    uint32_t read_records(const std::string &name, buffer &from)
    {
        if (from.reader == nullptr) {
            ringlog_reader *reader = nullptr;
            if (const uint32_t status = ringlog_open(name.c_str(), &reader); status != 0)
                return status;
            from.reader.reset(reader);
        }
        ringlog_record record;
        uint64_t latest = 0; // keeps the records of a buffer in their order
        for (;;) {
            const uint32_t status = ringlog_read(from.reader.get(), &record);
            if (status != 0)
                return status == RINGLOG_RC_NO_RECORD ? 0 : status;
            if (record.sequence < from.next)
                continue;
            from.next = record.sequence + 1;
            if (static_cast<int64_t>(record.time_ns) >= given_.since) {
                latest = std::max(latest, record.time_ns);
                if (std::string text = text_of(record, name, given_); !text.empty())
                    records_.push_back({latest, std::move(text)});
            }
        }
    }

    void keep_open(named_buffer &one)
    {
        open_.remove(&one);
        open_.push_front(&one);
        if (open_.size() > most_open)
            close(*open_.back());
    }

    void close(named_buffer &one)
    {
        open_.remove(&one);
        one.second.reader.reset();
    }

    void give_up(const std::string &name, uint32_t status)
    {
        ++damaged_;
        flush();
        complain("trace buffer " + name + ": " + describe(status));
    }

    const arguments &given_;
    std::map<std::string, buffer> buffers_;
    std::list<named_buffer *> open_; // while following; the one that gave a record last is first
    std::string last_reopened_;
    std::vector<printed_record> records_;
    size_t damaged_ = 0;
};

// Nothing is written to standard output during the wait, so its loss of the reader is detected
// here.
void wait_for_records()
{
    pollfd output{STDOUT_FILENO, 0, 0};
    if (poll(&output, 1, poll_interval_ms) > 0 && (output.revents & POLLERR) != 0)
        throw failure("standard output: its reader is gone");
}

} // namespace

void trace(const arguments &given)
{
    viewer view(given);
    view.print_new();
    if (given.follow) {
        struct sigaction action {};
        action.sa_handler = [](int) { is_interrupted = 1; };
        sigaction(SIGINT, &action, nullptr);
        sigaction(SIGTERM, &action, nullptr);
        while (!is_interrupted) {
            wait_for_records();
            view.print_new();
        }
    }
    view.finish();
}

} // namespace vskvs
