// Whole-file reads for the sectioned and key-value file layers.
#pragma once

#include <unistd.h>

#include <string>
#include <string_view>

namespace kova::platform {

// An open descriptor, closed when the owner goes.
class Fd {
public:
    explicit Fd(int fd = -1) : fd_(fd) {}
    Fd(const Fd &) = delete;
    Fd &operator=(const Fd &) = delete;
    ~Fd() { reset(); }
    int get() const { return fd_; }
    void reset(int fd = -1) {
        if (fd_ >= 0) ::close(fd_);
        fd_ = fd;
    }
    int release() {
        int fd = fd_;
        fd_ = -1;
        return fd;
    }

private:
    int fd_;
};

// Reads a whole file (any size, any bytes; also files that report no size, such as /proc).
// False with errno set when it cannot be opened or read.
bool read_file(const char *path, std::string &out);

// Calls fn(line) for every line of the text, in order, without its line feed (a carriage return
// stays), until it returns false.
template <class Fn>
void each_line(std::string_view text, Fn &&fn) {
    while (!text.empty()) {
        const size_t end = text.find('\n');
        if (!fn(text.substr(0, end))) return;
        text = end == std::string_view::npos ? std::string_view() : text.substr(end + 1);
    }
}

}  // namespace kova::platform
