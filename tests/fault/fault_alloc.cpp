#include "fault_harness.h"

#include <cerrno>
#include <cstdlib>

namespace {
constinit std::atomic<long> g_live{0};
}

namespace kova::fault {
constinit Trigger allocations;  // used before any constructor runs
long live() {
    return g_live.load();
}
#if defined(__SANITIZE_ADDRESS__)
bool available() {
    return false;
}
#else
bool available() {
    return true;
}
#endif
}  // namespace kova::fault

#if !defined(__SANITIZE_ADDRESS__)

extern "C" {
void *__libc_malloc(size_t size);
void *__libc_calloc(size_t count, size_t size);
void *__libc_realloc(void *p, size_t size);
void __libc_free(void *p);
void *__libc_memalign(size_t alignment, size_t size);
}

namespace {

// Null (ENOMEM) when the allocation is to fail; else `alloc()`, counted.
template <class Alloc>
void *counted(Alloc alloc) {
    if (kova::fault::allocations.fire()) {
        errno = ENOMEM;
        return nullptr;
    }
    void *block = alloc();
    if (block != nullptr) g_live.fetch_add(1, std::memory_order_relaxed);
    return block;
}

}  // namespace

extern "C" {

void *malloc(size_t size) noexcept {
    return counted([=] { return __libc_malloc(size); });
}

void *calloc(size_t count, size_t size) noexcept {
    return counted([=] { return __libc_calloc(count, size); });
}

void *realloc(void *p, size_t size) noexcept {
    if (p == nullptr) return malloc(size);
    if (size == 0) {  // the C library frees the block and returns null
        g_live.fetch_sub(1, std::memory_order_relaxed);
        return __libc_realloc(p, 0);
    }
    if (kova::fault::allocations.fire()) {
        errno = ENOMEM;
        return nullptr;
    }
    return __libc_realloc(p, size);
}

void *reallocarray(void *p, size_t count, size_t size) noexcept {
    size_t bytes = 0;
    if (__builtin_mul_overflow(count, size, &bytes)) {
        errno = ENOMEM;
        return nullptr;
    }
    return realloc(p, bytes);
}

void free(void *p) noexcept {
    if (p == nullptr) return;
    g_live.fetch_sub(1, std::memory_order_relaxed);
    __libc_free(p);
}

void *memalign(size_t alignment, size_t size) noexcept {
    return counted([=] { return __libc_memalign(alignment, size); });
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
#endif
