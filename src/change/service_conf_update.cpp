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

namespace {

// An update whose installed file is kept aside and whose install is planned.
struct UpdatePlan {
    std::string installed;
    std::string old_copy;
    TempFileGuard old_guard;
    InstallPlan install;
};

Result<UpdatePlan> plan_update(const char *szBaseName, const char *szSourcePath, unsigned int location) {
    if (szBaseName == nullptr || is_hostile_name(szSourcePath) || !is_plain_file_name(szBaseName)) {
        return KOVA_FAILURE(KOVA_ERR_BAD_PARAMETER);
    }
    Result<std::string> found = install_path(szBaseName, static_cast<int>(location));
    if (!found) {
        KOVA_LOG("FAILED to get installed path of file=%s type=%d", szBaseName, static_cast<int>(location));
        return found.failure();
    }
    std::string &installed = *found;
    if (installed.size() > kPathSize - 1) installed.resize(kPathSize - 1);
    if (KVLIBCFileExist(installed.c_str()) == 0) {
        KOVA_LOG("FAILED due to installed conf file=%s not exist", installed.c_str());
        return KOVA_FAILURE_KEEP;
    }

    std::string old_copy = kova::resolve(std::string("/tmp/servicetool.update.") + szBaseName + ".old");
    TempFileGuard old_guard(old_copy);
    if (claim_temp_file(old_copy) != 0 ||
        kova::sys().run("/bin/cp", "-f", installed.c_str(), old_copy.c_str(), nullptr) != 0) {
        KOVA_LOG("FAILED to copy from file=%s to backup path=%s", installed.c_str(), old_copy.c_str());
        return KOVA_FAILURE_KEEP;
    }

    Result<InstallPlan> install = plan_install(szBaseName, szSourcePath, location);
    if (!install) {
        // Nothing was replaced: there is no change to notify.
        KOVA_LOG("check %s conf file port conflict failed=%d", szSourcePath, -1);
        return install.failure();
    }
    return UpdatePlan{std::move(installed), std::move(old_copy), std::move(old_guard), std::move(*install)};
}

Result<int> finish_update(UpdatePlan &plan, const char *szBaseName, const char *szSourcePath,
                          KOVA_SERVICE_CONF_PORT **ppConflictList, KVLIB_SERVICE_CONF_UPDATE_NOTICE &notice) {
    const Result<int> installed = finish_install(plan.install, szBaseName, szSourcePath, ppConflictList);
    if (!installed) {
        KOVA_LOG("check %s conf file port conflict failed=%d", szSourcePath, -1);
        return installed;
    }
    if (*installed == 1)
        KOVA_LOG("%s conf file port conflict with existed conf file setting=%s", szSourcePath, szBaseName);

    NoticePaths &paths = notice_paths();
    paths.old_copy = plan.old_copy;
    paths.installed = plan.installed;
    notice.oldConfPath = paths.old_copy.c_str();
    notice.newConfPath = paths.installed.c_str();
    notice.notifyFirewall = 1;
    notice.notifyPortForward = 1;
    plan.old_guard.reset({});  // the caller removes the old copy after notifying
    return *installed;
}

}  // namespace

int update_without_notify(const char *szBaseName, const char *szSourcePath, unsigned int location,
                          KOVA_SERVICE_CONF_PORT **ppConflictList, KVLIB_SERVICE_CONF_UPDATE_NOTICE &notice) noexcept {
    return KOVA_GUARDED(-1, [&] {
        Result<UpdatePlan> plan = plan_update(szBaseName, szSourcePath, location);
        if (!plan) return to_c(plan);
        // The install's test leaves its note before the copy step records its own failures.
        record(plan->install.left);
        const Result<int> updated = finish_update(*plan, szBaseName, szSourcePath, ppConflictList, notice);
        return updated ? *updated : to_c(updated);
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
        if (kova::change::notify_update(notice) < 0) {
            KOVA_LOG("FAILED to notify");
            return -1;
        }
        return result == 1 ? 1 : 0;
    });
}

}  // extern "C"
