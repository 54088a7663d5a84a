// Before an install: the source file exists and no file of its base name is installed yet.
#include <kovaserviceconf.h>

#include <cstring>
#include <string>

#include "foundation/guard.h"
#include "foundation/log.h"

namespace {

constexpr size_t kPathMax = 4096;  // paths are formed as in a 4096-byte buffer

int file_verify(const char *szSourcePath, const char *szTargetDir) {
    if (KVLIBCFileExist(szSourcePath) != 1) {
        KOVA_SET_ERR(KOVA_ERR_FILE_NOT_FOUND);
        return -1;
    }
    const char *slash = std::strrchr(szSourcePath, '/');
    const char *base = slash != nullptr ? slash + 1 : szSourcePath;
    std::string target(szTargetDir);
    target.append("/").append(base);
    if (target.size() > kPathMax - 1) target.resize(kPathMax - 1);
    if (KVLIBCFileExist(target.c_str()) == 1) {
        KOVA_SET_ERR(KOVA_ERR_ALREADY_INSTALLED);
        return -1;
    }
    return 0;
}

}  // namespace

extern "C" {

int KOVAServiceConfFileVerify(const char *szSourcePath, const char *szTargetDir) {
    if (szSourcePath == nullptr || szTargetDir == nullptr) {
        KOVA_SET_ERR(KOVA_ERR_BAD_PARAMETER);
        return -1;
    }
    return KOVA_GUARDED(-1, [&] { return file_verify(szSourcePath, szTargetDir); });
}

}  // extern "C"
