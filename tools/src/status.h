// Exit statuses, the two kinds of errors a command ends with, and the library's error state
// in words.
#pragma once

#include <stdexcept>
#include <string>

namespace kovasvc {

enum ExitStatus : int {
    kExitOk = 0,        // success, no conflict
    kExitConflict = 1,  // a conflict (or a problem that validate reports) was found
    kExitUsage = 2,     // bad command line
    kExitFailed = 3,    // the operation failed
};

// A bad command line: the message says what is wrong with it.
class UsageError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// An operation that failed: the message names what failed and why.
class Failure : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// The words for a library error code ("file not found" for 0x0700).
const char *error_words(unsigned int code);

// Clears the library's error state, so that what a call leaves there is its own.
void clear_library_error();

// The library's current error state in words: "file not found (0x0700 at module.cpp:12)",
// or "no error code (see the system log)" when the state holds none.
std::string library_error();

// A Failure naming `what` and the library's current error state.
[[noreturn]] void fail_with_library_error(const std::string &what);

// One warning line on standard error.
void warn(const std::string &message);

}  // namespace kovasvc
