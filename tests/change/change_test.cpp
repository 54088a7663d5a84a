// Installing, updating and removing .sc files and their sections, editing sections and port
// lists in place, and telling the firewall, the router tool, the relay daemon and the
// "port_config" plug-ins about it.
#include <sys/stat.h>

#include <cstdio>

#include "change_test.h"

namespace kova::test {
namespace {

class InstallTest : public ChangeTest {
protected:
    void SetUp() override {
        ChangeTest::SetUp();
        write("/usr/kova/etc/services.d/other.sc", sc("other", "61005/tcp"));
        write("/usr/local/etc/services.d/svc.sc", sc("svc", "61000/tcp"));
        write("/pkg/svc.sc", sc("svc", "61001/tcp"));
        src = path("/pkg/svc.sc");
        dir = path("/usr/local/etc/services.d/");
    }
    std::string installed() const { return read("/usr/local/etc/services.d/svc.sc"); }
    std::string src, dir;
};

TEST_F(InstallTest, InstallFailures) {
    const std::string missing = path("/pkg/missing.sc"), sub = path("/pkg/dir.sc");
    EXPECT_EQ(outcome(KOVAServiceConfInstall(missing.c_str(), 2)), "-1 0x0700");
    write("/pkg/bad.sc", "[svc]\ntitle=t\n");  // the check fails; the install goes on
    EXPECT_EQ(KOVAServiceConfInstall(path("/pkg/bad.sc").c_str(), 2), 0);
    EXPECT_TRUE(exists("/usr/local/etc/services.d/bad.sc"));
    fs::remove_all(path("/usr/local/etc"));
    write("/usr/local/etc", "not a directory");
    EXPECT_EQ(outcome(KOVAServiceConfInstall(src.c_str(), 2)), "-1 0x3C00");
    mkdir("/pkg/dir.sc");
    EXPECT_EQ(outcome(KOVAServiceConfInstall(sub.c_str(), 1)), "-1 0x3B00");
    EXPECT_EQ(log_of("utils.cpp"),
              (Lines{"utils.cpp:N Source configure file does not exist (" + missing +
                         ")[0x0700 service_conf_file_verify.cpp:N]",
                     "utils.cpp:N check " + path("/pkg/bad.sc") + " conf file port conflict failed=-1",
                     "utils.cpp:N mkdir fail for path " + path("/usr/local/etc/services.d") + "[0x3C00 utils.cpp:N]",
                     "utils.cpp:N install configure file fail! from=" + sub +
                         " to=" + path("/usr/kova/etc/services.d/dir.sc") + "[0x3B00 utils.cpp:N]"}));
}

// Names that reach outside the directory, reach cp as an option or split a log line.
TEST_F(InstallTest, HostileNamesAreRefused) {
    write("/usr/local/etc/victim", "keep\n");
    for (const char *name : {"", ".", "..", "../victim", "a/b", "/etc/kovainfo.conf", "-rf", "a\nb.sc", "a\x7f"}) {
        SCOPED_TRACE(name);
        EXPECT_EQ(KOVAServiceConfInstallBaseName(name, src.c_str(), 2, nullptr), -1);
        EXPECT_EQ(KOVAServiceConfUpdateBaseName(name, src.c_str(), 2, nullptr), -1);
        EXPECT_EQ(KOVAServiceConfRemoveBaseName(name, 2), -1);
        const auto req = request(1, 0, 3, 0x07, name, "", 2);
        poison_error();
        EXPECT_EQ(outcome(KOVAServiceConfRemove(&req)), "-1 0x0D00");
    }
    EXPECT_EQ(KOVAServiceConfInstall("/", 2), -1);
    for (const char *source : {"--version", "-x/svc.sc"}) {
        poison_error();
        EXPECT_EQ(outcome(KOVAServiceConfInstall(source, 2)), "-1 0x0D00");
    }
    write("/pkg/line\nbreak.sc", sc("svc", "61001/tcp"));
    EXPECT_EQ(KOVAServiceConfInstallBaseName("svc.sc", path("/pkg/line\nbreak.sc").c_str(), 2, nullptr), -1);
    EXPECT_EQ(KOVAServiceConfUpdateBaseName("svc.sc", "-f", 2, nullptr), -1);
    EXPECT_EQ(read("/usr/local/etc/victim") + installed(), "keep\n" + sc("svc", "61000/tcp"));
    EXPECT_TRUE(events().empty());
    for (const std::string &line : log()) EXPECT_TRUE(line.starts_with("service_conf_")) << line;  // never split
}

TEST_F(InstallTest, UpdateKeepsTheOldCopySafe) {
    write("/outside/victim", "precious\n");
    symlink(path("/outside/victim"), "/tmp/servicetool.update.svc.sc.old");
    EXPECT_EQ(KOVAServiceConfUpdateBaseName("svc.sc", src.c_str(), 2, nullptr), 0);
    EXPECT_EQ(installed(), sc("svc", "61001/tcp"));
    EXPECT_EQ(read("/outside/victim"), "precious\n");
    EXPECT_EQ(events().at(0).second.at("OLD_PORT_CONFIG_CONTENT"), sc("svc", "61000/tcp"));
    EXPECT_TRUE(leftovers().empty());
    write("/pkg/svc.sc", sc("svc", "61005/tcp"));
    EXPECT_EQ(KOVAServiceConfUpdateBaseName("svc.sc", src.c_str(), 2, nullptr), 1);
    EXPECT_EQ(KOVAServiceConfUpdateBaseName("none.sc", src.c_str(), 2, nullptr), -1);
    EXPECT_EQ(
        log_of("service_conf_update.cpp"),
        (Lines{"service_conf_update.cpp:N " + src + " conf file port conflict with existed conf file setting=svc.sc",
               "service_conf_update.cpp:N FAILED due to installed conf file=" + dir + "none.sc not exist",
               "service_conf_update.cpp:N FAILED to install .sc"}));
    EXPECT_EQ(events().size() + leftovers().size(), 2u);
}

// Steps that succeed may still leave an error state: replacing an installed file clears it, an
// update event without an old file notes a bad parameter and is sent all the same.
TEST_F(InstallTest, StatesThatSuccessesLeave) {
    poison_error();
    EXPECT_EQ(KOVAServiceConfInstall(src.c_str(), 2), 0);
    EXPECT_EQ(normalize(std::to_string(KVLIBCErrGet()) + " " + KVLIBCErrorGetFile() + ":" +
                        std::to_string(KVLIBCErrorGetLine())),
              "0 utils.cpp:N");
    KVLIB_SERVICE_CONF_UPDATE_NOTICE notice{nullptr, src.c_str(), 1, 1};
    poison_error();
    EXPECT_EQ(KVLIBServiceConfUpdateServNotify(&notice), 0);
    EXPECT_EQ(KVLIBCErrGet(), 0x0D00u);
    EXPECT_STREQ(KVLIBCErrorGetFile(), "service_conf_serv_restart.cpp");
    ASSERT_EQ(events().size(), 1u);
    EXPECT_EQ(
        events()[0].second,
        (Args{
            {"NEW_PORT_CONFIG_CONTENT", ""}, {"NOTIFY_FW", "1"}, {"NOTIFY_PF", "1"}, {"OLD_PORT_CONFIG_CONTENT", ""}}));
}

TEST_F(InstallTest, RemoveSendsTheContentAsTheScopeSays) {
    const std::string content = sc("svc", "61000/tcp") + std::string(60000, '#') + "\n";  // read whole
    const struct {
        uint32_t mode, scope;
        Args args;
    } cases[] = {
        {2, 0x07, {{"PORT_CONFIG_CONTENT", content}, {"NOTIFY_PF", "1"}, {"NOTIFY_FW", "1"}}},
        {1, 0x05, {{"PORT_CONFIG_CONTENT", content}}},
        {1, 0x0C, {{"PORT_CONFIG_CONTENT", ""}}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.scope);
        fs::remove_all(path("/calls"));
        mkdir("/calls");
        write("/usr/local/etc/services.d/svc.sc", content);
        auto daemon = relay_daemon();
        const auto req = request(c.mode, 1, 3, c.scope, "svc.sc", "", 2);
        EXPECT_EQ(KOVAServiceConfRemove(&req), 0);
        EXPECT_FALSE(exists("/usr/local/etc/services.d/svc.sc"));
        EXPECT_EQ(daemon->stop(), 1);  // from the notice; a removal restarts nothing
        EXPECT_EQ(events(), (Events{{"port_config/remove", c.args}}));
        EXPECT_TRUE(leftovers().empty());
    }
    EXPECT_EQ(log_normalized(), Lines{"service_conf_serv_restart.cpp:N FAILED to set arg for PORT_CONFIG_CONTENT for "
                                      "removed service config notify"});
    EXPECT_TRUE(calls("firewall").empty());
}

TEST_F(InstallTest, RemoveRequestsAndFailures) {
    for (const auto &bad : {request(2, 0x10, 3, 7, "svc.sc", "", 2), request(1, 1, 3, 3, "svc.sc", "", 2)}) {
        poison_error();
        EXPECT_EQ(outcome(KOVAServiceConfRemove(&bad)), "-1 0x0D00");
    }
    write("/outside/victim", "precious\n");
    symlink(path("/outside/victim"), "/tmp/servicetool.remove.svc.sc." + std::to_string(::getpid()));
    EXPECT_EQ(KOVAServiceConfRemoveBaseName("svc.sc", 2 | 4), 0);
    EXPECT_EQ(read("/outside/victim"), "precious\n");
    EXPECT_EQ(events().at(0).second.at("PORT_CONFIG_CONTENT"), sc("svc", "61000/tcp"));
    EXPECT_EQ(outcome(KVLIBServiceConfRemoveBaseName("svc.sc", 2)), "-1 0x0700");
    mkdir("/usr/local/etc/services.d/dir.sc");  // a directory cannot be unlinked
    poison_error();
    EXPECT_EQ(KVLIBServiceConfRemoveBaseName("dir.sc", 2), -1);
    EXPECT_EQ(log_normalized(),
              (Lines{"service_conf_remove.cpp:N remove configure file fail! file=svc.sc, error=[0x0700 "
                     "service_conf_remove.cpp:N]",
                     "service_conf_remove.cpp:N remove file " + dir + "dir.sc fail![0xEEEE poison:7]",
                     "service_conf_remove.cpp:N remove configure file fail! file=dir.sc, error=[0xEEEE poison:7]"}));
    EXPECT_EQ(events().size(), 1u);
}

class SectionRemoveTest : public ChangeTest {
protected:
    void SetUp() override {
        ChangeTest::SetUp();
        write("/usr/local/etc/services.d/app.sc", original);
        write("/usr/kova/etc/services.d/sys.sc", "[sys]\n");
        write("/usr/kova/etc/firewall.d/rules", "rules\n");
        write("/etc/portforward/rule.conf", "[r]\n");
    }
    // The firewall tool changes firewall.d and the rule file when it drops a record, and fails on `option`.
    void firewall_failing_on(const std::string &option) const {
        firewall_tool(0, "[ \"$1\" = --remove-serv-rec ] && echo x > " + path("/usr/kova/etc/firewall.d/rules") +
                             " && echo x > " + path("/etc/portforward/rule.conf") + "\n[ \"$1\" = " + option +
                             " ] && exit 1");
    }
    void expect_unchanged() const {
        EXPECT_EQ(read("/usr/local/etc/services.d/app.sc"), original);
        EXPECT_EQ(read("/usr/kova/etc/firewall.d/rules") + read("/etc/portforward/rule.conf"), "rules\n[r]\n");
        EXPECT_TRUE(leftovers().empty()) << testing::PrintToString(leftovers());
    }
    const std::string original = "[global]\nversion=2\n\n[app]\ndst.ports=\"1/tcp\"\n\n[web]\ndst.ports=\"2/tcp\"\n";
    const std::string section_log = "service_conf_section_remove.cpp:N ";
};

TEST_F(SectionRemoveTest, RemovesTheSectionAndAFileLeftWithoutService) {
    const auto req = request(2, 1, 3, 0x05, "app.sc", "app", 2);
    EXPECT_EQ(KVLIBServiceConfSectionRemove(&req), 0);
    EXPECT_EQ(read("/usr/local/etc/services.d/app.sc"), "[global]\nversion=2\n\n\n[web]\ndst.ports=\"2/tcp\"\n");
    EXPECT_EQ(calls("firewall"), (Lines{"--remove-serv-rec app", "--reload"}));
    EXPECT_TRUE(leftovers().empty());
    const auto web = request(1, 0, 3, 0x04, "app.sc", "web", 2 | 8);  // only "global" is left
    EXPECT_EQ(KVLIBServiceConfSectionRemove(&web), 0);
    EXPECT_FALSE(exists("/usr/local/etc/services.d/app.sc"));
    // A section whose name differs from the removed one only after a NUL byte stays, and so does its file.
    write("/usr/local/etc/services.d/nul.sc", std::string("[global]\n[app]\nk=v\n[app\0x]\n", 27));
    const auto nul = request(1, 0, 3, 0x04, "nul.sc", "app", 2);
    EXPECT_EQ(KVLIBServiceConfSectionRemove(&nul), 0);
    EXPECT_EQ(read("/usr/local/etc/services.d/nul.sc"), std::string("[global]\n[app\0x]\n", 17));
    poison_error();
    const auto missing = request(1, 0, 3, 0x04, "sys.sc", "nosuch", 1);
    EXPECT_EQ(KVLIBServiceConfSectionRemove(&missing), 0);
    EXPECT_EQ(KVLIBServiceConfSectionRemove(&web), 0);  // no file: nothing to do
    EXPECT_EQ(log_normalized(), (Lines{section_log + "Section (nosuch) not found![0xEEEE poison:7]",
                                       section_log + "Configure file (" + path("/usr/local/etc/services.d/app.sc") +
                                           ") does not exist![0xEEEE poison:7]"}));
}

TEST_F(SectionRemoveTest, FailingFirewallToolRollsBack) {
    auto daemon = relay_daemon();
    const std::string stale = "/usr/local/etc/services.d.tmp." + std::to_string(::getpid()) + "/stale.sc";
    write(stale, "");  // a stale copy is replaced, never copied into
    const auto req = request(2, 1, 3, 0x07, "app.sc", "app", 2);
    firewall_failing_on("--remove-serv-rec");
    EXPECT_EQ(KVLIBServiceConfSectionRemove(&req), -1);
    EXPECT_EQ(log_of("utils.cpp"),
              Lines{"utils.cpp:N Failed to execute [" + path(kFw) + " --remove-serv-rec app], ret:-1"});
    EXPECT_EQ(log_of("service_conf_section_remove.cpp", true),
              Lines{section_log + "Remove service record in firewall rule fail!"});
    expect_unchanged();  // the tool's changes are undone too
    EXPECT_FALSE(exists("/usr/local/etc/services.d/stale.sc") || exists("/usr/local/etc/services.d/services.d"));
    EXPECT_EQ(calls("firewall"), Lines{"--remove-serv-rec app"});
    // A failed restart: restored, and restarted once more.
    firewall_failing_on("--reload");
    fs::remove(path("/calls/firewall"));
    clear_log();
    EXPECT_EQ(KVLIBServiceConfSectionRemove(&req), -1);
    expect_unchanged();
    EXPECT_EQ(calls("firewall"), (Lines{"--remove-serv-rec app", "--reload", "--reload"}));
    EXPECT_EQ(log_of("service_conf_section_remove.cpp", true), Lines(2, section_log + "Restart service fail"));
    EXPECT_EQ(log_of("utils.cpp"), Lines(2, "utils.cpp:N Failed to execute [" + path(kFw) + " --reload], ret:-1"));
    EXPECT_EQ(daemon->stop(), 0);  // no reload, no relay daemon
}

TEST_F(SectionRemoveTest, BadRequestsAndAFailedBackupChangeNothing) {
    for (const auto &bad : {request(2, 0x10, 3, 5, "app.sc", "app", 2), request(1, 0, 3, 1, "app.sc", "app", 2),
                            request(1, 0, 3, 5, "app.sc", "", 2), request(1, 0, 3, 5, "../x/app.sc", "app", 2)}) {
        poison_error();
        EXPECT_EQ(outcome(KVLIBServiceConfSectionRemove(&bad)), "-1 0x0D00");
    }
    EXPECT_EQ(KVLIBServiceConfServRestart(32), -1);
    // The package tree is copied, then firewall.d (a FIFO) fails: no copy stays.
    fs::remove_all(path("/usr/kova/etc/firewall.d"));
    ASSERT_EQ(::mkfifo(path("/usr/kova/etc/firewall.d").c_str(), 0600), 0);
    const auto req = request(1, 0, 3, 0x07, "app.sc", "app", 2);
    EXPECT_EQ(outcome(KVLIBServiceConfSectionRemove(&req)), "-1 0x0600");
    EXPECT_EQ(log_normalized(), (Lines{"service_conf_common.cpp:N Source path is not valid (src path: " +
                                           path("/usr/kova/etc/firewall.d") + ")[0x0600 service_conf_common.cpp:N]",
                                       section_log + "Backup configure fail![0x0600 service_conf_common.cpp:N]"}));
    EXPECT_EQ(read("/usr/local/etc/services.d/app.sc"), original);
    EXPECT_TRUE(calls("firewall").empty());
    EXPECT_TRUE(leftovers().empty());
}

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
    EXPECT_EQ(outcome(KVLIBServiceConfSectionSet(&req, &section)), "-1 0x0D00");
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
        EXPECT_EQ(outcome(KVLIBServiceConfPortsSet(&bad, &dst)), "-1 0x0D00");
    }
    EXPECT_EQ(KOVAServiceConfSectionPortSet(2, "app.sc", "app\rx", &dst), -1);
    auto too_big = port(1, KOVA_PROTO_TCP, 61001, 70000), after = port(1, KOVA_PROTO_TCP, 70000, 0, nullptr);
    dst.next = &after;
    for (const KOVA_SERVICE_CONF_PORT *ports : {&too_big, &dst}) {
        section.dstPort = const_cast<KOVA_SERVICE_CONF_PORT *>(ports);
        poison_error();
        EXPECT_EQ(KOVAServiceConfSectionPortSet(2, "app.sc", "app", ports), -1);
        EXPECT_EQ(KVLIBServiceConfPortsSet(&req, ports), -1);
        EXPECT_EQ(outcome(KVLIBServiceConfSectionSet(&req, &section)), "-1 0x0D00");
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
    EXPECT_EQ(outcome(KOVAServiceConfSectionPortSet(2, "../services.d/app.sc", "app", &dst)), "-1 0x0D00");
    EXPECT_EQ(log_normalized(),
              Lines{"service_conf_section_port_set.cpp:N Service conf does not exist, kovaerr=[0x0700 "
                    "service_conf_file_verify.cpp:N]"});
    EXPECT_EQ(calls("firewall"), (Lines{"--reload", "--reload"}));
}

}  // namespace
}  // namespace kova::test
