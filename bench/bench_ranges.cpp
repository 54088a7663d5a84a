// Port range sets: import, intersection and join at 1,000 to 100,000 ranges. Not part of
// bench/run's table; run it directly when changing src/range.
#include <benchmark/benchmark.h>
#include <kovaserviceconf.h>

#include <algorithm>
#include <random>
#include <string>
#include <vector>

namespace {

// `count` disjoint ranges "b:b+3" (and every third a single port), shuffled when asked.
std::string range_text(int count, int step, int offset, bool shuffled) {
    std::vector<std::string> items;
    items.reserve(static_cast<size_t>(count));
    for (int i = 0; i < count; ++i) {
        const long b = static_cast<long>(i) * step + offset;
        items.push_back(i % 3 == 0 ? std::to_string(b) : std::to_string(b) + ":" + std::to_string(b + 3));
    }
    if (shuffled) std::shuffle(items.begin(), items.end(), std::mt19937(42));
    std::string text;
    for (const auto &item : items) {
        if (!text.empty()) text += ',';
        text += item;
    }
    return text;
}

void BM_RangeImport(benchmark::State &state, bool shuffled) {
    const int count = static_cast<int>(state.range(0));
    const std::string text = range_text(count, 10, 0, shuffled);
    for (auto _ : state) {
        KVLIB_PORT_RANGE *set = KVLIBPortRangeCreate();
        benchmark::DoNotOptimize(KVLIBPortRangeImport(set, text.c_str()));
        KVLIBPortRangeDestory(set);
    }
    state.SetComplexityN(count);
}
BENCHMARK_CAPTURE(BM_RangeImport, sorted, false)->RangeMultiplier(10)->Range(1000, 100000)->Complexity(benchmark::oN);
BENCHMARK_CAPTURE(BM_RangeImport, shuffled, true)
    ->RangeMultiplier(10)
    ->Range(1000, 100000)
    ->Complexity(benchmark::oNLogN);

// Import two sets of `count` ranges each and intersect them (the work of the reserved-ports
// source, at scale), then join the intersection back into the first.
void BM_RangeImportOverlapJoin(benchmark::State &state) {
    const int count = static_cast<int>(state.range(0));
    const std::string first = range_text(count, 10, 0, false);
    const std::string second = range_text(count, 10, 2, true);
    for (auto _ : state) {
        KVLIB_PORT_RANGE *a = KVLIBPortRangeCreate();
        KVLIB_PORT_RANGE *b = KVLIBPortRangeCreate();
        KVLIB_PORT_RANGE *common = KVLIBPortRangeCreate();
        KVLIBPortRangeImport(a, first.c_str());
        KVLIBPortRangeImport(b, second.c_str());
        KVLIBPortRangeOverlap(a, b, common);
        KVLIBPortRangeJoin(a, common);
        benchmark::DoNotOptimize(common->count);
        KVLIBPortRangeDestory(common);
        KVLIBPortRangeDestory(b);
        KVLIBPortRangeDestory(a);
    }
    state.SetComplexityN(count);
}
BENCHMARK(BM_RangeImportOverlapJoin)->RangeMultiplier(10)->Range(1000, 100000)->Complexity(benchmark::oNLogN);

// Intersection alone, of two prepared sets.
void BM_RangeOverlap(benchmark::State &state) {
    const int count = static_cast<int>(state.range(0));
    KVLIB_PORT_RANGE *a = KVLIBPortRangeCreate();
    KVLIB_PORT_RANGE *b = KVLIBPortRangeCreate();
    KVLIBPortRangeImport(a, range_text(count, 10, 0, false).c_str());
    KVLIBPortRangeImport(b, range_text(count, 10, 2, false).c_str());
    for (auto _ : state) {
        KVLIB_PORT_RANGE *common = KVLIBPortRangeCreate();
        KVLIBPortRangeOverlap(a, b, common);
        benchmark::DoNotOptimize(common->count);
        KVLIBPortRangeDestory(common);
    }
    KVLIBPortRangeDestory(b);
    KVLIBPortRangeDestory(a);
    state.SetComplexityN(count);
}
BENCHMARK(BM_RangeOverlap)->RangeMultiplier(10)->Range(1000, 100000)->Complexity(benchmark::oN);

}  // namespace

BENCHMARK_MAIN();
