// Heap texts: formatting into a new text, and appending to a growing one.
#include <kovacore.h>

#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "core/plat_log.h"

extern "C" {

// Appends szAppend to the malloc'd text *ppsz whose buffer holds *pcbCapacity bytes (null and 0
// at first), growing it geometrically. On failure the text is left as it was.
int KVLIBCStrCat(char **ppsz, int *pcbCapacity, const char *szAppend) {
    if (ppsz == nullptr || pcbCapacity == nullptr || szAppend == nullptr || *pcbCapacity < 0 ||
        (*ppsz == nullptr && *pcbCapacity != 0)) {
        PLAT_SET_ERR(KOVA_ERR_BAD_PARAMETER);
        return -1;
    }
    size_t used = *ppsz != nullptr ? strnlen(*ppsz, static_cast<size_t>(*pcbCapacity)) : 0;
    size_t add = std::strlen(szAppend);
    size_t need = used + add + 1;
    if (need > static_cast<size_t>(INT_MAX)) {
        PLAT_SET_ERR(KOVA_ERR_OUT_OF_MEMORY);
        return -1;
    }
    if (*ppsz == nullptr || need > static_cast<size_t>(*pcbCapacity)) {
        size_t capacity = static_cast<size_t>(*pcbCapacity) * 2;
        if (capacity < 64) capacity = 64;
        if (capacity < need) capacity = need;
        if (capacity > static_cast<size_t>(INT_MAX)) capacity = need;
        char *grown = static_cast<char *>(std::realloc(*ppsz, capacity));
        if (grown == nullptr) {
            PLAT_SET_ERR(KOVA_ERR_OUT_OF_MEMORY);
            return -1;
        }
        *ppsz = grown;
        *pcbCapacity = static_cast<int>(capacity);
    }
    std::memcpy(*ppsz + used, szAppend, add + 1);
    return 0;
}

char *KVLIBCStrGet(const char *szFormat, ...) {
    if (szFormat == nullptr) {
        PLAT_SET_ERR(KOVA_ERR_BAD_PARAMETER);
        return nullptr;
    }
    va_list ap;
    va_start(ap, szFormat);
    char *text = nullptr;
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
    int n = vasprintf(&text, szFormat, ap);
#pragma GCC diagnostic pop
    va_end(ap);
    if (n < 0) {
        PLAT_SET_ERR(KOVA_ERR_OUT_OF_MEMORY);
        return nullptr;
    }
    return text;
}

void KVLIBCStrPut(char *sz) {
    std::free(sz);
}

}  // extern "C"
