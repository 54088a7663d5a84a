#include "foundation/log.h"

#include <fcntl.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace kova {
namespace {

// "%m" is the system log's placeholder for the text of errno; replace it before formatting so
// that the log file gets the same text as the system log.
std::string expand_errno(const char *fmt, int saved_errno) {
    std::string out;
    for (const char *p = fmt; *p != '\0'; ++p) {
        if (p[0] == '%' && p[1] == '%') {
            out += "%%";
            ++p;
        } else if (p[0] == '%' && p[1] == 'm') {
            for (const char *e = strerror(saved_errno); *e != '\0'; ++e) {
                if (*e == '%') out += '%';
                out += *e;
            }
            ++p;
        } else {
            out += *p;
        }
    }
    return out;
}

}  // namespace

void log_line(const char *module, int line, const char *fmt, ...) {
    const int saved_errno = errno;
    char head[128];
    int head_len = std::snprintf(head, sizeof head, "%s:%d ", module, line);
    if (head_len < 0) return;
    if (static_cast<size_t>(head_len) >= sizeof head) head_len = sizeof head - 1;

    std::string body_fmt = std::strstr(fmt, "%m") != nullptr ? expand_errno(fmt, saved_errno) : std::string(fmt);

    va_list ap;
    va_start(ap, fmt);
    va_list ap2;
    va_copy(ap2, ap);
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
    int body_len = std::vsnprintf(nullptr, 0, body_fmt.c_str(), ap);
    va_end(ap);
    std::string msg(head, static_cast<size_t>(head_len));
    if (body_len > 0) {
        std::string body(static_cast<size_t>(body_len) + 1, '\0');
        std::vsnprintf(body.data(), body.size(), body_fmt.c_str(), ap2);
        body.resize(static_cast<size_t>(body_len));
        msg += body;
    }
#pragma GCC diagnostic pop
    va_end(ap2);

    syslog(LOG_ERR, "%s", msg.c_str());

    if (const char *file = secure_getenv("KOVA_LOG_FILE"); file != nullptr && *file != '\0') {
        int fd = ::open(file, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
        if (fd >= 0) {
            msg += '\n';
            ssize_t ignored = ::write(fd, msg.data(), msg.size());
            (void)ignored;
            ::close(fd);
        }
    }
    errno = saved_errno;
}

}  // namespace kova
