// FTP, port-forwarding and network stand-ins (the SSH port is the settings fuzz harness's model).
#include <kovaftp.h>
#include <kovanetsdk.h>
#include <kovaportforward.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

#include "kova_test.h"

namespace {

using PlatformSettings = kova::test::RootTest;

TEST_F(PlatformSettings, FtpPassiveRangeAndRuleFilePath) {
    KOVA_FTP_PASSIVE_PORT range{0, 0};
    ASSERT_EQ(KOVAFTPDefaultPassivePortGet(&range), 0);
    EXPECT_EQ(range.lowPort, 55536);
    EXPECT_EQ(range.highPort, 55899);

    const char *p = KOVAPFRuleConfPathGet();
    std::string other;
    std::thread([&] { other = KOVAPFRuleConfPathGet(); }).join();
    EXPECT_EQ(other, path("/etc/portforward/rule.conf"));
    EXPECT_EQ(std::string(p), path("/etc/portforward/rule.conf"));  // still valid
}

// One socket table: a header, a line per {local address, state}, and a line of garbage.
std::string table(const std::vector<std::pair<const char *, const char *>> &sockets) {
    std::string text = "  sl  local_address rem_address   st tx_queue rx_queue tr tm->when retrnsmt\n";
    for (const auto &[local, st] : sockets)
        text += std::string("   0: ") + local + " 00000000:0000 " + st + " 00000000:00000000 00:00000000 0 0 0 1234\n";
    return text + "garbage line\n";
}

// Listening TCP and every UDP socket, over both address families; the callers sort and merge the
// ports themselves (tests/range covers which sockets count), so here the array's bounds.
TEST_F(PlatformSettings, UsedPortsStayInTheArrayAndAMissingTableFails) {
    write("/proc/net/tcp", table({{"0100007F:1F90", "0A"}, {"00000000:0016", "0A"}, {"0100007F:1F91", "01"}}));
    write("/proc/net/tcp6", table({{"00000000000000000000000000000000:01BB", "0A"}}));  // 443
    write("/proc/net/udp", table({{"00000000:0035", "07"}}));                           // 53
    write("/proc/net/udp6", table({}));
    auto used = [](int first, int last, int tcp, int capacity) {
        std::vector<int32_t> ports(static_cast<size_t>(capacity) + 1, -7);
        int count = capacity;
        if (KOVANetGetPortUsedInRange(ports.data(), &count, first, last, tcp) < 0) return std::vector<int32_t>{-1};
        EXPECT_EQ(ports.back(), -7);  // nothing written past the array
        std::vector<int32_t> out(ports.begin(), ports.begin() + count);
        std::sort(out.begin(), out.end());
        return out;
    };
    using P = std::vector<int32_t>;
    EXPECT_EQ(used(1, 65535, 1, 10), (P{22, 443, 8080}));
    EXPECT_EQ(used(8080, 8082, 1, 3), (P{8080}));
    EXPECT_EQ(used(1, 65535, 0, 10), (P{53}));
    EXPECT_EQ(used(1, 65535, 1, 2).size(), 2u);  // cut to the array
    EXPECT_EQ(used(1, 70000, 1, 1), P{-1});
    std::remove(path("/proc/net/udp6").c_str());
    EXPECT_EQ(used(1, 65535, 0, 10), P{-1});
}

}  // namespace
