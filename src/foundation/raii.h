// Owners for the platform's containers and the library's records, so that every way out of
// a function frees what it allocated.
#pragma once

#include <kovaserviceconf.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <string_view>

namespace kova {

template <auto FreeFn>
struct FnDeleter {
    template <class T>
    void operator()(T *p) const noexcept {
        if (p != nullptr) FreeFn(p);
    }
};

inline void free_cstr(char *p) noexcept {
    std::free(p);
}

using SzListPtr = std::unique_ptr<KVLIB_SZLIST, FnDeleter<KVLIBCSzListFree>>;
using SzHashPtr = std::unique_ptr<KVLIB_SZHASH, FnDeleter<KVLIBCSzHashFree>>;
using DListPtr = std::unique_ptr<KVLIB_DLIST, FnDeleter<KVLIBCDListFree>>;
using CStrPtr = std::unique_ptr<char, FnDeleter<free_cstr>>;      // malloc'd text
using KvStrPtr = std::unique_ptr<char, FnDeleter<KVLIBCStrPut>>;  // KVLIBCStrGet text
using PortsPtr = std::unique_ptr<KOVA_SERVICE_CONF_PORT, FnDeleter<KOVAServiceConfPortsFree>>;
using SectionPtr = std::unique_ptr<KOVA_SERVICE_CONF_SECTION, FnDeleter<KOVAServiceConfSectionFree>>;
using ConfPtr = std::unique_ptr<KOVA_SERVICE_CONF, FnDeleter<KOVAServiceConfFree>>;
using FwServicePtr = std::unique_ptr<KOVA_FW_SERVICE, FnDeleter<KOVAFwServiceFree>>;
using PortRangePtr = std::unique_ptr<KVLIB_PORT_RANGE, FnDeleter<KVLIBPortRangeDestory>>;

// A zero-filled heap record, as the C records are handed out (freed with free()). Allocated and
// filled rather than calloc'd: the C library's calloc passes by its per-thread cache of small
// blocks, which serves most records.
template <class T>
T *calloc_record() noexcept {
    void *record = std::malloc(sizeof(T));
    // Kept from the compiler, which would make the pair a calloc again.
    asm volatile("" : "+r"(record));
    if (record != nullptr) std::memset(record, 0, sizeof(T));
    return static_cast<T *>(record);
}

// Bounded copy into a fixed text field: at most N-1 bytes, always terminated.
template <size_t N>
void copy_field(char (&dst)[N], std::string_view src) noexcept {
    const size_t size = src.size() < N - 1 ? src.size() : N - 1;
    if (size != 0) std::memcpy(dst, src.data(), size);  // an empty text may have no data
    dst[size] = '\0';
}
template <size_t N>
void copy_field(char (&dst)[N], const char *src) noexcept {
    if (src == nullptr) src = "";
    copy_field(dst, std::string_view(src, strnlen(src, N - 1)));
}

}  // namespace kova
