// Log lines of the library: the system log at LOG_ERR, each line "<module>:<line> <message>",
// the module being the source file's base name. When KOVA_LOG_FILE is set, the same line and
// a newline are appended to that file with one write.
#pragma once

#include <kovaserviceconf.h>

#include <string>

namespace kova {

// Formats `fmt` (printf style; "%m" stands for the text of errno) and sends the line. Never
// throws: when memory runs out (the moment out-of-memory lines are written) the line is formatted
// into a fixed buffer instead, cut to its size.
void log_line(const char *module, int line, const char *fmt, ...) noexcept KOVA_PRINTF(3, 4);

// Sends a line formatted before (a kept line said again).
void send_line(const std::string &line) noexcept;

// An error state: code, the module and the line it names.
struct ErrorState {
    unsigned code = 0;
    char file[256] = "";
    int line = 0;

    static ErrorState current() noexcept;
    void set() const noexcept;
    bool operator==(const ErrorState &other) const noexcept;
};

// What listens to the lines this thread logs (an Echo recording a step, foundation/echo.h).
class LineTap {
public:
    // The line as it was sent; lose() when memory ran out before it could be kept.
    virtual void keep(const std::string &line) noexcept = 0;
    virtual void lose() noexcept = 0;
    // The state lines show in place of the thread's own, or null to show that.
    virtual const ErrorState *shown_state() noexcept = 0;

protected:
    ~LineTap() = default;
};
// Puts a tap on this thread's lines (null: none); returns the one it replaces.
LineTap *set_line_tap(LineTap *tap) noexcept;

// The error state as log lines print it: the thread's, unless its tap shows another.
unsigned shown_error_code() noexcept;
const char *shown_error_file() noexcept;
int shown_error_line() noexcept;

}  // namespace kova

#define KOVA_LOG(fmt, ...) ::kova::log_line(__FILE_NAME__, __LINE__, fmt __VA_OPT__(, ) __VA_ARGS__)

// The current error state as log lines print it: "[0x%04X %s:%d]".
#define KOVA_ERRFMT "[0x%04X %s:%d]"
#define KOVA_ERRARGS ::kova::shown_error_code(), ::kova::shown_error_file(), ::kova::shown_error_line()
// The same once a pending failure `f` is recorded: the failure when it names an error, else the
// state as it is.
#define KOVA_PENDING_ARGS(f)                                       \
    ((f).code != 0 ? (f).code : ::kova::shown_error_code()),       \
        ((f).code != 0 ? (f).module : ::kova::shown_error_file()), \
        ((f).code != 0 ? (f).line : ::kova::shown_error_line())

// Sets the error state naming this module and line.
#define KOVA_SET_ERR(code) KVLIBCErrSetEx((code), __FILE_NAME__, __LINE__)
