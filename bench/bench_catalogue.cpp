// The catalogue and the service-wide check on the root named by KOVA_ROOT, beside the floor they
// are measured against: listing the services.d directories and reading every file in them.
//
//   BM_Catalogue         KOVAFwServiceEnum, then KOVAFwServiceFree
//   BM_ReadFiles         the floor (read_tree.c)
//   BM_PortConflict/F    KVLIBIsPortConflict with check flags F (0x04 services; 0x1C services,
//                        reserved ports and ports in use)
// (The catalogue's memory is counted by bench_memory, whose allocator hook would slow these.)
#include <kovaserviceconf.h>

#include "bench_common.h"
#include "read_tree.h"

namespace {

using namespace kova_bench;

void BM_Catalogue(benchmark::State &state) {
    const int sections = catalogue_sections();
    int records = 0;
    for (auto _ : state) {
        KOVA_FW_SERVICE *list = nullptr;
        records = KOVAFwServiceEnum(&list);
        benchmark::DoNotOptimize(list);
        KOVAFwServiceFree(list);
    }
    if (records <= 0) state.SkipWithError("KOVAFwServiceEnum failed");
    state.counters["records"] = records;
    state.counters["sections"] = sections;
}

void BM_ReadFiles(benchmark::State &state) {
    const std::string root = current_root().string();
    long files = 0;
    for (auto _ : state) {
        unsigned long bytes = 0;
        files = kova_bench_read_tree(root.c_str(), &bytes);
        benchmark::DoNotOptimize(bytes);
    }
    if (files < 0) state.SkipWithError("the services.d directories could not be read");
    state.counters["files"] = static_cast<double>(files);
}

// Ports of the question: one port of the example root's web front end (always taken), a range
// that generated services cover in part, and a port nobody declares.
void BM_PortConflict(benchmark::State &state) {
    const int flags = static_cast<int>(state.range(0));
    int result = -1;
    for (auto _ : state) {
        KOVA_SERVICE_CONF_PORT *conflicts = nullptr;
        result = KVLIBIsPortConflict("gen0", "443,20000:20400,61000", "tcp,udp", flags, &conflicts);
        benchmark::DoNotOptimize(result);
        KOVAServiceConfPortsFree(conflicts);
    }
    if (result != 1) state.SkipWithError("the check did not find the colliding ports");
}

}  // namespace

int main(int argc, char **argv) {
    unsetenv("KOVA_LOG_FILE");
    current_root();
    benchmark::RegisterBenchmark("BM_Catalogue", BM_Catalogue)->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark("BM_ReadFiles", BM_ReadFiles)->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark("BM_PortConflict", BM_PortConflict)
        ->Arg(0x04)
        ->Arg(0x1C)
        ->Unit(benchmark::kMillisecond);
    return run_benchmarks(argc, argv);
}
