#include "failing_system.h"

#include <cerrno>

namespace kova::test {

const char *call_name(Call call) {
    static const char *const names[] = {"open",   "read",   "write",  "close", "lseek",    "fstat",    "stat",
                                        "access", "unlink", "rename", "mkdir", "readlink", "list_dir", "run"};
    return names[static_cast<unsigned>(call)];
}

void FailingSystem::only(std::initializer_list<Call> kinds) {
    kinds_ = 0;
    for (Call kind : kinds) kinds_ |= 1u << static_cast<unsigned>(kind);
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
    if ((kinds_ & (1u << static_cast<unsigned>(call))) == 0) return false;
    ++calls_;
    if (nth_ <= 0 || calls_ < nth_ || (calls_ > nth_ && !sticky_)) return false;
    if (failed_++ == 0) failed_call_ = call_name(call);
    errno = error_;
    return true;
}

int FailingSystem::open(const char *path, int flags, mode_t mode) {
    return fails(Call::kOpen) ? -1 : System::open(path, flags, mode);
}

ssize_t FailingSystem::read(int fd, void *buf, size_t size) {
    if (fails(Call::kRead)) return -1;
    return System::read(fd, buf, short_reads_ && size > 1 ? 1 : size);
}

ssize_t FailingSystem::write(int fd, const void *buf, size_t size) {
    return fails(Call::kWrite) ? -1 : System::write(fd, buf, size);
}

int FailingSystem::close(int fd) {
    // The descriptor is released even when the close reports a failure, as close(2) does.
    const bool failing = fails(Call::kClose);
    const int rc = System::close(fd);
    if (failing) errno = error_;
    return failing ? -1 : rc;
}

off_t FailingSystem::lseek(int fd, off_t offset, int whence) {
    return fails(Call::kLseek) ? -1 : System::lseek(fd, offset, whence);
}

int FailingSystem::fstat(int fd, struct stat *st) {
    return fails(Call::kFstat) ? -1 : System::fstat(fd, st);
}

int FailingSystem::stat(const char *path, struct stat *st) {
    return fails(Call::kStat) ? -1 : System::stat(path, st);
}

int FailingSystem::access(const char *path, int mode) {
    return fails(Call::kAccess) ? -1 : System::access(path, mode);
}

int FailingSystem::unlink(const char *path) {
    return fails(Call::kUnlink) ? -1 : System::unlink(path);
}

int FailingSystem::rename(const char *from, const char *to) {
    return fails(Call::kRename) ? -1 : System::rename(from, to);
}

int FailingSystem::mkdir(const char *path, mode_t mode) {
    return fails(Call::kMkdir) ? -1 : System::mkdir(path, mode);
}

ssize_t FailingSystem::readlink(const char *path, char *buf, size_t size) {
    return fails(Call::kReadlink) ? -1 : System::readlink(path, buf, size);
}

int FailingSystem::list_dir(const char *path, std::vector<std::string> &names) {
    return fails(Call::kListDir) ? -1 : System::list_dir(path, names);
}

int FailingSystem::run(const char *program, const char *arg1, const char *arg2, const char *arg3, const char *arg4) {
    return fails(Call::kRun) ? -1 : System::run(program, arg1, arg2, arg3, arg4);
}

int FailingSystem::run_with(const char *program, int options, const char *arg1, const char *arg2) {
    return fails(Call::kRun) ? -1 : System::run_with(program, options, arg1, arg2);
}

}  // namespace kova::test
