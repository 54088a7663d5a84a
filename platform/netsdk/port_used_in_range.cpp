// Ports in use, from the kernel's socket tables: TCP sockets in the listening state, and every
// UDP socket.
#include <kovanetsdk.h>

#include <array>
#include <bit>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <new>
#include <string>
#include <string_view>

#include "core/plat_log.h"
#include "core/read_file.h"
#include "kova_root.h"

namespace {

constexpr unsigned long kTcpListen = 0x0A;

// One bit a port, scanned a word at a time.
struct PortSet {
    std::array<uint64_t, 65536 / 64> words{};
    void set(unsigned long port) { words[port / 64] |= uint64_t{1} << (port % 64); }
    // Calls `take` with each port of [first, last] in the set, ascending, while it returns true.
    template <class Take>
    void each(int first, int last, Take &&take) const {
        for (int w = first / 64; w <= last / 64; ++w) {
            uint64_t bits = words[static_cast<size_t>(w)];
            while (bits != 0) {
                const int port = w * 64 + std::countr_zero(bits);
                bits &= bits - 1;
                if (port < first) continue;
                if (port > last || !take(port)) return;
            }
        }
    }
};

std::string_view next_field(std::string_view line, size_t &pos) {
    while (pos < line.size() && (line[pos] == ' ' || line[pos] == '\t')) ++pos;
    size_t start = pos;
    while (pos < line.size() && line[pos] != ' ' && line[pos] != '\t') ++pos;
    return line.substr(start, pos - start);
}

bool parse_hex(std::string_view text, unsigned long max, unsigned long &out) {
    if (text.empty() || text.size() > 8) return false;
    unsigned long v = 0;
    for (char c : text) {
        int d;
        if (c >= '0' && c <= '9')
            d = c - '0';
        else if (c >= 'a' && c <= 'f')
            d = c - 'a' + 10;
        else if (c >= 'A' && c <= 'F')
            d = c - 'A' + 10;
        else
            return false;
        v = v * 16 + static_cast<unsigned long>(d);
    }
    if (v > max) return false;
    out = v;
    return true;
}

// One table line: "sl local_address rem_address st ..."; the local port follows the last ':'.
bool parse_line(std::string_view line, unsigned long &port, unsigned long &state) {
    size_t pos = 0;
    std::string_view slot = next_field(line, pos);
    if (slot.empty() || slot.back() != ':') return false;  // also skips the header line
    std::string_view local = next_field(line, pos);
    next_field(line, pos);  // remote address
    std::string_view st = next_field(line, pos);
    size_t colon = local.rfind(':');
    if (colon == std::string_view::npos) return false;
    return parse_hex(local.substr(colon + 1), 0xFFFF, port) && parse_hex(st, 0xFF, state);
}

bool read_table(const char *name, bool listening_only, PortSet &ports) {
    const std::string path = kova::resolve(kova::paths::kProcDir) + "/net/" + name;
    std::string text;
    if (!kova::platform::read_file(path.c_str(), text)) {
        PLAT_SET_ERR(KOVA_ERR_FILE_OPEN);
        PLAT_LOG("cannot read socket table %s", path.c_str());
        return false;
    }
    kova::platform::each_line(text, [&](std::string_view line) {
        unsigned long port = 0, state = 0;
        if (parse_line(line, port, state) && (!listening_only || state == kTcpListen)) ports.set(port);
        return true;
    });
    return true;
}

}  // namespace

// Writes the distinct ports of [firstPort, lastPort] in use (tcp 1: listening TCP sockets;
// tcp 0: UDP sockets) in ascending order into pPorts, at most *pCount of them, and lowers *pCount
// to the number written. The entries after them are left as they were: a caller that asks with
// room for the whole port space must not pay for touching all of it.
extern "C" int KOVANetGetPortUsedInRange(int32_t *pPorts, int *pCount, int firstPort, int lastPort, int tcp) {
    if (pPorts == nullptr || pCount == nullptr || *pCount < 0 || firstPort < 0 || lastPort > 65535 ||
        firstPort > lastPort) {
        PLAT_SET_ERR(KOVA_ERR_BAD_PARAMETER);
        return -1;
    }
    try {
        auto ports = std::make_unique<PortSet>();
        const bool ok = tcp != 0 ? read_table("tcp", true, *ports) && read_table("tcp6", true, *ports)
                                 : read_table("udp", false, *ports) && read_table("udp6", false, *ports);
        if (!ok) return -1;
        const int capacity = *pCount;
        int n = 0;
        if (capacity > 0)
            ports->each(firstPort, lastPort, [&](int port) {
                pPorts[n++] = port;
                return n < capacity;
            });
        *pCount = n;
        return 0;
    } catch (const std::bad_alloc &) {
        PLAT_SET_ERR(KOVA_ERR_OUT_OF_MEMORY);
        return -1;
    }
}
