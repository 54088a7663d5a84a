// Replacing an installed .sc file, keeping the old one aside for the "port_config/update" event.
#include <kovaserviceconf.h>

#include <string>

#include "change/change_internal.h"
#include "foundation/door.h"
#include "foundation/guard.h"
#include "foundation/log.h"
#include "kova_root.h"

namespace {

constexpr size_t kPathSize = 4096;  // installed paths are formed as in a 4096-byte buffer

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

namespace kova::change {

int update_without_notify(const char *szBaseName, const char *szSourcePath, unsigned int location,
                          KOVA_SERVICE_CONF_PORT **ppConflictList, KVLIB_SERVICE_CONF_UPDATE_NOTICE &notice) noexcept {
    return KOVA_GUARDED(-1, [&] {
        if (szBaseName == nullptr || is_hostile_name(szSourcePath) || !is_plain_file_name(szBaseName)) {
            KOVA_SET_ERR(KOVA_ERR_BAD_PARAMETER);
            return -1;
        }
        Result<std::string> found = install_path(szBaseName, static_cast<int>(location));
        if (!found) {
            set_error(found.failure());
            KOVA_LOG("FAILED to get installed path of file=%s type=%d", szBaseName, static_cast<int>(location));
            return -1;
        }
        std::string &installed = *found;
        if (installed.size() > kPathSize - 1) installed.resize(kPathSize - 1);
        if (KVLIBCFileExist(installed.c_str()) == 0) {
            KOVA_LOG("FAILED due to installed conf file=%s not exist", installed.c_str());
            return -1;
        }

        const std::string old_copy = kova::resolve(std::string("/tmp/servicetool.update.") + szBaseName + ".old");
        TempFileGuard old_guard(old_copy);
        if (claim_temp_file(old_copy) != 0 ||
            kova::sys().run("/bin/cp", "-f", installed.c_str(), old_copy.c_str(), nullptr) != 0) {
            KOVA_LOG("FAILED to copy from file=%s to backup path=%s", installed.c_str(), old_copy.c_str());
            return -1;
        }

        const int installed_result = install(szBaseName, szSourcePath, location, ppConflictList);
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
        notice.oldConfPath = paths.old_copy.c_str();
        notice.newConfPath = paths.installed.c_str();
        notice.notifyFirewall = 1;
        notice.notifyPortForward = 1;
        old_guard.reset({});  // the caller removes the old copy after notifying
        return installed_result == 1 ? 1 : 0;
    });
}

}  // namespace kova::change

extern "C" {

int KOVAServiceConfUpdateBaseNameWithoutNotify(const char *szBaseName, const char *szSourcePath, unsigned int location,
                                               KOVA_SERVICE_CONF_PORT **ppConflictList,
                                               KVLIB_SERVICE_CONF_UPDATE_NOTICE *pNotice) {
    if (pNotice == nullptr) {
        KOVA_SET_ERR(KOVA_ERR_BAD_PARAMETER);
        return -1;
    }
    return kova::change::update_without_notify(szBaseName, szSourcePath, location, ppConflictList, *pNotice);
}

int KOVAServiceConfUpdateBaseName(const char *szBaseName, const char *szSourcePath, unsigned int location,
                                  KOVA_SERVICE_CONF_PORT **ppConflictList) {
    return KOVA_GUARDED(-1, [&] {
        KVLIB_SERVICE_CONF_UPDATE_NOTICE notice{};
        const int result =
            kova::change::update_without_notify(szBaseName, szSourcePath, location, ppConflictList, notice);
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
        if (kova::change::update_notify(notice) < 0) {
            KOVA_LOG("FAILED to notify");
            return -1;
        }
        return result == 1 ? 1 : 0;
    });
}

}  // extern "C"
