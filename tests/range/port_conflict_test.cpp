// The service-wide conflict check: each source with the entries it leaves, the skip list,
// the order of the sources, and the failures.
#include <kovaserviceconf.h>

#include <string>
#include <vector>

#include "conflict_support.h"
#include "range/port_conflict_text.h"

namespace kova::test {
namespace {

constexpr uint32_t kBoth = KOVA_PROTO_BOTH;
constexpr int kRules = KOVA_PORT_CHECK_PORT_FORWARD;
constexpr int kServices = KOVA_PORT_CHECK_SERVICES;
constexpr int kReserved = KOVA_PORT_CHECK_RESERVED;
constexpr int kInUse = KOVA_PORT_CHECK_IN_USE;
constexpr int kListen = 0x0A;

using PortConflictTest = ConflictTest;

// ---- arguments and the "412" rule ----------------------------------------------------------

TEST_F(PortConflictTest, InvalidArguments) {
    const char *line = "service_is_port_conflict.cpp:N Invalid Argument!!";
    for (int flags : {0, 32, -1}) {
        KVLIBCErrSetEx(0, "", 0);
        EXPECT_EQ(check("", "80", "tcp", flags), -1) << flags;
        EXPECT_EQ(KVLIBCErrGet(), static_cast<unsigned>(KOVA_ERR_BAD_PARAMETER));
    }
    EXPECT_EQ(check(nullptr, "80", "tcp", 1), -1);
    EXPECT_EQ(check("", nullptr, "tcp", 1), -1);
    EXPECT_EQ(check("", "80", nullptr, 1), -1);
    EXPECT_EQ(KVLIBIsPortConflict("", "80", "tcp", 1, nullptr), -1);
    EXPECT_EQ(mine(), std::vector<std::string>(7, line));
}

TEST_F(PortConflictTest, Port412IsAlwaysTaken) {
    EXPECT_EQ(check("", "412", "tcp", 1), 1);
    EXPECT_EQ(list, nullptr);
    EXPECT_EQ(check("", "80 412", "tcp", 1), 1);
    EXPECT_EQ(check("", "80,,412,", "udp", 1), 1);
    EXPECT_EQ(check("", "412:413", "tcp", 1), 0);
    EXPECT_EQ(check("", "4120", "tcp", 1), 0);
    EXPECT_EQ(list, nullptr);
    EXPECT_TRUE(log().empty());
}

// ---- source 0x04: the firewall catalogue ----------------------------------------------------

TEST_F(PortConflictTest, CatalogueServiceCollides) {
    // The built-in "cifs" service holds TCP 137, 138, 139 and 445.
    EXPECT_EQ(check("", "445", "tcp", kServices), 1);
    EXPECT_EQ(entries(), (std::vector<Entry>{{0, kBoth, 445, 0}}));
    KOVAServiceConfPortsFree(list);
    list = nullptr;

    EXPECT_EQ(check("cifs", "445", "tcp", kServices), 0);
    EXPECT_EQ(check("web cifs,ftp", "445", "tcp", kServices), 0);
    EXPECT_EQ(check("", "445", "udp", kServices), 0);  // cifs' destination ports are TCP only
    EXPECT_EQ(list, nullptr);
    EXPECT_EQ(check("CIFS", "445", "tcp", kServices), 1);  // names match exactly
    EXPECT_TRUE(mine().empty());
}

TEST_F(PortConflictTest, CatalogueRangesAndEveryCollision) {
    service("pkg", {{"alpha", "8005:8020/tcp"}, {"beta", "8010:8030/udp"}});
    EXPECT_EQ(check("", "8000:8010", "tcp", kServices), 1);
    EXPECT_EQ(entries(), (std::vector<Entry>{{1, kBoth, 8005, 8010}}));
    KOVAServiceConfPortsFree(list);
    list = nullptr;

    std::string protocol = "tcp,udp";
    EXPECT_EQ(check("", "8000:8010", protocol.c_str(), kServices), 1);
    EXPECT_EQ(protocol, "tcp,udp");
    // The catalogue lists "alpha" before "beta"; the newest entry comes first.
    EXPECT_EQ(entries(), (std::vector<Entry>{{0, kBoth, 8010, 0}, {1, kBoth, 8005, 8010}}));
    KOVAServiceConfPortsFree(list);
    list = nullptr;

    // An empty protocol text is both protocols; upper case is accepted.
    EXPECT_EQ(check("", "8025", "", kServices), 1);
    EXPECT_EQ(check("", "8025", " UDP ", kServices), 1);
    EXPECT_EQ(entries().size(), 2u);
}

TEST_F(PortConflictTest, CatalogueWithAnUnknownProtocolComparesNothing) {
    EXPECT_EQ(check("", "445", "icmp", kServices), 0);
    EXPECT_EQ(list, nullptr);
    EXPECT_TRUE(
        logged("service_conf_ports_get.cpp:N protocol format error (icmp)! It should be \"tcp\" or \"udp\" or "
               "\"tcp,udp\", kovaerr=[0x0D00 service_conf_ports_get.cpp:N]"));
}

TEST_F(PortConflictTest, CatalogueRejectsABadPortText) {
    EXPECT_EQ(check("", "80 443", "tcp", kServices), -1);
    EXPECT_EQ(KVLIBCErrGet(), static_cast<unsigned>(KOVA_ERR_BAD_PARAMETER));
    EXPECT_TRUE(
        logged("service_conf_ports_get.cpp:N illegal ports number, port=80 443, "
               "kovaerr=[0x0D00 service_conf_ports_get.cpp:N]"));
    EXPECT_EQ(check("", "80:", "tcp", kServices), -1);
    EXPECT_EQ(check("", "70000", "tcp", kServices), -1);
    EXPECT_TRUE(mine().empty());
}

// ---- source 0x02: port-forwarding rules ----------------------------------------------------

TEST_F(PortConflictTest, RulesCollideOnEitherPort) {
    rules(
        "[r1]\nservice_id=web\nprotocol name=tcp\ns_port=8080\nr_port=80\n"
        "[r2]\nprotocol name=udp\ns_port=9000-9010\nr_port=9005\n");
    EXPECT_EQ(check("", "80,8080", "tcp", kRules), 1);
    EXPECT_EQ(entries(), (std::vector<Entry>{{0, kBoth, 80, 0}, {0, kBoth, 8080, 0}}));
    KOVAServiceConfPortsFree(list);
    list = nullptr;

    // A rule collides whatever its protocol; both of r2's ports are compared.
    EXPECT_EQ(check("web", "9005", "tcp", kRules), 1);
    EXPECT_EQ(entries(), (std::vector<Entry>{{0, kBoth, 9005, 0}, {0, kBoth, 9005, 0}}));
    EXPECT_EQ(check("web", "81", "tcp", kRules), 0);
    EXPECT_TRUE(mine().empty());
}

TEST_F(PortConflictTest, RulesWithMissingKeysAndSkippedRules) {
    rules("[r1]\nservice_id=web\ns_port=80\nr_port=80\n");
    EXPECT_EQ(check("", "81", "tcp", kRules), -1);
    EXPECT_EQ(check("web", "80", "tcp", kRules), 0);  // passed over before its keys are looked at
    EXPECT_TRUE(mine().empty());

    // Each rule is read with its own keys: a skipped first rule does not lend its id.
    rules(
        "[r1]\nservice_id=web\nprotocol name=tcp\ns_port=80\nr_port=80\n[r2]\nprotocol "
        "name=tcp\ns_port=80\nr_port=1\n");
    EXPECT_EQ(check("web", "80", "tcp", kRules), 1);
    EXPECT_EQ(entries(), (std::vector<Entry>{{0, kBoth, 80, 0}}));
}

TEST_F(PortConflictTest, RuleFileMissingEmptyOrBad) {
    EXPECT_EQ(check("", "80", "tcp", kRules), 0);  // no rule file
    rules("# nothing yet\n");
    EXPECT_EQ(check("", "80", "tcp", kRules), 0);
    rules("[empty]\n");
    EXPECT_EQ(check("", "80", "tcp", kRules), -1);
    EXPECT_EQ(mine(), std::vector<std::string>{"service_is_port_conflict.cpp:N Section not found or failed to get "
                                               "section(empty) from " +
                                               path("/etc/portforward/rule.conf")});
    clear_log();
    rules("[r1]\nprotocol name=tcp\ns_port=80\nr_port=10-\n");
    EXPECT_EQ(check("", "80", "tcp", kRules), -1);
    EXPECT_EQ(entries(), (std::vector<Entry>{{0, kBoth, 80, 0}}));  // kept, and freed by the caller
    EXPECT_TRUE(mine().empty());
}

// ---- source 0x08: reserved ports -----------------------------------------------------------

TEST_F(PortConflictTest, ReservedFtpPorts) {
    info("ftpport=21\nftplowport=55536\nftphighport=55899\n");
    EXPECT_EQ(check("", "21", "tcp", kReserved), 1);
    EXPECT_EQ(entries(), (std::vector<Entry>{{0, 0, 21, 21}}));
    KOVAServiceConfPortsFree(list);
    list = nullptr;
    EXPECT_EQ(check("ftp", "21", "tcp", kReserved), 0);
    EXPECT_EQ(list, nullptr);

    EXPECT_EQ(check("", "55800:56000", "tcp", kReserved), 1);
    EXPECT_EQ(entries(), (std::vector<Entry>{{1, 0, 55800, 55899}}));
    KOVAServiceConfPortsFree(list);
    list = nullptr;
    // Every reserved port that collides, sorted and merged; the protocol does not matter.
    EXPECT_EQ(check("", "55899,21,22,55537:55538,55536", "icmp", kReserved), 1);
    EXPECT_EQ(entries(), (std::vector<Entry>{{0, 0, 21, 21}, {1, 0, 55536, 55538}, {0, 0, 55899, 55899}}));
    EXPECT_TRUE(mine().empty());
}

TEST_F(PortConflictTest, ReservedWebDavAndSyslogPorts) {
    info("WebDavPort=5005\nsecure_WebDavPort=5006\nsyslogport=514\n");
    EXPECT_EQ(check("", "5005:5006,514", "tcp", kReserved), 1);
    EXPECT_EQ(entries(), (std::vector<Entry>{{0, 0, 514, 514}, {1, 0, 5005, 5006}}));
    KOVAServiceConfPortsFree(list);
    list = nullptr;
    EXPECT_EQ(check("webdav_http,syslog_server", "5005:5006,514", "tcp", kReserved), 1);
    EXPECT_EQ(entries(), (std::vector<Entry>{{0, 0, 5006, 5006}}));
    KOVAServiceConfPortsFree(list);
    list = nullptr;
    EXPECT_EQ(check("webdav_http webdavs_https syslog_server", "5005:5006,514", "tcp", kReserved), 0);
    EXPECT_EQ(check("", "5007", "tcp", kReserved), 0);
    EXPECT_EQ(list, nullptr);
}

TEST_F(PortConflictTest, ReservedPortsMergeAnEarlierConflictList) {
    // Flags 0x0C: the catalogue adds 445, the reserved ports add nothing, and the list is rebuilt
    // in the set's form.
    EXPECT_EQ(check("", "445", "tcp", kServices | kReserved), 1);
    EXPECT_EQ(entries(), (std::vector<Entry>{{0, 0, 445, 445}}));

    // An entry already in the list counts as a collision, and is merged with the new ones.
    info("ftpport=21\n");
    KOVA_SERVICE_CONF_PORT a{0, 0, kBoth, 22, 0, nullptr};
    ASSERT_EQ(KOVAServiceComposePortInfo(&a, &list), 0);
    EXPECT_EQ(check("", "5000", "tcp", kReserved), 1);
    EXPECT_EQ(entries(), (std::vector<Entry>{{0, 0, 22, 22}, {0, 0, 445, 445}}));
    EXPECT_EQ(check("", "21", "tcp", kReserved), 1);
    EXPECT_EQ(entries(), (std::vector<Entry>{{1, 0, 21, 22}, {0, 0, 445, 445}}));
}

TEST_F(PortConflictTest, ReservedPortsThatCannotBeRead) {
    write("/etc/kovainfo.conf", "ftpport=2x1\n");
    EXPECT_EQ(check("", "21", "tcp", kReserved), -1);
    EXPECT_EQ(mine(), (std::vector<std::string>{
                          "service_is_port_conflict.cpp:N Failed to GetServicePort(), service = [ftpport]",
                          "service_is_port_conflict.cpp:N Failed to GetAllNonSkipServicePort()",
                      }));
    EXPECT_TRUE(logged(
        "service_conf_ports_get.cpp:N illegal ports number, port=2x1, kovaerr=[0x0D00 service_conf_ports_get.cpp:N]"));

    // The passive range needs its low end once the high end is set.
    clear_log();
    info("ftphighport=55899\n");
    EXPECT_EQ(check("", "21", "tcp", kReserved), -1);
    EXPECT_EQ(mine(), (std::vector<std::string>{
                          "service_is_port_conflict.cpp:N Failed to GetServicePort(), service = [ftplowport]",
                          "service_is_port_conflict.cpp:N Failed to GetAllNonSkipServicePort()",
                      }));
    info("ftplowport=55536\n");  // no high end: no range
    EXPECT_EQ(check("", "55536", "tcp", kReserved), 0);

    clear_log();
    ASSERT_EQ(std::remove(path("/etc/kovainfo.conf").c_str()), 0);
    EXPECT_EQ(check("", "21", "tcp", kReserved), -1);
    EXPECT_EQ(mine(), (std::vector<std::string>{
                          "service_is_port_conflict.cpp:N Failed to get [ftpport] info from [" +
                              path("/etc/kovainfo.conf") + "].",
                          "service_is_port_conflict.cpp:N Failed to GetServicePort(), service = [ftpport]",
                          "service_is_port_conflict.cpp:N Failed to GetAllNonSkipServicePort()",
                      }));
    // Nothing is read when every group is skipped.
    EXPECT_EQ(check("ftp,webdav_http,webdavs_https,syslog_server", "21", "tcp", kReserved), 0);
}

TEST_F(PortConflictTest, GetServicePortDirectly) {
    info("ftplowport=56000\nftphighport=55000\nsyslogport=514\n");
    KVLIB_PORT_RANGE *set = KVLIBPortRangeCreate();
    EXPECT_EQ(GetServicePort("ftphighport", set), 0);
    EXPECT_EQ(GetServicePort("syslogport", set), 0);
    EXPECT_EQ(GetServicePort("WebDavPort", set), 0);  // absent: nothing
    char *text = KVLIBPortRangeExport(set);
    ASSERT_NE(text, nullptr);
    EXPECT_STREQ(text, "514,55000:56000");
    KVLIBCStrPut(text);
    EXPECT_EQ(GetServicePort(nullptr, set), -1);
    EXPECT_EQ(GetServicePort("ftpport", nullptr), -1);
    EXPECT_EQ(mine(), std::vector<std::string>(2, "service_is_port_conflict.cpp:N Bad parameters."));
    KVLIBPortRangeDestory(set);
}

// ---- source 0x10: ports in use -------------------------------------------------------------

TEST_F(PortConflictTest, PortsInUse) {
    sockets("tcp", {{8080, kListen}, {9090, 0x01}});
    sockets("udp6", {{5353, 0x07}});
    EXPECT_EQ(check("", "8080", "tcp", kInUse), 1);
    EXPECT_EQ(check("", "9090", "tcp", kInUse), 0);  // connected, not listening
    EXPECT_EQ(check("", "8000:8100", "TCP", kInUse), 1);
    EXPECT_EQ(check("", "8100:8000", "tcp", kInUse), 1);
    EXPECT_EQ(check("", "5353", "tcp", kInUse), 0);
    EXPECT_EQ(check("", "5353", "udp", kInUse), 1);
    EXPECT_EQ(check("", "80 5353", "tcp,udp", kInUse), 1);  // items split at spaces here
    EXPECT_EQ(check("", "8080", "icmp", kInUse), 0);
    EXPECT_EQ(check("", "0:10", "tcp", kInUse), 0);
    EXPECT_EQ(list, nullptr);  // this source adds nothing
    EXPECT_TRUE(mine().empty());
}

TEST_F(PortConflictTest, PortsInUseStopAtTheFirstCollision) {
    sockets("tcp", {{8080, kListen}});
    EXPECT_EQ(check("", "8080,0", "tcp", kInUse), 1);
    EXPECT_EQ(check("", "0,8080", "tcp", kInUse), -1);
    for (const char *item : {"abc", "0:0", ":"}) {
        KVLIBCErrSetEx(0, "", 0);
        clear_log();
        EXPECT_EQ(check("", item, "tcp", kInUse), -1) << item;
        EXPECT_EQ(mine(), std::vector<std::string>{"service_is_port_conflict.cpp:N Invalid "
                                                   "Argument!![0x0D00 service_is_port_conflict.cpp:N]"})
            << item;
    }
    // A port item is compared only for the protocols asked for, so "0" with no protocol word
    // still fails: the item is converted first.
    EXPECT_EQ(check("", "0", "icmp", kInUse), -1);
}

TEST_F(PortConflictTest, PortsInUseByTheSkippedServiceDoNotCount) {
    service("mine", {{"mysvc", "8080,8443/tcp"}, {"other", "7000:7010/udp"}});
    sockets("tcp", {{8080, kListen}, {8443, kListen}});
    sockets("udp", {{7005, 0x07}});
    EXPECT_EQ(check("mysvc", "8080", "tcp", kInUse), 0);
    EXPECT_EQ(check("mysvc", "8000:9000", "tcp", kInUse), 0);
    EXPECT_EQ(check("other", "8080", "tcp", kInUse), 1);
    EXPECT_EQ(check("other", "7000:7100", "udp", kInUse), 0);
    EXPECT_EQ(check("mysvc", "7005", "udp", kInUse), 1);
    EXPECT_EQ(check("mysvc,other", "7005,8443", "tcp,udp", kInUse), 0);
    // A skipped TCP-only service does not hide UDP use of the same port.
    sockets("udp", {{8080, 0x07}});
    EXPECT_EQ(check("mysvc", "8080", "udp", kInUse), 1);
}

TEST_F(PortConflictTest, UnreadableSocketTablesCountAsNothingInUse) {
    ASSERT_EQ(std::remove(path("/proc/net/tcp6").c_str()), 0);
    sockets("tcp", {{8080, kListen}});
    EXPECT_EQ(check("", "8080", "tcp", kInUse), 0);
}

// ---- sources together ----------------------------------------------------------------------

TEST_F(PortConflictTest, SourcesRunInOrderAndTheFirstThreeToTheirEnd) {
    rules("[r1]\nprotocol name=tcp\ns_port=139\nr_port=1\n");
    info("syslogport=514\n");
    sockets("tcp", {{5000, kListen}});
    // Rules add 139, the catalogue adds 139 and 445, the reserved ports add 514 and merge.
    EXPECT_EQ(check("", "139,445,514,5000", "tcp", kRules | kServices | kReserved | kInUse), 1);
    EXPECT_EQ(entries(), (std::vector<Entry>{{0, 0, 139, 139}, {0, 0, 445, 445}, {0, 0, 514, 514}}));
    KOVAServiceConfPortsFree(list);
    list = nullptr;

    // Without the reserved ports the entries stay in the comparison's form, newest first.
    EXPECT_EQ(check("", "139,445", "tcp", kRules | kServices), 1);
    EXPECT_EQ(entries(), (std::vector<Entry>{{0, kBoth, 445, 0}, {0, kBoth, 139, 0}, {0, kBoth, 139, 0}}));
}

TEST_F(PortConflictTest, AFailingSourceStopsTheCheckAndKeepsTheList) {
    rules("[r1]\nprotocol name=tcp\ns_port=445\nr_port=1\n");
    ASSERT_EQ(std::remove(path("/etc/kovainfo.conf").c_str()), 0);
    EXPECT_EQ(check("", "445", "tcp", kRules | kServices | kReserved), -1);
    EXPECT_EQ(entries(), (std::vector<Entry>{{0, kBoth, 445, 0}, {0, kBoth, 445, 0}}));
}

TEST_F(PortConflictTest, CallersTextsAreUnchanged) {
    info("ftpport=21\n");
    std::string skip = " Mine , Other ", ports = " 21 , 8000:8010 ", protocol = " TCP, UDP ";
    const std::string skip0 = skip, ports0 = ports, protocol0 = protocol;
    EXPECT_EQ(check(skip.c_str(), ports.c_str(), protocol.c_str(), kServices | kReserved | kInUse | kRules), 1);
    EXPECT_EQ(skip, skip0);
    EXPECT_EQ(ports, ports0);
    EXPECT_EQ(protocol, protocol0);
}

}  // namespace
}  // namespace kova::test
