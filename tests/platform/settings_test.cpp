// FTP, port-forwarding and network stand-ins (the SSH port is the settings fuzz harness's model).
#include <kovaftp.h>
#include <kovanetsdk.h>
#include <kovaportforward.h>

#include <gtest/gtest.h>

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

std::string table(const std::vector<std::pair<const char *, const char *>> &sockets) {
    std::string text =
        "  sl  local_address rem_address   st tx_queue rx_queue tr tm->when retrnsmt   uid  timeout inode\n";
    int slot = 0;
    for (const auto &[local, st] : sockets)
        text += "   " + std::to_string(slot++) + ": " + local + " 00000000:0000 " + st +
                " 00000000:00000000 00:00000000 00000000     0        0 1234 1 0000 100 0 0 10 0\n";
    return text + "garbage line\n";
}

class PlatformNetUsedPorts : public kova::test::RootTest {
protected:
    void SetUp() override {
        RootTest::SetUp();
        // tcp: 8080 listening twice, 22 listening, 8081 established; tcp6: 443 listening, 8082 time-wait.
        write(
            "/proc/net/tcp",
            table(
                {{"0100007F:1F90", "0A"}, {"00000000:0016", "0A"}, {"0100007F:1F91", "01"}, {"0100007F:1F90", "0A"}}));
        write("/proc/net/tcp6", table({{"00000000000000000000000000000000:01BB", "0A"},
                                       {"00000000000000000000000001000000:1F92", "06"}}));
        write("/proc/net/udp", table({{"00000000:0035", "07"}, {"0100007F:1F91", "01"}}));  // 53, 8081
        write("/proc/net/udp6", table({{"00000000000000000000000000000000:0202", "07"}}));  // 514
    }

    // The ports reported for [first, last] in an array of `capacity` (default: the range's size),
    // or {-1} when the call fails.
    std::vector<int32_t> used(int first, int last, int tcp, int capacity = -1) {
        int count = capacity >= 0 ? capacity : last - first + 1;
        std::vector<int32_t> ports(static_cast<size_t>(count) + 1, -5);
        ports.back() = -7;  // must stay untouched
        int rc = KOVANetGetPortUsedInRange(ports.data(), &count, first, last, tcp);
        EXPECT_EQ(ports.back(), -7);
        if (rc < 0) return {-1};
        for (size_t i = static_cast<size_t>(count); i + 1 < ports.size(); ++i) EXPECT_EQ(ports[i], 0) << i;
        return std::vector<int32_t>(ports.begin(), ports.begin() + count);
    }
};

TEST_F(PlatformNetUsedPorts, ListeningTcpAndEveryUdpSocketInAscendingOrder) {
    using P = std::vector<int32_t>;
    EXPECT_EQ(used(1, 65535, 1), (P{22, 443, 8080}));
    EXPECT_EQ(used(8080, 8082, 1), (P{8080}));
    EXPECT_EQ(used(1, 65535, 0), (P{53, 514, 8081}));
    EXPECT_EQ(used(100, 200, 0), P{});
    EXPECT_EQ(used(1, 65535, 1, 2), (P{22, 443}));  // cut to the array

    std::remove(path("/proc/net/udp6").c_str());
    EXPECT_EQ(used(1, 65535, 0), P{-1});
    EXPECT_EQ(used(1, 65535, 1), (P{22, 443, 8080}));
    std::remove(path("/proc/net/tcp").c_str());
    EXPECT_EQ(used(1, 65535, 1), P{-1});
    int count = 1;
    int32_t one = 0;
    EXPECT_LT(KOVANetGetPortUsedInRange(&one, &count, 1, 70000, 1), 0);
}

}  // namespace
