#include "fault_alloc.h"

#if !defined(__SANITIZE_ADDRESS__)

#include <execinfo.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

extern "C" {
void *__libc_malloc(size_t size);
void *__libc_calloc(size_t count, size_t size);
void *__libc_realloc(void *p, size_t size);
void __libc_free(void *p);
void *__libc_memalign(size_t alignment, size_t size);
}

namespace {

// All state is constant-initialized: the allocator is used before any constructor runs.
std::atomic<long> g_countdown{0};  // 0: disarmed; else allocations left until the failing one
std::atomic<bool> g_sticky{false};
std::atomic<bool> g_failing{false};  // sticky mode, past the failing allocation
std::atomic<long> g_injected{0};
std::atomic<long> g_live{0};

// ---- optional call stacks of live blocks (a fixed table: the tracer must not allocate) -------

constexpr int kTraceSlots = 8192;
constexpr int kTraceDepth = 12;
struct TraceSlot {
    void *block;
    int depth;
    void *frames[kTraceDepth];
};
TraceSlot g_slots[kTraceSlots];
std::atomic<bool> g_tracing{false};
thread_local bool t_in_tracer = false;

void traced_alloc(void *block) {
    if (block == nullptr || !g_tracing.load(std::memory_order_relaxed) || t_in_tracer) return;
    t_in_tracer = true;
    for (TraceSlot &slot : g_slots) {
        if (slot.block == nullptr) {
            slot.block = block;
            slot.depth = backtrace(slot.frames, kTraceDepth);
            break;
        }
    }
    t_in_tracer = false;
}

void traced_free(void *block) {
    if (block == nullptr || !g_tracing.load(std::memory_order_relaxed)) return;
    for (TraceSlot &slot : g_slots) {
        if (slot.block == block) {
            slot.block = nullptr;
            break;
        }
    }
}

bool refuse() {
    if (g_failing.load(std::memory_order_relaxed)) {
        g_injected.fetch_add(1, std::memory_order_relaxed);
        return true;
    }
    if (g_countdown.load(std::memory_order_relaxed) <= 0) return false;
    if (g_countdown.fetch_sub(1, std::memory_order_relaxed) != 1) return false;
    g_injected.fetch_add(1, std::memory_order_relaxed);
    if (g_sticky.load(std::memory_order_relaxed)) g_failing.store(true, std::memory_order_relaxed);
    return true;
}

void *counted(void *block) {
    if (block != nullptr) {
        g_live.fetch_add(1, std::memory_order_relaxed);
        traced_alloc(block);
    }
    return block;
}

void *fail_alloc() {
    errno = ENOMEM;
    return nullptr;
}

}  // namespace

extern "C" {

void *malloc(size_t size) noexcept {
    if (refuse()) return fail_alloc();
    return counted(__libc_malloc(size));
}

void *calloc(size_t count, size_t size) noexcept {
    if (refuse()) return fail_alloc();
    return counted(__libc_calloc(count, size));
}

void *realloc(void *p, size_t size) noexcept {
    if (p == nullptr) return malloc(size);
    if (size == 0) {  // the C library frees the block and returns null
        g_live.fetch_sub(1, std::memory_order_relaxed);
        traced_free(p);
        return __libc_realloc(p, 0);
    }
    if (refuse()) return fail_alloc();
    void *moved = __libc_realloc(p, size);
    if (moved != nullptr && moved != p) {
        traced_free(p);
        traced_alloc(moved);
    }
    return moved;
}

void *reallocarray(void *p, size_t count, size_t size) noexcept {
    size_t bytes = 0;
    if (__builtin_mul_overflow(count, size, &bytes)) return fail_alloc();
    return realloc(p, bytes);
}

void free(void *p) noexcept {
    if (p == nullptr) return;
    g_live.fetch_sub(1, std::memory_order_relaxed);
    traced_free(p);
    __libc_free(p);
}

void *memalign(size_t alignment, size_t size) noexcept {
    if (refuse()) return fail_alloc();
    return counted(__libc_memalign(alignment, size));
}

void *aligned_alloc(size_t alignment, size_t size) noexcept {
    return memalign(alignment, size);
}

int posix_memalign(void **out, size_t alignment, size_t size) noexcept {
    if (alignment == 0 || (alignment & (alignment - 1)) != 0 || alignment % sizeof(void *) != 0) return EINVAL;
    void *block = memalign(alignment, size);
    if (block == nullptr) return ENOMEM;
    *out = block;
    return 0;
}

}  // extern "C"

namespace kova::fault {

bool available() {
    return true;
}

void arm(long nth, bool sticky) {
    g_injected.store(0);
    g_failing.store(false);
    g_sticky.store(sticky);
    g_countdown.store(nth);
}

void disarm() {
    g_countdown.store(0);
    g_failing.store(false);
}

long injected() {
    return g_injected.load();
}

long live() {
    return g_live.load();
}

void trace(bool on) {
    if (on) {
        void *warm[1];
        backtrace(warm, 1);  // loads the unwinder before the first traced allocation
        for (TraceSlot &slot : g_slots) slot.block = nullptr;
    }
    g_tracing.store(on);
}

void print_traced() {
    for (const TraceSlot &slot : g_slots) {
        if (slot.block == nullptr) continue;
        std::fprintf(stderr, "live block %p allocated at:\n", slot.block);
        std::fflush(stderr);
        backtrace_symbols_fd(slot.frames, slot.depth, STDERR_FILENO);
    }
}

}  // namespace kova::fault

#else  // AddressSanitizer owns the allocator.

namespace kova::fault {

bool available() {
    return false;
}
void arm(long, bool) {}
void disarm() {}
long injected() {
    return 0;
}
long live() {
    return 0;
}
void trace(bool) {}
void print_traced() {}

}  // namespace kova::fault

#endif
