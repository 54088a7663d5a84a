// The catalogue and the service-wide check on the root named by KOVA_ROOT, beside the floor they
// are measured against: listing the services.d directories and reading every file in them.
//
//   BM_Catalogue         KOVAFwServiceEnum, then KOVAFwServiceFree
//   BM_ReadFiles         the floor (read_tree.c)
//   BM_PortConflict/F    KVLIBIsPortConflict with check flags F (0x04 services; 0x1C services,
//                        reserved ports and ports in use)
//   BM_CatalogueMemory   heap held by one catalogue (mallinfo2 before and after, list held),
//                        beside the bytes of the records it hands out, per section
#include <kovaserviceconf.h>
#include <malloc.h>

#include <cstring>

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

size_t list_bytes(const KVLIB_SZLIST *list) {
    if (list == nullptr) return 0;
    size_t bytes = 0;
    for (int i = 0; i < list->nItem; ++i) bytes += sizeof(char *) + std::strlen(KVLIBCSzListGet(list, i)) + 1;
    return bytes;
}

size_t heap_in_use() {
    const struct mallinfo2 m = mallinfo2();
    return m.uordblks + m.hblkhd;
}

// The records handed out: every KOVA_FW_SERVICE and, for its port lists, one pointer and the text
// of each item. Built-in records count too, so both sides are divided by the same records.
void BM_CatalogueMemory(benchmark::State &state) {
    size_t held = 0;
    size_t records_bytes = 0;
    int records = 0;
    for (auto _ : state) {
        malloc_trim(0);
        const size_t before = heap_in_use();
        KOVA_FW_SERVICE *list = nullptr;
        records = KOVAFwServiceEnum(&list);
        held = heap_in_use() - before;
        records_bytes = 0;
        for (const KOVA_FW_SERVICE *s = list; s != nullptr; s = s->next)
            records_bytes += sizeof *s + list_bytes(s->dstPorts) + list_bytes(s->srcPorts);
        KOVAFwServiceFree(list);
    }
    if (records <= 0) {
        state.SkipWithError("KOVAFwServiceEnum failed");
        return;
    }
    state.counters["heap_per_record"] = static_cast<double>(held) / records;
    state.counters["records_bytes_per_record"] = static_cast<double>(records_bytes) / records;
    state.counters["heap_over_records"] = static_cast<double>(held) / static_cast<double>(records_bytes);
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
    benchmark::RegisterBenchmark("BM_CatalogueMemory", BM_CatalogueMemory)->Iterations(3);
    return run_benchmarks(argc, argv);
}
