// Writing sectioned files. Every write is a locked, atomic rewrite that keeps the lines it does
// not concern as they were; a name, key or value that cannot be written as one line is refused
// before anything is touched.
#include <kovacore.h>

#include <new>
#include <string>
#include <string_view>

#include "core/file_replace.h"
#include "core/plat_log.h"
#include "core/section_edit.h"

namespace ini = kova::platform::ini;
using kova::platform::EditResult;

namespace {

// The hash's keys and values in insertion order, when every one of them can be written.
bool entries_of(const KVLIB_SZHASH *hash, ini::Entries &entries) {
    const int count = KVLIBCSzHashCount(hash);
    entries.reserve(static_cast<size_t>(count));
    for (int i = 0; i < count; ++i) {
        const char *key = KVLIBCSzHashKeyAt(hash, i);
        const char *value = KVLIBCSzHashValueAt(hash, i);
        if (key == nullptr || value == nullptr || !ini::valid_key(key) || !ini::valid_value(value)) return false;
        entries.emplace_back(key, value);
    }
    return true;
}

int write_section(const char *path, const char *section, const char *rename, const KVLIB_SZHASH *hash) {
    ini::Entries entries;
    if (path == nullptr || section == nullptr || hash == nullptr || !ini::valid_section_name(section) ||
        (rename != nullptr && !ini::valid_section_name(rename)) || !entries_of(hash, entries)) {
        PLAT_SET_ERR(KOVA_ERR_BAD_PARAMETER);
        return -1;
    }
    return kova::platform::rewrite_file(path, true, [&](const std::string &text, std::string &out) {
        out = ini::set_section(text, section, rename != nullptr ? rename : "", entries);
        return EditResult::kWrite;
    });
}

}  // namespace

extern "C" {

// Replaces the keys of the section with the hash's, renaming it when szNewSection is given;
// a missing section (or file) is created.
int KVLIBCFileSetSection(const char *szPath, const char *szSection, const char *szNewSection, const KVLIB_SZHASH *pHash,
                         int flags) {
    (void)flags;
    try {
        return write_section(szPath, szSection, szNewSection, pHash);
    } catch (const std::bad_alloc &) {
        PLAT_SET_ERR(KOVA_ERR_OUT_OF_MEMORY);
        return -1;
    }
}

// Appends a section with the hash's keys (creating the file if needed). A section of that name
// that exists already gets these keys instead, so that the file never holds it twice.
int KVLIBCFileAddSection(const char *szPath, const char *szSection, const KVLIB_SZHASH *pHash, int flags) {
    (void)flags;
    try {
        return write_section(szPath, szSection, nullptr, pHash);
    } catch (const std::bad_alloc &) {
        PLAT_SET_ERR(KOVA_ERR_OUT_OF_MEMORY);
        return -1;
    }
}

// Sets one key of a section to the value as given (no quotes added), adding the key, the
// section or the file as needed.
int KVLIBCFileSetSectionValue(const char *szPath, const char *szSection, const char *szKey, const char *szValue) {
    if (szPath == nullptr || szSection == nullptr || szKey == nullptr || szValue == nullptr ||
        !ini::valid_section_name(szSection) || !ini::valid_key(szKey) || !ini::valid_value(szValue)) {
        PLAT_SET_ERR(KOVA_ERR_BAD_PARAMETER);
        return -1;
    }
    try {
        return kova::platform::rewrite_file(szPath, true, [&](const std::string &text, std::string &out) {
            out = ini::set_value(text, szSection, szKey, szValue);
            return EditResult::kWrite;
        });
    } catch (const std::bad_alloc &) {
        PLAT_SET_ERR(KOVA_ERR_OUT_OF_MEMORY);
        return -1;
    }
}

// Removes the section and its keys. A missing file fails (0x0900); a missing section leaves
// the file untouched and succeeds.
int KVLIBCFileRemoveSection(const char *szPath, const char *szSection) {
    if (szPath == nullptr || szSection == nullptr) {
        PLAT_SET_ERR(KOVA_ERR_BAD_PARAMETER);
        return -1;
    }
    try {
        return kova::platform::rewrite_file(szPath, false, [&](const std::string &text, std::string &out) {
            bool found = false;
            out = ini::remove_section(text, szSection, found);
            return found ? EditResult::kWrite : EditResult::kUnchanged;
        });
    } catch (const std::bad_alloc &) {
        PLAT_SET_ERR(KOVA_ERR_OUT_OF_MEMORY);
        return -1;
    }
}

}  // extern "C"
