// Allocation failures in the configuration file family (parsing port lists, reading and
// enumerating .sc files, composing sections and rendering port lists), in the port range family
// and in the log.
#include <cstdlib>
#include <cstring>
#include <map>

#include "../conf/conf_test_util.h"
#include "fault_harness.h"
#include "foundation/log.h"

namespace kova::fault {
namespace {

using kova::test::parts;
using kova::test::port_texts;

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
    std::string out = "v" + std::to_string(c.version) + " " + c.supportKey + " " + c.runKey;
    for (const KOVA_SERVICE_CONF_SECTION *s = c.sections; s != nullptr; s = s->next) out += "\n" + section_text(*s);
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

class ConfFaultTest : public FaultTest {};
KOVA_FAULT_MODES(ConfFaultTest);

TEST_P(ConfFaultTest, PortListParseAndRender) {
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
TEST_P(ConfFaultTest, ReadOneFileAndCompose) {
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
TEST_P(ConfFaultTest, EnumerateBothDirectories) {
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
        out += "[" + std::to_string(n->beginPort) + "," + std::to_string(n->endPort) + "]" +
               (n->type != (n->beginPort != n->endPort ? 1u : 0u) ? "type" : "");
    return out + (nodes != set->count ? " count " + std::to_string(set->count) : "");
}

KVLIB_PORT_RANGE *make_set(const char *text) {
    KVLIB_PORT_RANGE *set = KVLIBPortRangeCreate();
    EXPECT_TRUE(set != nullptr && KVLIBPortRangeImport(set, text) == 0) << text;
    return set;
}

// Each port range set operation on a target set prepared from a text: the target (and what the operation
// returned) on success, and on failure the target as it was; the source sets never change.
// The family never sets the error state itself.
TEST_P(ConfFaultTest, PortRangeSetOperations) {
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
TEST_P(ConfFaultTest, LogLine) {
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

}  // namespace
}  // namespace kova::fault
