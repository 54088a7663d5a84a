// Parsing every .sc file of the system and/or package services.d directories.
#include <kovaserviceconf.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "conf/conf_internal.h"
#include "foundation/door.h"
#include "foundation/guard.h"
#include "foundation/log.h"
#include "kova_root.h"

namespace {

constexpr size_t kPathMax = 4096;  // paths are formed as in a 4096-byte buffer

// Parses every entry of one services.d directory in front of `list`; the number parsed, or -1
// when the directory cannot be scanned.
int enum_dir(const kova::Door &door, std::string_view fixed_dir, kova::ConfPtr &list) {
    const std::string dir = door.path(fixed_dir);
    std::vector<std::string> entries;
    if (door->list_dir(dir.c_str(), entries) != 0) {
        KOVA_SET_ERR(KOVA_ERR_SCAN_DIR);
        return -1;
    }
    int parsed = 0;
    std::string path;
    for (const std::string &name : entries) {
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
    const kova::Door door;
    kova::ConfPtr list;
    int count = 0;
    if ((locations & KOVA_CONF_LOCATION_SYSTEM) != 0) {
        const int n = enum_dir(door, kova::paths::kSystemServicesDir, list);
        if (n >= 0) count = n;
    }
    if ((locations & KOVA_CONF_LOCATION_PACKAGE) != 0) {
        const int n = enum_dir(door, kova::paths::kPackageServicesDir, list);
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
