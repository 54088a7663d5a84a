// FTP, SSH, port-forwarding and network stand-ins.
#include <kovaserviceconf.h>

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
    EXPECT_LT(KOVAFTPDefaultPassivePortGet(nullptr), 0);

    const char *p = KOVAPFRuleConfPathGet();
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(std::string(p), path("/etc/portforward/rule.conf"));
    std::string other;
    std::thread([&] { other = KOVAPFRuleConfPathGet(); }).join();
    EXPECT_EQ(other, path("/etc/portforward/rule.conf"));
    EXPECT_EQ(std::string(p), path("/etc/portforward/rule.conf"));  // still valid
}

TEST_F(PlatformSettings, SshPortIsTheFirstPortLine) {
    int32_t port = 0;
    ASSERT_EQ(KOVAServiceSSHPortGet(&port), 0);  // no file
    EXPECT_EQ(port, 22);
    write("/etc/ssh/sshd_config", "# Port 1\n#Port 2\nPermitRootLogin no\n");
    port = 0;
    ASSERT_EQ(KOVAServiceSSHPortGet(&port), 0);
    EXPECT_EQ(port, 22);
    write("/etc/ssh/sshd_config", "Protocol 2\nPorts 7\n  port\t2222 \r\nPort 3333\n");
    ASSERT_EQ(KOVAServiceSSHPortGet(&port), 0);
    EXPECT_EQ(port, 2222);
    write("/etc/ssh/sshd_config", "Port=8022\n");
    ASSERT_EQ(KOVAServiceSSHPortGet(&port), 0);
    EXPECT_EQ(port, 8022);
    write("/etc/ssh/sshd_config", "Port abc\nPort 22\n");
    EXPECT_LT(KOVAServiceSSHPortGet(&port), 0);
    EXPECT_LT(KOVAServiceSSHPortGet(nullptr), 0);
}

const char kTcpHeader[] =
    "  sl  local_address rem_address   st tx_queue rx_queue tr tm->when retrnsmt   uid  timeout inode\n";

std::string tcp_line(int slot, const char *local, const char *st, int inode) {
    return "   " + std::to_string(slot) + ": " + local + " 00000000:0000 " + st +
           " 00000000:00000000 00:00000000 00000000     0        0 " + std::to_string(inode) + " 1 0000 100 0 0 10 0\n";
}

class PlatformNetUsedPorts : public kova::test::RootTest {
protected:
    void SetUp() override {
        RootTest::SetUp();
        write("/proc/net/tcp", std::string(kTcpHeader) + tcp_line(0, "0100007F:1F90", "0A", 11) +  // 8080 listen
                                   tcp_line(1, "00000000:0016", "0A", 12) +                        // 22 listen
                                   tcp_line(2, "0100007F:1F91", "01", 13) +                        // 8081 established
                                   "garbage line\n" + tcp_line(3, "0100007F:1F90", "0A", 14));     // 8080 again
        write("/proc/net/tcp6", std::string(kTcpHeader) +
                                    tcp_line(0, "00000000000000000000000000000000:01BB", "0A", 21) +  // 443
                                    tcp_line(1, "00000000000000000000000001000000:1F92", "06", 22));  // 8082 time-wait
        write("/proc/net/udp", std::string(kTcpHeader) + tcp_line(0, "00000000:0035", "07", 31) +     // 53
                                   tcp_line(1, "0100007F:1F91", "01", 32));                           // 8081
        write("/proc/net/udp6",
              std::string(kTcpHeader) + tcp_line(0, "00000000000000000000000000000000:0202", "07", 41));  // 514
    }

    std::vector<int32_t> used(int first, int last, int tcp, int capacity = -1, int *result = nullptr) {
        int count = capacity >= 0 ? capacity : last - first + 1;
        std::vector<int32_t> ports(static_cast<size_t>(count) + 1, 0);
        ports.back() = -7;  // must stay untouched
        int rc = KOVANetGetPortUsedInRange(ports.data(), &count, first, last, tcp);
        if (result != nullptr) *result = rc;
        EXPECT_EQ(ports.back(), -7);
        if (rc < 0) return {-1};
        return std::vector<int32_t>(ports.begin(), ports.begin() + count);
    }
};

TEST_F(PlatformNetUsedPorts, ListeningTcpAndEveryUdpSocketInAscendingOrder) {
    EXPECT_EQ(used(1, 65535, 1), (std::vector<int32_t>{22, 443, 8080}));
    EXPECT_EQ(used(8080, 8082, 1), (std::vector<int32_t>{8080}));
    EXPECT_EQ(used(1, 65535, 0), (std::vector<int32_t>{53, 514, 8081}));
    EXPECT_EQ(used(100, 200, 0), (std::vector<int32_t>{}));
    EXPECT_EQ(used(1, 65535, 1, 2), (std::vector<int32_t>{22, 443}));  // cut to the array
}

TEST_F(PlatformNetUsedPorts, AMissingTableOrBadArgumentsFail) {
    int rc = 0;
    EXPECT_EQ(used(1, 10, 1, -1, &rc), (std::vector<int32_t>{}));
    EXPECT_EQ(rc, 0);
    std::remove(path("/proc/net/udp6").c_str());
    used(1, 65535, 0, -1, &rc);
    EXPECT_LT(rc, 0);
    EXPECT_EQ(used(1, 65535, 1), (std::vector<int32_t>{22, 443, 8080}));
    std::remove(path("/proc/net/tcp").c_str());
    used(1, 65535, 1, -1, &rc);
    EXPECT_LT(rc, 0);
    int count = 1;
    int32_t one = 0;
    EXPECT_LT(KOVANetGetPortUsedInRange(nullptr, &count, 1, 1, 1), 0);
    EXPECT_LT(KOVANetGetPortUsedInRange(&one, nullptr, 1, 1, 1), 0);
    EXPECT_LT(KOVANetGetPortUsedInRange(&one, &count, 10, 1, 1), 0);
    EXPECT_LT(KOVANetGetPortUsedInRange(&one, &count, 1, 70000, 1), 0);
}

}  // namespace
