// Installing a .sc file into its services.d directory.
#include <kovaserviceconf.h>

#include <cstring>
#include <string>

#include "change/change_internal.h"
#include "foundation/guard.h"
#include "foundation/log.h"
#include "foundation/raii.h"

namespace {

// The last component of a path as POSIX basename() gives it: trailing slashes do not count,
// a path of slashes only is "/", the empty path is ".".
std::string base_name_of(const std::string &path) {
    const size_t end = path.find_last_not_of('/');
    if (end == std::string::npos) return path.empty() ? "." : "/";
    const size_t slash = path.rfind('/', end);
    const size_t begin = slash == std::string::npos ? 0 : slash + 1;
    return path.substr(begin, end + 1 - begin);
}

}  // namespace

extern "C" {

int KOVAServiceConfInstall(const char *szSourcePath, unsigned int location) {
    return KOVA_GUARDED(-1, [&] {
        if (szSourcePath == nullptr) {
            KOVA_SET_ERR(KOVA_ERR_BAD_PARAMETER);
            return -1;
        }
        kova::CStrPtr copy(::strdup(szSourcePath));
        if (!copy) {
            KOVA_LOG("FAILED to duplicate string=%s", szSourcePath);
            return -1;
        }
        const std::string base = base_name_of(copy.get());
        KOVA_SERVICE_CONF_PORT *conflicts = nullptr;
        const int result = kova::change::install(base.c_str(), szSourcePath, location, &conflicts);
        KOVAServiceConfPortsFree(conflicts);
        return result;
    });
}

int KOVAServiceConfInstallBaseName(const char *szBaseName, const char *szSourcePath, unsigned int location,
                                   KOVA_SERVICE_CONF_PORT **ppConflictList) {
    return kova::change::install(szBaseName, szSourcePath, location, ppConflictList);
}

}  // extern "C"
