// Allocation failures in the configuration file family: parsing port lists, reading and
// enumerating .sc files, composing sections and rendering port lists.
#include <kovaserviceconf.h>

#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "fault_harness.h"

namespace kova::fault {
namespace {

constexpr unsigned int kPoison = 0x7E57;

std::vector<std::string> port_texts(const KOVA_SERVICE_CONF_PORT *p) {
    std::vector<std::string> out;
    for (; p != nullptr; p = p->next)
        out.push_back(std::to_string(p->direction) + "/" + std::to_string(p->type) + "/" + std::to_string(p->protocol) +
                      "/" + std::to_string(p->beginPort) + "-" + std::to_string(p->endPort));
    return out;
}

std::string string_text(const KOVA_SERVICE_STRING &s) {
    return std::string(s.prefix) + "|" + s.section + "|" + s.key + "|" + s.text + "|" + s.extraText;
}

std::string section_text(const KOVA_SERVICE_CONF_SECTION &s) {
    std::string out = std::string(s.name) + " " + string_text(s.title) + " " + string_text(s.desc) + " pf" +
                      std::to_string(s.portForward);
    for (const std::string &p : port_texts(s.srcPort)) out += " src " + p;
    for (const std::string &p : port_texts(s.dstPort)) out += " dst " + p;
    return out;
}

std::string conf_text(const KOVA_SERVICE_CONF &c) {
    std::string out = "v" + std::to_string(c.version) + " " + c.supportKey + " " + c.runKey;
    for (const KOVA_SERVICE_CONF_SECTION *s = c.sections; s != nullptr; s = s->next) out += "\n" + section_text(*s);
    return out;
}

class ConfFaultTest : public FaultTest {};
KOVA_FAULT_MODES(ConfFaultTest);

TEST_P(ConfFaultTest, PortListParse) {
    KOVA_SERVICE_CONF_PORT *list = nullptr;
    int rc = 0;
    const std::vector<std::string> expected = {"1/1/1/8000-8010", "1/0/1/443-0", "1/0/1/80-0"};
    expect_robust("KOVAServiceConfPortsGet",
                  {[&] {
                       list = nullptr;
                       KVLIBCErrSetEx(kPoison, "test", 0);
                   },
                   [&] { rc = KOVAServiceConfPortsGet(" 80, 443 ,8000:8010 / TCP", 1, &list); },
                   [&](bool) {
                       if (rc == 0) {
                           EXPECT_EQ(port_texts(list), expected);
                           return true;
                       }
                       EXPECT_EQ(rc, -1);
                       EXPECT_EQ(list, nullptr);
                       EXPECT_EQ(KVLIBCErrGet(), KOVA_ERR_OUT_OF_MEMORY);
                       return false;
                   },
                   [&] { KOVAServiceConfPortsFree(list); }, [] {}});
}

// One file with one service section: all or nothing.
TEST_P(ConfFaultTest, ReadOneFile) {
    const std::string path = this->path("/usr/kova/etc/services.d/web.sc");
    KOVA_SERVICE_CONF *held = nullptr;
    KOVA_SERVICE_CONF *list = nullptr;
    int rc = 0;
    std::string expected;
    {
        KOVA_SERVICE_CONF *ref = nullptr;
        ASSERT_EQ(KOVAServiceConfGet(path.c_str(), &ref), 0);
        expected = conf_text(*ref);
        KOVAServiceConfFree(ref);
    }
    expect_robust("KOVAServiceConfGet",
                  {[&] {
                       held = static_cast<KOVA_SERVICE_CONF *>(std::calloc(1, sizeof(KOVA_SERVICE_CONF)));
                       list = held;
                       KVLIBCErrSetEx(kPoison, "test", 0);
                   },
                   [&] { rc = KOVAServiceConfGet(path.c_str(), &list); },
                   [&](bool) {
                       if (rc == 0) {
                           EXPECT_NE(list, held);
                           if (list == held) return true;
                           EXPECT_EQ(list->next, held);
                           EXPECT_EQ(conf_text(*list), expected);
                           return true;
                       }
                       EXPECT_EQ(rc, -1);
                       EXPECT_EQ(list, held);
                       EXPECT_EQ(KVLIBCErrGet(), KOVA_ERR_OUT_OF_MEMORY);
                       return false;
                   },
                   [&] {
                       if (list != held) {
                           held->next = nullptr;
                           list->next = nullptr;
                           KOVAServiceConfFree(list);
                       }
                   },
                   [&] { KOVAServiceConfFree(held); }});
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
                       EXPECT_GE(rc, 0);
                       EXPECT_LE(rc, 2);
                       int records = 0;
                       const KOVA_SERVICE_CONF *c = list;
                       for (; c != nullptr && c != held; c = c->next, ++records) {
                           EXPECT_NE(c->sections, nullptr);
                           if (c->sections == nullptr) break;
                           EXPECT_EQ(conf_text(*c), expected[c->sections->name]);
                       }
                       EXPECT_EQ(c, held);
                       EXPECT_EQ(records, rc);
                       return injected ? rc >= 0 : rc == 2;
                   },
                   [&] {
                       KOVA_SERVICE_CONF **link = &list;
                       while (*link != held) link = &(*link)->next;
                       *link = nullptr;
                       KOVAServiceConfFree(list);
                   },
                   [&] { KOVAServiceConfFree(held); }});
}

TEST_P(ConfFaultTest, ComposeSectionAndPorts) {
    const std::string path = this->path("/usr/local/etc/services.d/pkg.sc");
    KOVA_SERVICE_CONF_SECTION *tmpl = nullptr;
    ASSERT_EQ(KOVAServiceConfSectionGet(path.c_str(), "pkg", &tmpl), 0);
    const std::string expected = section_text(*tmpl);

    KOVA_SERVICE_CONF_SECTION *held = nullptr;
    KOVA_SERVICE_CONF_SECTION *list = nullptr;
    int rc = 0;
    expect_robust("KOVAServiceComposeSectionInfo",
                  {[&] {
                       held = static_cast<KOVA_SERVICE_CONF_SECTION *>(std::calloc(1, sizeof *held));
                       list = held;
                       KVLIBCErrSetEx(kPoison, "test", 0);
                   },
                   [&] { rc = KOVAServiceComposeSectionInfo(tmpl, &list); },
                   [&](bool) {
                       EXPECT_EQ(section_text(*tmpl), expected);
                       if (rc == 0) {
                           EXPECT_EQ(list->next, held);
                           EXPECT_EQ(section_text(*list), expected);
                           return true;
                       }
                       EXPECT_EQ(rc, -1);
                       EXPECT_EQ(list, held);
                       EXPECT_EQ(KVLIBCErrGet(), KOVA_ERR_OUT_OF_MEMORY);
                       return false;
                   },
                   [&] {
                       if (list != held) {
                           list->next = nullptr;
                           KOVAServiceConfSectionFree(list);
                       }
                   },
                   [&] { KOVAServiceConfSectionFree(held); }});

    KOVA_SERVICE_CONF_PORT *ports = nullptr;
    expect_robust("KOVAServiceComposePortInfo",
                  {[&] {
                       ports = nullptr;
                       KVLIBCErrSetEx(kPoison, "test", 0);
                   },
                   [&] { rc = KOVAServiceComposePortInfo(tmpl->dstPort, &ports); },
                   [&](bool) {
                       if (rc == 0) {
                           EXPECT_EQ(port_texts(ports), std::vector<std::string>{port_texts(tmpl->dstPort).front()});
                           return true;
                       }
                       EXPECT_EQ(ports, nullptr);
                       EXPECT_EQ(KVLIBCErrGet(), KOVA_ERR_OUT_OF_MEMORY);
                       return false;
                   },
                   [&] { KOVAServiceConfPortsFree(ports); }, [] {}});
    KOVAServiceConfSectionFree(tmpl);
}

TEST_P(ConfFaultTest, RenderPortList) {
    KOVA_SERVICE_CONF_PORT *list = nullptr;
    ASSERT_EQ(KOVAServiceConfPortsGet("80,443,8000:8010,21,22,23,8080,9000:9010/tcp,udp", 1, &list), 0);
    char ports[128];
    char protocol[16];
    int rc = 0;
    expect_robust("KVLIBServiceConfPortsToStr",
                  {[&] {
                       std::memset(ports, 'x', sizeof ports);
                       std::memset(protocol, 'x', sizeof protocol);
                       KVLIBCErrSetEx(kPoison, "test", 0);
                   },
                   [&] { rc = KVLIBServiceConfPortsToStr(list, ports, sizeof ports, protocol, sizeof protocol); },
                   [&](bool) {
                       if (rc == 0) {
                           EXPECT_STREQ(ports, "9000:9010,8080,23,22,21,8000:8010,443,80");
                           EXPECT_STREQ(protocol, "tcp,udp");
                           return true;
                       }
                       EXPECT_EQ(rc, -1);
                       EXPECT_EQ(std::string(ports, sizeof ports), std::string(sizeof ports, 'x'));
                       EXPECT_EQ(std::string(protocol, sizeof protocol), std::string(sizeof protocol, 'x'));
                       EXPECT_EQ(KVLIBCErrGet(), KOVA_ERR_OUT_OF_MEMORY);
                       return false;
                   },
                   [] {}, [] {}});
    KOVAServiceConfPortsFree(list);
}

}  // namespace
}  // namespace kova::fault
