// A door to the system that fails on demand, for the fault tests: armed with N, the Nth system
// call from then on fails with the chosen errno (with `sticky`, every one after it too). Reads
// can be cut to one byte at a time. ScopedSystem puts it in place for one scope.
#pragma once

#include <cerrno>
#include <string>

#include "foundation/door.h"

namespace kova::test {

// Each call: the failure, or the plain system's call.
#define KOVA_FAIL_OR_CALL(type, name, params, args)   \
    type name params override {                       \
        return fails(#name) ? -1 : System::name args; \
    }

class FailingSystem : public kova::System {
public:
    void arm(long nth, int error, bool sticky = false) {
        nth_ = nth, error_ = error, sticky_ = sticky, calls_ = 0, failed_ = 0;
        failed_call_.clear();
    }
    void short_reads(bool on) { short_reads_ = on; }
    long failures() const { return failed_; }                 // calls failed since arm()
    std::string failed_call() const { return failed_call_; }  // the first of them

    KOVA_FAIL_OR_CALL(int, open, (const char *path, int flags, mode_t mode), (path, flags, mode))
    KOVA_FAIL_OR_CALL(ssize_t, write, (int fd, const void *buf, size_t size), (fd, buf, size))
    KOVA_FAIL_OR_CALL(off_t, lseek, (int fd, off_t offset, int whence), (fd, offset, whence))
    KOVA_FAIL_OR_CALL(int, fstat, (int fd, struct stat *st), (fd, st))
    KOVA_FAIL_OR_CALL(int, stat, (const char *path, struct stat *st), (path, st))
    KOVA_FAIL_OR_CALL(int, access, (const char *path, int mode), (path, mode))
    KOVA_FAIL_OR_CALL(int, unlink, (const char *path), (path))
    KOVA_FAIL_OR_CALL(int, rename, (const char *from, const char *to), (from, to))
    KOVA_FAIL_OR_CALL(int, mkdir, (const char *path, mode_t mode), (path, mode))
    KOVA_FAIL_OR_CALL(ssize_t, readlink, (const char *path, char *buf, size_t size), (path, buf, size))
    KOVA_FAIL_OR_CALL(int, list_dir, (const char *path, std::vector<std::string> &names), (path, names))
    KOVA_FAIL_OR_CALL(int, run, (const char *program, const char *a1, const char *a2, const char *a3, const char *a4),
                      (program, a1, a2, a3, a4))
    KOVA_FAIL_OR_CALL(int, run_with, (const char *program, int options, const char *a1, const char *a2),
                      (program, options, a1, a2))
    ssize_t read(int fd, void *buf, size_t size) override {
        return fails("read") ? -1 : System::read(fd, buf, short_reads_ && size > 1 ? 1 : size);
    }
    // The descriptor is released even when the close reports a failure, as close(2) does.
    int close(int fd) override {
        const bool failing = fails("close");
        const int rc = System::close(fd);
        if (failing) errno = error_;
        return failing ? -1 : rc;
    }

private:
    bool fails(const char *call) {  // counts the call; true (errno set) when it is to fail
        ++calls_;
        if (nth_ <= 0 || calls_ < nth_ || (calls_ > nth_ && !sticky_)) return false;
        if (failed_++ == 0) failed_call_ = call;
        errno = error_;
        return true;
    }

    long nth_ = 0, calls_ = 0, failed_ = 0;
    int error_ = 0;
    bool sticky_ = false, short_reads_ = false;
    std::string failed_call_;
};
#undef KOVA_FAIL_OR_CALL

// Puts a system in place for the scope and the previous one back after it.
class ScopedSystem {
public:
    explicit ScopedSystem(kova::System &sys) : previous_(kova::install_system(&sys)) {}
    ScopedSystem(const ScopedSystem &) = delete;
    ScopedSystem &operator=(const ScopedSystem &) = delete;
    ~ScopedSystem() { kova::install_system(previous_); }

private:
    kova::System *previous_;
};

}  // namespace kova::test
