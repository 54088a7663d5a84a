// Shared steps of the changing operations: installed paths, the firewall tool, the install step.
#include <kovaserviceconf.h>

#include <cstdio>
#include <string>

#include "change/change_internal.h"
#include "foundation/guard.h"
#include "foundation/log.h"
#include "foundation/raii.h"
#include "kova_root.h"

extern "C" {

int GetInstallPath(const char *szBaseName, int location, char *szPath, int cbPath) {
    std::string_view dir;
    if (location == KOVA_CONF_LOCATION_SYSTEM) {
        dir = kova::paths::kSystemServicesDir;
    } else if (location == KOVA_CONF_LOCATION_PACKAGE) {
        dir = kova::paths::kPackageServicesDir;
    }
    if (szBaseName == nullptr || dir.empty() || szPath == nullptr || cbPath < 1) {
        KOVA_SET_ERR(KOVA_ERR_BAD_PARAMETER);
        return -1;
    }
    try {
        const std::string resolved = kova::resolve(dir);
        std::snprintf(szPath, static_cast<size_t>(cbPath), "%s/%s", resolved.c_str(), szBaseName);
    } catch (const std::bad_alloc &) {
        KOVA_SET_ERR(KOVA_ERR_OUT_OF_MEMORY);
        return -1;
    }
    return 0;
}

int KOVAFwRuleHupWrap(void) {
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

int KVLIBFwServRemoveRecWrap(const char *szServiceName) {
    return KOVA_GUARDED(-1, [&] {
        if (szServiceName == nullptr) {
            KOVA_SET_ERR(KOVA_ERR_BAD_PARAMETER);
            return -1;
        }
        const std::string tool = kova::resolve(kova::paths::kFirewallTool);
        const int ret = kova::sys().run_with(tool.c_str(), 0xBB, "--remove-serv-rec", szServiceName);
        if (ret < 0) {
            KOVA_LOG("Failed to execute [%s %s %s], ret:%d", tool.c_str(), "--remove-serv-rec", szServiceName, ret);
            return -1;
        }
        return 0;
    });
}

int ServiceConfInstall(const char *szBaseName, const char *szSourcePath, unsigned int location,
                       KOVA_SERVICE_CONF_PORT **ppConflictList) {
    return KOVA_GUARDED(-1, [&] {
        // A base name that is not a plain file name could place the file outside services.d.
        if (kova::change::is_hostile_name(szSourcePath) || !kova::change::is_plain_file_name(szBaseName)) {
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

        if (KOVAServiceConfFileVerify(szSourcePath, dir.c_str()) != 0) {
            const unsigned int code = KVLIBCErrGet();
            if (code == KOVA_ERR_FILE_NOT_FOUND) {
                KOVA_LOG("Source configure file does not exist (%s)" KOVA_ERRFMT, szSourcePath, KOVA_ERRARGS);
                return -1;
            }
            if (code != KOVA_ERR_ALREADY_INSTALLED) {
                KOVA_LOG("install configue file fail! (%s)" KOVA_ERRFMT, szSourcePath, KOVA_ERRARGS);
                return -1;
            }
            // Installed already: the install replaces the file.
            KOVA_SET_ERR(KOVA_ERR_NONE);
        }

        // A caller that does not want the conflicting ports still gets the check.
        kova::PortsPtr local_conflicts;
        KOVA_SERVICE_CONF_PORT *local_head = nullptr;
        KOVA_SERVICE_CONF_PORT **conflicts = ppConflictList != nullptr ? ppConflictList : &local_head;
        const int conflict = KVLIBIsConfPortConflict(szSourcePath, conflicts);
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

}  // extern "C"
