#include "status.h"

#include <kovaserviceconf.h>

#include <cstdio>

namespace kovasvc {

const char *error_words(unsigned int code) {
    switch (code) {
        case KOVA_ERR_NONE:
            return "no error code";
        case KOVA_ERR_OUT_OF_MEMORY:
            return "out of memory";
        case KOVA_ERR_INVALID_SOURCE:
            return "invalid source";
        case KOVA_ERR_FILE_NOT_FOUND:
            return "file not found";
        case KOVA_ERR_FILE_OPEN:
            return "file cannot be opened";
        case KOVA_ERR_BAD_PARAMETER:
            return "bad parameter";
        case KOVA_ERR_SCAN_DIR:
            return "directory cannot be scanned";
        case KOVA_ERR_COPY:
            return "copy failed";
        case KOVA_ERR_MKDIR:
            return "directory cannot be created";
        case KOVA_ERR_FW_ENUM:
            return "firewall services cannot be enumerated";
        case KOVA_ERR_BUFFER_TOO_SMALL:
            return "buffer too small";
        case KOVA_ERR_ALREADY_INSTALLED:
            return "already installed";
        default:
            return "unknown error";
    }
}

void clear_library_error() {
    KVLIBCErrSetEx(KOVA_ERR_NONE, "", 0);
}

std::string code_text(unsigned int code) {
    char hex[16];
    std::snprintf(hex, sizeof hex, "0x%04X", code & 0xFFFFu);
    return hex;
}

void fail_with_library_error(const std::string &what, const std::string &file, const std::string &hint) {
    unsigned int code = KVLIBCErrGet();
    Failure f(code == KOVA_ERR_NONE ? what : what + ": " + error_words(code), file, hint);
    f.code = code;
    const char *where = KVLIBCErrorGetFile();
    if (code != KOVA_ERR_NONE && where != nullptr && *where != '\0')
        f.location = std::string(where) + ":" + std::to_string(KVLIBCErrorGetLine());
    throw f;
}

}  // namespace kovasvc
