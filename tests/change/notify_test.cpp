// Firewall tool, relay daemon and the "port_config" plug-in events.
#include <string>

#include "change/change_internal.h"
#include "change_test.h"

namespace kova::test {
namespace {

using Lines = std::vector<std::string>;

class NotifyTest : public ChangeTest {
protected:
    void SetUp() override {
        ChangeTest::SetUp();
        install_plugin_receiver();
        write("/tmp/old.sc", "[svc]\ndst.ports=\"80/tcp\"\n");
        write("/tmp/new.sc", "[svc]\ndst.ports=\"8080/tcp\"\n");
    }
    std::string fw_tool() const { return path("/usr/kova/bin/kovafirewall"); }
};

TEST_F(NotifyTest, FirewallToolWrappers) {
    install_firewall_tool();
    EXPECT_EQ(KOVAFwRuleHupWrap(), 0);
    EXPECT_EQ(KVLIBFwServRemoveRecWrap("svc"), 0);
    EXPECT_EQ(firewall_calls(), (Lines{"--reload", "--remove-serv-rec svc"}));
    EXPECT_TRUE(log().empty()) << ::testing::PrintToString(log());

    install_firewall_tool(3);
    EXPECT_EQ(KOVAFwRuleHupWrap(), -1);
    EXPECT_EQ(KVLIBFwServRemoveRecWrap("svc"), -1);
    EXPECT_EQ(log_normalized(),
              (Lines{"utils.cpp:N Failed to execute [" + fw_tool() + " --reload], ret:-1",
                     "utils.cpp:N Failed to execute [" + fw_tool() + " --remove-serv-rec svc], ret:-1"}));

    poison_error();
    EXPECT_EQ(KVLIBFwServRemoveRecWrap(nullptr), -1);
    EXPECT_EQ(KVLIBCErrGet(), 0x0D00u);
}

TEST_F(NotifyTest, RestartMask) {
    install_firewall_tool();
    auto daemon = start_relay_daemon();
    for (unsigned int mask : {0u, 32u, 0xFFFFFFFFu}) {
        poison_error();
        EXPECT_EQ(KVLIBServiceConfServRestart(mask), -1) << mask;
        EXPECT_EQ(KVLIBCErrGet(), 0x0D00u);
        EXPECT_STREQ(KVLIBCErrorGetFile(), "service_conf_serv_restart.cpp");
    }
    // 0x04..0x10 do nothing here.
    EXPECT_EQ(KVLIBServiceConfServRestart(0x1C), 0);
    EXPECT_TRUE(firewall_calls().empty());
    EXPECT_EQ(daemon->stop(), 0);

    daemon = start_relay_daemon();
    EXPECT_EQ(KVLIBServiceConfServRestart(0x02), 0);
    EXPECT_TRUE(firewall_calls().empty());
    EXPECT_EQ(daemon->stop(), 1);

    daemon = start_relay_daemon();
    EXPECT_EQ(KVLIBServiceConfServRestart(0x01), 0);
    EXPECT_EQ(firewall_calls(), Lines{"--reload"});
    EXPECT_EQ(daemon->stop(), 1);
    EXPECT_TRUE(log().empty()) << ::testing::PrintToString(log());
}

TEST_F(NotifyTest, FailedFirewallReloadStopsTheRestart) {
    install_firewall_tool(1);
    auto daemon = start_relay_daemon();
    EXPECT_EQ(KVLIBServiceConfServRestart(0x03), -1);
    EXPECT_EQ(daemon->stop(), 0);
    EXPECT_EQ(firewall_calls(), Lines{"--reload"});
}

TEST_F(NotifyTest, RestartWithoutRelayDaemon) {
    install_firewall_tool();
    EXPECT_EQ(KVLIBServiceConfServRestart(0x03), 0);
    write("/run/kovarelayd.pid", "999999999\n");
    EXPECT_EQ(KVLIBServiceConfServRestart(0x02), 0);
}

TEST_F(NotifyTest, UpdateNoticeCarriesBothContents) {
    auto daemon = start_relay_daemon();
    const std::string old_path = path("/tmp/old.sc");
    const std::string new_path = path("/tmp/new.sc");
    const KVLIB_SERVICE_CONF_UPDATE_NOTICE notice{old_path.c_str(), new_path.c_str(), 1, 1};
    EXPECT_EQ(KVLIBServiceConfUpdateServNotify(&notice), 0);
    EXPECT_EQ(daemon->stop(), 1);
    const auto events = plugin_events();
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0].name, "port_config/update");
    EXPECT_EQ(events[0].args,
              (std::map<std::string, std::string>{{"OLD_PORT_CONFIG_CONTENT", "[svc]\ndst.ports=\"80/tcp\"\n"},
                                                  {"NEW_PORT_CONFIG_CONTENT", "[svc]\ndst.ports=\"8080/tcp\"\n"},
                                                  {"NOTIFY_PF", "1"},
                                                  {"NOTIFY_FW", "1"}}));
    EXPECT_TRUE(log().empty()) << ::testing::PrintToString(log());
}

TEST_F(NotifyTest, ServNotifyIsTheUpdateNotice) {
    const std::string old_path = path("/tmp/old.sc");
    const std::string new_path = path("/tmp/new.sc");
    const KVLIB_SERVICE_CONF_UPDATE_NOTICE notice{old_path.c_str(), new_path.c_str(), 1, 0};
    EXPECT_EQ(KVLIBServiceConfServNotify(&notice), 0);
    const auto events = plugin_events();
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0].name, "port_config/update");
    EXPECT_EQ(events[0].args, (std::map<std::string, std::string>{{"NOTIFY_FW", "1"}}));
    EXPECT_EQ(KVLIBServiceConfServNotify(nullptr), -1);
    EXPECT_EQ(KVLIBCErrGet(), 0x0D00u);
}

TEST_F(NotifyTest, UpdateNoticeWithoutFlagsSendsABareEvent) {
    auto daemon = start_relay_daemon();
    const KVLIB_SERVICE_CONF_UPDATE_NOTICE notice{nullptr, nullptr, 0, 0};
    poison_error();
    EXPECT_EQ(KVLIBServiceConfUpdateServNotify(&notice), 0);
    EXPECT_EQ(daemon->stop(), 1);
    const auto events = plugin_events();
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0].name, "port_config/update");
    EXPECT_TRUE(events[0].args.empty());
    EXPECT_EQ(KVLIBCErrGet(), 0xEEEEu);
}

TEST_F(NotifyTest, UpdateNoticeWithMissingPathsSendsEmptyContents) {
    const std::string new_path = path("/tmp/new.sc");
    const KVLIB_SERVICE_CONF_UPDATE_NOTICE no_old{nullptr, new_path.c_str(), 0, 1};
    EXPECT_EQ(KVLIBServiceConfUpdateServNotify(&no_old), 0);
    EXPECT_EQ(KVLIBCErrGet(), 0x0D00u);
    EXPECT_STREQ(KVLIBCErrorGetFile(), "service_conf_serv_restart.cpp");
    EXPECT_EQ(log_normalized(),
              (Lines{"service_conf_serv_restart.cpp:N FAILED to notify portforward, old sc file is NULL",
                     "service_conf_serv_restart.cpp:N FAILED to set common arg for update"}));

    clear_log();
    const KVLIB_SERVICE_CONF_UPDATE_NOTICE no_new{new_path.c_str(), nullptr, 0, 1};
    EXPECT_EQ(KVLIBServiceConfUpdateServNotify(&no_new), 0);
    EXPECT_EQ(log_normalized(),
              (Lines{"service_conf_serv_restart.cpp:N FAILED to notify portforward, new sc file is NULL",
                     "service_conf_serv_restart.cpp:N FAILED to set common arg for update"}));

    clear_log();
    const std::string missing = path("/tmp/missing.sc");
    const KVLIB_SERVICE_CONF_UPDATE_NOTICE unreadable{new_path.c_str(), missing.c_str(), 0, 1};
    EXPECT_EQ(KVLIBServiceConfUpdateServNotify(&unreadable), 0);
    EXPECT_EQ(
        log_normalized(),
        (Lines{"service_conf_serv_restart.cpp:N FAILED to set content for NEW_PORT_CONFIG_CONTENTwith file=" + missing,
               "service_conf_serv_restart.cpp:N FAILED to set common arg for update"}));

    const auto events = plugin_events();
    ASSERT_EQ(events.size(), 3u);
    for (const auto &event : events) {
        EXPECT_EQ(event.args,
                  (std::map<std::string, std::string>{
                      {"OLD_PORT_CONFIG_CONTENT", ""}, {"NEW_PORT_CONFIG_CONTENT", ""}, {"NOTIFY_PF", "1"}}));
    }
    EXPECT_EQ(KVLIBServiceConfUpdateServNotify(nullptr), -1);
}

TEST_F(NotifyTest, RemoveNoticeAlwaysCarriesTheContent) {
    auto daemon = start_relay_daemon();
    write("/tmp/empty.sc", "");
    const std::string old_path = path("/tmp/old.sc");
    const std::string empty = path("/tmp/empty.sc");
    const KVLIB_SERVICE_CONF_REMOVE_NOTICE full{old_path.c_str(), 1, 1};
    const KVLIB_SERVICE_CONF_REMOVE_NOTICE bare{empty.c_str(), 0, 0};
    const KVLIB_SERVICE_CONF_REMOVE_NOTICE none{nullptr, 0, 1};
    EXPECT_EQ(KVLIBServiceConfRemoveServNotify(&full), 0);
    EXPECT_EQ(KVLIBServiceConfRemoveServNotify(&bare), 0);
    EXPECT_TRUE(log().empty()) << ::testing::PrintToString(log());
    EXPECT_EQ(KVLIBServiceConfRemoveServNotify(&none), 0);
    EXPECT_EQ(log_normalized(), Lines{"service_conf_serv_restart.cpp:N FAILED to set arg for PORT_CONFIG_CONTENT for "
                                      "removed service config notify"});
    EXPECT_EQ(daemon->stop(), 3);

    const auto events = plugin_events();
    ASSERT_EQ(events.size(), 3u);
    for (const auto &event : events) EXPECT_EQ(event.name, "port_config/remove");
    EXPECT_EQ(events[0].args,
              (std::map<std::string, std::string>{
                  {"PORT_CONFIG_CONTENT", "[svc]\ndst.ports=\"80/tcp\"\n"}, {"NOTIFY_PF", "1"}, {"NOTIFY_FW", "1"}}));
    EXPECT_EQ(events[1].args, (std::map<std::string, std::string>{{"PORT_CONFIG_CONTENT", ""}}));
    EXPECT_EQ(events[2].args, (std::map<std::string, std::string>{{"PORT_CONFIG_CONTENT", ""}, {"NOTIFY_PF", "1"}}));

    poison_error();
    EXPECT_EQ(KVLIBServiceConfRemoveServNotify(nullptr), -1);
    EXPECT_EQ(KVLIBCErrGet(), 0x0D00u);
}

TEST_F(NotifyTest, FailedDeliveryIsLoggedAndSkipsTheRelayDaemon) {
    // A receiver directory that cannot be read makes the delivery fail.
    remove_all("/usr/kova/etc/plugin.d/port_config");
    symlink("port_config", "/usr/kova/etc/plugin.d/port_config");
    auto daemon = start_relay_daemon();
    const std::string old_path = path("/tmp/old.sc");
    const KVLIB_SERVICE_CONF_UPDATE_NOTICE update{old_path.c_str(), old_path.c_str(), 1, 1};
    const KVLIB_SERVICE_CONF_REMOVE_NOTICE remove{old_path.c_str(), 1, 1};
    clear_log();
    EXPECT_EQ(KVLIBServiceConfUpdateServNotify(&update), 0);
    EXPECT_EQ(KVLIBServiceConfRemoveServNotify(&remove), 0);
    EXPECT_EQ(daemon->stop(), 0);
    Lines ours;
    for (const auto &line : log_normalized())
        if (line.rfind("service_conf_serv_restart.cpp:", 0) == 0) ours.push_back(line);
    EXPECT_EQ(ours, (Lines{"service_conf_serv_restart.cpp:N FAILED to invoke plugins",
                           "service_conf_serv_restart.cpp:N FAILED to invoke plugins"}));
}

TEST_F(NotifyTest, PluginArgSetFromFileReadsTheWholeFile) {
    std::string big;
    for (int i = 0; big.size() < 100000; ++i) big += "line " + std::to_string(i) + "\n";
    write("/tmp/big", big);
    KVLIB_PLUGIN *plugin = nullptr;
    ASSERT_EQ(KVLIBPluginSDKInit("port_config", "port_config/remove", &plugin), 0);
    EXPECT_EQ(PluginArgSetFromFile(plugin, "PORT_CONFIG_CONTENT", path("/tmp/big").c_str()), 0);
    EXPECT_EQ(PluginArgSetFromFile(plugin, "NOTIFY_PF", path("/tmp/missing").c_str()), -1);
    EXPECT_EQ(PluginArgSetFromFile(plugin, nullptr, path("/tmp/big").c_str()), -1);
    EXPECT_EQ(PluginArgSetFromFile(plugin, "NOTIFY_PF", nullptr), -1);
    EXPECT_TRUE(log().empty()) << ::testing::PrintToString(log());
    // A name the plug-in interface refuses.
    EXPECT_EQ(PluginArgSetFromFile(plugin, "A=B", path("/tmp/big").c_str()), -1);
    EXPECT_TRUE(logged("service_conf_serv_restart.cpp:N FAILED to set OLD_TMP_PORT_CONFIG"));
    ASSERT_GE(KVLIBPluginAction(5, plugin), 0);
    KVLIBPluginExit(plugin);
    const auto events = plugin_events();
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0].args, (std::map<std::string, std::string>{{"PORT_CONFIG_CONTENT", big}}));
}

}  // namespace
}  // namespace kova::test
