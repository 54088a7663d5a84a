// The current error of the calling thread: a code, the source file name that set it and a line.
#include <kovacore.h>

#include <cstring>

namespace {

struct ErrorState {
    unsigned int code = 0;
    int line = 0;
    char file[256] = "";
};

thread_local ErrorState t_error;

}  // namespace

extern "C" {

void KVLIBCErrSetEx(unsigned int code, const char *szFile, int line) {
    t_error.code = code;
    t_error.line = line;
    size_t n = 0;
    if (szFile != nullptr) {
        n = strnlen(szFile, sizeof t_error.file - 1);
        std::memmove(t_error.file, szFile, n);
    }
    t_error.file[n] = '\0';
}

unsigned int KVLIBCErrGet(void) {
    return t_error.code;
}

const char *KVLIBCErrorGetFile(void) {
    return t_error.file;
}

int KVLIBCErrorGetLine(void) {
    return t_error.line;
}

}  // extern "C"
