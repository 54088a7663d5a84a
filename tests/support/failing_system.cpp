#include "failing_system.h"

#include <cerrno>

namespace kova::test {

const char *call_name(Call call) {
    static const char *const names[] = {"open",   "read",   "write",  "close", "lseek",    "fstat",    "stat",
                                        "access", "unlink", "rename", "mkdir", "readlink", "list_dir", "run"};
    return names[static_cast<unsigned>(call)];
}

void FailingSystem::arm(long nth, int error, bool sticky) {
    nth_ = nth;
    error_ = error;
    sticky_ = sticky;
    calls_ = 0;
    failed_ = 0;
    failed_call_.clear();
}

bool FailingSystem::fails(Call call) {
    ++calls_;
    if (nth_ <= 0 || calls_ < nth_ || (calls_ > nth_ && !sticky_)) return false;
    if (failed_++ == 0) failed_call_ = call_name(call);
    errno = error_;
    return true;
}

// Each call: the failure, or the plain system's call.
#define KOVA_FAIL_OR_CALL(type, name, kind, params, args)  \
    type FailingSystem::name params {                      \
        return fails(Call::kind) ? -1 : System::name args; \
    }

KOVA_FAIL_OR_CALL(int, open, kOpen, (const char *path, int flags, mode_t mode), (path, flags, mode))
KOVA_FAIL_OR_CALL(ssize_t, write, kWrite, (int fd, const void *buf, size_t size), (fd, buf, size))
KOVA_FAIL_OR_CALL(off_t, lseek, kLseek, (int fd, off_t offset, int whence), (fd, offset, whence))
KOVA_FAIL_OR_CALL(int, fstat, kFstat, (int fd, struct stat *st), (fd, st))
KOVA_FAIL_OR_CALL(int, stat, kStat, (const char *path, struct stat *st), (path, st))
KOVA_FAIL_OR_CALL(int, access, kAccess, (const char *path, int mode), (path, mode))
KOVA_FAIL_OR_CALL(int, unlink, kUnlink, (const char *path), (path))
KOVA_FAIL_OR_CALL(int, rename, kRename, (const char *from, const char *to), (from, to))
KOVA_FAIL_OR_CALL(int, mkdir, kMkdir, (const char *path, mode_t mode), (path, mode))
KOVA_FAIL_OR_CALL(ssize_t, readlink, kReadlink, (const char *path, char *buf, size_t size), (path, buf, size))
KOVA_FAIL_OR_CALL(int, list_dir, kListDir, (const char *path, std::vector<std::string> &names), (path, names))
KOVA_FAIL_OR_CALL(int, run, kRun, (const char *program, const char *a1, const char *a2, const char *a3, const char *a4),
                  (program, a1, a2, a3, a4))
KOVA_FAIL_OR_CALL(int, run_with, kRun, (const char *program, int options, const char *a1, const char *a2),
                  (program, options, a1, a2))

ssize_t FailingSystem::read(int fd, void *buf, size_t size) {
    if (fails(Call::kRead)) return -1;
    return System::read(fd, buf, short_reads_ && size > 1 ? 1 : size);
}

int FailingSystem::close(int fd) {
    // The descriptor is released even when the close reports a failure, as close(2) does.
    const bool failing = fails(Call::kClose);
    const int rc = System::close(fd);
    if (failing) errno = error_;
    return failing ? -1 : rc;
}

}  // namespace kova::test
