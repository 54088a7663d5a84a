// Removing installed .sc files.
#include <unistd.h>

#include <string>

#include "change_test.h"

namespace kova::test {
namespace {

using Lines = std::vector<std::string>;
using Args = std::map<std::string, std::string>;

class RemoveTest : public ChangeTest {
protected:
    void SetUp() override {
        ChangeTest::SetUp();
        install_plugin_receiver();
        write("/usr/local/etc/services.d/svc.sc", content);
        write("/usr/kova/etc/services.d/sys.sc", "[sys]\n");
    }
    const std::string content = sc_section("svc", "61001/tcp");
};

TEST_F(RemoveTest, RemoveDeletesTheFileAndSendsItsContent) {
    auto daemon = start_relay_daemon();
    // mode 2 asks for a restart; a removal restarts nothing all the same.
    install_firewall_tool();
    const auto req = request(2, 1, 3, 0x07, "svc.sc", "", 2);
    EXPECT_EQ(KOVAServiceConfRemove(&req), 0);
    EXPECT_FALSE(exists("/usr/local/etc/services.d/svc.sc"));
    EXPECT_TRUE(exists("/usr/kova/etc/services.d/sys.sc"));
    EXPECT_TRUE(firewall_calls().empty());
    EXPECT_EQ(daemon->stop(), 1);  // from the notification
    const auto events = plugin_events();
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0].name, "port_config/remove");
    EXPECT_EQ(events[0].args, (Args{{"PORT_CONFIG_CONTENT", content}, {"NOTIFY_PF", "1"}, {"NOTIFY_FW", "1"}}));
    EXPECT_TRUE(leftovers().empty());
    EXPECT_TRUE(log().empty()) << ::testing::PrintToString(log());
}

TEST_F(RemoveTest, ScopeDecidesTheNotice) {
    struct Case {
        uint32_t scope;
        Args args;
    };
    const Case cases[] = {
        {0x04, {{"PORT_CONFIG_CONTENT", ""}}},
        {0x05, {{"PORT_CONFIG_CONTENT", content}}},
        {0x06, {{"PORT_CONFIG_CONTENT", content}, {"NOTIFY_PF", "1"}, {"NOTIFY_FW", "1"}}},
        {0x0C, {{"PORT_CONFIG_CONTENT", ""}}},
    };
    for (const Case &c : cases) {
        remove_all("/calls");
        mkdir("/calls");
        write("/usr/local/etc/services.d/svc.sc", content);
        const auto req = request(1, 0, 3, c.scope, "svc.sc", "", 2);
        EXPECT_EQ(KVLIBServiceConfRemove(&req), 0) << c.scope;
        EXPECT_FALSE(exists("/usr/local/etc/services.d/svc.sc"));
        const auto events = plugin_events();
        ASSERT_EQ(events.size(), 1u) << c.scope;
        EXPECT_EQ(events[0].args, c.args) << c.scope;
    }
    EXPECT_TRUE(leftovers().empty());
    // Without a copy in the notice its content cannot be set.
    EXPECT_TRUE(
        logged("service_conf_serv_restart.cpp:N FAILED to set arg for PORT_CONFIG_CONTENT for removed service "
               "config notify"));
}

TEST_F(RemoveTest, RequestTest) {
    poison_error();
    EXPECT_EQ(KOVAServiceConfRemove(nullptr), -1);
    EXPECT_EQ(KVLIBCErrGet(), 0x0D00u);
    const KVLIB_SERVICE_CONF_REQUEST bad[] = {
        request(0, 1, 3, 0x07, "svc.sc", "", 2),    request(3, 1, 3, 0x07, "svc.sc", "", 2),
        request(2, 0x10, 3, 0x07, "svc.sc", "", 2), request(2, 0, 3, 0x07, "svc.sc", "", 2),
        request(1, 1, 1, 0x07, "svc.sc", "", 2),    request(1, 1, 3, 0x03, "svc.sc", "", 2),
        request(1, 1, 3, 0x10, "svc.sc", "", 2),    request(1, 1, 3, 0x07, "svc.sc", "", 3),
        request(1, 1, 3, 0x07, "svc.sc", "", 0),    request(1, 1, 3, 0x07, "", "", 2),
    };
    for (const auto &req : bad) {
        poison_error();
        EXPECT_EQ(KOVAServiceConfRemove(&req), -1);
        EXPECT_EQ(KVLIBCErrGet(), 0x0D00u);
        EXPECT_STREQ(KVLIBCErrorGetFile(), "service_conf_remove.cpp");
    }
    EXPECT_TRUE(exists("/usr/local/etc/services.d/svc.sc"));
    EXPECT_TRUE(plugin_events().empty());
    EXPECT_TRUE(log().empty()) << ::testing::PrintToString(log());

    // mode 1 takes any restart mask; bits above the two low ones of location are ignored.
    const auto accepted = request(1, 0, 3, 0x04, "svc.sc", "", 2 | 4);
    EXPECT_EQ(KOVAServiceConfRemove(&accepted), 0);
    EXPECT_FALSE(exists("/usr/local/etc/services.d/svc.sc"));
    const auto system = request(2, 0x08, 3, 0x04, "sys.sc", "", 1);
    EXPECT_EQ(KOVAServiceConfRemove(&system), 0);
    EXPECT_FALSE(exists("/usr/kova/etc/services.d/sys.sc"));
}

TEST_F(RemoveTest, NamesOutsideTheDirectoryAreRefused) {
    write("/usr/local/etc/victim", "keep\n");
    for (const char *name : {".", "..", "../victim", "../services.d/svc.sc", "/etc/kovainfo.conf"}) {
        poison_error();
        const auto req = request(1, 0, 3, 0x07, name, "", 2);
        EXPECT_EQ(KOVAServiceConfRemove(&req), -1) << name;
        EXPECT_EQ(KVLIBCErrGet(), 0x0D00u) << name;
        EXPECT_EQ(KOVAServiceConfRemoveBaseName(name, 2), -1) << name;
    }
    // A file name field without its terminating NUL.
    auto unterminated = request(1, 0, 3, 0x07, "svc.sc", "", 2);
    std::fill(std::begin(unterminated.fileName), std::end(unterminated.fileName), 'a');
    EXPECT_EQ(KOVAServiceConfRemove(&unterminated), -1);
    EXPECT_EQ(KVLIBCErrGet(), 0x0D00u);
    EXPECT_EQ(read("/usr/local/etc/victim"), "keep\n");
    EXPECT_TRUE(exists("/usr/local/etc/services.d/svc.sc"));
    EXPECT_TRUE(exists("/etc/kovainfo.conf"));
    EXPECT_TRUE(plugin_events().empty());
}

TEST_F(RemoveTest, RemoveBaseName) {
    EXPECT_EQ(KOVAServiceConfRemoveBaseName("svc.sc", 2), 0);
    EXPECT_FALSE(exists("/usr/local/etc/services.d/svc.sc"));
    const auto events = plugin_events();
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0].args, (Args{{"PORT_CONFIG_CONTENT", content}, {"NOTIFY_PF", "1"}, {"NOTIFY_FW", "1"}}));
    EXPECT_EQ(KVLIBServiceConfRemoveBaseName("sys.sc", 1), 0);
    EXPECT_FALSE(exists("/usr/kova/etc/services.d/sys.sc"));

    clear_log();
    EXPECT_EQ(KOVAServiceConfRemoveBaseName("svc.sc", 2), -1);
    EXPECT_EQ(KVLIBCErrGet(), 0x0700u);
    EXPECT_EQ(log_normalized(), Lines{"service_conf_remove.cpp:N remove configure file fail! file=svc.sc, "
                                      "error=[0x0700 service_conf_remove.cpp:N]"});
    clear_log();
    EXPECT_EQ(KVLIBServiceConfRemoveBaseName(nullptr, 2), -1);
    EXPECT_EQ(KVLIBCErrGet(), 0x0D00u);
    EXPECT_EQ(log_normalized(), Lines{"service_conf_remove.cpp:N remove configure file fail! file=, "
                                      "error=[0x0D00 service_conf_remove.cpp:N]"});
}

TEST_F(RemoveTest, LongNamesAreCutTo255Characters) {
    const std::string name(255, 'n');
    write("/usr/local/etc/services.d/" + name, "[n]\n");
    EXPECT_EQ(KOVAServiceConfRemoveBaseName((name + "tail-that-is-cut").c_str(), 2), 0);
    EXPECT_FALSE(exists("/usr/local/etc/services.d/" + name));
    // The copy's name would be too long: the removal goes on and notifies without content.
    const auto events = plugin_events();
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0].args, (Args{{"PORT_CONFIG_CONTENT", ""}, {"NOTIFY_PF", "1"}, {"NOTIFY_FW", "1"}}));
    EXPECT_TRUE(leftovers().empty());
}

TEST_F(RemoveTest, PlantedLinkAtTheCopyIsNotFollowed) {
    write("/outside/victim", "precious\n");
    const std::string copy = "/tmp/servicetool.remove.svc.sc." + std::to_string(::getpid());
    symlink(path("/outside/victim"), copy);
    const auto req = request(1, 0, 3, 0x07, "svc.sc", "", 2);
    EXPECT_EQ(KOVAServiceConfRemove(&req), 0);
    EXPECT_EQ(read("/outside/victim"), "precious\n");
    EXPECT_FALSE(exists(copy));
    const auto events = plugin_events();
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0].args.at("PORT_CONFIG_CONTENT"), content);
}

TEST_F(RemoveTest, FailedDeletionKeepsTheFile) {
    // A directory by that name cannot be unlinked.
    mkdir("/usr/local/etc/services.d/dir.sc");
    const auto dir = request(1, 0, 3, 0x07, "dir.sc", "", 2);
    poison_error();
    EXPECT_EQ(KOVAServiceConfRemove(&dir), -1);
    EXPECT_TRUE(logged("service_conf_remove.cpp:N remove file " + path("/usr/local/etc/services.d/dir.sc") +
                       " fail![0xEEEE poison:7]"))
        << ::testing::PrintToString(log());
    EXPECT_TRUE(exists("/usr/local/etc/services.d/dir.sc"));
    EXPECT_TRUE(plugin_events().empty());
    EXPECT_TRUE(leftovers().empty());
}

}  // namespace
}  // namespace kova::test
