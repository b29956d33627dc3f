// The trace buffers of all processes, merged in the order of time.
//
// A buffer's records come in the order in which their places were given out, which is that of time
// but for writers that were interrupted in between. So each buffer has one record waiting, and the
// earliest of those is printed next.
#include "ringlog.h"
#include "tools/catalogue.h"
#include "tools/commands.h"

#include <algorithm>
#include <csignal>
#include <ctime>
#include <map>
#include <memory>
#include <poll.h>
#include <sys/resource.h>
#include <unistd.h>

namespace vskvs {
namespace {

constexpr int64_t second = 1'000'000'000;
constexpr int poll_interval_ms = 100;

volatile std::sig_atomic_t is_interrupted = 0;

struct close_reader {
    void operator()(ringlog_reader *reader) const { ringlog_close(reader); }
};

// A record points into itself, so it stays where it was read.
struct buffer {
    std::string name;
    std::unique_ptr<ringlog_reader, close_reader> reader;
    std::unique_ptr<ringlog_record> record = std::make_unique<ringlog_record>();
    bool is_waiting = false; // whether the record is still to be printed
};

// Local time as 2026-11-22 22:07:31, followed by as many digits of the second as asked for.
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

class viewer {
public:
    explicit viewer(const arguments &given) : given_(given)
    {
        for (const std::string &name : given.buffers)
            open(name, true);
    }

    // Tells what there is; true when there was anything.
    bool tell_waiting()
    {
        if (given_.buffers.empty())
            open_new_buffers();
        bool printed = false;
        for (auto &[name, one] : buffers_)
            advance(one);
        while (buffer *const earliest = find_earliest()) {
            print_record(*earliest);
            advance(*earliest);
            printed = true;
        }
        flush();
        return printed;
    }

    // Throws when a buffer could not be read.
    void finish() const
    {
        if (damaged_ != 0)
            throw failure(counted(damaged_, "trace buffer") + " could not be read");
    }

private:
    void open(const std::string &name, bool is_asked_for)
    {
        if (buffers_.contains(name))
            return;
        ringlog_reader *reader = nullptr;
        const uint32_t status = ringlog_open(name.c_str(), &reader);
        if (status != 0 && (is_asked_for || status != RINGLOG_RC_NO_SUCH_BUFFER))
            give_up(name, status);
        buffer &one = buffers_[name];
        one.name = name;
        one.reader.reset(reader);
    }

    // A buffer that was set aside as damaged is read only when it is asked for.
    void open_new_buffers()
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
                open(name, false);
    }

    void give_up(const std::string &name, uint32_t status)
    {
        ++damaged_;
        flush();
        complain("trace buffer " + name + ": " + describe(status));
    }

    void advance(buffer &one)
    {
        while (one.reader && !one.is_waiting) {
            const uint32_t status = ringlog_read(one.reader.get(), one.record.get());
            if (status == RINGLOG_RC_NO_RECORD)
                return;
            if (status != 0) {
                give_up(one.name, status);
                one.reader.reset();
            } else {
                one.is_waiting = static_cast<int64_t>(one.record->time_ns) >= given_.since;
            }
        }
    }

    buffer *find_earliest()
    {
        buffer *earliest = nullptr;
        for (auto &[name, one] : buffers_)
            if (one.is_waiting && (!earliest || one.record->time_ns < earliest->record->time_ns))
                earliest = &one;
        return earliest;
    }

    void print_record(buffer &from)
    {
        const ringlog_record &record = *from.record;
        from.is_waiting = false;
        const trace_sentence shown = decode(record);
        if (!given_.operation.empty() && shown.operation != given_.operation)
            return;
        if (given_.as_json)
            return print_line({{"time", time_text(record.time_ns, "%Y-%m-%dT%H:%M:%S", 9)},
                               {"process", record.process},
                               {"pid", record.pid},
                               {"tid", record.tid},
                               {"buffer", from.name},
                               {"sequence", record.sequence},
                               {"id", hex(record.id)},
                               {"message_id", static_cast<uint32_t>(record.id)},
                               {"operation", shown.operation},
                               {"text", shown.sentence},
                               {"facts", shown.facts}});
        print(time_text(record.time_ns, "%Y-%m-%d %H:%M:%S", 6) + "  " + printable(record.process) +
              "[" + std::to_string(record.pid) + "]  " + from.name + "  " +
              bold(printable(shown.operation)) + ": " + printable(shown.sentence) + "\n");
    }

    const arguments &given_;
    std::map<std::string, buffer> buffers_;
    size_t damaged_ = 0;
};

// Nothing is written to standard output during the wait, so it looks whether there is still a
// reader.
void wait_a_moment()
{
    pollfd output{STDOUT_FILENO, 0, 0};
    if (poll(&output, 1, poll_interval_ms) > 0 && (output.revents & POLLERR) != 0)
        throw failure("standard output: nobody reads it any more");
}

// Each buffer is a descriptor, and there is one pair of buffers for each job that ever was.
void allow_many_descriptors()
{
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < limit.rlim_max) {
        limit.rlim_cur = limit.rlim_max;
        setrlimit(RLIMIT_NOFILE, &limit);
    }
}

} // namespace

void trace(const arguments &given)
{
    allow_many_descriptors();
    viewer view(given);
    view.tell_waiting();
    if (given.follow) {
        struct sigaction action {};
        action.sa_handler = [](int) { is_interrupted = 1; };
        sigaction(SIGINT, &action, nullptr);
        sigaction(SIGTERM, &action, nullptr);
        while (!is_interrupted) {
            wait_a_moment();
            view.tell_waiting();
        }
    }
    view.finish();
}

} // namespace vskvs
