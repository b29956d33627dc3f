// The store's journal: what was changed, when, by whom.
#include "tools/changes.h"
#include "tools/commands.h"
#include "tools/values.h"

#include <csignal>
#include <deque>
#include <map>
#include <memory>
#include <poll.h>
#include <pwd.h>
#include <thread>
#include <unistd.h>

namespace vskvs {
namespace {

constexpr uint32_t longest_wait_ms = 3'600'000;
constexpr int64_t microsecond = 1000;     // what is printed of a time, and compared
constexpr uint64_t tool_job = UINT32_MAX; // of the tool itself, when it is no job

volatile std::sig_atomic_t is_interrupted = 0;

struct close_journal {
    void operator()(kvs_journal *journal) const { kvs_journal_close(journal); }
};
using journal = std::unique_ptr<kvs_journal, close_journal>;

// The changes that were read, and how many are missing among them.
struct extent {
    uint64_t first = 0; // 0 if there is none
    uint64_t first_time = 0;
    uint64_t last = 0;
    uint64_t gone_before = 0;
    uint64_t gone_between = 0;
};

journal open_journal(const char *command, uint64_t first)
{
    kvs_journal *opened = nullptr;
    require(kvs_journal_open(bind(*databases[0], command), first, &opened), command);
    return journal(opened);
}

// Returns false at the end.
bool read_next(kvs_journal *from, kvs_change *change)
{
    const uint32_t status = kvs_journal_next(from, change);
    if (status == KVS_RC_NO_CHANGE)
        return false;
    require(status, "journal");
    return true;
}

// A summary may be about any record of its database.
bool is_about(const kvs_change &change, uint32_t key)
{
    return change.kind == KVS_CHANGE_SUMMARY || key_of(change.handle) == key;
}

bool is_asked_for(const kvs_change &change, const arguments &given)
{
    const auto time = static_cast<int64_t>(change.time) / microsecond;
    const database *const db = database_of(change);
    if (given.job && change.job != *given.job)
        return false;
    if (given.object && (db == nullptr || !db->key_is_object || !is_about(change, *given.object)))
        return false;
    if (given.registration && (db != &registrations || !is_about(change, *given.registration)))
        return false;
    return time >= given.since / microsecond && time <= given.until / microsecond;
}

class change_printer {
public:
    explicit change_printer(const arguments &given) : given_(given) {}

    std::string line_of(const kvs_change &change)
    {
        const std::string &user = user_name(change.user);
        if (given_.as_json)
            return json_text(to_json(change, user)) + "\n";
        const change_text text = describe(change);
        const bool is_job = change.job != 0 && change.job != tool_job;
        return utc_time(change.time, 6) + "  " + printable(change.process_p) + "[" +
               std::to_string(change.pid) + "]" +
               (is_job ? " job " + std::to_string(change.job) : "") + " user " + printable(user) +
               "  " + bold(printable(text.subject)) + printable(text.what) + "\n";
    }

    // Says which changes there are; as JSON with the rest, else on standard error.
    void print_extent(const extent &of) const
    {
        if (given_.as_json)
            return print_line({{"gap",
                                {{"first", of.first},
                                 {"last", of.last},
                                 {"gone_before", of.gone_before},
                                 {"gone_between", of.gone_between}}}});
        flush();
        if (of.first == 0)
            return complain("the journal has no changes");
        std::string text = "changes " + std::to_string(of.first) + " to " +
                           std::to_string(of.last) + ", since " + utc_time(of.first_time, 6);
        if (of.gone_before != 0)
            text += "; " + std::to_string(of.gone_before) + " before them are gone";
        if (of.gone_between != 0)
            text += "; " + std::to_string(of.gone_between) + " between them are gone";
        if (of.gone_before == 0 && of.gone_between == 0)
            text += "; none is gone";
        complain(text);
    }

private:
    const std::string &user_name(uint32_t id)
    {
        const auto [at, is_new] = users_.try_emplace(id);
        if (is_new) {
            const passwd *const found = getpwuid(id);
            at->second = found != nullptr ? found->pw_name : std::to_string(id);
        }
        return at->second;
    }

    const arguments &given_;
    std::map<uint32_t, std::string> users_;
};

// Prints all changes there are, the last ones of them, or from the last one on.
extent print_history(kvs_journal *from, const arguments &given, change_printer &printer)
{
    const bool is_kept = given.limit || given.reverse;
    std::deque<std::string> kept;
    extent seen;
    kvs_change change;
    while (read_next(from, &change)) {
        if (seen.first == 0)
            seen = {change.sequence, change.time, change.sequence, change.sequence - 1, 0};
        else
            seen.gone_between += change.sequence - seen.last - 1;
        seen.last = change.sequence;
        if (!is_asked_for(change, given))
            continue;
        if (!is_kept) {
            print(printer.line_of(change));
            continue;
        }
        kept.push_back(printer.line_of(change));
        if (given.limit && kept.size() > *given.limit)
            kept.pop_front();
    }
    if (given.reverse)
        std::ranges::reverse(kept);
    for (const std::string &line : kept)
        print(line);
    printer.print_extent(seen);
    flush();
    return seen;
}

// A signal that comes right before a wait does not end it, so it is sent again.
void interrupt(int)
{
    is_interrupted = 1;
    alarm(1);
}

// The wait for a change does not notice that nobody reads standard output any more; a thread does,
// and ends the process as a write would.
void watch_output()
{
    sigset_t all, before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    std::thread([] {
        pollfd output{STDOUT_FILENO, 0, 0};
        while (poll(&output, 1, -1) < 0) {
        }
        if ((output.revents & (POLLERR | POLLHUP)) != 0)
            kill(getpid(), SIGPIPE);
    }).detach();
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    signal(SIGPIPE, SIG_DFL);
    for (const int number : {SIGINT, SIGTERM, SIGALRM}) {
        struct sigaction action {};
        action.sa_handler = interrupt;
        sigaction(number, &action, nullptr);
    }
}

// Prints the changes that come after the one numbered `last`, which is 0 if it is not known, until
// it is interrupted or `limit` of them are printed.
void follow(kvs_journal *from, const arguments &given, change_printer &printer, uint64_t last,
            std::optional<uint32_t> limit)
{
    uint64_t left = limit ? *limit : UINT64_MAX;
    kvs_change change;
    while (!is_interrupted && left != 0) {
        if (!read_next(from, &change)) {
            const uint32_t status = kvs_journal_wait(from, longest_wait_ms);
            require(status == KVS_RC_NO_CHANGE ? 0 : status, "journal");
            continue;
        }
        if (last != 0 && change.sequence != last + 1)
            printer.print_extent(
                {last, change.time, change.sequence, 0, change.sequence - last - 1});
        last = change.sequence;
        if (!is_asked_for(change, given))
            continue;
        print(printer.line_of(change));
        flush();
        --left;
    }
}

} // namespace

void log(const arguments &given)
{
    const journal from = open_journal("log", KVS_JOURNAL_OLDEST);
    change_printer printer(given);
    if (given.follow)
        watch_output();
    const extent seen = print_history(from.get(), given, printer);
    if (given.follow)
        follow(from.get(), given, printer, seen.last, {});
}

void watch(const arguments &given)
{
    const journal from = open_journal("watch", KVS_JOURNAL_NEXT);
    change_printer printer(given);
    watch_output();
    follow(from.get(), given, printer, 0, given.limit);
}

} // namespace vskvs
