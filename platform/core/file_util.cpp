// Small file operations: existence, creating an empty file, reading lines.
#include <fcntl.h>
#include <kovacore.h>
#include <sys/stat.h>
#include <unistd.h>

#include <new>
#include <string>
#include <string_view>

#include "core/read_file.h"
#include "core/plat_log.h"

extern "C" {

// 1 when the path names an existing file (links followed), else 0.
int KVLIBCFileExist(const char *szPath) {
    struct stat st;
    return szPath != nullptr && stat(szPath, &st) == 0 ? 1 : 0;
}

// Creates the file (mode 0644 before the umask) when it is missing; an existing file is left
// as it is.
int KVLIBCFileTouch(const char *szPath) {
    if (szPath == nullptr || *szPath == '\0') {
        PLAT_SET_ERR(KOVA_ERR_BAD_PARAMETER);
        return -1;
    }
    int fd = ::open(szPath, O_WRONLY | O_CREAT | O_CLOEXEC | O_NOCTTY, 0644);
    if (fd < 0) {
        PLAT_SET_ERR(KOVA_ERR_FILE_OPEN);
        return -1;
    }
    ::close(fd);
    return 0;
}

// Appends every line of the file to the list, without its "\n" (or "\r\n"). 0, or -1 with
// 0x0900 when the file cannot be opened or read.
int KVLIBCFileReadLines(const char *szPath, KVLIB_SZLIST **ppList) {
    if (szPath == nullptr || ppList == nullptr) {
        PLAT_SET_ERR(KOVA_ERR_BAD_PARAMETER);
        return -1;
    }
    try {
        std::string text;
        if (!kova::platform::read_file(szPath, text)) {
            PLAT_SET_ERR(KOVA_ERR_FILE_OPEN);
            return -1;
        }
        std::string line;
        for (size_t pos = 0; pos < text.size();) {
            size_t nl = text.find('\n', pos);
            size_t end = nl == std::string::npos ? text.size() : nl;
            size_t content_end = end > pos && text[end - 1] == '\r' ? end - 1 : end;
            line.assign(text, pos, content_end - pos);
            if (KVLIBCSzListPush(ppList, line.c_str()) < 0) return -1;
            pos = nl == std::string::npos ? text.size() : nl + 1;
        }
        return 0;
    } catch (const std::bad_alloc &) {
        PLAT_SET_ERR(KOVA_ERR_OUT_OF_MEMORY);
        return -1;
    }
}

}  // extern "C"
