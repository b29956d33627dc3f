// The library and its peers at the same work: reading, listing, changing, populating.
//
// Usage: store_bench RECORDS [option of Google Benchmark ...]
// The stores lie in $VS_STATE_DIR, and are made there when they are missing. Every thread has a way
// of its own into a store: an object of the peer's class.
#include "bare_flush.h"
#include "leveldb.h"
#include "other_process.h"
#include "raw_engine.h"
#include "service.h"
#include "sqlite.h"

#include <algorithm>
#include <atomic>
#include <benchmark/benchmark.h>
#include <chrono>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <list>
#include <random>
#include <thread>

using namespace bench;
namespace fs = std::filesystem;

namespace {

struct raw_in_three : raw_engine {
    static constexpr char name[] = "raw engine in three steps";
    owned_record read(uint32_t id) { return read_in_three_steps(id); }
};

uint32_t records = 0;

std::vector<uint32_t> ids_of(uint32_t count, bool shuffled)
{
    std::vector<uint32_t> ids(count);
    for (uint32_t i = 0; i < count; ++i)
        ids[i] = id_of(i);
    if (shuffled)
        std::shuffle(ids.begin(), ids.end(), std::mt19937(1));
    else
        std::sort(ids.begin(), ids.end());
    return ids;
}

// ---- the works ----

// Every measurement picks ids of its own, so that no store benefits from what the last one cached.
uint64_t next_seed()
{
    static std::atomic<uint64_t> last{0};
    return ++last;
}

template <class Store>
void read_one(Store &store, dice &roll)
{
    const uint32_t id = id_of(roll.below(records));
    const owned_record record = store.read(id);
    must(memcmp(record.get(), &id, sizeof id) == 0, Store::name, "read another record");
}

// Which of the ids a writer changes. Each of several takes other ones: the library reads back what
// it changed, and fails if somebody has changed it meanwhile.
struct share {
    uint32_t number, of;
};

// Each time another version: a store may notice that nothing is to be changed, and do nothing.
template <class Store>
void select_one(Store &store, dice &roll, share own)
{
    static std::atomic<uint32_t> version{std::random_device()()};
    store.select(id_of(roll.below(records / own.of) * own.of + own.number), ++version);
}

template <class Store>
void read(benchmark::State &state)
{
    Store store;
    dice roll(next_seed());
    for (auto _ : state)
        read_one(store, roll);
}

template <class Store, int Others = 0>
void select(benchmark::State &state)
{
    Store store;
    dice roll(next_seed());
    const share own{static_cast<uint32_t>(state.thread_index()),
                    static_cast<uint32_t>(state.threads() + Others)};
    for (auto _ : state)
        select_one(store, roll, own);
}

double seconds_on(clockid_t clock)
{
    timespec now{};
    clock_gettime(clock, &now);
    return static_cast<double>(now.tv_sec) + 1e-9 * static_cast<double>(now.tv_nsec);
}

// The reader's own work, to free the records, is not measured. A thread that lists alone measures
// its processor time, which others on the machine disturb less.
template <class Store>
void list(benchmark::State &state)
{
    const clockid_t clock = state.threads() == 1 ? CLOCK_THREAD_CPUTIME_ID : CLOCK_MONOTONIC;
    Store store;
    for (auto _ : state) {
        const double start = seconds_on(clock);
        const listing all = store.list();
        state.SetIterationTime(seconds_on(clock) - start);
        must(all.count() == records, Store::name, "listed another number of records");
    }
}

constexpr uint32_t changes = 16; // of one repetition, each durable

template <class Store>
void add_client(benchmark::State &state)
{
    Store store;
    const std::vector<uint32_t> ids = ids_of(changes, true);
    store.reset_clients(ids);
    size_t next = 0;
    for (auto _ : state) {
        clients_record grown(ids[next++]);
        ++grown.count;
        store.add_client(grown);
    }
}

// ---- works beside or in another process ----

enum neighbour { reading, writing };

// The same work while another process reads or writes the same store.
template <class Store, neighbour Does, void (*Work)(benchmark::State &)>
void beside(benchmark::State &state)
{
    const char *const does = Does == reading ? "read" : "select";
    const other_process other({std::to_string(records), does, Store::name, "1", "2"}, folder());
    other.number();
    Work(state);
}

// The time per change of several processes together, all of which do nothing else.
template <class Store, int Processes>
void select_in_processes(benchmark::State &state)
{
    constexpr auto period = std::chrono::milliseconds(250);
    for (auto _ : state) {
        std::list<other_process> all;
        for (int i = 0; i < Processes; ++i)
            all.emplace_back(std::initializer_list<std::string>{std::to_string(records), "select",
                                                                Store::name, std::to_string(i),
                                                                std::to_string(Processes)},
                             folder());
        for (const other_process &each : all)
            each.number();
        const double start = seconds_on(CLOCK_MONOTONIC);
        for (const other_process &each : all)
            each.ask(count_now);
        std::this_thread::sleep_for(period);
        for (const other_process &each : all)
            each.ask(end_now);
        const double seconds = seconds_on(CLOCK_MONOTONIC) - start;
        double done = 0;
        for (const other_process &each : all)
            done += each.number();
        state.SetIterationTime(seconds / done);
    }
}

template <class Store, bool Shuffled>
void populate(benchmark::State &state)
{
    const std::string own = folder() + "/population";
    for (auto _ : state) {
        fs::create_directory(own);
        fs::permissions(own, fs::perms::owner_all);
        const char *const order = Shuffled ? "populate-shuffled" : "populate-sorted";
        state.SetIterationTime(
            other_process({std::to_string(records), order, Store::name, "0", "1"}, own).number());
        fs::remove_all(own);
    }
}

template <class Store>
void be_the_other(const std::string &does, share own)
{
    Store store;
    dice roll(99 + own.number);
    if (does == "read")
        return keep_doing([&] { read_one(store, roll); });
    if (does == "select")
        return keep_doing([&] { select_one(store, roll, own); });
    const typename Store::population all(ids_of(records, does == "populate-shuffled"));
    const double start = seconds_on(CLOCK_MONOTONIC);
    store.populate(all);
    say(seconds_on(CLOCK_MONOTONIC) - start);
}

// ---- which store does which work ----

benchmark::internal::Benchmark *add(const char *work, const char *store,
                                    void (*function)(benchmark::State &))
{
    return benchmark::RegisterBenchmark((std::string(work) + ':' + store).c_str(), function);
}

template <class... Stores>
void add_reading()
{
    (add("read", Stores::name, read<Stores>)->UseRealTime()->ThreadRange(1, 2), ...);
}

template <class... Stores>
void add_reading_beside()
{
    (add("read beside a reader", Stores::name, beside<Stores, reading, read<Stores>>)
         ->UseRealTime(),
     ...);
    (add("read beside a writer", Stores::name, beside<Stores, writing, read<Stores>>)
         ->UseRealTime(),
     ...);
}

template <class... Stores>
void add_works_on_all()
{
    (add("list", Stores::name, list<Stores>)->UseManualTime()->ThreadRange(1, 2), ...);
    (add("populate", Stores::name, populate<Stores, true>)->UseManualTime()->Iterations(1), ...);
    (add("populate in order", Stores::name, populate<Stores, false>)
         ->UseManualTime()
         ->Iterations(1),
     ...);
}

template <class... Stores>
void add_selecting()
{
    (add("select", Stores::name, select<Stores>)
         ->UseRealTime()
         ->Threads(1)
         ->Threads(2)
         ->Threads(8)
         ->Iterations(changes),
     ...);
}

void add_flushing()
{
    add("select", bare_flush::name, select<bare_flush>)->UseRealTime()->Iterations(changes);
}

template <class... Stores>
void add_selecting_in_processes()
{
    (add("select in 1 process", Stores::name, select_in_processes<Stores, 1>)
         ->UseManualTime()
         ->Iterations(1),
     ...);
    (add("select in 4 processes", Stores::name, select_in_processes<Stores, 4>)
         ->UseManualTime()
         ->Iterations(1),
     ...);
}

template <class... Stores>
void add_client_work()
{
    (add("add a client", Stores::name, add_client<Stores>)->UseRealTime()->Iterations(changes),
     ...);
}

template <class... Stores>
void add_selecting_beside()
{
    (add("select beside a writer", Stores::name, beside<Stores, writing, select<Stores, 1>>)
         ->UseRealTime()
         ->Iterations(changes),
     ...);
}

uint32_t number_of(const char *text)
{
    return static_cast<uint32_t>(std::strtoul(text, nullptr, 10));
}

template <class... Stores>
bool is_the_other(const std::string &does, const std::string &name, share own)
{
    return ((name == Stores::name && (be_the_other<Stores>(does, own), true)) || ...);
}

template <class... Stores>
void make_stores()
{
    if (fs::exists(folder() + "/ready"))
        return;
    const std::vector<uint32_t> ids = ids_of(records, true);
    (Stores().populate(typename Stores::population(ids)), ...);
    std::ofstream(folder() + "/ready") << records << '\n';
}

} // namespace

int main(int argc, char **argv)
{
    must(argc > 1, argv[0], "the number of records is missing");
    records = number_of(argv[1]);
    if (argc == 6 && is_the_other<service, raw_in_three, raw_engine, sqlite, level_db>(
                         argv[2], argv[3], {number_of(argv[4]), number_of(argv[5])}))
        return 0;
    argv[1] = argv[0];
    ++argv;
    --argc;
    benchmark::Initialize(&argc, argv);
    make_stores<service, raw_engine, sqlite, level_db>();

    // One process alone can have LevelDB open, and SQLite has no queue of writers: one that writes
    // beside another may wait for seconds.
    add_reading<service, raw_in_three, raw_engine, sqlite, level_db>();
    add_reading_beside<service, raw_in_three, sqlite>();
    add_works_on_all<service, raw_engine, sqlite, level_db>();
    add_selecting<service, raw_engine, sqlite, level_db>();
    add_flushing();
    add_selecting_in_processes<service, raw_engine, sqlite>();
    add_client_work<service, raw_engine, sqlite>();
    add_selecting_beside<service, raw_engine>();
    benchmark::RunSpecifiedBenchmarks();
}
