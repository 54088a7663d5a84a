#include <kovaserviceconf.h>

#include <cstring>

#include "kova_test.h"

namespace {

using kova::test::RootTest;

class ProtocolTest : public RootTest {};

TEST_F(ProtocolTest, ExactTestsAndBitTests) {
    EXPECT_EQ(IsTCP(1), 1);
    EXPECT_EQ(IsTCP(3), 0);
    EXPECT_EQ(IsUDP(2), 1);
    EXPECT_EQ(IsUDP(3), 0);
    EXPECT_EQ(IsBothTCPAndUDP(3), 1);
    EXPECT_EQ(IsBothTCPAndUDP(1), 0);
    EXPECT_EQ(HasTCP(3), 1);
    EXPECT_EQ(HasTCP(2), 0);
    EXPECT_EQ(HasUDP(3), 2);  // the bit's value, not 1
    EXPECT_EQ(HasUDP(1), 0);
}

TEST_F(ProtocolTest, LegalProtocolLooksAtLow16BitsOnly) {
    EXPECT_EQ(IsLegalProtocol(0), 0);
    EXPECT_EQ(IsLegalProtocol(4), 0);
    EXPECT_EQ(IsLegalProtocol(1), 1);
    EXPECT_EQ(IsLegalProtocol(3), 1);
    EXPECT_EQ(IsLegalProtocol(65537), 1);
    EXPECT_EQ(IsLegalProtocol(65536), 0);
}

TEST_F(ProtocolTest, ToUPortReadsLeadingNumberAndLogsOnlyWhenNoneIsThere) {
    poison_error();
    EXPECT_EQ(ToUPort("8080"), 8080);
    EXPECT_EQ(ToUPort(" 21 "), 21);
    EXPECT_EQ(ToUPort("21abc"), 21);
    EXPECT_EQ(ToUPort("0"), 0);
    EXPECT_TRUE(log().empty());
    EXPECT_EQ(ToUPort("abc"), 0);
    EXPECT_EQ(ToUPort(""), 0);
    EXPECT_EQ(log_normalized(), (std::vector<std::string>{"port_conflict_helper.cpp:N Failed on parse port: abc",
                                                          "port_conflict_helper.cpp:N Failed on parse port: "}));
    EXPECT_EQ(KVLIBCErrGet(), 0xEEEEu);  // never touches the error state
}

TEST_F(ProtocolTest, FirewallProtocolMapping) {
    EXPECT_EQ(KOVAProtocolMapping(1), 1);
    EXPECT_EQ(KOVAProtocolMapping(2), 2);
    EXPECT_EQ(KOVAProtocolMapping(3), 3);
    EXPECT_EQ(KOVAProtocolMapping(0), 0);
    EXPECT_EQ(KOVAProtocolMapping(4), 0);
    EXPECT_EQ(KOVAProtocolMapping(-1), 0);
}

TEST_F(ProtocolTest, TcpStateNames) {
    EXPECT_STREQ(KOVATCPStateToString(1), "TCP_ESTABLISHED");
    EXPECT_STREQ(KOVATCPStateToString(10), "TCP_LISTEN");
    EXPECT_STREQ(KOVATCPStateToString(11), "TCP_CLOSING");
    EXPECT_STREQ(KOVATCPStateToString(0), "Illegal_TCP_STATE");
    EXPECT_STREQ(KOVATCPStateToString(12), "Illegal_TCP_STATE");
    EXPECT_STREQ(KOVATCPStateToString(static_cast<uint32_t>(-1)), "Illegal_TCP_STATE");
}

TEST_F(ProtocolTest, ProtocolTableHasTwoEntriesWithoutTerminator) {
    ASSERT_EQ(KVLIBServiceProtoMapSizeGet(), 2);
    EXPECT_EQ(gProtoTypeMapping[0].type, 1);
    EXPECT_STREQ(gProtoTypeMapping[0].szName, "tcp");
    EXPECT_EQ(gProtoTypeMapping[1].type, 2);
    EXPECT_STREQ(gProtoTypeMapping[1].szName, "udp");
}

TEST_F(ProtocolTest, IndexGetStoresFlagOrFailsWithoutStoring) {
    int type = 77;
    EXPECT_EQ(KVLIBServiceProtoIndexGet(1, &type), 0);
    EXPECT_EQ(type, 2);
    type = 77;
    EXPECT_EQ(KVLIBServiceProtoIndexGet(-1, &type), -1);
    EXPECT_EQ(KVLIBCErrGet(), 0x0D00u);
    EXPECT_STREQ(KVLIBCErrorGetFile(), "service_conf_common.cpp");
    EXPECT_EQ(KVLIBServiceProtoIndexGet(2, &type), -1);
    EXPECT_EQ(KVLIBServiceProtoIndexGet(0, nullptr), -1);
    EXPECT_EQ(type, 77);
    EXPECT_TRUE(log().empty());
}

TEST_F(ProtocolTest, StrGetCopiesNameOrRefusesSmallBuffers) {
    char buf[8];
    std::memset(buf, 'x', sizeof buf);
    EXPECT_EQ(KVLIBServiceProtoStrGet(0, buf, 4), 0);
    EXPECT_STREQ(buf, "tcp");

    std::memset(buf, 'x', sizeof buf);
    EXPECT_EQ(KVLIBServiceProtoStrGet(1, buf, 3), -1);
    EXPECT_EQ(KVLIBCErrGet(), 0xBF00u);
    EXPECT_EQ(buf[0], 'x');  // left untouched
    EXPECT_EQ(log_normalized(), (std::vector<std::string>{
                                    "service_conf_common.cpp:N input array too small[0xBF00 service_conf_common.cpp:N]"}));

    clear_log();
    EXPECT_EQ(KVLIBServiceProtoStrGet(2, buf, 8), -1);
    EXPECT_EQ(KVLIBCErrGet(), 0x0D00u);
    EXPECT_EQ(KVLIBServiceProtoStrGet(0, buf, 0), -1);
    EXPECT_EQ(KVLIBServiceProtoStrGet(0, nullptr, 8), -1);
    EXPECT_EQ(KVLIBServiceProtoStrGet(-1, buf, 8), -1);
    EXPECT_TRUE(log().empty());
}

TEST_F(ProtocolTest, InstallPathIsResolvedUnderRootAndCut) {
    char buf[4096];
    ASSERT_EQ(GetInstallPath("foo.sc", 2, buf, sizeof buf), 0);
    EXPECT_EQ(std::string(buf), root() + "/usr/local/etc/services.d/foo.sc");
    ASSERT_EQ(GetInstallPath("foo.sc", 1, buf, sizeof buf), 0);
    EXPECT_EQ(std::string(buf), root() + "/usr/kova/etc/services.d/foo.sc");

    char small[10];
    ASSERT_EQ(GetInstallPath("foo.sc", 1, small, sizeof small), 0);
    EXPECT_EQ(std::string(small), (root() + "/usr/kova").substr(0, 9));

    std::strcpy(buf, "keep");
    EXPECT_EQ(GetInstallPath("foo.sc", 0, buf, sizeof buf), -1);
    EXPECT_EQ(KVLIBCErrGet(), 0x0D00u);
    EXPECT_EQ(GetInstallPath("foo.sc", 3, buf, sizeof buf), -1);
    EXPECT_EQ(GetInstallPath(nullptr, 1, buf, sizeof buf), -1);
    EXPECT_STREQ(buf, "keep");
}

TEST_F(ProtocolTest, LogFileGetsExactLineAndErrnoText) {
    // A line written twice lands twice, each with its own newline.
    ToUPort("x");
    ToUPort("y");
    auto lines = log();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(kova::test::normalize(lines[1]), "port_conflict_helper.cpp:N Failed on parse port: y");
}

}  // namespace
