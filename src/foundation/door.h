// The door to the system: every system call of the library goes through here.
//
// `System` is the interface; its methods make the plain system calls and report errors as those
// calls do (-1 and errno). One instance is in place for the whole process; a test puts another
// in its place (install_system(), or the scoped guard of the test support) to inject failures
// such as EIO on read, ENOSPC on write, EACCES on open, ENOENT for a file that vanished between
// a directory listing and its opening, or short reads.
//
// `Door` is what an operation holds: the root (KOVA_ROOT) resolved once when the call begins and
// the system in place at that moment, so that every path and call of one operation agrees.
//
// The log helper writes its lines directly: it must still report when the door fails.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>
#include <sys/uio.h>

#include <string>
#include <string_view>
#include <vector>

namespace kova {

// An entry of a directory; `regular` when the listing says it is a regular file (not when the
// file system does not say).
struct DirEntry {
    std::string name;
    bool regular;
};

class System {
public:
    System() = default;
    System(const System &) = delete;
    System &operator=(const System &) = delete;
    virtual ~System() = default;

    // Files and descriptors.
    virtual int open(const char *path, int flags, mode_t mode);
    virtual ssize_t read(int fd, void *buf, size_t size);
    virtual ssize_t write(int fd, const void *buf, size_t size);
    virtual int close(int fd);
    virtual off_t lseek(int fd, off_t offset, int whence);
    virtual int fstat(int fd, struct stat *st);
    // Paths (symbolic links followed by stat and access, not by unlink and readlinkat).
    virtual int stat(const char *path, struct stat *st);
    virtual int access(const char *path, int mode);
    virtual int unlink(const char *path);
    virtual int rename(const char *from, const char *to);
    virtual int mkdir(const char *path, mode_t mode);
    // The names in a directory but "." and "..", sorted as alphasort() sorts them; 0 or -1.
    virtual int list_dir(const char *path, std::vector<std::string> &names);
    // The same with the entries' types, the directory left open: its descriptor (the caller
    // closes it), through which the entries are opened by name (a short path walk), or -1.
    virtual int open_dir(const char *path, std::vector<DirEntry> &entries);
    virtual int openat(int dirfd, const char *name, int flags, mode_t mode);
    virtual ssize_t readlinkat(int dirfd, const char *name, char *buf, size_t size);
    // Processes.
    virtual pid_t getpid();
    // Runs a program and waits for it, as KVLIBCExec (up to four arguments, the first null one
    // ends the list) and KVLIBCExecl (options, up to two arguments) do: its exit status, or -1.
    virtual int run(const char *program, const char *arg1, const char *arg2, const char *arg3, const char *arg4);
    virtual int run_with(const char *program, int options, const char *arg1, const char *arg2);
};

// The system in place; never null.
System &sys();
// Puts `replacement` in place (nullptr: the plain one) and returns the one it replaces (nullptr
// for the plain one). Not for use while another thread is inside the library.
System *install_system(System *replacement) noexcept;

class Door {
public:
    Door();

    // The root that fixed paths are placed under ("" for "/").
    const std::string &root() const { return root_; }
    // A fixed absolute path of the system ("/proc", kova::paths::...) under the root.
    std::string path(std::string_view fixed) const;

    System &sys() const { return *sys_; }
    System *operator->() const { return sys_; }

    // Whether the path exists (access F_OK).
    bool exists(const std::string &path) const;

private:
    std::string root_;
    System *sys_;
};

// An open descriptor, closed through the system that opened it.
class FileHandle {
public:
    FileHandle(System &sys, int fd) : sys_(&sys), fd_(fd) {}
    FileHandle(const FileHandle &) = delete;
    FileHandle &operator=(const FileHandle &) = delete;
    ~FileHandle() {
        if (fd_ >= 0) sys_->close(fd_);
    }
    int get() const { return fd_; }
    explicit operator bool() const { return fd_ >= 0; }

private:
    System *sys_;
    int fd_;
};

}  // namespace kova
