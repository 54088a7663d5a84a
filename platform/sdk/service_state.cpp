// State of system daemons: a daemon runs when its pid file under /run names a live process.
#include <kovasdk.h>
#include <signal.h>
#include <sys/types.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>

#include "core/plat_log.h"
#include "kova_root.h"

namespace {

bool valid_service(const char *name) {
    return name != nullptr && *name != '\0' && std::strchr(name, '/') == nullptr && std::strcmp(name, ".") != 0 &&
           std::strcmp(name, "..") != 0;
}

// The process id of "/run/<service>.pid": decimal digits, white space around them allowed.
// 0 when the file is missing or holds anything else.
pid_t read_pid(const char *service) {
    std::ifstream in(kova::resolve(kova::paths::kRunDir) + "/" + service + ".pid", std::ios::binary);
    if (!in) return 0;
    std::string text;
    char buf[64];
    in.read(buf, sizeof buf);
    text.assign(buf, static_cast<size_t>(in.gcount()));
    size_t begin = text.find_first_not_of(" \t\r\n");
    if (begin == std::string::npos) return 0;
    size_t end = text.find_last_not_of(" \t\r\n") + 1;
    long pid = 0;
    for (size_t i = begin; i < end; ++i) {
        if (text[i] < '0' || text[i] > '9') return 0;
        pid = pid * 10 + (text[i] - '0');
        if (pid > INT_MAX) return 0;
    }
    return static_cast<pid_t>(pid);
}

bool alive(pid_t pid) {
    return pid > 0 && (kill(pid, 0) == 0 || errno == EPERM);
}

}  // namespace

extern "C" {

// 1 when the service runs, else 0.
int KVLIBServiceIsRunning(const char *szService) {
    if (!valid_service(szService)) {
        PLAT_SET_ERR(KOVA_ERR_BAD_PARAMETER);
        return 0;
    }
    try {
        return alive(read_pid(szService)) ? 1 : 0;
    } catch (...) {
        return 0;
    }
}

// Asks a running service to reload its configuration (SIGHUP). -1 when it does not run.
int KVLIBServiceReload(const char *szService) {
    if (!valid_service(szService)) {
        PLAT_SET_ERR(KOVA_ERR_BAD_PARAMETER);
        return -1;
    }
    try {
        pid_t pid = read_pid(szService);
        if (!alive(pid)) {
            PLAT_SET_ERR(KOVA_ERR_FILE_NOT_FOUND);
            PLAT_LOG("service %s is not running", szService);
            return -1;
        }
        if (kill(pid, SIGHUP) != 0) {
            PLAT_SET_ERR(KOVA_ERR_BAD_PARAMETER);
            PLAT_LOG("cannot signal service %s (pid %d): %m", szService, static_cast<int>(pid));
            return -1;
        }
        return 0;
    } catch (...) {
        PLAT_SET_ERR(KOVA_ERR_OUT_OF_MEMORY);
        return -1;
    }
}

}  // extern "C"
