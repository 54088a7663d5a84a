// In-place edits of sections and port lists.
#include <cstdio>

#include "change_test.h"

namespace kova::test {
namespace {

#define SET(field, text) std::snprintf(field, sizeof field, "%s", text)

class EditTest : public ChangeTest {
protected:
    void SetUp() override {
        ChangeTest::SetUp();
        write("/usr/kova/etc/services.d/other.sc", sc("other", "61005/tcp"));
        write("/usr/local/etc/services.d/app.sc", original);
        SET(section.name, "app");
        SET(section.title.text, "T2");
        SET(section.desc.text, "D2");
        section.dstPort = &dst;
        app = path("/usr/local/etc/services.d/app.sc");
        update = Lines{"--update " + path("/tmp/app.sc") + " " + app};
    }
    std::string text() const { return read("/usr/local/etc/services.d/app.sc"); }
    const std::string original =
        "[global]\nv=2\n\n# the app\n[app]\ntitle=\"T\"\ntitle_key=\"a:t\"\ndesc=\"D\"\nsrc.ports=\"1000/tcp\"\n"
        "dst.ports=\"61000/tcp\"\n\n[b]\ntitle=\"T\"\ndesc=\"D\"\ndst.ports=\"2/udp\"\n";
    std::string app;
    Lines update;  // the router tool's call
    KOVA_SERVICE_CONF_PORT dst = port(1, KOVA_PROTO_TCP, 61001);
    KOVA_SERVICE_CONF_SECTION section{};
};

TEST_F(EditTest, SectionSetRewritesTheSectionAndTellsTheRouter) {
    auto daemon = relay_daemon();
    const auto req = request(2, 1, 1, 0x06, "app.sc", "app", 2);
    EXPECT_EQ(KVLIBServiceConfSectionSet(&req, &section), 0);
    EXPECT_EQ(text(),
              "[global]\nv=2\n\n# the app\n[app]\ntitle=\"T2\"\ntitle_key=a:t\ndesc=\"D2\"\nsrc.ports=1000/tcp\n"
              "dst.ports=\"61001/tcp\"\nport_forward=\"no\"\n\n[b]\ntitle=\"T\"\ndesc=\"D\"\ndst.ports=\"2/udp\"\n");
    EXPECT_EQ(calls("router"), update);
    EXPECT_EQ(read("/calls/router.old"), original);
    EXPECT_EQ(calls("firewall"), Lines{"--reload"});
    EXPECT_EQ(daemon->stop(), 1);
    EXPECT_TRUE(log().empty()) << testing::PrintToString(log());
    // A new file gets every key, in order, under the record's name.
    auto src = port(0, KOVA_PROTO_UDP, 7000, 7010), second = port(1, KOVA_PROTO_TCP, 61003);
    dst = port(1, KOVA_PROTO_TCP, 61031, 0, &second);
    section.srcPort = &src;
    section.portForward = 1;
    SET(section.title.section, "tree");
    SET(section.title.key, "leaf");
    SET(section.desc.prefix, "pkg");
    SET(section.desc.section, "app");
    SET(section.desc.key, "desc");
    const auto fresh = request(1, 1, 1, 0x04, "new.sc", "fresh", 1);
    EXPECT_EQ(KVLIBServiceConfSectionSet(&fresh, &section), 0);
    EXPECT_EQ(read("/usr/kova/etc/services.d/new.sc"),
              "[app]\nport_forward=\"yes\"\ndesc=\"D2\"\ndesc_key=\"pkg:app:desc\"\ntitle=\"T2\"\n"
              "title_key=\"tree:leaf\"\ndst.ports=\"61031,61003/tcp\"\nsrc.ports=\"7000:7010/udp\"\n");
}

TEST_F(EditTest, PortsSetWritesTheBareListIntoAnExistingSection) {
    auto daemon = relay_daemon();
    auto second = port(1, KOVA_PROTO_BOTH, 61011, 61020), src = port(0, KOVA_PROTO_TCP, 2000);
    dst = port(1, KOVA_PROTO_BOTH, 61010, 0, &second);
    const auto req = request(2, 2, 3, 0x06, "app.sc", "app", 2), other = request(1, 1, 1, 4, "app.sc", "b", 2);
    EXPECT_EQ(KVLIBServiceConfPortsSet(&req, &dst), 0);
    EXPECT_EQ(KVLIBServiceConfPortsSet(&other, &src), 0);
    std::string expected = original + "src.ports=2000/tcp\n";
    EXPECT_EQ(text(), expected.replace(expected.find("\"61000/tcp\""), 11, "61010,61011:61020/tcp,udp"));
    EXPECT_EQ(calls("router"), update);
    EXPECT_TRUE(calls("firewall").empty());
    EXPECT_EQ(daemon->stop(), 1);
    const auto nosec = request(1, 1, 1, 4, "app.sc", "nosuch", 2), nofile = request(1, 1, 1, 4, "no.sc", "app", 2);
    poison_error();
    EXPECT_EQ(KVLIBServiceConfPortsSet(&nosec, &src), -1);
    EXPECT_EQ(KVLIBServiceConfPortsSet(&nofile, &src), -1);
    const std::string module = "service_conf_ports_set.cpp:N ";
    EXPECT_EQ(log_normalized(), (Lines{module + "Section not found or failed to get section(nosuch) from " + app,
                                       module + "Configure file (" + path("/usr/local/etc/services.d/no.sc") +
                                           ") does not exist![0xEEEE poison:7]"}));
    EXPECT_FALSE(exists("/usr/local/etc/services.d/no.sc"));
}

TEST_F(EditTest, ConflictsLineBreaksAndBadRequestsChangeNothing) {
    const auto req = request(1, 1, 1, 0x06, "app.sc", "app", 2), fresh = request(1, 1, 1, 0x04, "fresh.sc", "app", 2);
    dst = port(1, KOVA_PROTO_TCP, 61005);
    EXPECT_EQ(KVLIBServiceConfSectionSet(&fresh, &section), -1);  // a file made for it goes again
    EXPECT_EQ(KVLIBServiceConfPortsSet(&req, &dst), -1);
    const std::string line = ".cpp:N Port conflict with existing ports! (port: 61005/tcp)";
    EXPECT_EQ(log_of("service_conf_section_set.cpp", true), Lines{"service_conf_section_set" + line});
    EXPECT_EQ(log_of("service_conf_ports_set.cpp", true), Lines{"service_conf_ports_set" + line});
    dst = port(1, KOVA_PROTO_TCP, 61001);
    clear_log();
    SET(section.title.text, "T\nport_forward=yes");
    EXPECT_EQ(KVLIBServiceConfSectionSet(&req, &section), -1);
    EXPECT_EQ(KVLIBCErrGet(), 0x0D00u);
    EXPECT_EQ(
        log_of("service_conf_section_set.cpp")[0],
        "service_conf_section_set.cpp:N Failed to write section(app) into " + app + "[0x0D00 section_write.cpp:N]");
    SET(section.title.text, "T");
    SET(section.desc.text, "D\r[evil]");
    EXPECT_EQ(KVLIBServiceConfSectionSet(&fresh, &section), -1);
    SET(section.name, "app]\nport_forward=yes\n[x");  // refused before anything runs
    EXPECT_EQ(KVLIBServiceConfSectionSet(&req, &section), -1);
    EXPECT_STREQ(KVLIBCErrorGetFile(), "service_conf_section_set.cpp");
    for (const auto &bad :
         {request(1, 1, 1, 6, "app.sc", "app\nx", 2), request(0, 1, 1, 4, "app.sc", "app", 2),
          request(1, 32, 1, 4, "app.sc", "app", 2), request(1, 1, 4, 4, "app.sc", "app", 2),
          request(1, 1, 1, 32, "app.sc", "app", 2), request(1, 1, 1, 4, "../local/app.sc", "app", 2)}) {
        poison_error();
        EXPECT_EQ(KVLIBServiceConfPortsSet(&bad, &dst), -1);
        EXPECT_EQ(KVLIBCErrGet(), 0x0D00u);
    }
    EXPECT_EQ(KOVAServiceConfSectionPortSet(2, "app.sc", "app\rx", &dst), -1);
    auto too_big = port(1, KOVA_PROTO_TCP, 61001, 70000), after = port(1, KOVA_PROTO_TCP, 70000, 0, nullptr);
    dst.next = &after;
    for (const KOVA_SERVICE_CONF_PORT *ports : {&too_big, &dst}) {
        section.dstPort = const_cast<KOVA_SERVICE_CONF_PORT *>(ports);
        poison_error();
        EXPECT_EQ(KOVAServiceConfSectionPortSet(2, "app.sc", "app", ports), -1);
        EXPECT_EQ(KVLIBServiceConfPortsSet(&req, ports), -1);
        EXPECT_EQ(KVLIBServiceConfSectionSet(&req, &section), -1);
        EXPECT_EQ(KVLIBCErrGet(), 0x0D00u);
    }
    EXPECT_EQ(KOVAServiceConfSectionPortSet(2, "-app.sc", "app", &dst), -1);
    EXPECT_FALSE(exists("/usr/local/etc/services.d/fresh.sc"));
    EXPECT_EQ(text(), original);
    EXPECT_EQ(calls("router").size() + calls("firewall").size() + leftovers().size(), 0u);
}

TEST_F(EditTest, PlantedLinkIsNotFollowedAndToolFailuresAreOnlyLogged) {
    router_tool(2);
    firewall_tool(1);
    write("/outside/victim", "precious\n");
    symlink(path("/outside/victim"), "/tmp/app.sc");
    std::fill(std::begin(section.title.text), std::end(section.title.text), 'x');  // read to its end only
    const auto req = request(2, 1, 1, 0x06, "app.sc", "app", 2);
    EXPECT_EQ(KVLIBServiceConfSectionSet(&req, &section), 0);
    EXPECT_EQ(read("/outside/victim"), "precious\n");
    EXPECT_EQ(read("/calls/router.old"), original);
    EXPECT_NE(text().find("title=\"" + std::string(128, 'x') + "\"\n"), std::string::npos);
    EXPECT_EQ(log_of("service_conf_section_set.cpp", true),
              (Lines{"service_conf_section_set.cpp:N " + path("/usr/kova/sbin/kovaroutertool") + " --udpate " +
                         path("/tmp/app.sc") + " " + app + " failed!",
                     "service_conf_section_set.cpp:N Restart service fail"}));
    symlink(path("/outside/victim"), "/tmp/app.sc");
    EXPECT_EQ(KVLIBServiceConfPortsSet(&req, &dst), 0);
    EXPECT_EQ(read("/outside/victim"), "precious\n");
    EXPECT_EQ(calls("router"), Lines(2, update[0]));
    EXPECT_TRUE(leftovers().empty());
}

TEST_F(EditTest, SectionPortSetWritesWithoutCheckAndReloads) {
    auto second = port(1, KOVA_PROTO_BOTH, 22, 21);
    dst = port(1, KOVA_PROTO_BOTH, 61005, 0, &second);
    EXPECT_EQ(KOVAServiceConfSectionPortSet(2, "app.sc", "app", &dst), 0);
    EXPECT_NE(text().find("dst.ports=61005,22:21/tcp,udp\n"), std::string::npos);
    std::vector<KOVA_SERVICE_CONF_PORT> many(85);  // 85 entries make 513 characters, 84 make 507
    for (uint32_t i = 0; i < 85; ++i) many[i] = port(1, KOVA_PROTO_TCP, 60000 + i, 0, i < 84 ? &many[i + 1] : nullptr);
    EXPECT_EQ(KOVAServiceConfSectionPortSet(2, "app.sc", "app", many.data()), -1);
    many[83].next = nullptr;
    EXPECT_EQ(KOVAServiceConfSectionPortSet(2, "app.sc", "app", many.data()), 0);
    EXPECT_EQ(KOVAServiceConfSectionPortSet(2, "none.sc", "app", &dst), -1);
    EXPECT_EQ(KOVAServiceConfSectionPortSet(2, "../services.d/app.sc", "app", &dst), -1);
    EXPECT_EQ(KVLIBCErrGet(), 0x0D00u);
    EXPECT_EQ(log_normalized(),
              Lines{"service_conf_section_port_set.cpp:N Service conf does not exist, kovaerr=[0x0700 "
                    "service_conf_file_verify.cpp:N]"});
    EXPECT_EQ(calls("firewall"), (Lines{"--reload", "--reload"}));
}

}  // namespace
}  // namespace kova::test
