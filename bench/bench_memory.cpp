// Heap of the catalogue on the root named by KOVA_ROOT, counted by an allocator hook of this
// program (malloc and its family forwarded to the C library's, every live block's usable size
// added up), beside the bytes of the records the catalogue hands out:
//
//   BM_CatalogueMemory   counters heap_per_record (held by the list KOVAFwServiceEnum hands out),
//                        peak_per_record (the most held while building it), records_bytes_per_record
//                        (each KOVA_FW_SERVICE and, for its port lists, a pointer and the text of
//                        each item), heap_over_records and peak_over_records (held and peak over
//                        the records' bytes)
//
// The hook makes every allocation dearer, so this program times nothing.
#include <kovaserviceconf.h>
#include <malloc.h>

#include <cerrno>
#include <cstring>
#include <unistd.h>

#include "bench_common.h"

extern "C" {
void *__libc_malloc(size_t size);
void __libc_free(void *block);
void *__libc_calloc(size_t count, size_t size);
void *__libc_realloc(void *block, size_t size);
void *__libc_memalign(size_t alignment, size_t size);
}

namespace {

size_t live = 0;
size_t peak = 0;

void *counted(void *block) {
    if (block != nullptr) {
        live += malloc_usable_size(block);
        if (live > peak) peak = live;
    }
    return block;
}

void uncount(void *block) {
    if (block != nullptr) live -= malloc_usable_size(block);
}

}  // namespace

extern "C" {
void *malloc(size_t size) {
    return counted(__libc_malloc(size));
}
void free(void *block) {
    uncount(block);
    __libc_free(block);
}
void *calloc(size_t count, size_t size) {
    return counted(__libc_calloc(count, size));
}
void *realloc(void *block, size_t size) {
    const size_t old = block != nullptr ? malloc_usable_size(block) : 0;
    void *moved = __libc_realloc(block, size);
    if (moved != nullptr) {
        live -= old;
        counted(moved);
    } else if (size == 0) {
        live -= old;
    }
    return moved;
}
void *memalign(size_t alignment, size_t size) {
    return counted(__libc_memalign(alignment, size));
}
void *aligned_alloc(size_t alignment, size_t size) {
    return memalign(alignment, size);
}
int posix_memalign(void **out, size_t alignment, size_t size) {
    void *block = memalign(alignment, size);
    if (block == nullptr) return ENOMEM;
    *out = block;
    return 0;
}
void *valloc(size_t size) {
    return memalign(static_cast<size_t>(sysconf(_SC_PAGESIZE)), size);
}
}

namespace {

using namespace kova_bench;

size_t list_bytes(const KVLIB_SZLIST *list) {
    if (list == nullptr) return 0;
    size_t bytes = 0;
    for (int i = 0; i < list->nItem; ++i) bytes += sizeof(char *) + std::strlen(KVLIBCSzListGet(list, i)) + 1;
    return bytes;
}

void BM_CatalogueMemory(benchmark::State &state) {
    size_t held = 0;
    size_t most = 0;
    size_t records_bytes = 0;
    int records = 0;
    for (auto _ : state) {
        const size_t before = live;
        peak = live;
        KOVA_FW_SERVICE *list = nullptr;
        records = KOVAFwServiceEnum(&list);
        held = live - before;
        most = peak - before;
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
    state.counters["peak_per_record"] = static_cast<double>(most) / records;
    state.counters["records_bytes_per_record"] = static_cast<double>(records_bytes) / records;
    state.counters["heap_over_records"] = static_cast<double>(held) / static_cast<double>(records_bytes);
    state.counters["peak_over_records"] = static_cast<double>(most) / static_cast<double>(records_bytes);
}

}  // namespace

int main(int argc, char **argv) {
    unsetenv("KOVA_LOG_FILE");
    current_root();
    // The first call's one-time allocations (log, locale) are not the catalogue's: the figures
    // are those of the last of three calls.
    benchmark::RegisterBenchmark("BM_CatalogueMemory", BM_CatalogueMemory)->Iterations(3);
    return run_benchmarks(argc, argv);
}
