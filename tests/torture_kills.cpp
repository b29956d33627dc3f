// Writers are killed one after the other while the rest goes on, and the store looked at when all
// are dead. Each has keys of its own, so what must be there is known to the record.
#include "torture.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <csignal>
#include <ctime>
#include <lmdb.h>
#include <string>

namespace torture {
namespace {

constexpr unsigned writers = 3, rounds_on_one_store = 30;
constexpr std::uint32_t key_range = 1u << 20; // of each writer

// What outlives a writer: its word about its changes, which are numbered. And what an inspection
// tells.
struct board {
    struct {
        std::atomic<std::uint64_t> started, acknowledged;
    } by[writers];
    finding found[writers];
    unsigned slots_left;
};

struct totals {
    unsigned kills = 0, kept = 0, lost = 0, torn = 0, slots_left = 0, failed = 0;
    std::uint64_t acknowledged = 0;

    bool all_well() const { return lost + torn + slots_left + failed == 0; }
};

struct writer {
    std::uint32_t first_key;
    std::uint64_t seed;
    contents before, after;  // the change in flight, if there is one
    std::uint64_t known = 0; // the number of the last change that is in `before`
};

void take_job(const char *id) // so that all its incarnations share its trace buffers
{
    setenv("VS_JOB_ID", id, 1);
    alarm(patience);
    open_databases();
}

[[noreturn]] void write_on(writer me, board &told, unsigned number)
{
    take_job(std::to_string(number + 1).c_str());
    for (;;) {
        alarm(patience);
        told.by[number].started = ++me.known;
        const std::uint32_t status = change(me.seed + me.known, me.first_key, me.before, true);
        need(status == 0, "changing", status);
        told.by[number].acknowledged = me.known;
    }
}

// Reader slots of processes that are gone, seen by an environment of its own.
int count_dead_slots(const char *store)
{
    return in_child([&] {
        MDB_env *env = nullptr;
        int dead = 0;
        need(mdb_env_create(&env) == 0 &&
                 mdb_env_open(env, store, MDB_NOSUBDIR | MDB_RDONLY, 0600) == 0,
             "looking at the readers' table");
        const auto count = [](const char *line, void *context) {
            int pid = 0;
            if (std::sscanf(line, "%d", &pid) == 1 && kill(pid, 0) != 0 && errno == ESRCH)
                ++*static_cast<int *>(context);
            return 0;
        };
        mdb_reader_list(env, count, &dead);
        _exit(std::min(dead, 100));
    });
}

// Looks twice, with a change between: a commit whose writer died just before it could tell the
// engine's other processes is shown when the next writer comes.
void inspect(const writer (&all)[writers], const fs::path &state, board &told, std::uint64_t seed)
{
    take_job("100");
    contents mine;
    for (const bool again : {false, true}) {
        contents found[writers + 1];
        for (const auto &[key, record] : stored())
            found[key.second / key_range - 1].emplace(key, record);
        for (unsigned i = 0; i < writers; ++i) {
            const finding was = told.found[i];
            told.found[i] = judge(found[i], all[i].before, all[i].after);
            if (again && was != finding::before && told.found[i] != was)
                told.found[i] = finding::torn;
        }
        need(!again || found[writers] == mine, "the change after the kills");
        mine = found[writers];
        while (!again && mine == found[writers])
            if (const auto status = change(seed++, (writers + 1) * key_range, mine, true);
                status != 0)
                need(false, "a change after the kills", status);
    }
    told.slots_left = static_cast<unsigned>(count_dead_slots((state / "store.mdb").c_str()));
}

bool waits_for_progress(const std::atomic<std::uint64_t> &acknowledged)
{
    const std::uint64_t before = acknowledged;
    const std::time_t end = std::time(nullptr) + patience;
    while (acknowledged == before && std::time(nullptr) < end)
        usleep(20);
    return acknowledged != before;
}

void kill_all(dice &roll, const writer (&all)[writers], board &told, totals &sum)
{
    pid_t pids[writers];
    for (unsigned i = 0; i < writers; ++i)
        pids[i] = start([&] { write_on(all[i], told, i); });
    const unsigned first = roll.below(writers);
    for (unsigned left = writers; left != 0; --left) {
        const unsigned i = (first + left) % writers;
        if (roll.below(4) != 0 && !waits_for_progress(told.by[i].acknowledged))
            ++sum.failed;
        const double microseconds = std::pow(30'000, roll.below(1000) / 1000.0);
        const timespec nap{0, static_cast<long>(1000 * microseconds)};
        nanosleep(&nap, nullptr);
        kill(pids[i], SIGKILL);
        sum.failed += finish(pids[i]) != 128 + SIGKILL;
        ++sum.kills;
    }
}

void check(writer (&all)[writers], board &told, const fs::path &state, totals &sum)
{
    for (unsigned i = 0; i < writers; ++i) {
        writer &it = all[i];
        sum.acknowledged += told.by[i].acknowledged - it.known;
        while (it.known < told.by[i].acknowledged)
            change(it.seed + ++it.known, it.first_key, it.before, false);
        it.after = it.before;
        if (told.by[i].started > it.known)
            change(it.seed + ++it.known, it.first_key, it.after, false);
    }
    sum.failed += in_child([&] { inspect(all, state, told, std::uint64_t{sum.kills} << 32); }) != 0;
    sum.slots_left += told.slots_left;
    for (unsigned i = 0; i < writers; ++i) {
        sum.kept += told.found[i] == finding::after;
        sum.lost += told.found[i] == finding::lost;
        sum.torn += told.found[i] == finding::torn;
        if (told.found[i] == finding::after)
            all[i].before = all[i].after;
        told.by[i].acknowledged = all[i].known;
    }
}

} // namespace

bool kills(unsigned count, std::uint64_t seed)
{
    auto &told = shared<board>();
    dice roll{seed};
    totals sum;
    while (sum.kills < count && sum.all_well()) {
        const fs::path state = use_new_state("kills");
        writer all[writers];
        for (unsigned i = 0; i < writers; ++i) {
            told.by[i].started = told.by[i].acknowledged = 0;
            all[i] = {(i + 1) * key_range, std::uint64_t{roll()} << 32, {}, {}};
        }
        // Somebody who keeps the readers' table from being made anew. Comes after the first round,
        // in which the store is made under the kills.
        pid_t keeper = 0;
        for (unsigned round = 0; round < rounds_on_one_store && sum.kills < count; ++round) {
            kill_all(roll, all, told, sum);
            check(all, told, state, sum);
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
            show_progress("kills", sum.kills, count);
        }
        need(keeper <= 0 || kill(keeper, SIGKILL) == 0, "ending the keeper");
        if (keeper > 0)
            finish(keeper);
    }
    std::printf("torture kills: %u kills, %llu acknowledged changes, %u kept in flight, %u lost, "
                "%u torn, %u slots left, %u failed (seed %llu)\n",
                sum.kills, static_cast<unsigned long long>(sum.acknowledged), sum.kept, sum.lost,
                sum.torn, sum.slots_left, sum.failed, static_cast<unsigned long long>(seed));
    return sum.all_well();
}

} // namespace torture
