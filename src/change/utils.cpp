// Shared steps of the changing operations: installed paths, the firewall tool, the install step.
#include <kovaserviceconf.h>

#include <cstdio>
#include <new>
#include <string>

#include "change/change_internal.h"
#include "conf/file_verify.h"
#include "foundation/guard.h"
#include "foundation/log.h"
#include "foundation/raii.h"
#include "kova_root.h"
#include "range/conflict_check.h"

namespace kova::change {

Result<std::string> install_path(const char *szBaseName, int location) noexcept {
    std::string_view dir;
    if (location == KOVA_CONF_LOCATION_SYSTEM) {
        dir = kova::paths::kSystemServicesDir;
    } else if (location == KOVA_CONF_LOCATION_PACKAGE) {
        dir = kova::paths::kPackageServicesDir;
    }
    if (szBaseName == nullptr || dir.empty()) return KOVA_FAILURE(KOVA_ERR_BAD_PARAMETER);
    try {
        return kova::resolve(dir) + "/" + szBaseName;
    } catch (const std::bad_alloc &) {
        return KOVA_FAILURE(KOVA_ERR_OUT_OF_MEMORY);
    }
}

// Runs the firewall tool; a tool that cannot be run is logged and leaves the error state.
Result<void> firewall_reload() noexcept {
    return KOVA_GUARDED_RESULT(Result<void>, [&]() -> Result<void> {
        const std::string tool = kova::resolve(kova::paths::kFirewallTool);
        const int ret = kova::sys().run_with(tool.c_str(), 0xBB, "--reload", nullptr);
        if (ret < 0) {
            KOVA_LOG("Failed to execute [%s %s], ret:%d", tool.c_str(), "--reload", ret);
            return KOVA_FAILURE_KEEP;
        }
        return {};
    });
}

Result<void> firewall_remove_record(const char *szServiceName) noexcept {
    return KOVA_GUARDED_RESULT(Result<void>, [&]() -> Result<void> {
        const std::string tool = kova::resolve(kova::paths::kFirewallTool);
        const int ret = kova::sys().run_with(tool.c_str(), 0xBB, "--remove-serv-rec", szServiceName);
        if (ret < 0) {
            KOVA_LOG("Failed to execute [%s %s %s], ret:%d", tool.c_str(), "--remove-serv-rec", szServiceName, ret);
            return KOVA_FAILURE_KEEP;
        }
        return {};
    });
}

Result<InstallPlan> plan_install(const char *szBaseName, const char *szSourcePath, unsigned int location) noexcept {
    return KOVA_GUARDED_RESULT(Result<InstallPlan>, [&]() -> Result<InstallPlan> {
        // A base name that is not a plain file name could place the file outside services.d.
        if (is_hostile_name(szSourcePath) || !is_plain_file_name(szBaseName)) {
            return KOVA_FAILURE(KOVA_ERR_BAD_PARAMETER);
        }
        std::string_view dir_name;
        if (location == KOVA_CONF_LOCATION_SYSTEM) {
            dir_name = kova::paths::kSystemServicesDir;
        } else if (location == KOVA_CONF_LOCATION_PACKAGE) {
            dir_name = kova::paths::kPackageServicesDir;
        } else {
            return KOVA_FAILURE(KOVA_ERR_BAD_PARAMETER);
        }
        InstallPlan plan{kova::resolve(dir_name), {}};

        if (const Result<void> verified = conf::file_verify(szSourcePath, plan.dir.c_str()); !verified) {
            const Failure &f = verified.failure();
            if (f.code != KOVA_ERR_ALREADY_INSTALLED) {
                if (f.code == KOVA_ERR_FILE_NOT_FOUND) {
                    KOVA_LOG("Source configure file does not exist (%s)" KOVA_ERRFMT, szSourcePath,
                             KOVA_FAILURE_ARGS(f));
                } else {
                    KOVA_LOG("install configue file fail! (%s)" KOVA_ERRFMT, szSourcePath, KOVA_FAILURE_ARGS(f));
                }
                return f;
            }
            // Installed already: the install replaces the file.
            plan.left = KOVA_STATE_NOTE(KOVA_ERR_NONE);
        }
        return plan;
    });
}

Result<int> finish_install(const InstallPlan &plan, const char *szBaseName, const char *szSourcePath,
                           KOVA_SERVICE_CONF_PORT **ppConflictList) noexcept {
    return KOVA_GUARDED_RESULT(Result<int>, [&]() -> Result<int> {
        // A caller that does not want the conflicting ports still gets the check.
        kova::PortsPtr local_conflicts;
        KOVA_SERVICE_CONF_PORT *local_head = nullptr;
        KOVA_SERVICE_CONF_PORT **conflicts = ppConflictList != nullptr ? ppConflictList : &local_head;
        const int conflict = check::is_conf_port_conflict(szSourcePath, conflicts);
        local_conflicts.reset(local_head);
        if (conflict == 1) {
            KOVA_LOG("%s conf file port conflict with existed conf file setting", szSourcePath);
        } else if (conflict != 0) {
            KOVA_LOG("check %s conf file port conflict failed=%d", szSourcePath, conflict);
        }

        if (kova::sys().run("/bin/mkdir", "-p", plan.dir.c_str(), nullptr, nullptr) != 0) {
            const Failure f = KOVA_FAILURE(KOVA_ERR_MKDIR);
            KOVA_LOG("mkdir fail for path %s" KOVA_ERRFMT, plan.dir.c_str(), KOVA_FAILURE_ARGS(f));
            return f;
        }
        const std::string target = plan.dir + "/" + szBaseName;
        if (kova::sys().run("/bin/cp", "-f", szSourcePath, target.c_str(), nullptr) != 0) {
            const Failure f = KOVA_FAILURE(KOVA_ERR_COPY);
            KOVA_LOG("install configure file fail! from=%s to=%s" KOVA_ERRFMT, szSourcePath, target.c_str(),
                     KOVA_FAILURE_ARGS(f));
            return f;
        }
        return conflict == 1 ? 1 : 0;
    });
}

int install(const char *szBaseName, const char *szSourcePath, unsigned int location,
            KOVA_SERVICE_CONF_PORT **ppConflictList) noexcept {
    const Result<InstallPlan> plan = plan_install(szBaseName, szSourcePath, location);
    if (!plan) return to_c(plan);
    record(plan->left);
    const Result<int> installed = finish_install(*plan, szBaseName, szSourcePath, ppConflictList);
    return installed ? *installed : to_c(installed);
}

}  // namespace kova::change

extern "C" {

int GetInstallPath(const char *szBaseName, int location, char *szPath, int cbPath) {
    if (szPath == nullptr || cbPath < 1) {
        KOVA_SET_ERR(KOVA_ERR_BAD_PARAMETER);
        return -1;
    }
    const kova::Result<std::string> path = kova::change::install_path(szBaseName, location);
    if (!path) {
        kova::set_error(path.failure());
        return -1;
    }
    std::snprintf(szPath, static_cast<size_t>(cbPath), "%s", path->c_str());
    return 0;
}

int KOVAFwRuleHupWrap(void) {
    return kova::change::to_c(kova::change::firewall_reload());
}

int KVLIBFwServRemoveRecWrap(const char *szServiceName) {
    if (szServiceName == nullptr) {
        KOVA_SET_ERR(KOVA_ERR_BAD_PARAMETER);
        return -1;
    }
    return kova::change::to_c(kova::change::firewall_remove_record(szServiceName));
}

int ServiceConfInstall(const char *szBaseName, const char *szSourcePath, unsigned int location,
                       KOVA_SERVICE_CONF_PORT **ppConflictList) {
    return kova::change::install(szBaseName, szSourcePath, location, ppConflictList);
}

}  // extern "C"
