// The plain system: each method is the system call of its name.
#include "foundation/door.h"

#include <kovaserviceconf.h>

#include <dirent.h>
#include <fcntl.h>
#include <langinfo.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cerrno>
#include <cstring>
#include <new>

#include "kova_root.h"

namespace kova {

int System::open(const char *path, int flags, mode_t mode) {
    return ::open(path, flags, mode);
}

ssize_t System::read(int fd, void *buf, size_t size) {
    return ::read(fd, buf, size);
}

ssize_t System::write(int fd, const void *buf, size_t size) {
    return ::write(fd, buf, size);
}

int System::close(int fd) {
    return ::close(fd);
}

off_t System::lseek(int fd, off_t offset, int whence) {
    return ::lseek(fd, offset, whence);
}

int System::fstat(int fd, struct stat *st) {
    return ::fstat(fd, st);
}

int System::stat(const char *path, struct stat *st) {
    return ::stat(path, st);
}

int System::access(const char *path, int mode) {
    return ::access(path, mode);
}

int System::unlink(const char *path) {
    return ::unlink(path);
}

int System::rename(const char *from, const char *to) {
    return ::rename(from, to);
}

int System::mkdir(const char *path, mode_t mode) {
    return ::mkdir(path, mode);
}

namespace {

// Hands every entry of the directory but "." and ".." to `add`, then closes it; 0, or -1 with
// errno (nothing is read when `dir` is null).
template <class Add>
int read_entries(DIR *dir, Add &&add) {
    if (dir == nullptr) return -1;
    int result = 0;
    try {
        for (;;) {
            errno = 0;
            const dirent *entry = ::readdir(dir);
            if (entry == nullptr) break;
            if (std::strcmp(entry->d_name, ".") != 0 && std::strcmp(entry->d_name, "..") != 0) add(*entry);
        }
        if (errno != 0) result = -1;
    } catch (const std::bad_alloc &) {
        errno = ENOMEM;
        result = -1;
    }
    const int saved = errno;
    ::closedir(dir);
    errno = saved;
    return result;
}

bool collates_before(const std::string &a, const std::string &b) {
    return std::strcoll(a.c_str(), b.c_str()) < 0;
}

// Sorts names as alphasort() does. A locale without collation rules (C, POSIX) orders by bytes,
// as strcoll then does itself: the names are compared with strcmp, without strcoll's look-up of
// the locale for every comparison.
template <class T, class Name>
void sort_names(std::vector<T> &items, Name &&name) {
    if (reinterpret_cast<uintptr_t>(::nl_langinfo(_NL_COLLATE_NRULES)) == 0) {
        std::sort(items.begin(), items.end(),
                  [&](const T &a, const T &b) { return std::strcmp(name(a).c_str(), name(b).c_str()) < 0; });
    } else {
        std::sort(items.begin(), items.end(),
                  [&](const T &a, const T &b) { return collates_before(name(a), name(b)); });
    }
}

}  // namespace

int System::list_dir(const char *path, std::vector<std::string> &names) {
    names.clear();
    if (read_entries(::opendir(path), [&](const dirent &entry) { names.emplace_back(entry.d_name); }) != 0) {
        names.clear();
        return -1;
    }
    sort_names(names, [](const std::string &n) -> const std::string & { return n; });
    return 0;
}

int System::openat(int dirfd, const char *name, int flags, mode_t mode) {
    return ::openat(dirfd, name, flags, mode);
}

ssize_t System::readlinkat(int dirfd, const char *name, char *buf, size_t size) {
    return ::readlinkat(dirfd, name, buf, size);
}

int System::open_dir(const char *path, std::vector<DirEntry> &entries) {
    entries.clear();
    const int fd = ::open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) return -1;
    // The entries are read straight from the descriptor, whose position in the directory does not
    // matter to the files opened through it: no stream of the C library, which would want a
    // descriptor of its own (closing it closes that) and a buffer on the heap.
    const auto fail = [&](int error) {
        ::close(fd);
        entries.clear();
        errno = error;
        return -1;
    };
    // Room for as many entries as the directory's size can hold (12 bytes at least each on the
    // common file systems), taken at once: the array does not move, freeing its old storage, as it
    // fills. A size that says nothing leaves it to grow.
    struct stat st;
    if (::fstat(fd, &st) == 0 && st.st_size > 0) {
        try {
            entries.reserve(std::min<size_t>(static_cast<size_t>(st.st_size) / 12, size_t{1} << 16));
        } catch (const std::bad_alloc &) {
        }
    }
    alignas(dirent64) char buf[32768];  // as much as the C library's streams read at once
    for (;;) {
        const ssize_t n = ::getdents64(fd, buf, sizeof buf);
        if (n == 0) break;
        if (n < 0) {
            if (errno == EINTR) continue;
            return fail(errno);
        }
        for (ssize_t at = 0; at < n;) {
            const auto *entry = reinterpret_cast<const dirent64 *>(buf + at);
            at += entry->d_reclen;
            // Deleted entries (no inode) are skipped, as readdir() skips them.
            if (entry->d_ino == 0 || std::strcmp(entry->d_name, ".") == 0 || std::strcmp(entry->d_name, "..") == 0)
                continue;
            try {
                entries.push_back({entry->d_name, entry->d_type == DT_REG});
            } catch (const std::bad_alloc &) {
                return fail(ENOMEM);
            }
        }
    }
    sort_names(entries, [](const DirEntry &e) -> const std::string & { return e.name; });
    return fd;
}

pid_t System::getpid() {
    return ::getpid();
}

int System::run(const char *program, const char *arg1, const char *arg2, const char *arg3, const char *arg4) {
    return KVLIBCExec(program, arg1, arg2, arg3, arg4);
}

int System::run_with(const char *program, int options, const char *arg1, const char *arg2) {
    if (arg1 == nullptr) return KVLIBCExecl(program, options, static_cast<const char *>(nullptr));
    if (arg2 == nullptr) return KVLIBCExecl(program, options, arg1, static_cast<const char *>(nullptr));
    return KVLIBCExecl(program, options, arg1, arg2, static_cast<const char *>(nullptr));
}

namespace {

System plain_system;
std::atomic<System *> in_place{nullptr};

}  // namespace

System &sys() {
    System *replacement = in_place.load(std::memory_order_acquire);
    return replacement != nullptr ? *replacement : plain_system;
}

System *install_system(System *replacement) noexcept {
    return in_place.exchange(replacement, std::memory_order_acq_rel);
}

Door::Door() : root_(root_dir()), sys_(&kova::sys()) {}

std::string Door::path(std::string_view fixed) const {
    std::string resolved = root_;
    resolved.append(fixed);
    return resolved;
}

bool Door::exists(const std::string &path) const {
    return sys_->access(path.c_str(), F_OK) == 0;
}

}  // namespace kova
