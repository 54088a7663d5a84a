// Locked, atomic rewrite of a file.
//
// The lock is taken on the file itself. Since every writer replaces the file by rename, a
// writer that was waiting may wake up holding the lock of a file that is no longer in place;
// it then compares the locked descriptor with what the path names now and starts over on the
// new file. So writers are serialised on whatever file the path currently names, and readers,
// who take no lock, always see a complete old or new content.
//
// The new content is written to a temporary file that never lies in the file's own directory,
// where readers that take every entry for a file of theirs (a services.d directory) would see it:
// it lies beside the directory, in its parent (the same file system, so rename is atomic), and
// is named after the file it replaces: ".<name>.<inode of the directory>.XXXXXX". Such a file
// that exists while the lock is held was left by a killed writer of the same file; the next
// writer removes it.
#include "core/file_replace.h"

#include <dirent.h>
#include <fcntl.h>
#include <kovacore.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include "core/plat_log.h"
#include "core/read_file.h"

namespace kova::platform {
namespace {

// The file to replace: a symbolic link is followed, so that the link stays a link.
std::string target_of(const char *path) {
    struct stat st;
    if (lstat(path, &st) == 0 && S_ISLNK(st.st_mode)) {
        if (char *real = realpath(path, nullptr)) {
            std::string target(real);
            std::free(real);
            return target;
        }
    }
    return path;
}

std::string dir_of(const std::string &path) {
    size_t slash = path.rfind('/');
    if (slash == std::string::npos) return ".";
    if (slash == 0) return "/";
    return path.substr(0, slash);
}

std::string base_of(const std::string &path) {
    size_t slash = path.rfind('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

bool read_all(int fd, std::string &out) {
    out.clear();
    char buf[65536];
    off_t offset = 0;
    for (;;) {
        ssize_t n = ::pread(fd, buf, sizeof buf, offset);
        if (n < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        if (n == 0) return true;
        out.append(buf, static_cast<size_t>(n));
        offset += n;
    }
}

bool write_all(int fd, const std::string &data) {
    size_t done = 0;
    while (done < data.size()) {
        ssize_t n = ::write(fd, data.data() + done, data.size() - done);
        if (n < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        done += static_cast<size_t>(n);
    }
    return true;
}

// Opens and locks the file that `path` names right now.
int open_locked(const std::string &path, bool create, struct stat &st) {
    for (;;) {
        Fd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | (create ? O_CREAT : 0), 0644));
        if (fd.get() < 0) return -1;
        while (flock(fd.get(), LOCK_EX) != 0) {
            if (errno != EINTR) return -1;
        }
        struct stat now;
        if (fstat(fd.get(), &st) != 0) return -1;
        if (stat(path.c_str(), &now) == 0 && now.st_dev == st.st_dev && now.st_ino == st.st_ino) return fd.release();
        // Replaced (or removed) while we waited: lock the file that is there now.
    }
}

constexpr size_t kRandomChars = 6;  // the XXXXXX of mkostemp

// Where the temporary files of `path` lie, and the start of their names.
struct TempPlace {
    std::string dir;
    std::string prefix;
};

bool temp_place(const std::string &path, TempPlace &place) {
    const std::string dir = dir_of(path);
    place.dir = dir + "/..";
    struct stat own;
    struct stat parent;
    if (::stat(dir.c_str(), &own) != 0 || ::stat(place.dir.c_str(), &parent) != 0) return false;
    if (own.st_dev != parent.st_dev) {  // a mount point: rename could not reach the file
        errno = EXDEV;
        return false;
    }
    place.prefix.assign(1, '.');
    place.prefix.append(base_of(path)).append(1, '.').append(std::to_string(own.st_ino)).append(1, '.');
    return true;
}

// Removes the temporary files of the same file that killed writers left behind.
void remove_stale(const TempPlace &place) {
    DIR *dir = ::opendir(place.dir.c_str());
    if (dir == nullptr) return;
    const int dir_fd = ::dirfd(dir);
    while (const struct dirent *entry = ::readdir(dir)) {
        const std::string_view name(entry->d_name);
        if (name.size() == place.prefix.size() + kRandomChars && name.substr(0, place.prefix.size()) == place.prefix)
            ::unlinkat(dir_fd, entry->d_name, 0);
    }
    ::closedir(dir);
}

// Writes `content` to a new temporary file with the old file's mode and owner, and renames it
// over `path`.
bool install(const std::string &path, const struct stat &old, const std::string &content) {
    TempPlace place;
    if (!temp_place(path, place)) return false;
    remove_stale(place);
    std::string tmpl = place.dir + "/" + place.prefix + std::string(kRandomChars, 'X');
    std::vector<char> name(tmpl.begin(), tmpl.end());
    name.push_back('\0');
    Fd fd(mkostemp(name.data(), O_CLOEXEC));
    if (fd.get() < 0) return false;
    bool ok = fchmod(fd.get(), old.st_mode & 07777) == 0;
    if (ok && fchown(fd.get(), old.st_uid, old.st_gid) != 0) {
        // Only a privileged writer can give the file away; keep our own ownership otherwise.
    }
    ok = ok && write_all(fd.get(), content) && fsync(fd.get()) == 0;
    ok = ::close(fd.release()) == 0 && ok;
    ok = ok && ::rename(name.data(), path.c_str()) == 0;
    if (!ok) {
        int saved = errno;
        ::unlink(name.data());
        errno = saved;
        return false;
    }
    return true;
}

}  // namespace

int rewrite_file(const char *path, bool create,
                 const std::function<EditResult(const std::string &, std::string &)> &edit) {
    const std::string target = target_of(path);
    struct stat st;
    Fd lock(open_locked(target, create, st));
    if (lock.get() < 0) {
        PLAT_SET_ERR(KOVA_ERR_FILE_OPEN);
        return -1;
    }
    std::string current;
    if (!read_all(lock.get(), current)) {
        PLAT_SET_ERR(KOVA_ERR_FILE_OPEN);
        return -1;
    }
    std::string replacement;
    switch (edit(current, replacement)) {
        case EditResult::kFailed:
            return -1;
        case EditResult::kUnchanged:
            return 0;
        case EditResult::kWrite:
            break;
    }
    if (!install(target, st, replacement)) {
        PLAT_SET_ERR(KOVA_ERR_FILE_OPEN);
        PLAT_LOG("cannot replace %s: %m", target.c_str());
        return -1;
    }
    return 0;  // the lock goes with the descriptor
}

}  // namespace kova::platform
