// A door to the system that fails on demand, for the fault tests: armed with N, the Nth counted
// system call from then on fails with the chosen errno (with `sticky`, every one after it too).
// Reads can be cut to one byte at a time. ScopedSystem puts it in place for one scope.
#pragma once

#include <string>

#include "foundation/door.h"

namespace kova::test {

enum class Call : unsigned {
    kOpen,
    kRead,
    kWrite,
    kClose,
    kLseek,
    kFstat,
    kStat,
    kAccess,
    kUnlink,
    kRename,
    kMkdir,
    kReadlink,
    kListDir,
    kRun,
    kCount
};
const char *call_name(Call call);

class FailingSystem : public kova::System {
public:
    void arm(long nth, int error, bool sticky = false);
    void short_reads(bool on) { short_reads_ = on; }
    long failures() const { return failed_; }  // calls failed since arm()
    // The kind of the call that failed first since arm().
    std::string failed_call() const { return failed_call_; }

    int open(const char *path, int flags, mode_t mode) override;
    ssize_t read(int fd, void *buf, size_t size) override;
    ssize_t write(int fd, const void *buf, size_t size) override;
    int close(int fd) override;
    off_t lseek(int fd, off_t offset, int whence) override;
    int fstat(int fd, struct stat *st) override;
    int stat(const char *path, struct stat *st) override;
    int access(const char *path, int mode) override;
    int unlink(const char *path) override;
    int rename(const char *from, const char *to) override;
    int mkdir(const char *path, mode_t mode) override;
    ssize_t readlink(const char *path, char *buf, size_t size) override;
    int list_dir(const char *path, std::vector<std::string> &names) override;
    int run(const char *program, const char *arg1, const char *arg2, const char *arg3, const char *arg4) override;
    int run_with(const char *program, int options, const char *arg1, const char *arg2) override;

private:
    bool fails(Call call);  // counts the call; true (errno set) when it is to fail

    long nth_ = 0;
    int error_ = 0;
    bool sticky_ = false;
    bool short_reads_ = false;
    long calls_ = 0;
    long failed_ = 0;
    std::string failed_call_;
};

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
