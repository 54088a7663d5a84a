#include "fault_alloc.h"

#if !defined(__SANITIZE_ADDRESS__)

#include <atomic>
#include <cerrno>
#include <cstdint>
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
        return __libc_realloc(p, 0);
    }
    if (refuse()) return fail_alloc();
    return __libc_realloc(p, size);
}

void *reallocarray(void *p, size_t count, size_t size) noexcept {
    size_t bytes = 0;
    if (__builtin_mul_overflow(count, size, &bytes)) return fail_alloc();
    return realloc(p, bytes);
}

void free(void *p) noexcept {
    if (p == nullptr) return;
    g_live.fetch_sub(1, std::memory_order_relaxed);
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

}  // namespace kova::fault

#endif
