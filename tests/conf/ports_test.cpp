// Port lists: parsing texts, port and protocol checks, composing entries and rendering lists.
#include "conf_test_util.h"

namespace {

using namespace kova::test;
using Port = KOVA_SERVICE_CONF_PORT;  // {direction, type, protocol, beginPort, endPort, next}
using PortsTest = ConfTest;

// "ports|protocol" or "fail"; a failure writes neither buffer.
std::string render(const Port *list, int cb_ports = 256, int cb_proto = 64) {
    std::string ports(256, '#'), proto(64, '#');
    if (KVLIBServiceConfPortsToStr(list, ports.data(), cb_ports, proto.data(), cb_proto) == 0)
        return std::string(ports.c_str()) + "|" + proto.c_str();
    EXPECT_EQ(ports + proto, std::string(320, '#'));
    return "fail";
}

TEST_F(PortsTest, BadTextsFailWithTheirLines) {
    EXPECT_EQ(parse("80", 0), Strings{"d0 t0 p3 80"});
    // The entries of good texts are the port list fuzz harness's model and seeds.
    for (const char *text : {"80:", "80,,90", "/tcp"}) EXPECT_EQ(parse(text), Strings{"fail"}) << text;
    EXPECT_EQ(KVLIBCErrGet(), 0x0D00u);  // an empty port number fails without a line
    for (const char *text : {"80/tcp/udp", "80/icmp", "80/tcp,", "80/TCP,,udp", "80,8000 : 8010", "1:2:3", "80,65536"})
        EXPECT_EQ(parse(text), Strings{"fail"}) << text;
    for (const char *bad : {"", "-1", "8 0", "99999999999999999999999"}) {
        poison_error();
        EXPECT_EQ(KOVAServiceConfPortsCheck(bad), 0) << bad;
        EXPECT_EQ(KVLIBCErrGet(), 0x0D00u) << bad;
    }
    EXPECT_EQ(KOVAServiceConfPortsCheck(nullptr), 0);
    EXPECT_EQ(log_normalized(), (Strings{proto_error("tcp/udp"), proto_error("icmp"), proto_error("tcp,"),
                                         proto_error("TCP,,udp"), illegal("8000 "), illegal("2:3"), illegal("65536"),
                                         illegal("-1"), illegal("8 0"), illegal(std::string(23, '9'))}));
    clear_log();
    char text[] = " TCP ", blank[] = " ";
    EXPECT_EQ(KVLIBServiceConfProtocolParse(text), 1);
    EXPECT_STREQ(text, "tcp");                            // changed in place
    EXPECT_EQ(KVLIBServiceConfProtocolParse(blank), -1);  // the empty test comes before the trim
    std::string longer = "  " + std::string(100, 'x');    // the line shows 63 characters as given
    EXPECT_EQ(KVLIBServiceConfProtocolParse(longer.data()), -1);
    Port sentinel{}, *held = &sentinel;
    poison_error();
    EXPECT_EQ(KOVAServiceConfPortsGet("80", 1, &held), -1);  // the target must hold null
    EXPECT_EQ(KVLIBCErrGet(), 0x0D00u);
    EXPECT_EQ(held, &sentinel);
    EXPECT_EQ(KOVAServiceConfPortsGet(nullptr, 1, &ports_) + KOVAServiceConfPortsGet("80", 2, &ports_), -2);
    EXPECT_EQ(ports_, nullptr);
    EXPECT_EQ(log_normalized(), (Strings{proto_error(" "), proto_error("  " + std::string(61, 'x'))}));
}

TEST_F(PortsTest, ComposeCopiesInFrontAndRenderKeepsTheListOrder) {
    Port p80{0, 0, 3, 80, 99, nullptr}, p443{1, 0, 1, 443, 0, &p80}, range{0, 1, 2, 7000, 8000, nullptr};
    for (const Port *t : {&p80, &p443, &range}) ASSERT_EQ(KOVAServiceComposePortInfo(t, &ports_), 0);
    EXPECT_EQ(port_texts(ports_), (Strings{"d0 t1 p2 7000-8000", "d1 t0 p1 443", "d0 t0 p3 80-99"}));
    for (const Port &t : {Port{0, 1, 3, 8000, 7000, nullptr}, Port{0, 0, 0, 80, 0, nullptr},
                          Port{0, 0, 4, 80, 0, nullptr}, Port{0, 2, 3, 80, 0, nullptr}, Port{2, 0, 3, 80, 0, nullptr}})
        EXPECT_EQ(KOVAServiceComposePortInfo(&t, &ports_), -1);
    EXPECT_EQ(KOVAServiceComposePortInfo(nullptr, &ports_) + KOVAServiceComposePortInfo(&p80, nullptr), -2);
    EXPECT_EQ(port_texts(ports_).size(), 3u);
    EXPECT_EQ(log_normalized(),
              Strings(7, "service_compose_port_info.cpp:N Bad Parameters![0x0D00 service_compose_port_info.cpp:N]"));
    clear_log();
    write("/t.sc",
          "[n]\ntitle_key=p:s:k\ntitle=t\ndesc_key=a:b\ndesc=d\ndesc_extra=x\nport_forward=yes\n"
          "src.ports=1\ndst.ports=80,443,8000:8010/tcp\n");
    KOVA_SERVICE_CONF *conf = nullptr;
    KOVA_SERVICE_CONF_SECTION *copy = nullptr;
    ASSERT_EQ(KOVAServiceConfGet(path("/t.sc").c_str(), &conf), 0);
    for (int i = 0; i < 2; ++i) ASSERT_EQ(KOVAServiceComposeSectionInfo(conf->sections, &copy), 0);
    const Strings src = port_texts(conf->sections->srcPort), dst = port_texts(conf->sections->dstPort);
    KOVAServiceConfFree(conf);  // the copies own their own entries
    EXPECT_EQ(copy->name + parts(copy->title) + parts(copy->desc) + std::to_string(copy->portForward),
              "np|s|k|t||a|b|d|1");  // without the extra text
    EXPECT_EQ(port_texts(copy->srcPort), src);
    EXPECT_EQ(port_texts(copy->next->dstPort), dst);
    KOVAServiceConfSectionFree(copy);
    Port down{0, 1, 3, 9000, 8000, nullptr}, single{0, 0, 3, 80, 12345, &down};
    EXPECT_EQ(render(&single), "80,8000:9000|tcp,udp");
    ASSERT_EQ(parse("80,443/tcp").size(), 2u);
    EXPECT_EQ(render(ports_), "443,80|tcp");
    Port udp{1, 0, 2, 53, 0, nullptr}, tcp{0, 0, 1, 80, 0, &udp}, none{0, 0, 4, 80, 0, nullptr};
    EXPECT_EQ(render(&udp) + render(&tcp), "53|udpfail");
    EXPECT_EQ(render(&none) + render(nullptr) + render(&udp, 0) + render(&udp, 8, 0), "failfailfailfail");
    EXPECT_EQ(KVLIBCErrGet(), 0x0D00u);
    Port tail{0, 0, 3, 443, 0, nullptr}, head{0, 0, 3, 80, 0, &tail};
    EXPECT_EQ(render(&head, 3) + render(&head, 6) + render(&head, 7, 7), "failfailfail");
    EXPECT_EQ(KVLIBCErrGet(), 0xBF00u);
    EXPECT_EQ(render(&head, 7, 8), "80,443|tcp,udp");  // exactly the texts and their terminators
    const std::string at = "[0x0D00 service_conf_ports_to_str.cpp:N]", to_str = "service_conf_ports_to_str.cpp:N ";
    const std::string small = to_str + "input array too small[0xBF00 service_conf_ports_to_str.cpp:N]";
    EXPECT_EQ(log_normalized(), (Strings{to_str + "Different protocol in port linked list" + at, small, small, small}));
}

}  // namespace
