#include "foundation/log.h"

#include <fcntl.h>
#include <sys/uio.h>
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

void send(const char *msg, size_t size) noexcept;

}  // namespace

namespace {
thread_local unsigned long lines_sent = 0;
}  // namespace

unsigned long lines_logged() noexcept {
    return lines_sent;
}

void log_line(const char *module, int line, const char *fmt, ...) noexcept {
    ++lines_sent;
    const int saved_errno = errno;
    va_list ap;
    va_start(ap, fmt);
    va_list ap2;
    va_copy(ap2, ap);
    // The fallback formats from a list of its own: the normal path may have consumed both of
    // its lists when memory runs out.
    va_list fallback;
    va_copy(fallback, ap);
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
    try {
        std::string msg = std::string(module) + ":" + std::to_string(line) + " ";
        std::string body_fmt = std::strstr(fmt, "%m") != nullptr ? expand_errno(fmt, saved_errno) : std::string(fmt);
        int body_len = std::vsnprintf(nullptr, 0, body_fmt.c_str(), ap);
        if (body_len > 0) {
            std::string body(static_cast<size_t>(body_len) + 1, '\0');
            std::vsnprintf(body.data(), body.size(), body_fmt.c_str(), ap2);
            body.resize(static_cast<size_t>(body_len));
            msg += body;
        }
        send(msg.c_str(), msg.size());
    } catch (...) {
        // Out of memory: a fixed buffer; the C library's "%m" gives the text of errno.
        char buf[1024];
        int n = std::snprintf(buf, sizeof buf, "%s:%d ", module, line);
        if (n > 0 && static_cast<size_t>(n) < sizeof buf) {
            errno = saved_errno;
            std::vsnprintf(buf + n, sizeof buf - static_cast<size_t>(n), fmt, fallback);
        }
        send(buf, std::strlen(buf));
    }
#pragma GCC diagnostic pop
    va_end(fallback);
    va_end(ap2);
    va_end(ap);
    errno = saved_errno;
}

namespace {

void send(const char *msg, size_t size) noexcept {
    syslog(LOG_ERR, "%s", msg);
    if (const char *file = secure_getenv("KOVA_LOG_FILE"); file != nullptr && *file != '\0') {
        int fd = ::open(file, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
        if (fd >= 0) {
            // One write per line: the text and its newline together.
            struct iovec iov[2] = {{const_cast<char *>(msg), size}, {const_cast<char *>("\n"), 1}};
            ssize_t ignored = ::writev(fd, iov, 2);
            (void)ignored;
            ::close(fd);
        }
    }
}

}  // namespace

}  // namespace kova
