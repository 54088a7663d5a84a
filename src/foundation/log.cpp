#include "foundation/log.h"

#include <fcntl.h>
#include <sys/uio.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace kova {
namespace {

// Where a line is formatted: a growing text, or a fixed buffer when memory has run out.
struct TextOut {
    std::string &text;
    void put(const char *p, size_t n) { text.append(p, n); }
};

struct FixedOut {
    char *buf;
    size_t cap;  // bytes, the terminating NUL included
    size_t len = 0;
    void put(const char *p, size_t n) noexcept {
        if (len + 1 >= cap) return;
        const size_t room = cap - 1 - len;
        std::memcpy(buf + len, p, n < room ? n : room);
        len += n < room ? n : room;
        buf[len] = '\0';
    }
};

// A text argument as it goes into a line: control characters become escapes, so that a value
// can neither break a line nor forge one.
template <class Out>
void put_escaped(Out &out, const char *p, size_t n) {
    for (size_t i = 0; i < n; ++i) {
        const auto c = static_cast<unsigned char>(p[i]);
        if (c >= 0x20 && c != 0x7F) {
            size_t run = 1;
            while (i + run < n && static_cast<unsigned char>(p[i + run]) >= 0x20 && p[i + run] != 0x7F) ++run;
            out.put(p + i, run);
            i += run - 1;
        } else if (c == '\n') {
            out.put("\\n", 2);
        } else if (c == '\r') {
            out.put("\\r", 2);
        } else if (c == '\t') {
            out.put("\\t", 2);
        } else {
            char hex[5];
            std::snprintf(hex, sizeof hex, "\\x%02X", c);
            out.put(hex, 4);
        }
    }
}

template <class Out>
void put_padded(Out &out, const char *p, size_t n, int width, bool left) {
    static constexpr char kSpaces[] = "                ";
    auto pad = [&] {
        for (int k = width - static_cast<int>(n); k > 0; k -= 16) out.put(kSpaces, k < 16 ? k : 16);
    };
    if (!left) pad();
    put_escaped(out, p, n);
    if (left) pad();
}

enum class Length { kNone, kChar, kShort, kLong, kLongLong, kSize, kMax, kPtrdiff, kLongDouble };

// printf formatting of `fmt` ("%m" is the text of `saved_errno`): the format's own text as it is,
// the values of %s and %c escaped.
template <class Out>
void format_line(Out &out, const char *fmt, va_list ap, int saved_errno) {
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
    const char *p = fmt;
    while (*p != '\0') {
        if (*p != '%') {
            const char *next = std::strchr(p, '%');
            const size_t n = next != nullptr ? static_cast<size_t>(next - p) : std::strlen(p);
            out.put(p, n);
            p += n;
            continue;
        }
        const char *start = p++;
        if (*p == '%' || *p == 'm') {
            const char *text = *p == '%' ? "%" : std::strerror(saved_errno);
            out.put(text, std::strlen(text));
            ++p;
            continue;
        }
        // The conversion, rebuilt with the values of any '*' written in.
        char spec[64] = "%";
        size_t spec_len = 1;
        auto add = [&](const char *text, size_t n) {
            for (size_t k = 0; k < n && spec_len + 1 < sizeof spec; ++k) spec[spec_len++] = text[k];
            spec[spec_len] = '\0';
        };
        bool left = false;
        for (; *p != '\0' && std::strchr("-+ #0", *p) != nullptr; ++p) {
            left = left || *p == '-';
            add(p, 1);
        }
        int width = 0;
        if (*p == '*') {
            width = va_arg(ap, int);
            if (width < 0) {
                left = true;
                width = -width;
            }
            ++p;
        } else {
            for (; *p >= '0' && *p <= '9'; ++p) width = width * 10 + (*p - '0');
        }
        int precision = -1;
        if (*p == '.') {
            ++p;
            if (*p == '*') {
                precision = va_arg(ap, int);
                ++p;
            } else {
                for (precision = 0; *p >= '0' && *p <= '9'; ++p) precision = precision * 10 + (*p - '0');
            }
        }
        Length length = Length::kNone;
        const char *length_start = p;
        if (p[0] == 'h' && p[1] == 'h')
            length = Length::kChar, p += 2;
        else if (p[0] == 'l' && p[1] == 'l')
            length = Length::kLongLong, p += 2;
        else if (*p == 'h')
            length = Length::kShort, ++p;
        else if (*p == 'l')
            length = Length::kLong, ++p;
        else if (*p == 'z')
            length = Length::kSize, ++p;
        else if (*p == 'j')
            length = Length::kMax, ++p;
        else if (*p == 't')
            length = Length::kPtrdiff, ++p;
        else if (*p == 'L')
            length = Length::kLongDouble, ++p;
        const char conv = *p;
        if (conv == '\0') {
            out.put(start, std::strlen(start));
            break;
        }
        ++p;
        if (conv == 's' || conv == 'c') {
            char ch = 0;
            const char *text = &ch;
            size_t n = 1;
            if (conv == 'c') {
                ch = static_cast<char>(va_arg(ap, int));
            } else {
                text = va_arg(ap, const char *);
                if (text == nullptr) text = "(null)";
                n = precision >= 0 ? strnlen(text, static_cast<size_t>(precision)) : std::strlen(text);
            }
            put_padded(out, text, n, width, left);
            continue;
        }
        char number[32];
        if (width > 0) add(number, static_cast<size_t>(std::snprintf(number, sizeof number, "%d", width)));
        if (precision >= 0) add(number, static_cast<size_t>(std::snprintf(number, sizeof number, ".%d", precision)));
        char buf[128];
        int n = 0;
        if (std::strchr("diouxX", conv) != nullptr) {
            // Integers go through the widest type: the value read as its length says it was
            // passed (cut to a char or short as printf cuts it), printed with "j".
            uintmax_t u = 0;
            intmax_t s = 0;
            switch (length) {
                case Length::kLong:
                    u = va_arg(ap, unsigned long);
                    s = static_cast<long>(u);
                    break;
                case Length::kLongLong:
                    u = va_arg(ap, unsigned long long);
                    s = static_cast<long long>(u);
                    break;
                case Length::kSize:
                case Length::kPtrdiff:
                    u = va_arg(ap, size_t);
                    s = static_cast<ptrdiff_t>(u);
                    break;
                case Length::kMax:
                    u = va_arg(ap, uintmax_t);
                    s = static_cast<intmax_t>(u);
                    break;
                default: {
                    const unsigned int v = va_arg(ap, unsigned int);
                    u = length == Length::kChar    ? static_cast<unsigned char>(v)
                        : length == Length::kShort ? static_cast<unsigned short>(v)
                                                   : v;
                    s = length == Length::kChar    ? static_cast<signed char>(v)
                        : length == Length::kShort ? static_cast<short>(v)
                                                   : static_cast<int>(v);
                }
            }
            const char tail[3] = {'j', conv, '\0'};
            add(tail, 2);
            n = conv == 'd' || conv == 'i' ? std::snprintf(buf, sizeof buf, spec, s)
                                           : std::snprintf(buf, sizeof buf, spec, u);
            if (n > 0) out.put(buf, static_cast<size_t>(n) < sizeof buf ? static_cast<size_t>(n) : sizeof buf - 1);
            continue;
        }
        add(length_start, static_cast<size_t>(p - length_start));
        switch (conv) {
            case 'p':
                n = std::snprintf(buf, sizeof buf, spec, va_arg(ap, void *));
                break;
            case 'e':
            case 'E':
            case 'f':
            case 'F':
            case 'g':
            case 'G':
            case 'a':
            case 'A':
                if (length == Length::kLongDouble)
                    n = std::snprintf(buf, sizeof buf, spec, va_arg(ap, long double));
                else
                    n = std::snprintf(buf, sizeof buf, spec, va_arg(ap, double));
                break;
            default:  // not a conversion: the text as written
                out.put(start, static_cast<size_t>(p - start));
                continue;
        }
        if (n > 0) out.put(buf, static_cast<size_t>(n) < sizeof buf ? static_cast<size_t>(n) : sizeof buf - 1);
    }
#pragma GCC diagnostic pop
}

void send(const char *msg, size_t size) noexcept;

}  // namespace

namespace {
thread_local LineTap *t_tap = nullptr;
}  // namespace

LineTap *set_line_tap(LineTap *tap) noexcept {
    LineTap *before = t_tap;
    t_tap = tap;
    return before;
}

ErrorState ErrorState::current() noexcept {
    ErrorState s;
    s.code = KVLIBCErrGet();
    if (const char *file = KVLIBCErrorGetFile(); file != nullptr) {
        std::strncpy(s.file, file, sizeof s.file - 1);
        s.file[sizeof s.file - 1] = '\0';
    }
    s.line = KVLIBCErrorGetLine();
    return s;
}

void ErrorState::set() const noexcept {
    KVLIBCErrSetEx(code, file, line);
}

bool ErrorState::operator==(const ErrorState &other) const noexcept {
    return code == other.code && line == other.line && std::strcmp(file, other.file) == 0;
}

namespace {
const ErrorState *tapped_state() noexcept {
    return t_tap != nullptr ? t_tap->shown_state() : nullptr;
}
}  // namespace

unsigned shown_error_code() noexcept {
    const ErrorState *shown = tapped_state();
    return shown != nullptr ? shown->code : KVLIBCErrGet();
}

const char *shown_error_file() noexcept {
    const ErrorState *shown = tapped_state();
    return shown != nullptr ? shown->file : KVLIBCErrorGetFile();
}

int shown_error_line() noexcept {
    const ErrorState *shown = tapped_state();
    return shown != nullptr ? shown->line : KVLIBCErrorGetLine();
}

void send_line(const std::string &line) noexcept {
    send(line.c_str(), line.size());
}

void log_line(const char *module, int line, const char *fmt, ...) noexcept {
    const int saved_errno = errno;
    va_list ap;
    va_start(ap, fmt);
    // The fallback formats from a list of its own: the normal path may have consumed its list
    // when memory runs out.
    va_list fallback;
    va_copy(fallback, ap);
    try {
        std::string msg = std::string(module) + ":" + std::to_string(line) + " ";
        TextOut out{msg};
        format_line(out, fmt, ap, saved_errno);
        send(msg.c_str(), msg.size());
        if (t_tap != nullptr) t_tap->keep(msg);
    } catch (...) {
        // Out of memory: a fixed buffer, the line cut to its size.
        char buf[1024];
        FixedOut out{buf, sizeof buf};
        buf[0] = '\0';
        const int n = std::snprintf(buf, sizeof buf, "%s:%d ", module, line);
        if (n > 0) out.len = static_cast<size_t>(n) < sizeof buf ? static_cast<size_t>(n) : sizeof buf - 1;
        format_line(out, fmt, fallback, saved_errno);
        send(buf, out.len);
        if (t_tap != nullptr) t_tap->lose();
    }
    va_end(fallback);
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
