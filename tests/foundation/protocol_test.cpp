// The protocol helpers' corners: bit values, the low 16 bits, buffers left untouched on failure.
#include <algorithm>
#include <cstdio>
#include <cstring>

#include "foundation/ports.h"
#include "kova_test.h"

namespace {

using kova::test::Lines;
using kova::test::outcome;
using kova::test::RootTest;

class ProtocolTest : public RootTest {};

TEST_F(ProtocolTest, FlagTests) {
    // (HasUDP(3) is 2, the bit's value, and IsLegalProtocol(65537) 1: the installed client checks.)
    EXPECT_EQ((std::vector<int>{IsTCP(3), IsBothTCPAndUDP(3), IsLegalProtocol(65536), KOVAProtocolMapping(-1)}),
              (std::vector<int>{0, 1, 0, 0}));
    EXPECT_STREQ(KOVATCPStateToString(11), "TCP_CLOSING");
    EXPECT_STREQ(KOVATCPStateToString(12), "Illegal_TCP_STATE");
}

TEST_F(ProtocolTest, ToUPortLogsOnlyWhenNoNumberLeads) {
    poison_error();
    EXPECT_EQ(ToUPort(" 21abc"), 21);
    EXPECT_TRUE(log().empty());
    EXPECT_EQ(ToUPort("abc"), 0);
    EXPECT_EQ(log_normalized(), Lines{"port_conflict_helper.cpp:N Failed on parse port: abc"});
    EXPECT_EQ(KVLIBCErrGet(), 0xEEEEu);
    // Read as "%hu" reads it: signs, wrapping, saturation; and "%hu-%hu" for catalogue spans.
    for (const char *text : {"+22", "-1", "70000", "99999999999999999999", "- 5", "\t\v7x", "80-90", "80 -9", "8--9"}) {
        unsigned short a = 0;
        unsigned short b = 0;
        const int n = std::sscanf(text, "%hu-%hu", &a, &b);
        const kova::ports::ScannedSpan span = kova::ports::scan_port_span(text);
        EXPECT_EQ(span.read, std::max(n, 0)) << text;
        EXPECT_EQ(span.first, n >= 1 ? a : 0) << text;
        EXPECT_EQ(span.last, n == 2 ? b : 0) << text;
        EXPECT_EQ(ToUPort(text), n >= 1 ? a : 0) << text;
    }
    // A value cannot break a line or forge another: its control characters are escaped.
    clear_log();
    EXPECT_EQ(ToUPort("x\nsvc.cpp:1 forged\r\t\x01"), 0);
    EXPECT_EQ(log_normalized(),
              Lines{"port_conflict_helper.cpp:N Failed on parse port: x\\nsvc.cpp:N forged\\r\\t\\x01"});
}

TEST_F(ProtocolTest, TableAccessorsLeaveOutputsAloneOnFailure) {
    int type = 77;
    EXPECT_EQ(outcome(KVLIBServiceProtoIndexGet(2, &type)), "-1 0x0D00");
    EXPECT_EQ(type, 77);
    char buf[8] = "xxxxxxx";
    EXPECT_EQ(outcome(KVLIBServiceProtoStrGet(1, buf, 3)), "-1 0xBF00");
    EXPECT_EQ(buf[0], 'x');
    EXPECT_EQ(log_normalized(),
              Lines{"service_conf_common.cpp:N input array too small[0xBF00 service_conf_common.cpp:N]"});
    EXPECT_EQ(KVLIBServiceProtoStrGet(1, buf, 4), 0);
    EXPECT_STREQ(buf, "udp");
}

TEST_F(ProtocolTest, InstallPathIsResolvedUnderRootAndCut) {
    char buf[4096];
    ASSERT_EQ(GetInstallPath("foo.sc", 2, buf, sizeof buf), 0);
    EXPECT_EQ(std::string(buf), root() + "/usr/local/etc/services.d/foo.sc");
    char small[10];
    ASSERT_EQ(GetInstallPath("foo.sc", 1, small, sizeof small), 0);
    EXPECT_EQ(std::string(small), (root() + "/usr/kova").substr(0, 9));
    std::strcpy(buf, "keep");
    EXPECT_EQ(outcome(GetInstallPath("foo.sc", 3, buf, sizeof buf)), "-1 0x0D00");
    EXPECT_STREQ(buf, "keep");
}

}  // namespace
