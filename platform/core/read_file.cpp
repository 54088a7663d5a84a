// Whole-file reads for the sectioned and key-value file readers.
#include "core/read_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>

namespace kova::platform {

bool read_file(const char *path, std::string &out) {
    const Fd fd(::open(path, O_RDONLY | O_CLOEXEC));
    if (fd.get() < 0) return false;
    // A regular file is read into a buffer of its size and one byte more (to find its end).
    // Files that report no size (the kernel's generated tables, /proc/net/...) are read into a
    // buffer of 64 KiB that doubles whenever it is full: such a file comes a page per read, so
    // the buffer must not be copied per read. It is never zero-filled; the text is made from it
    // once the end is found.
    struct stat st;
    const size_t known =
        ::fstat(fd.get(), &st) == 0 && S_ISREG(st.st_mode) && st.st_size > 0 ? static_cast<size_t>(st.st_size) + 1 : 0;
    std::unique_ptr<char[]> buf;
    size_t capacity = 0;
    size_t size = 0;
    for (;;) {
        if (size == capacity) {
            const size_t wanted = capacity > 0 ? capacity * 2 : known > 0 ? known : 65536;
            std::unique_ptr<char[]> grown = std::make_unique_for_overwrite<char[]>(wanted);
            if (size > 0) std::memcpy(grown.get(), buf.get(), size);
            buf = std::move(grown);
            capacity = wanted;
        }
        const ssize_t n = ::read(fd.get(), buf.get() + size, capacity - size);
        if (n < 0) {
            if (errno == EINTR) continue;
            out.clear();
            return false;
        }
        if (n == 0) break;
        size += static_cast<size_t>(n);
    }
    out.assign(buf.get(), size);
    return true;
}

}  // namespace kova::platform
