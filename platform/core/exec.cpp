// Running programs directly, with the caller's environment, and waiting for them.
#include <kovacore.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <vector>

#include "core/plat_log.h"
#include "core/spawn.h"

namespace {

constexpr int kNotStarted = -1;
constexpr int kSignalBase = 128;

// Error code for a program that could not be started.
unsigned int start_error(int err) {
    switch (err) {
        case ENOENT:
        case ENOTDIR:
            return KOVA_ERR_FILE_NOT_FOUND;
        case ENOMEM:
        case EAGAIN:
            return KOVA_ERR_OUT_OF_MEMORY;
        default:
            return KOVA_ERR_FILE_OPEN;
    }
}

// 0 on exit status 0, the status otherwise, 128 + signal, or -1 when it could not be started.
int run(const char *program, const std::vector<const char *> &argv) {
    kova::platform::RunResult r = kova::platform::run_program(program, const_cast<char *const *>(argv.data()), environ);
    switch (r.kind) {
        case kova::platform::RunResult::kExited:
            return r.value;
        case kova::platform::RunResult::kSignaled:
            return kSignalBase + r.value;
        case kova::platform::RunResult::kNotStarted:
            break;
    }
    PLAT_SET_ERR(start_error(r.value));
    return kNotStarted;
}

}  // namespace

extern "C" {

int KVLIBCExec(const char *szProgram, const char *szArg1, const char *szArg2, const char *szArg3, const char *szArg4) {
    if (szProgram == nullptr || *szProgram == '\0') {
        PLAT_SET_ERR(KOVA_ERR_BAD_PARAMETER);
        return kNotStarted;
    }
    try {
        std::vector<const char *> argv{szProgram};
        for (const char *arg : {szArg1, szArg2, szArg3, szArg4}) {
            if (arg == nullptr) break;
            argv.push_back(arg);
        }
        argv.push_back(nullptr);
        return run(szProgram, argv);
    } catch (...) {
        PLAT_SET_ERR(KOVA_ERR_OUT_OF_MEMORY);
        return kNotStarted;
    }
}

// The options word is accepted for compatibility; programs always run with the caller's
// standard output and error. 0 when the program exits with status 0, -1 otherwise.
int KVLIBCExecl(const char *szProgram, int options, ...) {
    (void)options;
    if (szProgram == nullptr || *szProgram == '\0') {
        PLAT_SET_ERR(KOVA_ERR_BAD_PARAMETER);
        return -1;
    }
    std::vector<const char *> argv;
    va_list ap;
    va_start(ap, options);
    try {
        argv.push_back(szProgram);
        while (const char *arg = va_arg(ap, const char *)) argv.push_back(arg);
        argv.push_back(nullptr);
    } catch (...) {
        va_end(ap);
        PLAT_SET_ERR(KOVA_ERR_OUT_OF_MEMORY);
        return -1;
    }
    va_end(ap);
    return run(szProgram, argv) == 0 ? 0 : -1;
}

}  // extern "C"
