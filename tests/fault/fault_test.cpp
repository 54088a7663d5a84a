// Allocation failures in the configuration file family (parsing port lists, reading and
// enumerating .sc files, composing sections and rendering port lists), the port range family, the
// log, and the operations that build the whole catalogue: the firewall service enumeration and its
// port getters, the configured-ports check, the socket table reader and the runtime inventory.
// (The service-wide check runs under the change matrix, inside every install, update and edit.)
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <map>

#include "../conf/conf_test_util.h"
#include "fault_harness.h"
#include "foundation/log.h"

namespace kova::fault {
namespace {

using kova::test::Lines;
using kova::test::parts;
using kova::test::port_texts;
using kova::test::str;

std::string joined(const KOVA_SERVICE_CONF_PORT *p) {
    std::string out;
    for (const std::string &t : port_texts(p)) out += "[" + t + "]";
    return out;
}

std::string section_text(const KOVA_SERVICE_CONF_SECTION &s) {
    return std::string(s.name) + " " + parts(s.title) + " " + parts(s.desc) + " pf" + std::to_string(s.portForward) +
           " src" + joined(s.srcPort) + " dst" + joined(s.dstPort);
}

std::string conf_text(const KOVA_SERVICE_CONF &c) {
    std::string out = str("v", c.version, " ", c.supportKey, " ", c.runKey);
    for (const KOVA_SERVICE_CONF_SECTION *s = c.sections; s != nullptr; s = s->next) out += str("\n", section_text(*s));
    return out;
}

// An operation that links one new record in front of a list the caller holds: all or nothing.
template <class T>
Case prepended(T *&held_ref, T *&list_ref, std::function<int()> op, std::function<std::string(const T &)> text,
               const std::string &expected, void (*free_list)(T *)) {
    T **held = &held_ref, **list = &list_ref;
    return all_or_nothing([=] { *list = *held = static_cast<T *>(std::calloc(1, sizeof(T))); }, op,
                          [=]() -> std::string {
                              return *list == *held ? "held" : (*list)->next != *held ? "not linked" : text(**list);
                          },
                          expected, "held",
                          [=] {
                              if (*list != *held) (*list)->next = nullptr, free_list(*list);
                              free_list(*held);
                          });
}

INSTANTIATE_TEST_SUITE_P(Modes, FaultTest, ::testing::Values(Mode::kOnce, Mode::kSticky),
                         [](const auto &info) { return std::string(info.param == Mode::kSticky ? "Sticky" : "Once"); });

TEST_P(FaultTest, PortListParseAndRender) {
    KOVA_SERVICE_CONF_PORT *list = nullptr;
    expect_robust("KOVAServiceConfPortsGet",
                  all_or_nothing([&] { list = nullptr; },
                                 [&] { return KOVAServiceConfPortsGet(" 80, 443 ,8000:8010 / TCP", 1, &list); },
                                 [&] { return joined(list); }, "[d1 t1 p1 8000-8010][d1 t0 p1 443][d1 t0 p1 80]", "",
                                 [&] { KOVAServiceConfPortsFree(list); }));
    list = nullptr;
    ASSERT_EQ(KOVAServiceConfPortsGet("80,443,8000:8010,21,22,23,8080,9000:9010/tcp,udp", 1, &list), 0);
    char ports[128], protocol[16];
    expect_robust("KVLIBServiceConfPortsToStr",
                  all_or_nothing(
                      [&] {
                          std::memset(ports, 'x', sizeof ports);
                          std::memset(protocol, 'x', sizeof protocol);
                      },
                      [&] { return KVLIBServiceConfPortsToStr(list, ports, sizeof ports, protocol, sizeof protocol); },
                      [&] {
                          return std::string(ports, strnlen(ports, sizeof ports)) + "|" +
                                 std::string(protocol, strnlen(protocol, sizeof protocol));
                      },
                      "9000:9010,8080,23,22,21,8000:8010,443,80|tcp,udp",
                      std::string(sizeof ports, 'x') + "|" + std::string(sizeof protocol, 'x'), [] {}));
    KOVAServiceConfPortsFree(list);
}

// One file, and one section and one entry copied: all or nothing, in front of the caller's list.
TEST_P(FaultTest, ReadOneFileAndCompose) {
    const std::string web = path("/usr/kova/etc/services.d/web.sc"), pkg = path("/usr/local/etc/services.d/pkg.sc");
    KOVA_SERVICE_CONF *ref = nullptr, *held = nullptr, *list = nullptr;
    ASSERT_EQ(KOVAServiceConfGet(web.c_str(), &ref), 0);
    expect_robust("KOVAServiceConfGet", prepended<KOVA_SERVICE_CONF>(
                                            held, list, [&] { return KOVAServiceConfGet(web.c_str(), &list); },
                                            conf_text, conf_text(*ref), KOVAServiceConfFree));
    KOVAServiceConfFree(ref);

    KOVA_SERVICE_CONF_SECTION *tmpl = nullptr, *held_section = nullptr, *sections = nullptr;
    ASSERT_EQ(KOVAServiceConfSectionGet(pkg.c_str(), "pkg", &tmpl), 0);
    const std::string expected = section_text(*tmpl);
    expect_robust("KOVAServiceComposeSectionInfo",
                  prepended<KOVA_SERVICE_CONF_SECTION>(
                      held_section, sections, [&] { return KOVAServiceComposeSectionInfo(tmpl, &sections); },
                      [&](const KOVA_SERVICE_CONF_SECTION &s) { return section_text(*tmpl) + section_text(s); },
                      expected + expected, KOVAServiceConfSectionFree));
    KOVA_SERVICE_CONF_PORT *ports = nullptr;
    expect_robust(
        "KOVAServiceComposePortInfo",
        all_or_nothing([&] { ports = nullptr; }, [&] { return KOVAServiceComposePortInfo(tmpl->dstPort, &ports); },
                       [&] { return joined(ports); }, "[" + port_texts(tmpl->dstPort).front() + "]", "",
                       [&] { KOVAServiceConfPortsFree(ports); }));
    KOVAServiceConfSectionFree(tmpl);
}

// Both directories: a file that fails is left out, so the count and the list may shrink, but
// every record that is there is whole.
TEST_P(FaultTest, EnumerateBothDirectories) {
    std::map<std::string, std::string> expected;  // first section name -> record
    KOVA_SERVICE_CONF *ref = nullptr;
    ASSERT_EQ(KOVAServiceConfEnum(&ref, 3), 2);
    for (KOVA_SERVICE_CONF *c = ref; c != nullptr; c = c->next) expected[c->sections->name] = conf_text(*c);
    KOVAServiceConfFree(ref);
    KOVA_SERVICE_CONF *held = nullptr, *list = nullptr;
    int rc = 0;
    const auto check = [&](bool injected) {
        if (rc == -1) {  // out of memory before any directory is read
            EXPECT_TRUE(injected && list == held && KVLIBCErrGet() == KOVA_ERR_OUT_OF_MEMORY) << KVLIBCErrGet();
            return false;
        }
        int records = 0;
        const KOVA_SERVICE_CONF *c = list;
        for (; c != nullptr && c != held && c->sections != nullptr; c = c->next, ++records)
            EXPECT_EQ(conf_text(*c), expected[c->sections->name]);
        EXPECT_TRUE(c == held && records == rc) << records << " records, " << rc;
        return injected ? rc >= 0 : rc == 2;
    };
    const auto release = [&] {
        KOVA_SERVICE_CONF **link = &list;
        while (*link != held) link = &(*link)->next;
        *link = nullptr;
        KOVAServiceConfFree(list);
        KOVAServiceConfFree(held);
    };
    expect_robust("KOVAServiceConfEnum",
                  {[&] { list = held = static_cast<KOVA_SERVICE_CONF *>(std::calloc(1, sizeof(KOVA_SERVICE_CONF))); },
                   [&] {
                       KVLIBCErrSetEx(kPoison, "test", 0);
                       rc = KOVAServiceConfEnum(&list, 3);
                   },
                   check, release});
}

// "[b,e][b,e]...", with a node's type and the set's count where they are wrong (the texts compared
// are sorted and merged, so a set equal to one is).
std::string set_text(const KVLIB_PORT_RANGE *set) {
    std::string out;
    int nodes = 0;
    for (const KOVA_SERVICE_CONF_PORT *n = set->head; n != nullptr; n = n->next, ++nodes)
        out += str("[", n->beginPort, ",", n->endPort, "]",
                   n->type != (n->beginPort != n->endPort ? 1u : 0u) ? "type" : "");
    return out + (nodes != set->count ? str(" count ", set->count) : "");
}

KVLIB_PORT_RANGE *make_set(const char *text) {
    KVLIB_PORT_RANGE *set = KVLIBPortRangeCreate();
    EXPECT_TRUE(set != nullptr && KVLIBPortRangeImport(set, text) == 0) << text;
    return set;
}

// Each port range set operation on a target set prepared from a text: the target (and what the operation
// returned) on success, and on failure the target as it was; the source sets never change.
// The family never sets the error state itself.
TEST_P(FaultTest, PortRangeSetOperations) {
    KVLIB_PORT_RANGE *first = make_set("1:100,200:300,1000"), *second = make_set("50:60,90:250,999:1001");
    const std::string sources = set_text(first) + set_text(second);
    KVLIB_PORT_RANGE *set = nullptr;
    char *exported = nullptr;
    KOVA_SERVICE_CONF_PORT add{1, 1, 3, 4, 8, nullptr}, remove{0, 1, 0, 15, 25, nullptr};
    const struct {
        const char *name, *initial;
        std::function<int()> op;
        std::string expected, untouched;
    } cases[] = {
        {"KVLIBPortRangeCreate", "7",
         [&] {
             KVLIB_PORT_RANGE *made = KVLIBPortRangeCreate();
             if (made == nullptr) return -1;
             KVLIBPortRangeDestory(set);
             set = made;
             return 0;
         },
         "", "[7,7]"},
        {"KVLIBPortRangeImport", "1:5,30",
         [&] { return KVLIBPortRangeImport(set, " 80 ,443, 8000:8010,21,6, 7:9 ,65536:70000"); },
         "[1,9][21,21][30,30][80,80][443,443][8000,8010][65536,70000]", "[1,5][30,30]"},
        {"KVLIBPortRangeAdd", "1:3,7:9,20", [&] { return KVLIBPortRangeAdd(set, &add); }, "[1,9][20,20]",
         "[1,3][7,9][20,20]"},
        {"KVLIBPortRangeRemove", "10:20,22:30,40", [&] { return KVLIBPortRangeRemove(set, &remove); },
         "[10,14][26,30][40,40]", "[10,20][22,30][40,40]"},
        {"KVLIBPortRangeOverlap", "95:99,5000", [&] { return KVLIBPortRangeOverlap(first, second, set); },
         "[50,60][90,100][200,250][1000,1000][5000,5000]", "[95,99][5000,5000]"},
        {"KVLIBPortRangeJoin", "400,1002", [&] { return KVLIBPortRangeJoin(set, second); },
         "[50,60][90,250][400,400][999,1002]", "[400,400][1002,1002]"},
        {"KVLIBPortRangeExport", "21,80:81,443,8000:8010,4294967295",
         [&] { return (exported = KVLIBPortRangeExport(set)) != nullptr ? 0 : -1; },
         "[21,21][80,81][443,443][8000,8010][4294967295,4294967295] 21,80:81,443,8000:8010,-1",
         "[21,21][80,81][443,443][8000,8010][4294967295,4294967295]"},
    };
    for (const auto &c : cases) {
        expect_robust(c.name, all_or_nothing(
                                  [&] {
                                      set = make_set(c.initial);
                                      exported = nullptr;
                                  },
                                  c.op,
                                  [&] {
                                      EXPECT_EQ(set_text(first) + set_text(second), sources);
                                      return set_text(set) + (exported != nullptr ? std::string(" ") + exported : "");
                                  },
                                  c.expected, c.untouched,
                                  [&] {
                                      KVLIBPortRangeDestory(set);
                                      KVLIBCStrPut(exported);
                                  },
                                  false));
    }
    KVLIBPortRangeDestory(first);
    KVLIBPortRangeDestory(second);
}

// A log line whose allocations fail falls back to a fixed buffer, formats its arguments from the
// start again and still reaches the log file whole.
TEST_P(FaultTest, LogLine) {
    // Long enough that no text fits a small-string buffer: every step of the line allocates.
    const std::string value(200, 'v');
    expect_robust("log_line", {.call = [&] { kova::log_line("m.cpp", 7, "%s %d %s", value.c_str(), 42, "end"); },
                               .check =
                                   [&](bool) {
                                       EXPECT_EQ(log_normalized(),
                                                 std::vector<std::string>{"m.cpp:N " + value + " 42 end"});
                                       clear_log();
                                       return true;
                                   }});
}

std::string text(const KVLIB_SZLIST *list) {
    return list == nullptr ? "null" : testing::PrintToString(kova::test::items(list));
}

std::string fw_text(const KOVA_FW_SERVICE &s) {
    return std::string(s.name) + " s" + std::to_string(s.supported) + " pf" + std::to_string(s.portForward) + " " +
           parts(s.title) + " " + parts(s.desc) + " dst" + std::to_string(s.dstProtocol) + ":" + text(s.dstPorts) +
           " src" + std::to_string(s.srcProtocol) + ":" + text(s.srcPorts);
}

// Whether `got` is `want` with entries left out or replaced by ones that `lost` accepts, in order.
bool in_order(const Lines &got, const Lines &want, bool (*lost)(const std::string &)) {
    auto at = want.begin();
    for (const std::string &g : got) {
        const auto found = std::find(at, want.end(), g);
        if (found == want.end() && !lost(g)) return false;
        if (found != want.end()) at = found + 1;
    }
    return true;
}

// Rows and sections whose records cannot be made are left out; every record that is listed is
// whole, and the count is the length of the list. Whatever the out-pointer held is replaced on
// success and left alone on failure (out of memory outside any row or section).
TEST_P(FaultTest, FirewallServiceEnum) {
    std::map<std::string, std::string> expected;
    KOVA_FW_SERVICE *const kHeld = reinterpret_cast<KOVA_FW_SERVICE *>(0x10);
    KOVA_FW_SERVICE *list = nullptr;
    ASSERT_EQ(KOVAFwServiceEnum(&list), 17);
    for (const KOVA_FW_SERVICE *s = list; s != nullptr; s = s->next) expected[s->name] = fw_text(*s);
    KOVAFwServiceFree(list);
    int rc = 0;
    const auto check = [&](bool injected) {
        if (rc == -1) {
            EXPECT_TRUE(injected && list == kHeld && KVLIBCErrGet() == KOVA_ERR_OUT_OF_MEMORY) << list;
            list = nullptr;
            return false;
        }
        EXPECT_NE(list, kHeld);
        if (list == kHeld) list = nullptr;
        int records = 0;
        for (const KOVA_FW_SERVICE *s = list; s != nullptr; s = s->next, ++records) {
            KOVA_FW_SERVICE as_supported = *s;
            as_supported.supported = 1;  // the support test may answer 0 for want of memory
            EXPECT_TRUE(fw_text(*s) == expected[s->name] ||
                        (injected && s->supported == 0 && fw_text(as_supported) == expected[s->name]))
                << fw_text(*s);
        }
        EXPECT_EQ(records, rc);
        return injected ? rc >= 0 : rc == 17;
    };
    expect_robust("KOVAFwServiceEnum", {[&] { list = kHeld; },
                                        [&] {
                                            KVLIBCErrSetEx(kPoison, "test", 0);
                                            rc = KOVAFwServiceEnum(&list);
                                        },
                                        check, [&] { KOVAFwServiceFree(list); }});
}

// A port getter hands out its whole list or nothing ("ftp" never listed with part of its ports).
TEST_P(FaultTest, PortGettersAllOrNothing) {
    for (const auto &[name, getter] : {std::pair<const char *, KOVA_FW_PORTS_GETTER>{"KOVAFwPortsFTP", KOVAFwPortsFTP},
                                       {"KOVAFwPortsSSH", KOVAFwPortsSSH},
                                       {"KOVAFwPortsMFP", KOVAFwPortsMFP}}) {
        KVLIB_SZLIST *list = nullptr;
        ASSERT_EQ(getter(&list), 0) << name;
        const std::string whole = text(list);
        KVLIBCSzListFree(list);
        expect_robust(name, all_or_nothing([&] { list = nullptr; }, [&] { return getter(&list); },
                                           [&] { return text(list); }, whole, "null", [&] { KVLIBCSzListFree(list); }));
    }
}

// Inventory entries that could not be made are left out: a port they held may then be listed as
// held by nobody, and every other record is the full call's, in its order.
TEST_P(FaultTest, ConfiguredPortsCheck) {
    KVLIB_SZLIST *ports = KVLIBCSzListAlloc(8);
    for (const char *p : {"445", "21", "5005", "9000", "0"}) ASSERT_EQ(KVLIBCSzListPush(&ports, p), 0);
    auto records = [](const KVLIB_DLIST *list) {
        Lines out;
        for (const KVLIB_DLIST_NODE *n = list->pHead; n != nullptr; n = n->pNext) {
            const auto *r = static_cast<const KOVA_CONF_PORT_CONFLICT_RESULT *>(n->pData);
            out.push_back(std::to_string(r->port) + "/" + std::to_string(r->protocol) + " " +
                          (r->serviceName != nullptr ? r->serviceName : "(null)") + " " +
                          std::to_string(r->isConflict));
        }
        return out;
    };
    KVLIB_DLIST *result = KOVAConfPortConflictResultListAllocAndCheck(ports, KOVA_PROTO_BOTH);
    ASSERT_NE(result, nullptr);
    const Lines expected = records(result);
    KOVAConfPortConflictResultListFree(result);
    const auto check = [&](bool injected) {
        if (result == nullptr) return false;
        const auto nobody = [](const std::string &r) { return r.ends_with(" (null) 0"); };
        EXPECT_TRUE(injected ? in_order(records(result), expected, nobody) : records(result) == expected)
            << testing::PrintToString(records(result));
        return true;
    };
    expect_robust("KOVAConfPortConflictResultListAllocAndCheck",
                  {[&] { result = nullptr; },
                   [&] { result = KOVAConfPortConflictResultListAllocAndCheck(ports, KOVA_PROTO_BOTH); }, check,
                   [&] { KOVAConfPortConflictResultListFree(result); }});
    KVLIBCSzListFree(ports);
}

// The whole inventory: every socket of the tables (none dropped by the table reader), or no list
// at all.
TEST_P(FaultTest, SocketListAndRuntimeInventory) {
    KVLIB_DLIST *list = nullptr;
    const auto one = [&](bool) {
        EXPECT_TRUE(list == nullptr || list->nItem == 1);
        return list != nullptr;
    };
    expect_robust("RawSocketInfoListFetch", {.call = [&] { list = RawSocketInfoListFetch(KOVA_PROTO_BOTH); },
                                             .check = one,
                                             .release = [&] { KVLIBCDListFree(list); }});
    // A process holding the table's socket, so that the inventory has a record to lose.
    symlink("socket:[20123]", "/proc/42/fd/3");
    symlink("/usr/bin/daemon", "/proc/42/exe");
    expect_robust("RuntimeServiceListFetch",
                  {.call = [&] { list = RuntimeServiceListFetch(); },
                   .check =
                       [&](bool injected) {
                           if (!one(injected)) return false;
                           const auto *r = static_cast<const KOVA_RUNTIME_PORT_CONFLICT_RESULT *>(list->pHead->pData);
                           EXPECT_EQ(std::to_string(r->pid) + " " + r->program, "42 /usr/bin/daemon");
                           return true;
                       },
                   .release = [&] { KOVARuntimePortConflictResultListFree(list); }});
}

}  // namespace
}  // namespace kova::fault
