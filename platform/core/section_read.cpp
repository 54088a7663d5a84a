// Reading sectioned files: the section names, and one section's keys into a string hash.
#include <kovacore.h>

#include <new>
#include <string>
#include <string_view>
#include <unordered_set>

#include "core/read_file.h"
#include "section_lexer.h"
#include "core/plat_log.h"

namespace ini = kova::ini;

namespace {

// Reads the whole file and returns body(text): -1 with 0x0900 when the file cannot be read,
// -1 with 0x0200 when memory runs out on the way.
template <class Body>
int with_file_text(const char *path, Body &&body) {
    try {
        std::string text;
        if (!kova::platform::read_file(path, text)) {
            PLAT_SET_ERR(KOVA_ERR_FILE_OPEN);
            return -1;
        }
        return body(text);
    } catch (const std::bad_alloc &) {
        PLAT_SET_ERR(KOVA_ERR_OUT_OF_MEMORY);
        return -1;
    }
}

}  // namespace

extern "C" {

// Appends the names of the file's sections in file order (a name repeated later in the file
// is listed once); their number, or -1 when the file cannot be read.
int KVLIBCFileEnumSection(const char *szPath, KVLIB_SZLIST **ppList) {
    if (szPath == nullptr || ppList == nullptr) {
        PLAT_SET_ERR(KOVA_ERR_BAD_PARAMETER);
        return -1;
    }
    return with_file_text(szPath, [&](const std::string &text) {
        std::unordered_set<std::string_view> seen;
        int count = 0;
        bool failed = false;
        ini::for_each_line(text, [&](const ini::Line &line) {
            if (line.kind != ini::Kind::kSection || !seen.insert(line.name).second) return true;
            if (KVLIBCSzListPush(ppList, std::string(line.name).c_str()) < 0) {
                failed = true;
                return false;
            }
            ++count;
            return true;
        });
        return failed ? -1 : count;
    });
}

// Reads the keys of the first section of that name into the hash (a key repeated in the
// section keeps its last value); the number of distinct keys read, 0 when there is no such
// section, -1 when the file cannot be read.
int KVLIBCFileGetSection(const char *szPath, const char *szSection, KVLIB_SZHASH **ppHash) {
    if (szPath == nullptr || szSection == nullptr || ppHash == nullptr) {
        PLAT_SET_ERR(KOVA_ERR_BAD_PARAMETER);
        return -1;
    }
    return with_file_text(szPath, [&](const std::string &text) {
        const std::string_view wanted(szSection);
        bool inside = false;
        bool failed = false;
        std::unordered_set<std::string_view> keys;
        ini::for_each_line(text, [&](const ini::Line &line) {
            if (line.kind == ini::Kind::kSection) {
                if (inside) return false;  // end of the section
                inside = line.name == wanted;
                return true;
            }
            if (!inside || line.kind != ini::Kind::kKey || line.name.empty()) return true;
            if (KVLIBCSzHashSetValue(ppHash, std::string(line.name).c_str(), std::string(line.value).c_str()) < 0) {
                failed = true;
                return false;
            }
            keys.insert(line.name);
            return true;
        });
        return failed ? -1 : static_cast<int>(keys.size());
    });
}

}  // extern "C"
