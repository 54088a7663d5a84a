// Exit statuses, the two kinds of errors a command ends with, and the library's error state
// in words.
#pragma once

#include <stdexcept>
#include <string>

namespace kovasvc {

enum ExitStatus : int {
    kExitOk = 0,        // success
    kExitConflict = 1,  // the answer is no: a conflict, nobody on the port, problems found, refused
    kExitUsage = 2,     // bad command line
    kExitFailed = 3,    // the operation failed
};

// A bad command line: the message says what is wrong with it.
class UsageError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// An operation that failed: what failed, on which file, what to do about it, and the library's
// error code and source location when it set one.
class Failure : public std::runtime_error {
public:
    explicit Failure(const std::string &what, std::string file = {}, std::string hint = {})
        : std::runtime_error(what), file(std::move(file)), hint(std::move(hint)) {}

    std::string file;
    std::string hint;
    unsigned int code = 0;  // the library's error code, 0 for none
    std::string location;   // "module.cpp:LINE" where the library set it
    int status = kExitFailed;
};

// The words for a library error code ("file not found" for 0x0700).
const char *error_words(unsigned int code);

// Clears the library's error state, so that what a call leaves there is its own.
void clear_library_error();

// A Failure naming `what` and the file, with the library's current error state in it.
[[noreturn]] void fail_with_library_error(const std::string &what, const std::string &file = {},
                                          const std::string &hint = {});

// "0x0900".
std::string code_text(unsigned int code);

}  // namespace kovasvc
