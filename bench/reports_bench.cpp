// What a report costs: a trace record with two strings, and a debug print that is off.
//
// Usage: reports_bench [option of Google Benchmark ...]
#include "empty_call.h"
#include "other_process.h"
#include "ringlog.h"
#include "verbose.h"

#include <benchmark/benchmark.h>
#include <ctime>

using namespace bench;

namespace {

constexpr uint64_t two_strings = UINT64_C(0x50300010204); // name, number, text
constexpr char operation[] = "vs_kvs_update_vs_object_selected_version";
constexpr char status[] = "no record is stored under this key";

uint64_t open_buffer()
{
    uint64_t handle = 0;
    must(ringlog_init2("bench", 0, 0, 1024, 24576, 0, &handle) == 0, "ringlog_init2");
    return handle;
}

void emit_one(uint64_t handle, uint64_t number)
{
    _ringlog_emit(handle, two_strings, reinterpret_cast<uintptr_t>(operation), number,
                  reinterpret_cast<uintptr_t>(status));
}

void emit(benchmark::State &state)
{
    const uint64_t handle = open_buffer();
    uint64_t number = 0;
    for (auto _ : state)
        emit_one(handle, ++number);
}

void emit_beside(benchmark::State &state)
{
    const other_process other({"emit"}, folder());
    other.number();
    emit(state);
}

void read_clock_and_copy(benchmark::State &state)
{
    unsigned char from[128] = {}, to[128];
    for (auto _ : state) {
        timespec now;
        clock_gettime(CLOCK_REALTIME, &now);
        benchmark::DoNotOptimize(now);
        benchmark::DoNotOptimize(from);
        memcpy(to, from, sizeof to);
        benchmark::DoNotOptimize(to);
    }
}

void print(benchmark::State &state)
{
    uint32_t number = 0;
    for (auto _ : state)
        verbose_printf_local(DBG_VS_KVS, "%s: got %u of %s", operation, ++number, status);
}

void call(benchmark::State &state)
{
    for (auto _ : state)
        empty_call();
}

} // namespace

int main(int argc, char **argv)
{
    if (argc == 2 && strcmp(argv[1], "emit") == 0) {
        keep_doing([handle = open_buffer()] { emit_one(handle, 1); });
        return 0;
    }
    benchmark::RegisterBenchmark("trace:record", emit)->ThreadRange(1, 2)->UseRealTime();
    benchmark::RegisterBenchmark("trace:record beside a process", emit_beside)->UseRealTime();
    benchmark::RegisterBenchmark("trace:clock and copy", read_clock_and_copy)->UseRealTime();
    benchmark::RegisterBenchmark("print:off", print)->UseRealTime();
    benchmark::RegisterBenchmark("print:empty call", call)->UseRealTime();
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
}
