// Key-value files: "key=value" or "key=\"value\"" lines, read key by key. Sections, if any,
// are not looked at: the first line with the key counts.
#include <kovacore.h>

#include <cstring>
#include <new>
#include <string>
#include <string_view>

#include "core/read_file.h"
#include "section_lexer.h"
#include "core/plat_log.h"

namespace ini = kova::ini;

namespace {

// The value of the first line with that key (found tells whether there is one), or false
// when the file cannot be read.
bool lookup(const char *path, const char *key, std::string &value, bool &found) {
    std::string text;
    if (!kova::platform::read_file(path, text)) return false;
    const std::string_view wanted(key);
    found = false;
    ini::for_each_line(text, [&](const ini::Line &line) {
        if (line.kind != ini::Kind::kKey || line.name != wanted) return true;
        value.assign(line.value);
        found = true;
        return false;
    });
    return true;
}

}  // namespace

extern "C" {

// The length of the value copied into the buffer (cut to cbBuf - 1 bytes, terminated); 0 with
// an empty buffer when the key is absent or empty; -1 when the file cannot be read.
int KVLIBCFileGetKeyValue(const char *szPath, const char *szKey, char *szBuf, int cbBuf, int flags) {
    (void)flags;
    if (szPath == nullptr || szKey == nullptr || szBuf == nullptr || cbBuf <= 0) {
        PLAT_SET_ERR(KOVA_ERR_BAD_PARAMETER);
        return -1;
    }
    szBuf[0] = '\0';
    try {
        std::string value;
        bool found = false;
        if (!lookup(szPath, szKey, value, found)) {
            PLAT_SET_ERR(KOVA_ERR_FILE_OPEN);
            return -1;
        }
        if (!found) return 0;
        size_t n = strnlen(value.c_str(), static_cast<size_t>(cbBuf) - 1);
        std::memcpy(szBuf, value.data(), n);
        szBuf[n] = '\0';
        return static_cast<int>(n);
    } catch (const std::bad_alloc &) {
        PLAT_SET_ERR(KOVA_ERR_OUT_OF_MEMORY);
        return -1;
    }
}

// 1 when the key holds exactly the expected value, else 0. The flags are accepted for
// compatibility.
int KVLIBCFileCheckKeyValue(const char *szPath, const char *szKey, const char *szExpected, int flags) {
    (void)flags;
    if (szPath == nullptr || szKey == nullptr || szExpected == nullptr) return 0;
    try {
        std::string value;
        bool found = false;
        return lookup(szPath, szKey, value, found) && found && value == szExpected ? 1 : 0;
    } catch (const std::bad_alloc &) {
        return 0;
    }
}

}  // extern "C"
