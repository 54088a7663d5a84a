// Whole-file reads for the sectioned and key-value file readers.
#include "core/read_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

namespace kova::platform {

bool read_file(const char *path, std::string &out) {
    int fd = ::open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) return false;
    // Straight into the text, each read asking for as much as was read so far (64 KiB at least):
    // the kernel's generated tables (/proc/net/...) cost a walk from their start on every read.
    size_t size = 0;
    for (;;) {
        try {
            out.resize(size + std::max<size_t>(size, 65536));
        } catch (...) {
            ::close(fd);
            throw;
        }
        ssize_t n = ::read(fd, out.data() + size, out.size() - size);
        if (n < 0) {
            if (errno == EINTR) continue;
            int saved = errno;
            ::close(fd);
            errno = saved;
            out.clear();
            return false;
        }
        if (n == 0) break;
        size += static_cast<size_t>(n);
    }
    out.resize(size);
    ::close(fd);
    return true;
}

}  // namespace kova::platform
