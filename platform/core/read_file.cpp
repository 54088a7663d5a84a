// Whole-file reads for the sectioned and key-value file readers.
#include "core/read_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>

namespace kova::platform {

bool read_file(const char *path, std::string &out) {
    int fd = ::open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) return false;
    // A regular file is read into a buffer of its size (and one byte to find its end). Files
    // that report no size are read with each read asking for as much as was read so far (64 KiB
    // at least): the kernel's generated tables (/proc/net/...) cost a walk from their start on
    // every read. The buffer is never zero-filled; the text is made from it once the end is found.
    struct stat st;
    const size_t known =
        ::fstat(fd, &st) == 0 && S_ISREG(st.st_mode) && st.st_size > 0 ? static_cast<size_t>(st.st_size) + 1 : 0;
    std::unique_ptr<char[]> buf;
    size_t capacity = 0;
    size_t size = 0;
    for (;;) {
        const size_t wanted = size < known ? known : size + std::max<size_t>(size, 65536);
        if (wanted > capacity) {
            try {
                std::unique_ptr<char[]> grown = std::make_unique_for_overwrite<char[]>(wanted);
                if (size > 0) std::memcpy(grown.get(), buf.get(), size);
                buf = std::move(grown);
                capacity = wanted;
            } catch (...) {
                ::close(fd);
                throw;
            }
        }
        ssize_t n = ::read(fd, buf.get() + size, wanted - size);
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
    ::close(fd);
    out.assign(buf.get(), size);
    return true;
}

}  // namespace kova::platform
