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

int firewall_reload() noexcept {
    return KOVA_GUARDED(-1, [&] {
        const std::string tool = kova::resolve(kova::paths::kFirewallTool);
        const int ret = kova::sys().run_with(tool.c_str(), 0xBB, "--reload", nullptr);
        if (ret < 0) {
            KOVA_LOG("Failed to execute [%s %s], ret:%d", tool.c_str(), "--reload", ret);
            return -1;
        }
        return 0;
    });
}

int firewall_remove_record(const char *szServiceName) noexcept {
    return KOVA_GUARDED(-1, [&] {
        const std::string tool = kova::resolve(kova::paths::kFirewallTool);
        const int ret = kova::sys().run_with(tool.c_str(), 0xBB, "--remove-serv-rec", szServiceName);
        if (ret < 0) {
            KOVA_LOG("Failed to execute [%s %s %s], ret:%d", tool.c_str(), "--remove-serv-rec", szServiceName, ret);
            return -1;
        }
        return 0;
    });
}

int install(const char *szBaseName, const char *szSourcePath, unsigned int location,
            KOVA_SERVICE_CONF_PORT **ppConflictList) noexcept {
    return KOVA_GUARDED(-1, [&] {
        // A base name that is not a plain file name could place the file outside services.d.
        if (is_hostile_name(szSourcePath) || !is_plain_file_name(szBaseName)) {
            KOVA_SET_ERR(KOVA_ERR_BAD_PARAMETER);
            return -1;
        }
        std::string_view dir_name;
        if (location == KOVA_CONF_LOCATION_SYSTEM) {
            dir_name = kova::paths::kSystemServicesDir;
        } else if (location == KOVA_CONF_LOCATION_PACKAGE) {
            dir_name = kova::paths::kPackageServicesDir;
        } else {
            KOVA_SET_ERR(KOVA_ERR_BAD_PARAMETER);
            return -1;
        }
        const std::string dir = kova::resolve(dir_name);

        if (const Result<void> verified = conf::file_verify(szSourcePath, dir.c_str()); !verified) {
            const Failure &f = verified.failure();
            if (f.code != KOVA_ERR_ALREADY_INSTALLED) {
                set_error(f);
                if (f.code == KOVA_ERR_FILE_NOT_FOUND) {
                    KOVA_LOG("Source configure file does not exist (%s)" KOVA_ERRFMT, szSourcePath, KOVA_ERRARGS);
                } else {
                    KOVA_LOG("install configue file fail! (%s)" KOVA_ERRFMT, szSourcePath, KOVA_ERRARGS);
                }
                return -1;
            }
            // Installed already: the install replaces the file.
            KOVA_SET_ERR(KOVA_ERR_NONE);
        }

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

        if (kova::sys().run("/bin/mkdir", "-p", dir.c_str(), nullptr, nullptr) != 0) {
            KOVA_SET_ERR(KOVA_ERR_MKDIR);
            KOVA_LOG("mkdir fail for path %s" KOVA_ERRFMT, dir.c_str(), KOVA_ERRARGS);
            return -1;
        }
        const std::string target = dir + "/" + szBaseName;
        if (kova::sys().run("/bin/cp", "-f", szSourcePath, target.c_str(), nullptr) != 0) {
            KOVA_SET_ERR(KOVA_ERR_COPY);
            KOVA_LOG("install configure file fail! from=%s to=%s" KOVA_ERRFMT, szSourcePath, target.c_str(),
                     KOVA_ERRARGS);
            return -1;
        }
        return conflict == 1 ? 1 : 0;
    });
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
    return kova::change::firewall_reload();
}

int KVLIBFwServRemoveRecWrap(const char *szServiceName) {
    if (szServiceName == nullptr) {
        KOVA_SET_ERR(KOVA_ERR_BAD_PARAMETER);
        return -1;
    }
    return kova::change::firewall_remove_record(szServiceName);
}

int ServiceConfInstall(const char *szBaseName, const char *szSourcePath, unsigned int location,
                       KOVA_SERVICE_CONF_PORT **ppConflictList) {
    return kova::change::install(szBaseName, szSourcePath, location, ppConflictList);
}

}  // extern "C"
