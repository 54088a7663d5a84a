// In-place edits of sections and port lists.
#include <string>

#include "change_test.h"

namespace kova::test {
namespace {

using Lines = std::vector<std::string>;

KOVA_SERVICE_CONF_PORT port(uint32_t direction, uint32_t protocol, uint32_t begin, uint32_t end = 0,
                            KOVA_SERVICE_CONF_PORT *next = nullptr) {
    KOVA_SERVICE_CONF_PORT p{};
    p.direction = direction;
    p.type = end != 0 ? 1 : 0;
    p.protocol = protocol;
    p.beginPort = begin;
    p.endPort = end;
    p.next = next;
    return p;
}

class EditTest : public ChangeTest {
protected:
    void SetUp() override {
        ChangeTest::SetUp();
        install_firewall_tool();
        install_router_tool();
        write("/usr/kova/etc/services.d/other.sc", sc_section("other", "61005/tcp"));
        write("/usr/local/etc/services.d/app.sc", original);
        dst = port(1, KOVA_PROTO_TCP, 61001);
        std::snprintf(section.name, sizeof section.name, "app");
        std::snprintf(section.title.text, sizeof section.title.text, "New title");
        std::snprintf(section.desc.text, sizeof section.desc.text, "New desc");
        section.dstPort = &dst;
    }
    std::string app() const { return path("/usr/local/etc/services.d/app.sc"); }

    const std::string original =
        "[global]\nversion=2\n\n"
        "# the application\n[app]\ntitle=\"Old\"\ntitle_key=\"app:title\"\ndesc=\"Old desc\"\n"
        "desc_extra=\"extra\"\nsrc.ports=\"1000/tcp\"\ndst.ports=\"61000/tcp\"\n\n"
        "[second]\ntitle=\"S\"\ndesc=\"S\"\ndst.ports=\"61002/udp\"\n";
    KOVA_SERVICE_CONF_PORT dst{};
    KOVA_SERVICE_CONF_SECTION section{};
};

TEST_F(EditTest, SectionSetRewritesTheSectionAndTellsTheRouter) {
    auto daemon = start_relay_daemon();
    const auto req = request(2, 1, 1, 0x06, "app.sc", "app", 2);
    EXPECT_EQ(KVLIBServiceConfSectionSet(&req, &section), 0);
    // Keys the record lacks (title_key, desc_extra, src.ports) keep their values.
    EXPECT_EQ(read("/usr/local/etc/services.d/app.sc"),
              "[global]\nversion=2\n\n"
              "# the application\n[app]\ntitle=\"New title\"\ntitle_key=app:title\ndesc=\"New desc\"\n"
              "desc_extra=extra\nsrc.ports=1000/tcp\ndst.ports=\"61001/tcp\"\nport_forward=\"no\"\n\n"
              "[second]\ntitle=\"S\"\ndesc=\"S\"\ndst.ports=\"61002/udp\"\n");
    EXPECT_EQ(router_calls(), Lines{"--update " + path("/tmp/app.sc") + " " + app()});
    EXPECT_EQ(router_old_content(), original);
    EXPECT_EQ(firewall_calls(), Lines{"--reload"});
    EXPECT_EQ(daemon->stop(), 1);
    EXPECT_TRUE(leftovers().empty());
    EXPECT_TRUE(log().empty()) << ::testing::PrintToString(log());
}

TEST_F(EditTest, SectionSetAddsASectionToANewFileWithAllKeys) {
    auto src = port(0, KOVA_PROTO_UDP, 7000, 7010);
    auto second = port(1, KOVA_PROTO_TCP, 61003, 0);
    dst.next = &second;
    section.srcPort = &src;
    section.portForward = 1;
    std::snprintf(section.title.section, sizeof section.title.section, "tree");
    std::snprintf(section.title.key, sizeof section.title.key, "leaf");
    std::snprintf(section.desc.prefix, sizeof section.desc.prefix, "pkg");
    std::snprintf(section.desc.section, sizeof section.desc.section, "app");
    std::snprintf(section.desc.key, sizeof section.desc.key, "desc");
    const auto req = request(1, 1, 1, 0x04, "new.sc", "fresh", 1);
    EXPECT_EQ(KVLIBServiceConfSectionSet(&req, &section), 0);
    // The section is written under the record's name.
    EXPECT_EQ(read("/usr/kova/etc/services.d/new.sc"),
              "[app]\nport_forward=\"yes\"\ndesc=\"New desc\"\ndesc_key=\"pkg:app:desc\"\ntitle=\"New title\"\n"
              "title_key=\"tree:leaf\"\ndst.ports=\"61001,61003/tcp\"\nsrc.ports=\"7000:7010/udp\"\n");
    EXPECT_TRUE(router_calls().empty());
    EXPECT_TRUE(firewall_calls().empty());
    EXPECT_TRUE(leftovers().empty());
}

TEST_F(EditTest, ConflictLeavesEverythingAsItWas) {
    dst = port(1, KOVA_PROTO_TCP, 61005);
    const auto req = request(2, 1, 1, 0x06, "app.sc", "app", 2);
    EXPECT_EQ(KVLIBServiceConfSectionSet(&req, &section), -1);
    const auto ports = request(2, 1, 1, 0x06, "app.sc", "app", 2);
    EXPECT_EQ(KVLIBServiceConfPortsSet(&ports, &dst), -1);
    Lines ours;
    for (const auto &line : log_normalized())
        if (line.find("Port conflict with existing ports!") != std::string::npos) ours.push_back(line);
    ASSERT_EQ(ours.size(), 2u);
    EXPECT_EQ(ours[0].rfind("service_conf_section_set.cpp:N Port conflict with existing ports! (port: 61005/tcp)[", 0),
              0u);
    EXPECT_EQ(ours[1].rfind("service_conf_ports_set.cpp:N Port conflict with existing ports! (port: 61005/tcp)[", 0),
              0u);
    EXPECT_EQ(read("/usr/local/etc/services.d/app.sc"), original);
    EXPECT_TRUE(router_calls().empty());
    EXPECT_TRUE(firewall_calls().empty());
    // A file that would have been created is not.
    const auto fresh = request(1, 1, 1, 0x04, "fresh.sc", "app", 2);
    EXPECT_EQ(KVLIBServiceConfSectionSet(&fresh, &section), -1);
    EXPECT_FALSE(exists("/usr/local/etc/services.d/fresh.sc"));
    // The section's own ports do not count against it.
    dst = port(1, KOVA_PROTO_TCP, 61005);
    const auto own = request(1, 1, 1, 0x04, "other.sc", "other", 1);
    EXPECT_EQ(KVLIBServiceConfSectionSet(&own, &section), 0);
    EXPECT_TRUE(leftovers().empty());
}

TEST_F(EditTest, LineBreaksCannotInjectKeys) {
    const auto req = request(1, 1, 1, 0x06, "app.sc", "app", 2);
    std::snprintf(section.title.text, sizeof section.title.text, "T\nport_forward=yes");
    EXPECT_EQ(KVLIBServiceConfSectionSet(&req, &section), -1);
    EXPECT_EQ(KVLIBCErrGet(), 0x0D00u);
    EXPECT_TRUE(logged("service_conf_section_set.cpp:N Failed to write section(app) into " + app() +
                       "[0x0D00 section_write.cpp:N]"))
        << ::testing::PrintToString(log());
    EXPECT_EQ(read("/usr/local/etc/services.d/app.sc"), original);

    std::snprintf(section.title.text, sizeof section.title.text, "T");
    std::snprintf(section.desc.text, sizeof section.desc.text, "D\r[evil]");
    EXPECT_EQ(KVLIBServiceConfSectionSet(&req, &section), -1);
    EXPECT_EQ(read("/usr/local/etc/services.d/app.sc"), original);

    std::snprintf(section.desc.text, sizeof section.desc.text, "D");
    std::snprintf(section.desc.section, sizeof section.desc.section, "a\nb");
    std::snprintf(section.desc.key, sizeof section.desc.key, "k");
    EXPECT_EQ(KVLIBServiceConfSectionSet(&req, &section), -1);
    EXPECT_EQ(read("/usr/local/etc/services.d/app.sc"), original);

    // A new file made for the section is removed again.
    const auto fresh = request(1, 1, 1, 0x04, "fresh.sc", "app", 2);
    EXPECT_EQ(KVLIBServiceConfSectionSet(&fresh, &section), -1);
    EXPECT_FALSE(exists("/usr/local/etc/services.d/fresh.sc"));

    // Section names with line breaks are refused before anything runs.
    std::snprintf(section.desc.section, sizeof section.desc.section, "a");
    std::snprintf(section.name, sizeof section.name, "app]\nport_forward=yes\n[x");
    EXPECT_EQ(KVLIBServiceConfSectionSet(&req, &section), -1);
    EXPECT_EQ(KVLIBCErrGet(), 0x0D00u);
    std::snprintf(section.name, sizeof section.name, "app");
    const auto bad_section = request(1, 1, 1, 0x06, "app.sc", "app\nx", 2);
    EXPECT_EQ(KVLIBServiceConfSectionSet(&bad_section, &section), -1);
    EXPECT_EQ(KVLIBServiceConfPortsSet(&bad_section, &dst), -1);
    EXPECT_EQ(KOVAServiceConfSectionPortSet(2, "app.sc", "app\nx", &dst), -1);
    EXPECT_EQ(read("/usr/local/etc/services.d/app.sc"), original);
    EXPECT_TRUE(router_calls().empty());
    EXPECT_TRUE(leftovers().empty());
}

TEST_F(EditTest, ActionTwoWritesNothingButKeepsACreatedFile) {
    const auto req = request(1, 1, 2, 0x04, "empty.sc", "app", 2);
    EXPECT_EQ(KVLIBServiceConfSectionSet(&req, &section), 0);
    EXPECT_TRUE(exists("/usr/local/etc/services.d/empty.sc"));
    EXPECT_EQ(read("/usr/local/etc/services.d/empty.sc"), "");
    const auto existing = request(1, 1, 3, 0x04, "app.sc", "app", 2);
    EXPECT_EQ(KVLIBServiceConfSectionSet(&existing, &section), 0);
    EXPECT_EQ(read("/usr/local/etc/services.d/app.sc"), original);
}

TEST_F(EditTest, ReservedCheckOnlyTouchesNoFile) {
    auto daemon = start_relay_daemon();
    const auto req = request(2, 2, 1, 0x08, "none.sc", "app", 2);
    EXPECT_EQ(KVLIBServiceConfSectionSet(&req, &section), 0);
    EXPECT_FALSE(exists("/usr/local/etc/services.d/none.sc"));
    EXPECT_TRUE(firewall_calls().empty());
    EXPECT_EQ(daemon->stop(), 1);
    // A reserved port collides.
    dst = port(1, KOVA_PROTO_TCP, 514);
    EXPECT_EQ(KVLIBServiceConfSectionSet(&req, &section), -1);
}

TEST_F(EditTest, RequestAndSectionTests) {
    const KVLIB_SERVICE_CONF_REQUEST bad[] = {
        request(0, 1, 1, 4, "app.sc", "app", 2),    request(1, 0, 1, 4, "app.sc", "app", 2),
        request(1, 32, 1, 4, "app.sc", "app", 2),   request(1, 1, 0, 4, "app.sc", "app", 2),
        request(1, 1, 4, 4, "app.sc", "app", 2),    request(1, 1, 1, 0, "app.sc", "app", 2),
        request(1, 1, 1, 32, "app.sc", "app", 2),   request(1, 1, 1, 4, "app.sc", "app", 0),
        request(1, 1, 1, 4, "app.sc", "app", 4),    request(1, 1, 1, 4, "", "app", 2),
        request(1, 1, 1, 4, "app.sc", "", 2),       request(1, 1, 1, 4, "..", "app", 2),
        request(1, 1, 1, 4, "../app.sc", "app", 2),
    };
    for (const auto &req : bad) {
        poison_error();
        EXPECT_EQ(KVLIBServiceConfSectionSet(&req, &section), -1);
        EXPECT_EQ(KVLIBCErrGet(), 0x0D00u);
        EXPECT_STREQ(KVLIBCErrorGetFile(), "service_conf_section_set.cpp");
        poison_error();
        EXPECT_EQ(KVLIBServiceConfPortsSet(&req, &dst), -1);
        EXPECT_EQ(KVLIBCErrGet(), 0x0D00u);
        EXPECT_STREQ(KVLIBCErrorGetFile(), "service_conf_ports_set.cpp");
    }
    const auto req = request(1, 1, 1, 4, "app.sc", "app", 2);
    EXPECT_EQ(KVLIBServiceConfSectionSet(nullptr, &section), -1);
    EXPECT_EQ(KVLIBServiceConfSectionSet(&req, nullptr), -1);
    EXPECT_EQ(KVLIBServiceConfPortsSet(&req, nullptr), -1);
    auto no_title = section;
    no_title.title.text[0] = '\0';
    auto no_desc = section;
    no_desc.desc.text[0] = '\0';
    auto no_dst = section;
    no_dst.dstPort = nullptr;
    auto no_name = section;
    no_name.name[0] = '\0';
    auto unterminated = section;
    std::fill(std::begin(unterminated.title.text), std::end(unterminated.title.text), 'x');
    for (const auto *s : {&no_title, &no_desc, &no_dst, &no_name}) {
        poison_error();
        EXPECT_EQ(KVLIBServiceConfSectionSet(&req, s), -1);
        EXPECT_EQ(KVLIBCErrGet(), 0x0D00u);
    }
    EXPECT_EQ(read("/usr/local/etc/services.d/app.sc"), original);
    // An unterminated text field is read up to its end, never past it.
    EXPECT_EQ(KVLIBServiceConfSectionSet(&req, &unterminated), 0);
    EXPECT_NE(read("/usr/local/etc/services.d/app.sc").find("title=\"" + std::string(128, 'x') + "\""),
              std::string::npos);
    EXPECT_TRUE(log().empty()) << ::testing::PrintToString(log());
}

TEST_F(EditTest, PortsSetWritesTheBareList) {
    auto daemon = start_relay_daemon();
    auto second = port(1, KOVA_PROTO_BOTH, 61011, 61020);
    dst = port(1, KOVA_PROTO_BOTH, 61010, 0, &second);
    const auto req = request(2, 2, 3, 0x06, "app.sc", "app", 2);
    EXPECT_EQ(KVLIBServiceConfPortsSet(&req, &dst), 0);
    auto src = port(0, KOVA_PROTO_TCP, 2000);
    const auto src_req = request(1, 1, 1, 0x04, "app.sc", "second", 2);
    EXPECT_EQ(KVLIBServiceConfPortsSet(&src_req, &src), 0);
    EXPECT_EQ(read("/usr/local/etc/services.d/app.sc"),
              "[global]\nversion=2\n\n"
              "# the application\n[app]\ntitle=\"Old\"\ntitle_key=\"app:title\"\ndesc=\"Old desc\"\n"
              "desc_extra=\"extra\"\nsrc.ports=\"1000/tcp\"\ndst.ports=61010,61011:61020/tcp,udp\n\n"
              "[second]\ntitle=\"S\"\ndesc=\"S\"\ndst.ports=\"61002/udp\"\nsrc.ports=2000/tcp\n");
    EXPECT_EQ(router_calls(), Lines{"--update " + path("/tmp/app.sc") + " " + app()});
    EXPECT_EQ(router_old_content(), original);
    EXPECT_TRUE(firewall_calls().empty());
    EXPECT_EQ(daemon->stop(), 1);
    EXPECT_TRUE(leftovers().empty());
    EXPECT_TRUE(log().empty()) << ::testing::PrintToString(log());
}

TEST_F(EditTest, PortsSetNeverCreatesAFileOrSection) {
    const auto missing_section = request(1, 1, 1, 0x04, "app.sc", "nosuch", 2);
    EXPECT_EQ(KVLIBServiceConfPortsSet(&missing_section, &dst), -1);
    EXPECT_EQ(log_normalized(), Lines{"service_conf_ports_set.cpp:N Section not found or failed to get section(nosuch) "
                                      "from " +
                                      app()});
    clear_log();
    poison_error();
    const auto missing_file = request(1, 1, 1, 0x04, "none.sc", "app", 2);
    EXPECT_EQ(KVLIBServiceConfPortsSet(&missing_file, &dst), -1);
    EXPECT_EQ(log_normalized(),
              Lines{"service_conf_ports_set.cpp:N Configure file (" + path("/usr/local/etc/services.d/none.sc") +
                    ") does not exist![0xEEEE poison:7]"});
    EXPECT_FALSE(exists("/usr/local/etc/services.d/none.sc"));
    EXPECT_EQ(read("/usr/local/etc/services.d/app.sc"), original);
}

TEST_F(EditTest, RouterAndRestartFailuresAreOnlyLogged) {
    install_router_tool(2);
    install_firewall_tool(1);
    const auto req = request(2, 1, 1, 0x06, "app.sc", "app", 2);
    EXPECT_EQ(KVLIBServiceConfPortsSet(&req, &dst), 0);
    EXPECT_EQ(KVLIBServiceConfSectionSet(&req, &section), 0);
    const std::string tool = path("/usr/kova/sbin/kovaroutertool");
    const std::string fw = path("/usr/kova/bin/kovafirewall");
    const std::string router_line = tool + " --udpate " + path("/tmp/app.sc") + " " + app() + " failed![";
    const auto lines = log_normalized();
    ASSERT_EQ(lines.size(), 6u) << ::testing::PrintToString(lines);
    EXPECT_EQ(lines[0].rfind("service_conf_ports_set.cpp:N " + router_line, 0), 0u);
    EXPECT_EQ(lines[1], "utils.cpp:N Failed to execute [" + fw + " --reload], ret:-1");
    EXPECT_EQ(lines[2].rfind("service_conf_ports_set.cpp:N Restart service fail[", 0), 0u);
    EXPECT_EQ(lines[3].rfind("service_conf_section_set.cpp:N " + router_line, 0), 0u);
    EXPECT_EQ(lines[5].rfind("service_conf_section_set.cpp:N Restart service fail[", 0), 0u);
    EXPECT_NE(read("/usr/local/etc/services.d/app.sc").find("dst.ports=\"61001/tcp\""), std::string::npos);
}

TEST_F(EditTest, PlantedLinkAtTheRouterCopyIsNotFollowed) {
    write("/outside/victim", "precious\n");
    symlink(path("/outside/victim"), "/tmp/app.sc");
    const auto req = request(1, 1, 1, 0x06, "app.sc", "app", 2);
    EXPECT_EQ(KVLIBServiceConfSectionSet(&req, &section), 0);
    EXPECT_EQ(read("/outside/victim"), "precious\n");
    EXPECT_EQ(router_old_content(), original);
    symlink(path("/outside/victim"), "/tmp/app.sc");
    EXPECT_EQ(KVLIBServiceConfPortsSet(&req, &dst), 0);
    EXPECT_EQ(read("/outside/victim"), "precious\n");
    EXPECT_FALSE(exists("/tmp/app.sc"));
}

TEST_F(EditTest, SectionPortSetWritesWithoutCheckAndReloads) {
    auto second = port(1, KOVA_PROTO_BOTH, 22, 21);
    dst = port(1, KOVA_PROTO_BOTH, 61005, 0, &second);
    EXPECT_EQ(KOVAServiceConfSectionPortSet(2, "app.sc", "app", &dst), 0);
    EXPECT_NE(read("/usr/local/etc/services.d/app.sc").find("dst.ports=61005,22:21/tcp,udp\n"), std::string::npos);
    EXPECT_EQ(firewall_calls(), Lines{"--reload"});
    // Protocol 0 writes no protocol part; location 0 and 7 mean the package directory.
    auto src = port(0, 0, 3000);
    EXPECT_EQ(KOVAServiceConfSectionPortSet(0, "app.sc", "second", &src), 0);
    EXPECT_EQ(KOVAServiceConfSectionPortSet(7, "app.sc", "second", &src), 0);
    EXPECT_NE(read("/usr/local/etc/services.d/app.sc").find("src.ports=3000\n"), std::string::npos);
    EXPECT_EQ(KOVAServiceConfSectionPortSet(1, "other.sc", "other", &src), 0);
    EXPECT_NE(read("/usr/kova/etc/services.d/other.sc").find("src.ports=3000\n"), std::string::npos);
    EXPECT_TRUE(log().empty()) << ::testing::PrintToString(log());
}

TEST_F(EditTest, SectionPortSetFailures) {
    // 512 characters or more are refused, without a code of their own.
    std::vector<KOVA_SERVICE_CONF_PORT> many(90);
    for (size_t i = 0; i < many.size(); ++i)
        many[i] =
            port(1, KOVA_PROTO_TCP, 60000 + static_cast<uint32_t>(i), 0, i + 1 < many.size() ? &many[i + 1] : nullptr);
    poison_error();
    EXPECT_EQ(KOVAServiceConfSectionPortSet(2, "app.sc", "app", many.data()), -1);
    EXPECT_EQ(read("/usr/local/etc/services.d/app.sc"), original);
    EXPECT_EQ(KVLIBCErrGet(), 0xC000u);  // from the verifier, as for every existing file
    // 85 entries: "60000," ... "60084/tcp" is 6 * 85 - 1 + 4 = 513 characters; 84 make 507.
    many[83].next = nullptr;
    EXPECT_EQ(KOVAServiceConfSectionPortSet(2, "app.sc", "app", many.data()), 0);

    EXPECT_EQ(KOVAServiceConfSectionPortSet(2, "none.sc", "app", &dst), -1);
    EXPECT_EQ(log_normalized(),
              Lines{"service_conf_section_port_set.cpp:N Service conf does not exist, kovaerr=[0x0700 "
                    "service_conf_file_verify.cpp:N]"});
    EXPECT_FALSE(exists("/usr/local/etc/services.d/none.sc"));
    for (const char *name : {"", ".", "..", "../services.d/app.sc"}) {
        poison_error();
        EXPECT_EQ(KOVAServiceConfSectionPortSet(2, name, "app", &dst), -1) << name;
        EXPECT_EQ(KVLIBCErrGet(), 0x0D00u);
    }
    EXPECT_EQ(KOVAServiceConfSectionPortSet(2, nullptr, "app", &dst), -1);
    EXPECT_EQ(KOVAServiceConfSectionPortSet(2, "app.sc", nullptr, &dst), -1);
    EXPECT_EQ(KOVAServiceConfSectionPortSet(2, "app.sc", "app", nullptr), -1);

    install_firewall_tool(1);
    EXPECT_EQ(KOVAServiceConfSectionPortSet(2, "app.sc", "app", &dst), -1);
    EXPECT_NE(read("/usr/local/etc/services.d/app.sc").find("dst.ports=61001/tcp\n"), std::string::npos);
}

}  // namespace
}  // namespace kova::test
