// Parsing every .sc file of the system and/or package services.d directories.
#include <kovaserviceconf.h>

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

// Every entry of one services.d directory to `visitor`, opened through the directory by name;
// the number it took, or -1 when the directory cannot be scanned.
int each_in_dir(const kova::Door &door, std::string_view fixed_dir, int location, kova::conf::FileVisitor &visitor,
                std::vector<kova::DirEntry> &entries) {
    const std::string dir = door.path(fixed_dir);
    kova::System &sys = door.sys();
    const kova::FileHandle listed(sys, sys.open_dir(dir.c_str(), entries));
    if (!listed) {
        KOVA_SET_ERR(KOVA_ERR_SCAN_DIR);
        return -1;
    }
    int taken = 0;
    std::string path;
    for (const kova::DirEntry &entry : entries) {
        path.assign(dir).append("/").append(entry.name);
        kova::conf::FileRef where{path.c_str(), listed.get(), entry.name.c_str(), entry.regular};
        if (path.size() > kPathMax - 1) where = {path.erase(kPathMax - 1).c_str()};  // opened by the cut path
        if (visitor.file(where, location)) ++taken;
    }
    return taken;
}

// The records of the selected directories, put in front of *ppConfList once all are read (none if memory runs out).
int conf_enum(KOVA_SERVICE_CONF **ppConfList, int locations) {
    struct Files final : kova::conf::FileVisitor {
        kova::ConfPtr list;
        kova::conf::ScFile scratch;
        bool file(const kova::conf::FileRef &where, int) override {
            kova::ConfPtr conf = kova::conf::read_conf(where, scratch);
            if (!conf) return false;
            conf->next = list.release();
            list = std::move(conf);
            return true;
        }
    } files;
    const int count = kova::conf::each_conf_file(locations, files);
    if (files.list) {
        KOVA_SERVICE_CONF *last = files.list.get();
        while (last->next != nullptr) last = last->next;
        last->next = *ppConfList;
        *ppConfList = files.list.release();
    }
    return count;
}

}  // namespace

namespace kova::conf {

int each_conf_file(int locations, FileVisitor &visitor) {
    const Door door;
    // Both listings are freed once every file is read: freeing a large block while the visitor
    // still makes its records would let the C library hand the free memory above it back to the
    // system, for the records to fault it in again.
    std::vector<DirEntry> system_entries;
    std::vector<DirEntry> package_entries;
    int count = 0;
    if ((locations & KOVA_CONF_LOCATION_SYSTEM) != 0) {
        const int n = each_in_dir(door, paths::kSystemServicesDir, KOVA_CONF_LOCATION_SYSTEM, visitor, system_entries);
        if (n >= 0) count = n;
    }
    if ((locations & KOVA_CONF_LOCATION_PACKAGE) != 0) {
        const int n =
            each_in_dir(door, paths::kPackageServicesDir, KOVA_CONF_LOCATION_PACKAGE, visitor, package_entries);
        if (n > 0) count += n;
    }
    return count;
}

}  // namespace kova::conf

extern "C" {

int KOVAServiceConfEnum(KOVA_SERVICE_CONF **ppConfList, int locations) {
    if (ppConfList == nullptr || (locations & (KOVA_CONF_LOCATION_SYSTEM | KOVA_CONF_LOCATION_PACKAGE)) == 0) {
        KOVA_SET_ERR(KOVA_ERR_BAD_PARAMETER);
        return -1;
    }
    return KOVA_GUARDED(-1, [&] { return conf_enum(ppConfList, locations); });
}

}  // extern "C"
