// In-place text edits: trimming white space and lower-casing.
#include <kovacore.h>

#include <cstring>

#include "core/plat_log.h"

namespace {

// The C locale's white space, whatever the process's locale.
bool is_space(char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r';
}

char to_lower(char c) {
    return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c;
}

}  // namespace

extern "C" {

// Removes leading and trailing white space, moving the text to the start of its buffer.
int KVLIBCStrTrimSpace(char *sz, int flags) {
    (void)flags;
    if (sz == nullptr) {
        PLAT_SET_ERR(KOVA_ERR_BAD_PARAMETER);
        return -1;
    }
    size_t len = std::strlen(sz);
    size_t begin = 0;
    while (begin < len && is_space(sz[begin])) ++begin;
    size_t end = len;
    while (end > begin && is_space(sz[end - 1])) --end;
    if (begin > 0) std::memmove(sz, sz + begin, end - begin);
    sz[end - begin] = '\0';
    return 0;
}

// With a destination: a lower-cased copy cut to cbDst - 1 characters. With a null destination
// and size 0: lower-cases the source in place and returns it.
char *KVLIBCStrCaseLower(char *szSrc, int flags, char *szDst, int cbDst) {
    (void)flags;
    if (szSrc == nullptr) {
        PLAT_SET_ERR(KOVA_ERR_BAD_PARAMETER);
        return nullptr;
    }
    if (szDst == nullptr) {
        if (cbDst != 0) {
            PLAT_SET_ERR(KOVA_ERR_BAD_PARAMETER);
            return nullptr;
        }
        for (char *p = szSrc; *p != '\0'; ++p) *p = to_lower(*p);
        return szSrc;
    }
    if (cbDst <= 0) {
        PLAT_SET_ERR(KOVA_ERR_BAD_PARAMETER);
        return nullptr;
    }
    size_t n = strnlen(szSrc, static_cast<size_t>(cbDst) - 1);
    for (size_t i = 0; i < n; ++i) szDst[i] = to_lower(szSrc[i]);
    szDst[n] = '\0';
    return szDst;
}

}  // extern "C"
