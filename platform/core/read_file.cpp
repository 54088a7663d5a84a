// Whole-file reads for the sectioned and key-value file readers.
#include "core/read_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

namespace kova::platform {

bool read_file(const char *path, std::string &out) {
    int fd = ::open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) return false;
    out.clear();
    char buf[65536];
    for (;;) {
        ssize_t n = ::read(fd, buf, sizeof buf);
        if (n < 0) {
            if (errno == EINTR) continue;
            int saved = errno;
            ::close(fd);
            errno = saved;
            return false;
        }
        if (n == 0) break;
        try {
            out.append(buf, static_cast<size_t>(n));
        } catch (...) {
            ::close(fd);
            throw;
        }
    }
    ::close(fd);
    return true;
}

}  // namespace kova::platform
