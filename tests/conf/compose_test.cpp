// Composing port and section records, and rendering port lists as .sc texts.
#include <kovaserviceconf.h>

#include <cstring>
#include <string>
#include <vector>

#include "conf_test_util.h"
#include "foundation/raii.h"
#include "kova_test.h"

namespace {

using kova::test::port_texts;
using Strings = std::vector<std::string>;

KOVA_SERVICE_CONF_PORT port(uint32_t type, uint32_t protocol, uint32_t begin, uint32_t end = 0,
                            uint32_t direction = 0) {
    KOVA_SERVICE_CONF_PORT p{};
    p.direction = direction;
    p.type = type;
    p.protocol = protocol;
    p.beginPort = begin;
    p.endPort = end;
    return p;
}

class ComposeTest : public kova::test::RootTest {
protected:
    void TearDown() override {
        KOVAServiceConfPortsFree(ports_);
        RootTest::TearDown();
    }
    // Renders `list`; "ports|protocol", or "fail".
    static std::string render(const KOVA_SERVICE_CONF_PORT *list, int cb_ports = 256, int cb_proto = 64) {
        std::string ports(static_cast<size_t>(cb_ports > 0 ? cb_ports : 1), '#');
        std::string proto(static_cast<size_t>(cb_proto > 0 ? cb_proto : 1), '#');
        if (KVLIBServiceConfPortsToStr(list, ports.data(), cb_ports, proto.data(), cb_proto) != 0) {
            // Neither buffer is written on failure.
            EXPECT_EQ(ports.find_first_not_of('#'), std::string::npos);
            EXPECT_EQ(proto.find_first_not_of('#'), std::string::npos);
            return "fail";
        }
        return std::string(ports.c_str()) + "|" + proto.c_str();
    }
    KOVA_SERVICE_CONF_PORT *ports_ = nullptr;
};

TEST_F(ComposeTest, PortInfoCopiesInFrontAndChecksTheTemplate) {
    KOVA_SERVICE_CONF_PORT p80 = port(0, 3, 80, 99);
    KOVA_SERVICE_CONF_PORT p443 = port(0, 1, 443, 0, 1);
    p443.next = &p80;  // never looked at
    ASSERT_EQ(KOVAServiceComposePortInfo(&p80, &ports_), 0);
    ASSERT_EQ(KOVAServiceComposePortInfo(&p443, &ports_), 0);
    KOVA_SERVICE_CONF_PORT range = port(1, 2, 7000, 8000);
    ASSERT_EQ(KOVAServiceComposePortInfo(&range, &ports_), 0);
    EXPECT_EQ(port_texts(ports_), (Strings{"d0 t1 p2 7000-8000", "d1 t0 p1 443", "d0 t0 p3 80-99"}));
    EXPECT_TRUE(log().empty());

    const std::string bad = "service_compose_port_info.cpp:N Bad Parameters![0x0D00 service_compose_port_info.cpp:N]";
    const std::vector<KOVA_SERVICE_CONF_PORT> rejected = {port(1, 3, 8000, 7000), port(0, 0, 80), port(0, 4, 80),
                                                          port(2, 3, 80), port(0, 3, 80, 0, 2)};
    for (const auto &t : rejected) EXPECT_EQ(KOVAServiceComposePortInfo(&t, &ports_), -1);
    EXPECT_EQ(KOVAServiceComposePortInfo(nullptr, &ports_), -1);
    EXPECT_EQ(KOVAServiceComposePortInfo(&p80, nullptr), -1);
    EXPECT_EQ(port_texts(ports_).size(), 3u);
    EXPECT_EQ(log_normalized(), Strings(7, bad));
}

TEST_F(ComposeTest, SectionInfoMakesADeepCopyWithoutExtraText) {
    KOVA_SERVICE_CONF_SECTION *tmpl = kova::calloc_record<KOVA_SERVICE_CONF_SECTION>();
    kova::copy_field(tmpl->name, "svc");
    kova::copy_field(tmpl->title.text, "Title");
    kova::copy_field(tmpl->title.section, "sec");
    kova::copy_field(tmpl->title.key, "key");
    kova::copy_field(tmpl->title.prefix, "pre");
    kova::copy_field(tmpl->desc.text, "Desc");
    kova::copy_field(tmpl->desc.extraText, "extra");
    tmpl->portForward = 1;
    ASSERT_EQ(KOVAServiceConfPortsGet("80,443,8000:8010/tcp", 1, &tmpl->dstPort), 0);

    KOVA_SERVICE_CONF_SECTION *list = nullptr;
    ASSERT_EQ(KOVAServiceComposeSectionInfo(tmpl, &list), 0);
    ASSERT_EQ(KOVAServiceComposeSectionInfo(tmpl, &list), 0);
    const Strings template_ports = port_texts(tmpl->dstPort);
    KOVAServiceConfSectionFree(tmpl);  // the copies own their own entries

    ASSERT_NE(list, nullptr);
    ASSERT_NE(list->next, nullptr);
    EXPECT_STREQ(list->name, "svc");
    EXPECT_STREQ(list->title.text, "Title");
    EXPECT_STREQ(list->title.prefix, "pre");
    EXPECT_STREQ(list->title.section, "sec");
    EXPECT_STREQ(list->title.key, "key");
    EXPECT_STREQ(list->desc.text, "Desc");
    EXPECT_STREQ(list->desc.extraText, "");
    EXPECT_EQ(list->portForward, 1);
    EXPECT_EQ(list->srcPort, nullptr);
    EXPECT_EQ(port_texts(list->dstPort), template_ports);  // same order
    EXPECT_NE(list->dstPort, list->next->dstPort);
    KOVAServiceConfSectionFree(list);

    poison_error();
    EXPECT_EQ(KOVAServiceComposeSectionInfo(nullptr, &list), -1);
    EXPECT_EQ(kova::test::error_text(), "0x0D00");
    EXPECT_TRUE(log().empty());
}

TEST_F(ComposeTest, RenderWritesListOrderWithRangesAscending) {
    KOVA_SERVICE_CONF_PORT range = port(1, 3, 9000, 8000);
    KOVA_SERVICE_CONF_PORT single = port(0, 3, 80, 12345);
    single.next = &range;
    EXPECT_EQ(render(&single), "80,8000:9000|tcp,udp");

    KOVA_SERVICE_CONF_PORT *parsed = nullptr;
    ASSERT_EQ(KOVAServiceConfPortsGet("80,443/tcp", 1, &parsed), 0);
    EXPECT_EQ(render(parsed), "443,80|tcp");  // a read list comes back reversed
    KOVAServiceConfPortsFree(parsed);
    KOVA_SERVICE_CONF_PORT udp = port(0, 2, 53, 0, 1);
    EXPECT_EQ(render(&udp), "53|udp");
    EXPECT_TRUE(log().empty());
}

TEST_F(ComposeTest, RenderFailures) {
    KOVA_SERVICE_CONF_PORT udp = port(0, 2, 53);
    KOVA_SERVICE_CONF_PORT tcp = port(0, 1, 80);
    tcp.next = &udp;
    EXPECT_EQ(render(&tcp), "fail");
    EXPECT_EQ(log_normalized(), Strings{"service_conf_ports_to_str.cpp:N Different protocol in port linked list"
                                        "[0x0D00 service_conf_ports_to_str.cpp:N]"});
    clear_log();

    KOVA_SERVICE_CONF_PORT none = port(0, 4, 80);
    EXPECT_EQ(render(&none), "fail");
    EXPECT_EQ(render(nullptr), "fail");
    EXPECT_EQ(render(&udp, 0), "fail");
    EXPECT_EQ(render(&udp, 8, 0), "fail");
    EXPECT_EQ(kova::test::error_text(), "0x0D00");
    EXPECT_TRUE(log().empty());

    KOVA_SERVICE_CONF_PORT p443 = port(0, 3, 443);
    KOVA_SERVICE_CONF_PORT p80 = port(0, 3, 80);
    p80.next = &p443;
    const std::string small =
        "service_conf_ports_to_str.cpp:N input array too small[0xBF00 service_conf_ports_to_str.cpp:N]";
    EXPECT_EQ(render(&p80, 3), "fail");
    EXPECT_EQ(render(&p80, 6), "fail");
    EXPECT_EQ(render(&p80, 7), "80,443|tcp,udp");  // exactly the text and its terminator
    EXPECT_EQ(render(&p80, 7, 7), "fail");
    EXPECT_EQ(render(&p80, 7, 8), "80,443|tcp,udp");
    EXPECT_EQ(log_normalized(), Strings(3, small));
}

}  // namespace
