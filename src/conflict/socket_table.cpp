// Reading the kernel's socket tables: one line at a time, as the kernel writes them.
#include <cstdio>
#include <string_view>

#include "conflict/runtime_inventory.h"
#include "foundation/raii.h"

namespace kova::conflict {

namespace {

// A reader for the lines exactly as the kernel writes them: fields of plain digits separated
// by single characters and runs of spaces. It takes a line only when every field is short
// enough that no conversion can overflow, so that what it reads is what the scanf format
// reads; anything else (signs, "0x", tabs, long fields, truncation) is left to sscanf.
class KernelLine {
public:
    explicit KernelLine(const char *p) : p_(p) {}

    // sl: local-address:port remote-address:port st tx:rx tr:when retrnsmt uid timeout inode
    bool read(unsigned short &port, unsigned int &state, unsigned long &inode) {
        unsigned long local_port = 0;
        unsigned long st = 0;
        unsigned long ino = 0;
        unsigned long skipped = 0;
        spaces(0);
        if (!digits(10, 32, skipped) || !take(':') || !spaces(1)) return false;
        if (!digits(16, 64, skipped) || !take(':') || !digits(16, 4, local_port) || !spaces(1)) return false;
        if (!digits(16, 64, skipped) || !take(':') || !digits(16, 8, skipped) || !spaces(1)) return false;
        if (!digits(16, 8, st) || !spaces(1)) return false;
        if (!digits(16, 8, skipped) || !take(':') || !digits(16, 8, skipped) || !spaces(1)) return false;
        if (!digits(16, 8, skipped) || !take(':') || !digits(16, 16, skipped) || !spaces(1)) return false;
        if (!digits(16, 8, skipped) || !spaces(1) || !digits(10, 19, skipped) || !spaces(1)) return false;
        if (!digits(10, 19, skipped) || !spaces(1) || !digits(10, 19, ino)) return false;
        if (*p_ != '\0' && *p_ != ' ' && *p_ != '\n') return false;
        port = static_cast<unsigned short>(local_port);
        state = static_cast<unsigned int>(st);
        inode = ino;
        return true;
    }

private:
    static int digit(char c, int base) {
        if (c >= '0' && c <= '9') return c - '0';
        if (base == 16 && c >= 'a' && c <= 'f') return c - 'a' + 10;
        if (base == 16 && c >= 'A' && c <= 'F') return c - 'A' + 10;
        return -1;
    }

    // A run of 1..max digits of the base, followed by something that is not one. The fields
    // that are kept are at most 19 decimal or 8 hexadecimal digits long and cannot overflow;
    // the value of a longer, skipped field (an address) wraps and is not used.
    bool digits(int base, int max, unsigned long &value) {
        value = 0;
        int n = 0;
        for (int d; (d = digit(*p_, base)) >= 0; ++p_, ++n) {
            if (n == max) return false;
            value = value * static_cast<unsigned long>(base) + static_cast<unsigned long>(d);
        }
        return n >= 1;
    }

    bool spaces(int min) {
        int n = 0;
        for (; *p_ == ' '; ++p_) ++n;
        return n >= min;
    }

    bool take(char c) {
        if (*p_ != c) return false;
        ++p_;
        return true;
    }

    const char *p_;
};

constexpr uint64_t kMix = 0x9E3779B97F4A7C15ull;

}  // namespace

bool scan_socket_line(const char *line, RawSocketInfo &info) {
    unsigned short port = 0;
    unsigned int state = 0;
    unsigned long inode = 0;
    if (line == nullptr) return false;
    if (!KernelLine(line).read(port, state, inode) &&
        std::sscanf(line, "%*d: %*64[0-9A-Fa-f]:%hx %*64[0-9A-Fa-f]:%*X %X %*X:%*X %*X:%*X %*X %*d %*d %lu ", &port,
                    &state, &inode) < 3)
        return false;
    info.port = port;
    info.state = state;
    info.inode = inode;
    return true;
}

bool scan_socket_link(const char *target, uint64_t &inode) {
    static constexpr std::string_view kSocket = "socket:[";
    static constexpr std::string_view kAnon = "[0000]:";
    unsigned long value = 0;
    const std::string_view text(target);
    const char *digits = nullptr;
    if (text.starts_with(kSocket))
        digits = target + kSocket.size();
    else if (text.starts_with(kAnon))
        digits = target + kAnon.size();
    if (digits == nullptr || std::sscanf(digits, "%lu", &value) != 1) return false;
    inode = value;
    return true;
}

size_t SocketKeyHash::operator()(const SocketKey &k) const noexcept {
    uint64_t h = k.inode * kMix;
    h ^= ((static_cast<uint64_t>(k.port) << 48) | (static_cast<uint64_t>(k.protocol) << 32) | k.state) + kMix +
         (h << 6) + (h >> 2);
    return static_cast<size_t>(h);
}

TableRead read_socket_table(const char *path, uint16_t protocol, SocketSet &seen, std::vector<RawSocketInfo> &out) {
    if (path == nullptr || !KVLIBCFileExist(path)) return TableRead::kMissing;
    kova::SzListPtr lines(KVLIBCSzListAlloc(512));
    if (!lines) return TableRead::kNoMemory;
    KVLIB_SZLIST *handle = lines.get();
    const int read = KVLIBCFileReadLines(path, &handle);
    if (handle != lines.get()) {
        (void)lines.release();
        lines.reset(handle);
    }
    if (read < 0) return TableRead::kUnreadable;
    RawSocketInfo info{};
    info.protocol = protocol;
    for (int i = 0; i < lines->nItem; ++i) {
        if (!scan_socket_line(KVLIBCSzListGet(lines.get(), i), info)) continue;
        if (seen.insert(key_of(info)).second) out.push_back(info);
    }
    return TableRead::kOk;
}

}  // namespace kova::conflict
