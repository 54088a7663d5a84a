// Splitting texts: a strsep-style cursor, and splitting into string lists with and without
// the empty pieces.
#include <kovacore.h>

#include <cstring>
#include <string>

#include "core/plat_log.h"

namespace {

// Appends the n characters at p to the list as one text; 0, or -1 on failure.
int push_piece(std::string &piece, const char *p, size_t n, KVLIB_SZLIST **ppList) {
    try {
        piece.assign(p, n);
    } catch (...) {
        PLAT_SET_ERR(KOVA_ERR_OUT_OF_MEMORY);
        return -1;
    }
    return KVLIBCSzListPush(ppList, piece.c_str()) < 0 ? -1 : 0;
}

}  // namespace

extern "C" {

char *KVLIBCStrTokIndex(char **ppszCursor, const char *szDelim) {
    if (ppszCursor == nullptr || *ppszCursor == nullptr) return nullptr;
    char *token = *ppszCursor;
    char *end = szDelim != nullptr ? token + std::strcspn(token, szDelim) : token + std::strlen(token);
    if (*end == '\0') {
        *ppszCursor = nullptr;
    } else {
        *end = '\0';
        *ppszCursor = end + 1;
    }
    return token;
}

// Appends the non-empty runs between delimiter characters. 0, or -1 on failure.
int KVLIBCStrTok(const char *sz, const char *szDelim, KVLIB_SZLIST **ppList) {
    if (sz == nullptr || szDelim == nullptr || ppList == nullptr) {
        PLAT_SET_ERR(KOVA_ERR_BAD_PARAMETER);
        return -1;
    }
    std::string piece;
    for (const char *p = sz;;) {
        p += std::strspn(p, szDelim);
        if (*p == '\0') break;
        const size_t n = std::strcspn(p, szDelim);
        if (push_piece(piece, p, n, ppList) < 0) return -1;
        p += n;
    }
    return 0;
}

// Appends every piece between delimiter characters, empty ones included; the number stored,
// or -1 on failure.
int KVLIBCStrSep(const char *sz, const char *szDelim, KVLIB_SZLIST **ppList) {
    if (sz == nullptr || szDelim == nullptr || ppList == nullptr) {
        PLAT_SET_ERR(KOVA_ERR_BAD_PARAMETER);
        return -1;
    }
    std::string piece;
    int stored = 0;
    for (const char *p = sz;; ++p) {
        const size_t n = std::strcspn(p, szDelim);
        if (push_piece(piece, p, n, ppList) < 0) return -1;
        ++stored;
        p += n;
        if (*p == '\0') break;
    }
    return stored;
}

}  // extern "C"
