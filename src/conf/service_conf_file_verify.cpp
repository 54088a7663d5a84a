// Before an install: the source file exists and no file of its base name is installed yet.
#include "conf/file_verify.h"

#include <kovaserviceconf.h>

#include <cstring>
#include <new>
#include <string>

#include "foundation/log.h"

namespace kova::conf {

namespace {

constexpr size_t kPathMax = 4096;  // paths are formed as in a 4096-byte buffer

}  // namespace

Result<void> file_verify(const char *szSourcePath, const char *szTargetDir) noexcept {
    if (KVLIBCFileExist(szSourcePath) != 1) return KOVA_FAILURE(KOVA_ERR_FILE_NOT_FOUND);
    const char *slash = std::strrchr(szSourcePath, '/');
    const char *base = slash != nullptr ? slash + 1 : szSourcePath;
    try {
        std::string target(szTargetDir);
        target.append("/").append(base);
        if (target.size() > kPathMax - 1) target.resize(kPathMax - 1);
        if (KVLIBCFileExist(target.c_str()) == 1) return KOVA_FAILURE(KOVA_ERR_ALREADY_INSTALLED);
    } catch (const std::bad_alloc &) {
        return KOVA_FAILURE(KOVA_ERR_OUT_OF_MEMORY);
    }
    return {};
}

}  // namespace kova::conf

extern "C" {

int KOVAServiceConfFileVerify(const char *szSourcePath, const char *szTargetDir) {
    if (szSourcePath == nullptr || szTargetDir == nullptr) {
        KOVA_SET_ERR(KOVA_ERR_BAD_PARAMETER);
        return -1;
    }
    const kova::Result<void> verified = kova::conf::file_verify(szSourcePath, szTargetDir);
    if (verified) return 0;
    kova::set_error(verified.failure());
    return -1;
}

}  // extern "C"
