// Port range sets: adding and removing entries compared with a bitset model under the set
// invariant, and the failure lines and edge cases (import, export, overlap and join texts are the
// port range fuzz harness's model and seeds). The conflict checks: the port text comparison, each
// source of the service-wide check with the entries it leaves, the skip list, the order of the
// sources, the .sc file check, and failures.
#include <bitset>
#include <cstdio>
#include <random>
#include <tuple>

#include "foundation/raii.h"
#include "kova_test.h"
#include "range/port_conflict_text.h"

namespace kova::test {
namespace {

using Ranges = std::vector<std::pair<uint32_t, uint32_t>>;

const auto entry = [](uint32_t b, uint32_t e, uint32_t type = 1) {
    return KOVA_SERVICE_CONF_PORT{0, type, 0, b, e, nullptr};
};

PortRangePtr make_set(const Ranges &ranges = {}) {
    PortRangePtr set(KVLIBPortRangeCreate());
    for (auto [b, e] : ranges) {
        KOVA_SERVICE_CONF_PORT x = entry(b, e);
        EXPECT_EQ(KVLIBPortRangeAdd(set.get(), &x), 0);
    }
    return set;
}

Ranges ranges_of(const KVLIB_PORT_RANGE *set) {
    Ranges out;
    for (auto *n = set->head; n != nullptr; n = n->next) out.emplace_back(n->beginPort, n->endPort);
    return out;
}

std::string exported(const KVLIB_PORT_RANGE *set) {
    KvStrPtr text(KVLIBPortRangeExport(set));
    return text != nullptr ? text.get() : "";
}

// Sorted, neither overlapping nor touching, `count` matching, nodes in the set's own form.
::testing::AssertionResult WellFormed(const KVLIB_PORT_RANGE *set) {
    int32_t nodes = 0;
    for (const KOVA_SERVICE_CONF_PORT *n = set->head, *prev = nullptr; n != nullptr; prev = n, n = n->next, ++nodes) {
        if (n->beginPort > n->endPort || n->type != (n->beginPort != n->endPort ? 1u : 0u) || n->direction != 0 ||
            n->protocol != 0 || (prev != nullptr && uint64_t{prev->endPort} + 1 >= n->beginPort) || nodes > 100000)
            return ::testing::AssertionFailure()
                   << "bad node " << nodes << ": [" << n->beginPort << "," << n->endPort << "] type " << n->type;
    }
    if (nodes != set->count) return ::testing::AssertionFailure() << "count " << set->count << ", nodes " << nodes;
    return ::testing::AssertionSuccess();
}

class PortRangeTest : public RootTest {
protected:
    void SetUp() override {
        RootTest::SetUp();
        poison_error();
    }
    void TearDown() override {  // the family reports through the log only
        EXPECT_EQ(KVLIBCErrGet(), 0xEEEEu) << "the error state was touched";
        RootTest::TearDown();
    }
};

// Random additions and removals against a bitset model, with ranges, backwards ranges and single
// entries [p, 0].
TEST_F(PortRangeTest, AddAndRemoveMatchAModel) {
    constexpr uint32_t kPorts = 160;
    using Model = std::bitset<kPorts>;
    auto span = [](uint32_t b, uint32_t e) { return (~Model() >> (kPorts - 1 - e + b)) << b; };
    auto model_of = [&](const KVLIB_PORT_RANGE *s) {
        Model m;
        for (auto [b, e] : ranges_of(s)) m |= span(b, e);
        return m;
    };
    std::mt19937 rng(12345);
    for (int round = 0; round < 4000; ++round) {
        SCOPED_TRACE(round);
        Ranges start;
        for (int i = rng() % 6; i > 0; --i) {
            const uint32_t b = rng() % kPorts;
            start.emplace_back(b, std::min<uint32_t>(kPorts - 1, b + rng() % 12));
        }
        PortRangePtr a = make_set(start);
        const Model before = model_of(a.get());
        const uint32_t b = rng() % kPorts, e = std::min<uint32_t>(kPorts - 1, b + rng() % 20), form = rng() % 3;
        KOVA_SERVICE_CONF_PORT x = form == 0 ? entry(b, e) : form == 1 ? entry(e, b) : entry(b, 0, 0);
        const Model ports = form == 2 ? span(b, b) : span(b, e);
        if (rng() % 2 == 0) {
            ASSERT_EQ(KVLIBPortRangeAdd(a.get(), &x), 0);
            EXPECT_EQ(model_of(a.get()), before | ports);
            EXPECT_EQ(x.endPort, form == 0 ? e : b);  // only a single entry is completed
        } else {
            const bool found = (before >> b).any();  // some node ends at or after the first port
            EXPECT_EQ(KVLIBPortRangeRemove(a.get(), &x), found ? 0 : -1);
            EXPECT_EQ(model_of(a.get()), found ? (before & ~ports) : before);
        }
        ASSERT_TRUE(WellFormed(a.get()));
    }
}

TEST_F(PortRangeTest, EdgesTextsAndFailureLines) {
    PortRangePtr set = make_set({{0xFFFFFFF0u, 0xFFFFFFFFu}, {0xFFFFFFE0u, 0xFFFFFFEFu}, {10, 20}});
    KOVA_SERVICE_CONF_PORT top = entry(0xFFFFFFFFu, 0xFFFFFFFFu), bad{};
    ASSERT_EQ(KVLIBPortRangeRemove(set.get(), &top), 0);
    EXPECT_EQ(exported(set.get()), "10:20,-32:-2");  // ports are written as "%d" writes them
    EXPECT_TRUE(log().empty());
    EXPECT_EQ(KVLIBPortRangeRemove(set.get(), &top), -1);
    PortRangePtr empty = make_set();
    EXPECT_EQ(KVLIBPortRangeRemove(empty.get(), &top), -1);
    EXPECT_EQ(KVLIBPortRangeExport(empty.get()), nullptr);  // no line
    const std::string remove = "service_port_range_remove.cpp:N ";
    EXPECT_EQ(log_normalized(), (Lines{remove + "Can't find entry to remove in the list", remove + "Bad parameters."}));
    // Null arguments, each logged by its own module.
    clear_log();
    for (int rc :
         {KVLIBPortRangeAdd(nullptr, &bad), KVLIBPortRangeAdd(set.get(), nullptr), KVLIBPortRangeRemove(nullptr, &bad),
          KVLIBPortRangeRemove(set.get(), nullptr), KVLIBPortRangeImport(set.get(), nullptr),
          KVLIBPortRangeImport(nullptr, "80"), KVLIBPortRangeExport(nullptr) == nullptr ? -1 : 0,
          KVLIBPortRangeJoin(nullptr, set.get()), KVLIBPortRangeJoin(set.get(), nullptr),
          KVLIBPortRangeOverlap(set.get(), set.get(), nullptr), KVLIBPortRangeOverlap(nullptr, set.get(), set.get())})
        EXPECT_EQ(rc, -1);
    Lines want;
    for (const char *m :
         {"add", "add", "remove", "remove", "import", "import", "export", "join", "join", "overlap", "overlap"})
        want.push_back(std::string("service_port_range_") + m + ".cpp:N Bad parameters.");
    EXPECT_EQ(log_normalized(), want);
    EXPECT_EQ(exported(set.get()), "10:20,-32:-2");
    KVLIBPortRangeDestory(nullptr);
}

constexpr uint32_t kBoth = KOVA_PROTO_BOTH;
constexpr int kRules = KOVA_PORT_CHECK_PORT_FORWARD, kServices = KOVA_PORT_CHECK_SERVICES,
              kReserved = KOVA_PORT_CHECK_RESERVED, kInUse = KOVA_PORT_CHECK_IN_USE, kListen = 0x0A;
const std::string kMe = "service_is_port_conflict.cpp:N ";

// type, protocol, beginPort, endPort of a conflict list entry: as the text comparison adds it
// (one port, or a range), or as the reserved ports rebuild the list (a node of a range set).
using Entry = std::tuple<uint32_t, uint32_t, uint32_t, uint32_t>;
using Entries = std::vector<Entry>;
const auto one = [](uint32_t p) { return Entry{0, kBoth, p, 0}; };
const auto range = [](uint32_t b, uint32_t e) { return Entry{1, kBoth, b, e}; };
const auto node = [](uint32_t b, uint32_t e) { return Entry{b != e ? 1u : 0u, 0, b, e}; };

class PortConflictTest : public RootTest {
protected:
    void SetUp() override {
        RootTest::SetUp();
        info("");
        for (const char *table : {"tcp", "tcp6", "udp", "udp6"}) sockets(table, {});
    }
    void TearDown() override {
        KOVAServiceConfPortsFree(list);
        RootTest::TearDown();
    }
    void info(const std::string &text) const { write("/etc/kovainfo.conf", text); }
    void rules(const std::string &text) const { write("/etc/portforward/rule.conf", text); }
    // An installed .sc file with one service section per (name, dst.ports).
    void services(const std::vector<std::pair<std::string, std::string>> &sections) const {
        std::string text = "[global]\nversion=1\n";
        for (const auto &[name, ports] : sections) text += "[" + name + "]\ntitle=t\ndesc=d\ndst.ports=" + ports + "\n";
        write("/usr/local/etc/services.d/pkg.sc", text);
    }
    // A /proc/net socket table with one socket per (port, state); 0x0A is listening.
    void sockets(const std::string &table, const std::vector<std::pair<int, int>> &socks) const {
        std::string text = "  sl  local_address rem_address   st tx_queue rx_queue\n";
        for (auto [port, state] : socks) text += sock_line(port, state);
        write("/proc/net/" + table, text);
    }
    int check(const char *skip, const char *ports, const char *protocol, int flags) {
        return KVLIBIsPortConflict(skip, ports, protocol, flags, &list);
    }
    int compare(const char *ports, const char *other) { return PortsConflictWithText(ports, other, &list); }
    int check_file(const std::string &content) {
        write("/pkg/new.sc", content);
        return KVLIBIsConfPortConflict(path("/pkg/new.sc").c_str(), &list);
    }
    // The conflict list's entries; unless `keep`, the list is freed for the next call.
    Entries entries(bool keep = false) {
        Entries out;
        for (const KOVA_SERVICE_CONF_PORT *n = list; n != nullptr; n = n->next) {
            EXPECT_EQ(n->direction, 0u);
            out.emplace_back(n->type, n->protocol, n->beginPort, n->endPort);
        }
        if (!keep) KOVAServiceConfPortsFree(std::exchange(list, nullptr));
        return out;
    }
    // Log lines of the checks' own module.
    Lines mine() const {
        Lines out;
        for (const auto &l : log_normalized())
            if (l.rfind(kMe, 0) == 0) out.push_back(l);
        return out;
    }
    KOVA_SERVICE_CONF_PORT *list = nullptr;
};

TEST_F(PortConflictTest, TextComparisonAndInvalidArguments) {
    // Results, entries and error codes are the port texts fuzz harness's model; here the lines.
    // A range item with an empty side: no line.
    for (auto [ports, other] : {std::pair{"80:", "80"}, {":80", "80"}, {"80", "10-"}, {"80", "-10"}}) {
        EXPECT_EQ(compare(ports, other), -1) << ports << " / " << other;
    }
    EXPECT_TRUE(log().empty());
    // Numbers refused by the port check: its line unless the number is empty.
    // clang-format off
    for (auto [ports, other, bad] : {std::tuple{"70000", "80", "70000"}, {"80 443", "80", "80 443"}, {"-1", "80", "-1"},
                                     {"80", "65536,80", "65536"}, {"80,,90", "80", nullptr}, {"80", "80,", nullptr}}) {
        // clang-format on
        clear_log();
        EXPECT_EQ(compare(ports, other), -1) << ports << " / " << other;
        const std::string line = std::string("service_conf_ports_get.cpp:N illegal ports number, port=") +
                                 (bad ? bad : "") + ", kovaerr=[0x0D00 service_conf_ports_get.cpp:N]";
        EXPECT_EQ(log_normalized(), bad ? Lines{line} : Lines{}) << ports << " / " << other;
    }
    clear_log();
    poison_error();
    EXPECT_EQ(PortConflictWithText(10, 5, "7", &list), -1);
    EXPECT_EQ(mine(), Lines{kMe + "begin port 10 larger than end port 5![0xEEEE poison:7]"});
    EXPECT_EQ(KVLIBCErrGet(), 0xEEEEu);
    // Refused arguments: code 0x0D00, no line.
    EXPECT_EQ(outcome(PortsConflictWithText(nullptr, "1", &list)), "-1 0x0D00");
    EXPECT_EQ(mine().size(), 1u);
    clear_log();
    for (int rc :
         {check("", "80", "tcp", 0), check("", "80", "tcp", 32), check(nullptr, "80", "tcp", 1),
          check("", nullptr, "tcp", 1), check("", "80", nullptr, 1), KVLIBIsPortConflict("", "80", "tcp", 1, nullptr)})
        EXPECT_EQ(outcome(rc), "-1 0x0D00");
    EXPECT_EQ(mine(), Lines(6, kMe + "Invalid Argument!!"));
    // ("412" as a whole item is never free: the port texts fuzz harness's model.)
}

TEST_F(PortConflictTest, CatalogueServices) {
    // The built-in "cifs" service holds TCP 137, 138, 139 and 445; a skipped name matches exactly.
    EXPECT_EQ(check("", "445", "tcp", kServices), 1);
    EXPECT_EQ(check("CIFS", "445", "tcp", kServices), 1);
    EXPECT_EQ(entries(), (Entries{one(445), one(445)}));
    EXPECT_EQ(check("", "445", "udp", kServices), 0);
    EXPECT_EQ(check("", "445", "icmp", kServices), 0);  // an unknown protocol compares nothing
    services({{"alpha", "8005:8020/tcp"}, {"beta", "8010:8030/udp"}});
    std::string protocol = "tcp,udp";
    EXPECT_EQ(check("", "8000:8010", protocol.c_str(), kServices), 1);
    EXPECT_EQ(protocol, "tcp,udp");
    EXPECT_EQ(entries(), (Entries{one(8010), range(8005, 8010)}));  // beta's after alpha's
    EXPECT_EQ(check("", "8025", "", kServices), 1);                 // no protocol word: both
    EXPECT_EQ(entries(), (Entries{one(8025)}));
    EXPECT_TRUE(mine().empty());
    EXPECT_EQ(check("", "80 443", "tcp", kServices), -1);
}

// What the rules and the reserved ports add is the port texts and settings fuzz harnesses' model;
// here the failures and their lines.
TEST_F(PortConflictTest, RuleAndReservedPortFailures) {
    EXPECT_EQ(check("", "80", "tcp", kRules), 0);  // no rule file
    rules("[r1]\nservice_id=web\ns_port=80\nr_port=80\n[r2]\nprotocol name=tcp\ns_port=80\nr_port=1\n");
    EXPECT_EQ(check("web", "80", "tcp", kRules), 1);  // r1 passed over before its keys are read
    EXPECT_EQ(entries(), (Entries{one(80)}));
    EXPECT_EQ(check("", "81", "tcp", kRules), -1);  // r1 lacks "protocol name"
    rules("[empty]\n");
    EXPECT_EQ(check("", "80", "tcp", kRules), -1);
    EXPECT_EQ(mine(), Lines{kMe + "Section not found or failed to get section(empty) from " +
                            path("/etc/portforward/rule.conf")});
    clear_log();
    const std::string failed = kMe + "Failed to GetServicePort(), service = [";
    const std::string all = kMe + "Failed to GetAllNonSkipServicePort()";
    info("ftphighport=55899\n");  // the passive range needs its low end once the high end is set
    EXPECT_EQ(check("", "21", "tcp", kReserved), -1);
    EXPECT_EQ(mine(), (Lines{failed + "ftplowport]", all}));
    info("ftplowport=55536\n");  // no high end: no range
    EXPECT_EQ(check("", "55536", "tcp", kReserved), 0);
    clear_log();
    ASSERT_EQ(std::remove(path("/etc/kovainfo.conf").c_str()), 0);
    EXPECT_EQ(check("", "21", "tcp", kReserved), -1);
    EXPECT_EQ(mine(), (Lines{kMe + "Failed to get [ftpport] info from [" + path("/etc/kovainfo.conf") + "].",
                             failed + "ftpport]", all}));
    EXPECT_EQ(check("ftp,webdav_http,webdavs_https,syslog_server", "21", "tcp", kReserved), 0);  // nothing read
}

TEST_F(PortConflictTest, PortsInUse) {
    services({{"mysvc", "8080,8443/tcp"}, {"other", "7000:7010/udp"}});
    sockets("tcp", {{8080, kListen}, {8443, kListen}});
    sockets("udp6", {{5353, 0x07}, {7005, 0x07}, {8080, 0x07}});
    // Which sockets count for which port texts and protocols is the settings fuzz harness's model;
    // here the skip list, which names catalogue services, and the IPv6 UDP table.
    for (auto [skip, ports, protocol, want] : {std::tuple{"", "5353", "udp", 1},
                                               {"mysvc", "8000:9000", "tcp", 0},
                                               {"other", "8080", "tcp", 1},
                                               {"mysvc", "8080", "udp", 1},
                                               {"other", "7000:7100", "udp", 0},
                                               {"mysvc,other", "7005,8443", "tcp,udp", 0}})
        EXPECT_EQ(check(skip, ports, protocol, kInUse), want) << skip << "/" << ports << "/" << protocol;
    EXPECT_EQ(list, nullptr);  // this source names no port
    EXPECT_TRUE(mine().empty());
    // An item that converts to 0 fails when reached, even with no protocol to compare.
    for (auto [ports, protocol] : {std::pair{"0,8080", "tcp"}, {"abc", "tcp"}, {":", "tcp"}, {"0", "icmp"}}) {
        clear_log();
        EXPECT_EQ(check("", ports, protocol, kInUse), -1) << ports;
        EXPECT_EQ(mine(), Lines{kMe + "Invalid Argument!![0x0D00 service_is_port_conflict.cpp:N]"}) << ports;
    }
    ASSERT_EQ(std::remove(path("/proc/net/tcp6").c_str()), 0);  // a table that cannot be read: nothing in use
    EXPECT_EQ(check("", "8080", "tcp", kInUse), 0);
    // Read once: a later item leaves the tables' error, also after a range outside the port space.
    EXPECT_EQ(outcome(check("", "8080,70000,8081", "tcp", kInUse)), "0 0x0900");
}

TEST_F(PortConflictTest, SourcesRunInOrderAndTheFirstThreeToTheirEnd) {
    rules("[r1]\nprotocol name=tcp\ns_port=139\nr_port=1\n");
    info("syslogport=514\n");
    sockets("tcp", {{5000, kListen}});
    EXPECT_EQ(check("", "139,445", "tcp", kRules | kServices), 1);  // the rules add 139, then the catalogue
    EXPECT_EQ(entries(), (Entries{one(445), one(139), one(139)}));
    // The reserved ports add 514 and rebuild the list; the caller's texts stay as they were.
    std::string skip = " Mine , Other ", ports = " 139,445 ,514, 5000 ", protocol = " TCP, UDP ";
    EXPECT_EQ(check(skip.c_str(), ports.c_str(), protocol.c_str(), kRules | kServices | kReserved | kInUse), 1);
    EXPECT_EQ(entries(), (Entries{node(139, 139), node(445, 445), node(514, 514)}));
    EXPECT_EQ(skip + ports + protocol, " Mine , Other  139,445 ,514, 5000  TCP, UDP ");
    // A failing source stops the check; the entries stay for the caller.
    ASSERT_EQ(std::remove(path("/etc/kovainfo.conf").c_str()), 0);
    EXPECT_EQ(check("", "139", "tcp", kRules | kServices | kReserved), -1);
    EXPECT_EQ(entries(), (Entries{one(139), one(139)}));
}

// A catalogue build that logs is said again by each source that needs it: the lines and the
// error state another build would give, also where a line shows the state the build started from
// and that state changed in between (the file check's second section).
TEST_F(PortConflictTest, ACatalogueBuildThatLogsIsSaidAgainPerSource) {
    // Nothing else in the build sets the error state, so its lines show the one it starts from.
    write("/etc/nfs/kova_nfs_conf", "nfs_custom_port_enable=no\n");
    mkdir("/usr/kova/etc/services.d");
    write("/usr/local/etc/services.d/bad.sc", "[bad]\ntitle=t\n[empty]\n");
    struct Said {
        Lines lines;
        unsigned code;
        std::string file;
        int line;
        bool operator==(const Said &) const = default;
    };
    const auto said = [this](auto &&call) {
        clear_log();
        call();
        return Said{log(), KVLIBCErrGet(), KVLIBCErrorGetFile(), KVLIBCErrorGetLine()};
    };
    const auto build = [] {
        KOVA_FW_SERVICE *raw = nullptr;
        EXPECT_GT(KOVAFwServiceEnum(&raw), 0);
        KOVAFwServiceFree(raw);
    };
    const auto then = [](Said a, const Said &b) {
        a.lines.insert(a.lines.end(), b.lines.begin(), b.lines.end());
        return Said{a.lines, b.code, b.file, b.line};
    };
    poison_error();
    const Said first = said(build), second = said(build);
    ASSERT_FALSE(first.lines.empty());
    poison_error();
    EXPECT_EQ(said([this] { EXPECT_EQ(check("", "9", "tcp", kServices | kInUse), 0); }), then(first, second));

    // Section a's failure changes the state between the builds for b and c.
    poison_error();
    const Said a = said([this] { EXPECT_EQ(check_file("[a]\ndst.ports=80\n"), 0); });
    const Said c1 = said(build), c2 = said(build);
    EXPECT_NE(c1.lines, first.lines);
    poison_error();
    EXPECT_EQ(
        said([this] { EXPECT_EQ(check_file("[b]\ndst.ports=9/tcp\n[a]\ndst.ports=80\n[c]\ndst.ports=10/tcp\n"), 0); }),
        then(then(then(then(first, second), a), c1), c2));
}

TEST_F(PortConflictTest, ConfFileSections) {
    EXPECT_EQ(check_file("[svc]\ntitle=t\ndesc=d\ndst.ports=445/tcp\n"), 1);
    EXPECT_EQ(mine(), Lines{kMe + "szTmpString=445/tcp conflict"});
    EXPECT_EQ(entries(), (Entries{node(445, 445)}));
    // "global" is passed over; the first colliding section decides.
    clear_log();
    sockets("udp", {{7000, 0x07}});
    EXPECT_EQ(check_file("[global]\n[a]\ndst.ports=6000/udp\n[b]\ndst.ports=7000/udp\n[c]\ndst.ports=445/tcp\n"), 1);
    EXPECT_EQ(mine(), Lines{kMe + "szTmpString=7000/udp conflict"});
    // Installed already under its name: neither its catalogue entry nor its ports in use count.
    services({{"svc", "8445/tcp"}});
    sockets("tcp", {{8445, kListen}});
    EXPECT_EQ(check_file("[svc]\ndst.ports=8445/tcp\n"), 0);
    EXPECT_EQ(check_file("[svc2]\ndst.ports=8445/tcp\n"), 1);
    // A failed section check is logged and passed over: no "/" (no protocol) or a bad port text.
    clear_log();
    EXPECT_EQ(check_file("[a]\ndst.ports=80\n[b]\ndst.ports=80 443/tcp\n[c]\ndst.ports= 445 /\n"), 1);
    const std::string failed = kMe + "KVLIBIsPortConflict FAILED=-1, port=";
    EXPECT_EQ(mine(), (Lines{kMe + "Invalid Argument!!",
                             failed + "80, protocol= kovaerr=[0x0D00 service_is_port_conflict.cpp:N]",
                             failed + "80 443, protocol=tcp kovaerr=[0x0D00 service_conf_ports_get.cpp:N]",
                             kMe + "szTmpString=445 / conflict"}));  // an empty protocol part: both
    entries();
    EXPECT_EQ(KVLIBIsConfPortConflict(path("/pkg/none.sc").c_str(), &list), 0);
    // A section without "dst.ports", or one that cannot be read, ends the walk.
    clear_log();
    poison_error();
    EXPECT_EQ(check_file("[a]\ntitle=x\n[b]\ndst.ports=445/tcp\n"), -1);
    EXPECT_EQ(mine(), Lines{kMe + "szTmpString is NULL[0xEEEE poison:7]"});
    EXPECT_EQ(list, nullptr);
    clear_log();
    KVLIBCErrSetEx(0, "", 0);
    EXPECT_EQ(check_file("[a]\n[b]\ndst.ports=445/tcp\n"), -1);
    EXPECT_EQ(mine(), Lines{kMe + "Failed to KVLIBCFileGetSection, file: " + path("/pkg/new.sc") +
                            ", section name: a, nHashRecords: 0, kovaerr=[0x0000 :0]"});
    // The settings are read once per file, yet each section skips only its own reserved group.
    info("WebDavPort=5005\n");
    EXPECT_EQ(check_file("[webdav_http]\ndst.ports=5005/tcp\n[b]\ndst.ports=5005/tcp\n"), 1);
    EXPECT_EQ(entries(), (Entries{node(5005, 5005)}));
}

}  // namespace
}  // namespace kova::test
