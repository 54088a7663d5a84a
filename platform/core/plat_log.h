// Diagnostics of the platform stand-ins: error state with this file and line, and a small
// logger of their own, so that they never depend on the library that stands on them. Lines go
// to the system log only: callers own the standard streams and the library's log file.
#pragma once

#include <kovacore.h>
#include <syslog.h>

#include <cstdarg>
#include <cstdio>

#define PLAT_SET_ERR(code) KVLIBCErrSetEx((code), __FILE_NAME__, __LINE__)

namespace kova::platform {

inline void log_line(const char *module, int line, const char *fmt, ...) KOVA_PRINTF(3, 4);

inline void log_line(const char *module, int line, const char *fmt, ...) {
    char body[1024];
    va_list ap;
    va_start(ap, fmt);
    std::vsnprintf(body, sizeof body, fmt, ap);
    va_end(ap);
    syslog(LOG_ERR, "%s:%d %s", module, line, body);
}

}  // namespace kova::platform

#define PLAT_LOG(fmt, ...) ::kova::platform::log_line(__FILE_NAME__, __LINE__, fmt __VA_OPT__(, ) __VA_ARGS__)
