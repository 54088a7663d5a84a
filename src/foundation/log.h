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

// The error state as log lines print it: the state itself, except while an Echo records a step
// that has not set it yet (see foundation/echo.h).
unsigned shown_error_code() noexcept;
const char *shown_error_file() noexcept;
int shown_error_line() noexcept;

}  // namespace kova

#define KOVA_LOG(fmt, ...) ::kova::log_line(__FILE_NAME__, __LINE__, fmt __VA_OPT__(, ) __VA_ARGS__)

// The current error state as log lines print it: "[0x%04X %s:%d]".
#define KOVA_ERRFMT "[0x%04X %s:%d]"
#define KOVA_ERRARGS ::kova::shown_error_code(), ::kova::shown_error_file(), ::kova::shown_error_line()

// Sets the error state naming this module and line.
#define KOVA_SET_ERR(code) KVLIBCErrSetEx((code), __FILE_NAME__, __LINE__)
