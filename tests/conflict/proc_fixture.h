// A fabricated process table under the test root: socket tables under proc/net, process
// directories with descriptor links ("socket:[N]", files, pipes) and executable links.
#pragma once

#include <kovaserviceconf.h>

#include <cstdio>
#include <string>
#include <vector>

#include "foundation/raii.h"
#include "kova_test.h"

namespace kova::test {

inline const char *kTcpHeader =
    "  sl  local_address rem_address   st tx_queue rx_queue tr tm->when retrnsmt   uid  timeout inode\n";
inline const char *kUdpHeader =
    "   sl  local_address rem_address   st tx_queue rx_queue tr tm->when retrnsmt   uid  timeout inode ref pointer "
    "drops\n";

// One IPv4 table line as the kernel writes it.
inline std::string line4(int sl, unsigned port, unsigned state, unsigned long inode) {
    char text[256];
    std::snprintf(text, sizeof text,
                  "%4d: 0100007F:%04X 00000000:0000 %02X 00000000:00000000 00:00000000 00000000     0        0 %lu 1 "
                  "0000000000000000 100 0 0 10 0\n",
                  sl, port, state, inode);
    return text;
}

// One IPv6 table line.
inline std::string line6(int sl, unsigned port, unsigned state, unsigned long inode) {
    char text[320];
    std::snprintf(text, sizeof text,
                  "%4d: 00000000000000000000000001000000:%04X 00000000000000000000000000000000:0000 %02X "
                  "00000000:00000000 00:00000000 00000000     0        0 %lu 1 0000000000000000 100 0 0 10 0\n",
                  sl, port, state, inode);
    return text;
}

struct Fd {
    int fd;
    std::string target;
};

class ProcTableTest : public RootTest {
protected:
    // The four socket tables; each gets its header line in front of `body`.
    void tables(const std::string &tcp, const std::string &tcp6, const std::string &udp,
                const std::string &udp6) const {
        write("/proc/net/tcp", kTcpHeader + tcp);
        write("/proc/net/tcp6", kTcpHeader + tcp6);
        write("/proc/net/udp", kUdpHeader + udp);
        write("/proc/net/udp6", kUdpHeader + udp6);
    }

    // A process directory with its descriptor links and, unless `exe` is empty, its executable.
    void process(const std::string &pid, const std::string &exe, const std::vector<Fd> &fds) const {
        mkdir("/proc/" + pid + "/fd");
        for (const Fd &fd : fds) symlink(fd.target, "/proc/" + pid + "/fd/" + std::to_string(fd.fd));
        if (!exe.empty()) symlink(exe, "/proc/" + pid + "/exe");
    }
};

}  // namespace kova::test
