// Parsing every .sc file of the system and/or package services.d directories.
#include <dirent.h>
#include <kovaserviceconf.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <utility>

#include "conf/conf_internal.h"
#include "foundation/guard.h"
#include "foundation/log.h"
#include "root_path.h"

namespace {

constexpr size_t kPathMax = 4096;  // paths are formed as in a 4096-byte buffer

// The entries of one scandir() call, released as a whole.
class DirEntries {
public:
    DirEntries() = default;
    DirEntries(const DirEntries &) = delete;
    DirEntries &operator=(const DirEntries &) = delete;
    ~DirEntries() {
        for (int i = 0; i < count_; ++i) std::free(entries_[i]);
        std::free(entries_);
    }

    // Scans `dir` sorted by name; false when it cannot be scanned.
    bool scan(const char *dir) {
        count_ = ::scandir(dir, &entries_, nullptr, ::alphasort);
        if (count_ < 0) {
            entries_ = nullptr;
            count_ = 0;
            return false;
        }
        return true;
    }

    int size() const { return count_; }
    const char *name(int i) const { return entries_[i]->d_name; }

private:
    struct dirent **entries_ = nullptr;
    int count_ = 0;
};

// Parses every entry of one services.d directory in front of `list`; the number parsed, or -1
// when the directory cannot be scanned.
int enum_dir(std::string_view fixed_dir, kova::ConfPtr &list) {
    const std::string dir = kova::resolve(fixed_dir);
    DirEntries entries;
    if (!entries.scan(dir.c_str())) {
        KOVA_SET_ERR(KOVA_ERR_SCAN_DIR);
        return -1;
    }
    int parsed = 0;
    std::string path;
    for (int i = 0; i < entries.size(); ++i) {
        const char *name = entries.name(i);
        if (std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0) continue;
        path.assign(dir).append("/").append(name);
        if (path.size() > kPathMax - 1) path.resize(kPathMax - 1);
        kova::ConfPtr conf = kova::conf::read_conf(path.c_str());
        if (!conf) continue;
        conf->next = list.release();
        list = std::move(conf);
        ++parsed;
    }
    return parsed;
}

// The records of the selected directories, linked in front of *ppConfList only once all are
// read: running out of memory on the way leaves the caller's list as it was.
int conf_enum(KOVA_SERVICE_CONF **ppConfList, int locations) {
    kova::ConfPtr list;
    int count = 0;
    if ((locations & KOVA_CONF_LOCATION_SYSTEM) != 0) {
        const int n = enum_dir(kova::paths::kSystemServicesDir, list);
        if (n >= 0) count = n;
    }
    if ((locations & KOVA_CONF_LOCATION_PACKAGE) != 0) {
        const int n = enum_dir(kova::paths::kPackageServicesDir, list);
        if (n > 0) count += n;
    }
    if (list) {
        KOVA_SERVICE_CONF *last = list.get();
        while (last->next != nullptr) last = last->next;
        last->next = *ppConfList;
        *ppConfList = list.release();
    }
    return count;
}

}  // namespace

extern "C" {

int KOVAServiceConfEnum(KOVA_SERVICE_CONF **ppConfList, int locations) {
    if (ppConfList == nullptr || (locations & (KOVA_CONF_LOCATION_SYSTEM | KOVA_CONF_LOCATION_PACKAGE)) == 0) {
        KOVA_SET_ERR(KOVA_ERR_BAD_PARAMETER);
        return -1;
    }
    return KOVA_GUARDED(-1, [&] { return conf_enum(ppConfList, locations); });
}

}  // extern "C"
