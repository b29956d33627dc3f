// What the library costs by itself: one read on a platform that costs nothing, beside the platform
// calls that the read makes.
#include "kvs.h"
#include "work.h"

#include <benchmark/benchmark.h>

using namespace bench;

namespace {

constexpr uint32_t wanted = 1;

void read_through_the_library(benchmark::State &state)
{
    for (auto _ : state) {
        vs_objects_kvs_rec *record = nullptr;
        must(vs_kvs_get_vs_object_rec(wanted, &record) == 0, "the library", "a read failed");
        const owned_record freed(record);
        benchmark::DoNotOptimize(record->selected_version);
    }
}

void make_the_store_calls(benchmark::State &state)
{
    const uint32_t key = wanted;
    kvs_key_attr attr{};
    attr.key_len = sizeof key;
    attr.key_p = &key;
    uint32_t buffer[64];
    for (auto _ : state) {
        kvs_rec_hdl *handles = nullptr;
        uint32_t count = 0, length = 0;
        kvs_find_objects(1, &attr, 1, 0, &handles, &count);
        const std::unique_ptr<kvs_rec_hdl, free_block> freed(handles);
        kvs_get_object_size(1, handles, &length);
        must(kvs_read_object(1, handles, 0, buffer, &length) == 0, "the platform", "a read failed");
        benchmark::DoNotOptimize(buffer);
    }
}

} // namespace

int main(int argc, char **argv)
{
    must(vs_kvs_initialize(0) == 0, "the library", "vs_kvs_initialize failed");
    benchmark::RegisterBenchmark("read alone:vs_kvs", read_through_the_library)->UseRealTime();
    benchmark::RegisterBenchmark("read alone:store calls", make_the_store_calls)->UseRealTime();
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
}
