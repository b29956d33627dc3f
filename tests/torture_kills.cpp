// Writers are killed one after the other while the rest continues, and the store is inspected when
// all are dead. Each has keys of its own, so what must be stored is certain down to the record.
#include "torture.h"

#include <atomic>
#include <cmath>
#include <csignal>

namespace torture {
namespace {

constexpr unsigned writers = 3, rounds_on_one_store = 10;
constexpr uint32_t key_range = 1u << 20; // of each writer

// What outlives a writer: the numbers of its last changes. And what an inspection found.
struct shared_progress {
    struct {
        std::atomic<uint64_t> started, acknowledged;
    } by[writers];
    finding found[writers];
};

struct totals {
    unsigned kills = 0, kept = 0, wrong = 0, failed = 0;
    uint64_t acknowledged = 0;

    bool all_well() const { return wrong + failed == 0; }
};

struct writer {
    uint32_t first_key;
    uint64_t seed;
    contents before, after;   // the change in flight, if there is one
    uint64_t last_change = 0; // the number of the last change that is in `before`
};

void take_job(const char *id) // so that all its incarnations share its trace buffers
{
    setenv("VS_JOB_ID", id, 1);
    alarm(patience);
    open_databases();
}

[[noreturn]] void write_on(writer self, shared_progress &progress, unsigned number)
{
    take_job(std::to_string(number + 1).c_str());
    for (;;) {
        alarm(patience);
        progress.by[number].started = ++self.last_change;
        const uint32_t status =
            change(self.seed + self.last_change, self.first_key, self.before, true);
        need(status == 0, "changing", status);
        progress.by[number].acknowledged = self.last_change;
    }
}

// Inspects twice, with a change between: a commit whose writer died just before it was published to
// the engine's other processes becomes visible with the next change.
void inspect(const writer (&all)[writers], shared_progress &progress, uint64_t seed)
{
    take_job("100");
    contents mine;
    for (const bool again : {false, true}) {
        contents found[writers + 1];
        for (const auto &[key, record] : stored())
            found[key.second / key_range - 1].emplace(key, record);
        for (unsigned i = 0; i < writers; ++i) {
            const finding was = progress.found[i];
            progress.found[i] = judge(found[i], all[i].before, all[i].after);
            if (again && was != finding::before && progress.found[i] != was)
                progress.found[i] = finding::wrong;
        }
        need(!again || found[writers] == mine, "the change after the kills");
        mine = found[writers];
        while (!again && mine == found[writers])
            need(change(seed++, (writers + 1) * key_range, mine, true) == 0, "one more change");
    }
}

void kill_all(dice &roll, const writer (&all)[writers], shared_progress &progress, totals &sum)
{
    pid_t pids[writers];
    for (unsigned i = 0; i < writers; ++i)
        pids[i] = start([&] { write_on(all[i], progress, i); });
    const unsigned first = roll.below(writers);
    for (unsigned left = writers; left != 0; --left) {
        const unsigned i = (first + left) % writers;
        const uint64_t acknowledged = progress.by[i].acknowledged;
        if (roll.below(4) != 0)
            sum.failed += !comes([&] { return progress.by[i].acknowledged != acknowledged; });
        usleep(static_cast<useconds_t>(std::pow(30'000, roll.below(1000) / 1000.0)));
        kill(pids[i], SIGKILL);
        sum.failed += finish(pids[i]) != 128 + SIGKILL;
        ++sum.kills;
    }
}

void check(writer (&all)[writers], shared_progress &progress, totals &sum)
{
    for (unsigned i = 0; i < writers; ++i) {
        writer &it = all[i];
        sum.acknowledged += progress.by[i].acknowledged - it.last_change;
        while (it.last_change < progress.by[i].acknowledged)
            change(it.seed + ++it.last_change, it.first_key, it.before, false);
        it.after = it.before;
        if (progress.by[i].started > it.last_change)
            change(it.seed + ++it.last_change, it.first_key, it.after, false);
    }
    sum.failed += in_child([&] { inspect(all, progress, uint64_t{sum.kills} << 32); }) != 0;
    for (unsigned i = 0; i < writers; ++i) {
        sum.wrong += progress.found[i] == finding::wrong;
        sum.kept += progress.found[i] == finding::after;
        if (progress.found[i] == finding::after)
            all[i].before = all[i].after;
        progress.by[i].acknowledged = all[i].last_change;
    }
}

} // namespace

bool kills(unsigned count, uint64_t seed)
{
    dice roll{seed};
    totals sum;
    while (sum.kills < count && sum.all_well()) {
        use_new_state("kills");
        auto &progress = shared<shared_progress>();
        writer all[writers];
        for (unsigned i = 0; i < writers; ++i)
            all[i] = {(i + 1) * key_range, uint64_t{roll()} << 32, {}, {}};
        // A process that keeps the reader table from being made anew. It starts after the first
        // round, in which the store is made under the kills.
        pid_t keeper = 0;
        for (unsigned round = 0; round < rounds_on_one_store && sum.kills < count; ++round) {
            kill_all(roll, all, progress, sum);
            check(all, progress, sum);
            if (!sum.all_well())
                break;
            if (keeper == 0)
                keeper = start([] {
                    take_job("101");
                    std::vector<words> any; // a record may go while they are listed
                    vskvs::objects.list(vskvs::objects.shape, any);
                    alarm(0);
                    pause();
                });
        }
        if (keeper != 0) {
            kill(keeper, SIGKILL);
            sum.failed += finish(keeper) != 128 + SIGKILL;
        }
    }
    printf("torture kills: %u kills, %llu acknowledged changes, %u kept in flight, %u lost or "
           "torn, %u failed (seed %llu)\n",
           sum.kills, static_cast<unsigned long long>(sum.acknowledged), sum.kept, sum.wrong,
           sum.failed, static_cast<unsigned long long>(seed));
    return sum.all_well();
}

} // namespace torture
