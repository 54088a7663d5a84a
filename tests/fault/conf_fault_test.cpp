// Allocation failures in the configuration file family: parsing port lists, reading and
// enumerating .sc files, composing sections and rendering port lists.
#include <cstdlib>
#include <cstring>
#include <map>

#include "../conf/conf_test_util.h"
#include "fault_harness.h"

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
    {
        KOVA_SERVICE_CONF *ref = nullptr;
        ASSERT_EQ(KOVAServiceConfEnum(&ref, 3), 2);
        for (KOVA_SERVICE_CONF *c = ref; c != nullptr; c = c->next) expected[c->sections->name] = conf_text(*c);
        KOVAServiceConfFree(ref);
    }
    KOVA_SERVICE_CONF *held = nullptr;
    KOVA_SERVICE_CONF *list = nullptr;
    int rc = 0;
    expect_robust("KOVAServiceConfEnum",
                  {[&] {
                       held = static_cast<KOVA_SERVICE_CONF *>(std::calloc(1, sizeof(KOVA_SERVICE_CONF)));
                       list = held;
                   },
                   [&] {
                       KVLIBCErrSetEx(kPoison, "test", 0);
                       rc = KOVAServiceConfEnum(&list, 3);
                   },
                   [&](bool injected) {
                       // Out of memory before any directory is read: the failure result.
                       if (rc == -1) {
                           EXPECT_TRUE(injected);
                           EXPECT_EQ(list, held);
                           EXPECT_EQ(KVLIBCErrGet(), KOVA_ERR_OUT_OF_MEMORY);
                           return false;
                       }
                       int records = 0;
                       const KOVA_SERVICE_CONF *c = list;
                       for (; c != nullptr && c != held && c->sections != nullptr; c = c->next, ++records)
                           EXPECT_EQ(conf_text(*c), expected[c->sections->name]);
                       EXPECT_EQ(c, held);
                       EXPECT_EQ(records, rc);
                       return injected ? rc >= 0 : rc == 2;
                   },
                   [&] {
                       KOVA_SERVICE_CONF **link = &list;
                       while (*link != held) link = &(*link)->next;
                       *link = nullptr;
                       KOVAServiceConfFree(list);
                       KOVAServiceConfFree(held);
                   }});
}

}  // namespace
}  // namespace kova::fault
