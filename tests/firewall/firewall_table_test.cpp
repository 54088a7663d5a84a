// The built-in table: its rows, their order and the terminator.
#include <kovaserviceconf.h>

#include <gtest/gtest.h>

#include <string>

namespace {

struct ExpectedRow {
    const char *name;
    const char *supportKey;
    int portForward;
    const char *descSection, *descKey, *titleSection, *titleKey;
    int srcProtocol;
    const char *srcPorts;
    int dstProtocol;
    const char *dstPorts;
    KOVA_FW_PORTS_GETTER dstGetter;
};

const ExpectedRow kRows[15] = {
    {"telnet", nullptr, 1, "firewall", "firewall_service_desc_telnet", "firewall", "firewall_service_opt_telnet", 0,
     nullptr, 1, "23", nullptr},
    {"ssh", nullptr, 1, "firewall", "firewall_service_desc_ssh", "firewall", "firewall_service_opt_ssh", 0, nullptr, 1,
     nullptr, KOVAFwPortsSSH},
    {"mysql", "supportmysql", 0, "firewall", "firewall_service_desc_mysql", "firewall", "firewall_service_opt_mysql", 0,
     nullptr, 1, "3306", nullptr},
    {"ups_server", "supportups", 0, "firewall", "firewall_service_desc_ups", "tree", "leaf_ups", 0, nullptr, 1, "3493",
     nullptr},
    {"netprobed", nullptr, 0, "firewall", "firewall_service_desc_netprobed", "firewall",
     "firewall_service_opt_netprobed", 0, nullptr, 2, "1234,9997,9998,9999", nullptr},
    {"nfs", "supportNFS", 1, "firewall", "firewall_service_desc_nfs", "tree", "leaf_nfs", 0, nullptr, 3, nullptr,
     KOVAFwPortsNFS},
    {"cifs", nullptr, 1, "firewall", "firewall_service_desc_smb", "firewall", "firewall_service_opt_smb", 2, "137,138",
     1, "137,138,139,445", nullptr},
    {"afp", nullptr, 1, "firewall", "firewall_service_desc_afp", "network", "apple_subject", 0, nullptr, 1, "548",
     nullptr},
    {"ftp", nullptr, 1, "firewall", "firewall_service_desc_ftp", "tree", "leaf_ftp", 0, nullptr, 1, nullptr,
     KOVAFwPortsFTP},
    {"snmp", nullptr, 0, "firewall", "firewall_service_desc_snmp", "tree", "leaf_snmp", 0, nullptr, 2, "161", nullptr},
    {"iscsitrg", "support_iscsi_target", 0, "tree", "leaf_iscsitrg", "tree", "leaf_iscsitrg", 0, nullptr, 1,
     "3260,3261,3262", nullptr},
    {"bonjour", nullptr, 0, "firewall", "firewall_service_opt_bonjour", "firewall", "firewall_service_desc_bonjour", 0,
     nullptr, 2, "5353", nullptr},
    {"rx52", "cm_rx", 0, "firewall", "firewall_service_opt_rx52", "firewall", "firewall_service_desc_rx52", 0, nullptr,
     2, "19999", nullptr},
    {"lpr", nullptr, 0, "firewall", "firewall_service_desc_lpr", "firewall", "firewall_service_opt_lpr", 0, nullptr, 1,
     "515", nullptr},
    {"ipp", nullptr, 0, "firewall", "firewall_service_desc_ipp", "firewall", "firewall_service_opt_ipp", 0, nullptr, 1,
     "631", nullptr},
};

std::string text_or_null(const char *s) {
    return s == nullptr ? "(null)" : s;
}

void expect_only_key(const KOVA_SERVICE_STRING &s, const char *section, const char *key) {
    EXPECT_STREQ(s.prefix, "");
    EXPECT_STREQ(s.section, section);
    EXPECT_STREQ(s.key, key);
    EXPECT_STREQ(s.text, "");
    EXPECT_STREQ(s.extraText, "");
}

TEST(FirewallTable, FifteenRowsThenTerminator) {
    int rows = 0;
    while (rgServices[rows].name != nullptr) ++rows;
    EXPECT_EQ(rows, 15);
    EXPECT_EQ(sizeof rgServices / sizeof rgServices[0], 16u);
}

TEST(FirewallTable, EveryRowAsListed) {
    for (int i = 0; i < 15; ++i) {
        const KOVA_FW_SERVICE_ENTRY &row = rgServices[i];
        const ExpectedRow &want = kRows[i];
        SCOPED_TRACE(want.name);
        ASSERT_NE(row.name, nullptr);
        EXPECT_STREQ(row.name, want.name);
        EXPECT_EQ(text_or_null(row.supportKey), text_or_null(want.supportKey));
        EXPECT_EQ(row.defaultSupported, 1);
        EXPECT_EQ(row.portForward, want.portForward);
        expect_only_key(row.desc, want.descSection, want.descKey);
        expect_only_key(row.title, want.titleSection, want.titleKey);

        EXPECT_EQ(row.src.enabled != 0, want.srcProtocol != 0);
        EXPECT_EQ(row.src.protocol, want.srcProtocol);
        EXPECT_EQ(text_or_null(row.src.ports), text_or_null(want.srcPorts));
        EXPECT_EQ(row.src.getter, nullptr);

        EXPECT_NE(row.dst.enabled, 0);
        EXPECT_EQ(row.dst.protocol, want.dstProtocol);
        EXPECT_EQ(text_or_null(row.dst.ports), text_or_null(want.dstPorts));
        EXPECT_EQ(row.dst.getter, want.dstGetter);
    }
}

TEST(FirewallTable, BonjourAndRx52CarryReversedKeys) {
    EXPECT_STREQ(rgServices[11].desc.key, "firewall_service_opt_bonjour");
    EXPECT_STREQ(rgServices[11].title.key, "firewall_service_desc_bonjour");
    EXPECT_STREQ(rgServices[12].desc.key, "firewall_service_opt_rx52");
    EXPECT_STREQ(rgServices[12].title.key, "firewall_service_desc_rx52");
}

TEST(FirewallTable, TerminatorHoldsNullTexts) {
    const KOVA_FW_SERVICE_ENTRY &end = rgServices[15];
    EXPECT_EQ(end.name, nullptr);
    EXPECT_EQ(end.supportKey, nullptr);
    EXPECT_EQ(end.defaultSupported, 1);
    EXPECT_EQ(end.portForward, 0);
    expect_only_key(end.desc, "null", "null");
    expect_only_key(end.title, "null", "null");
    for (const KOVA_FW_PORT_SPEC *spec : {&end.src, &end.dst}) {
        EXPECT_EQ(spec->enabled, 0);
        EXPECT_EQ(spec->protocol, 0);
        EXPECT_EQ(spec->ports, nullptr);
        EXPECT_EQ(spec->getter, nullptr);
    }
}

TEST(FirewallTable, PortRangesAreSupported) {
    EXPECT_EQ(KOVAFwIsSupportPortRange(), 1);
}

}  // namespace
