// Replacing an installed .sc file, keeping the old one aside for the "port_config/update" event.
#include <kovaserviceconf.h>

#include <string>

#include "change/change_internal.h"
#include "foundation/door.h"
#include "foundation/guard.h"
#include "foundation/log.h"
#include "kova_root.h"

namespace {

constexpr int kPathSize = 4096;

// The notice hands out paths that must outlive the call; each thread keeps the ones of its
// latest update until its next one.
struct NoticePaths {
    std::string old_copy;
    std::string installed;
};

NoticePaths &notice_paths() {
    thread_local NoticePaths paths;
    return paths;
}

}  // namespace

extern "C" {

int KOVAServiceConfUpdateBaseNameWithoutNotify(const char *szBaseName, const char *szSourcePath, unsigned int location,
                                               KOVA_SERVICE_CONF_PORT **ppConflictList,
                                               KVLIB_SERVICE_CONF_UPDATE_NOTICE *pNotice) {
    return KOVA_GUARDED(-1, [&] {
        if (szBaseName == nullptr || kova::change::is_hostile_name(szSourcePath) || pNotice == nullptr ||
            !kova::change::is_plain_file_name(szBaseName)) {
            KOVA_SET_ERR(KOVA_ERR_BAD_PARAMETER);
            return -1;
        }
        char installed[kPathSize];
        if (GetInstallPath(szBaseName, static_cast<int>(location), installed, sizeof installed) != 0) {
            KOVA_LOG("FAILED to get installed path of file=%s type=%d", szBaseName, static_cast<int>(location));
            return -1;
        }
        if (KVLIBCFileExist(installed) == 0) {
            KOVA_LOG("FAILED due to installed conf file=%s not exist", installed);
            return -1;
        }

        const std::string old_copy = kova::resolve(std::string("/tmp/servicetool.update.") + szBaseName + ".old");
        kova::change::TempFileGuard old_guard(old_copy);
        if (kova::change::claim_temp_file(old_copy) != 0 ||
            kova::sys().run("/bin/cp", "-f", installed, old_copy.c_str(), nullptr) != 0) {
            KOVA_LOG("FAILED to copy from file=%s to backup path=%s", installed, old_copy.c_str());
            return -1;
        }

        const int installed_result = ServiceConfInstall(szBaseName, szSourcePath, location, ppConflictList);
        if (installed_result == 1) {
            KOVA_LOG("%s conf file port conflict with existed conf file setting=%s", szSourcePath, szBaseName);
        } else if (installed_result < 0) {
            // Nothing was replaced: there is no change to notify.
            KOVA_LOG("check %s conf file port conflict failed=%d", szSourcePath, installed_result);
            return -1;
        }

        NoticePaths &paths = notice_paths();
        paths.old_copy = old_copy;
        paths.installed = installed;
        pNotice->oldConfPath = paths.old_copy.c_str();
        pNotice->newConfPath = paths.installed.c_str();
        pNotice->notifyFirewall = 1;
        pNotice->notifyPortForward = 1;
        old_guard.reset({});  // the caller removes the old copy after notifying
        return installed_result == 1 ? 1 : 0;
    });
}

int KOVAServiceConfUpdateBaseName(const char *szBaseName, const char *szSourcePath, unsigned int location,
                                  KOVA_SERVICE_CONF_PORT **ppConflictList) {
    return KOVA_GUARDED(-1, [&] {
        KVLIB_SERVICE_CONF_UPDATE_NOTICE notice{};
        const int result =
            KOVAServiceConfUpdateBaseNameWithoutNotify(szBaseName, szSourcePath, location, ppConflictList, &notice);
        // The old copy lives only for this call (removed without allocating: memory may be out).
        struct Unlink {
            const char *path;
            ~Unlink() {
                if (path != nullptr) kova::sys().unlink(path);
            }
        } old_guard{notice.oldConfPath};
        if (result < 0) {
            KOVA_LOG("FAILED to install .sc");
            return -1;
        }
        if (KVLIBServiceConfUpdateServNotify(&notice) < 0) {
            KOVA_LOG("FAILED to notify");
            return -1;
        }
        return result == 1 ? 1 : 0;
    });
}

}  // extern "C"
