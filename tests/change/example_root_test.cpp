// Install, update and section removal on a copy of the example system in examples/root.
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "change_test.h"

namespace fs = std::filesystem;

namespace kova::test {
namespace {

using Lines = std::vector<std::string>;

class ExampleRootTest : public ChangeTest {
protected:
    void SetUp() override {
        ChangeTest::SetUp();
        fs::copy(std::string(KOVA_SOURCE_DIR) + "/examples/root", root(),
                 fs::copy_options::recursive | fs::copy_options::overwrite_existing);
        install_firewall_tool();
        install_router_tool();
        install_plugin_receiver();
    }
    std::string example(const std::string &rel) const {
        std::ifstream in(std::string(KOVA_SOURCE_DIR) + "/examples/root" + rel);
        std::stringstream ss;
        ss << in.rdbuf();
        return ss.str();
    }
};

TEST_F(ExampleRootTest, InstallNewPackages) {
    const std::string chat = "[global]\nversion=\"2\"\n\n" + sc_section("chat", "6000/tcp");
    write("/pkg/chat.sc", chat);
    EXPECT_EQ(KOVAServiceConfInstall(path("/pkg/chat.sc").c_str(), 2), 0);
    EXPECT_EQ(read("/usr/local/etc/services.d/chat.sc"), chat);

    // 8005 lies in the download manager's range 8000 to 8010.
    write("/pkg/torrent.sc", sc_section("torrent", "8005/tcp"));
    KOVA_SERVICE_CONF_PORT *conflicts = nullptr;
    EXPECT_EQ(KOVAServiceConfInstallBaseName("torrent.sc", path("/pkg/torrent.sc").c_str(), 2, &conflicts), 1);
    ASSERT_NE(conflicts, nullptr);
    EXPECT_EQ(conflicts->beginPort, 8005u);
    EXPECT_EQ(conflicts->endPort, 8005u);
    KOVAServiceConfPortsFree(conflicts);
    EXPECT_TRUE(exists("/usr/local/etc/services.d/torrent.sc"));
    EXPECT_TRUE(
        logged("utils.cpp:N " + path("/pkg/torrent.sc") + " conf file port conflict with existed conf file setting"));
    EXPECT_TRUE(plugin_events().empty());
    EXPECT_TRUE(leftovers().empty());
}

TEST_F(ExampleRootTest, UpdateSendsTheOldAndNewContent) {
    auto daemon = start_relay_daemon();
    const std::string next = "[global]\nversion=\"3\"\n\n" + sc_section("photo_gallery", "8500,8443/tcp");
    write("/pkg/photo_gallery.sc", next);
    KOVA_SERVICE_CONF_PORT *conflicts = nullptr;
    EXPECT_EQ(KOVAServiceConfUpdateBaseName("photo_gallery.sc", path("/pkg/photo_gallery.sc").c_str(), 2, &conflicts),
              0);
    EXPECT_EQ(conflicts, nullptr);
    EXPECT_EQ(read("/usr/local/etc/services.d/photo_gallery.sc"), next);
    EXPECT_EQ(daemon->stop(), 1);
    const auto events = plugin_events();
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0].name, "port_config/update");
    EXPECT_EQ(events[0].args, (std::map<std::string, std::string>{
                                  {"OLD_PORT_CONFIG_CONTENT", example("/usr/local/etc/services.d/photo_gallery.sc")},
                                  {"NEW_PORT_CONFIG_CONTENT", next},
                                  {"NOTIFY_PF", "1"},
                                  {"NOTIFY_FW", "1"}}));
    EXPECT_TRUE(leftovers().empty());
}

TEST_F(ExampleRootTest, SectionRemoval) {
    const auto admin = request(2, 1, 3, 0x05, "web_frontend.sc", "web_admin", 1);
    EXPECT_EQ(KVLIBServiceConfSectionRemove(&admin), 0);
    const std::string left = read("/usr/kova/etc/services.d/web_frontend.sc");
    EXPECT_EQ(left.find("[web_admin]"), std::string::npos);
    EXPECT_NE(left.find("[web_frontend]\ntitle_key="), std::string::npos);
    EXPECT_NE(left.find("dst.ports=\"80,443/tcp\""), std::string::npos);
    EXPECT_EQ(firewall_calls(), (Lines{"--remove-serv-rec web_admin", "--reload"}));

    // The only section of a file without [global]: the file goes.
    const auto cams = request(1, 0, 3, 0x04, "surveillance.sc", "surveillance", 2);
    EXPECT_EQ(KVLIBServiceConfSectionRemove(&cams), 0);
    EXPECT_FALSE(exists("/usr/local/etc/services.d/surveillance.sc"));
    EXPECT_EQ(read("/usr/local/etc/services.d/media_server.sc"), example("/usr/local/etc/services.d/media_server.sc"));
    EXPECT_TRUE(leftovers().empty());
    EXPECT_TRUE(log().empty()) << ::testing::PrintToString(log());
}

TEST_F(ExampleRootTest, SectionEditAgainstTheCatalogue) {
    // 873 is the network backup's port: refused.
    KOVA_SERVICE_CONF_PORT dst{1, 0, KOVA_PROTO_TCP, 873, 0, nullptr};
    const auto req = request(1, 1, 1, 0x06, "media_server.sc", "media_server", 2);
    EXPECT_EQ(KVLIBServiceConfPortsSet(&req, &dst), -1);
    EXPECT_EQ(read("/usr/local/etc/services.d/media_server.sc"), example("/usr/local/etc/services.d/media_server.sc"));
    dst.beginPort = 50003;
    EXPECT_EQ(KVLIBServiceConfPortsSet(&req, &dst), 0);
    EXPECT_NE(read("/usr/local/etc/services.d/media_server.sc").find("dst.ports=50003/tcp\n"), std::string::npos);
    EXPECT_EQ(router_calls(), Lines{"--update " + path("/tmp/media_server.sc") + " " +
                                    path("/usr/local/etc/services.d/media_server.sc")});
    EXPECT_EQ(router_old_content(), example("/usr/local/etc/services.d/media_server.sc"));
    EXPECT_TRUE(leftovers().empty());
}

}  // namespace
}  // namespace kova::test
