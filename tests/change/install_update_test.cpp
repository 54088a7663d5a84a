// Installing and updating .sc files.
#include <string>

#include "change_test.h"

namespace kova::test {
namespace {

using Lines = std::vector<std::string>;

class InstallTest : public ChangeTest {
protected:
    void SetUp() override {
        ChangeTest::SetUp();
        install_plugin_receiver();
        write("/usr/kova/etc/services.d/other.sc", sc_section("other", "61005/tcp"));
        write("/pkg/svc.sc", sc_section("svc", "61001/tcp"));
    }
    std::string src() const { return path("/pkg/svc.sc"); }
    std::string pkg_dir() const { return path("/usr/local/etc/services.d"); }
    Lines our_log(const std::string &module) const {
        Lines lines;
        for (const auto &line : log_normalized())
            if (line.rfind(module + ":", 0) == 0) lines.push_back(line);
        return lines;
    }
};

TEST_F(InstallTest, InstallCreatesTheDirectoryAndCopiesTheFile) {
    ASSERT_FALSE(exists("/usr/local/etc/services.d"));
    EXPECT_EQ(KOVAServiceConfInstall(src().c_str(), 2), 0);
    EXPECT_EQ(read("/usr/local/etc/services.d/svc.sc"), sc_section("svc", "61001/tcp"));
    EXPECT_TRUE(log().empty()) << ::testing::PrintToString(log());
    // A plain install sends nothing.
    EXPECT_TRUE(plugin_events().empty());
    EXPECT_TRUE(leftovers().empty());
}

TEST_F(InstallTest, InstallOverAnInstalledFileClearsTheVerifierCode) {
    write("/usr/local/etc/services.d/svc.sc", "old\n");
    poison_error();
    EXPECT_EQ(KOVAServiceConfInstall(src().c_str(), 2), 0);
    EXPECT_EQ(read("/usr/local/etc/services.d/svc.sc"), sc_section("svc", "61001/tcp"));
    EXPECT_EQ(KVLIBCErrGet(), 0u);
    EXPECT_STREQ(KVLIBCErrorGetFile(), "utils.cpp");
}

TEST_F(InstallTest, ConflictInstallsAndHandsBackThePorts) {
    write("/pkg/svc.sc", sc_section("svc", "61005/tcp"));
    KOVA_SERVICE_CONF_PORT *conflicts = nullptr;
    EXPECT_EQ(KOVAServiceConfInstallBaseName("renamed.sc", src().c_str(), 1, &conflicts), 1);
    EXPECT_EQ(read("/usr/kova/etc/services.d/renamed.sc"), sc_section("svc", "61005/tcp"));
    ASSERT_NE(conflicts, nullptr);
    EXPECT_EQ(conflicts->beginPort, 61005u);
    EXPECT_EQ(conflicts->endPort, 61005u);
    EXPECT_EQ(conflicts->next, nullptr);
    KOVAServiceConfPortsFree(conflicts);
    EXPECT_EQ(our_log("utils.cpp"),
              Lines{"utils.cpp:N " + src() + " conf file port conflict with existed conf file setting"})
        << ::testing::PrintToString(log());

    // Without a conflict list the verdict is the same.
    EXPECT_EQ(ServiceConfInstall("third.sc", src().c_str(), 1, nullptr), 1);
    EXPECT_EQ(KOVAServiceConfInstall(src().c_str(), 1), 1);
    EXPECT_TRUE(exists("/usr/kova/etc/services.d/svc.sc"));
}

TEST_F(InstallTest, FailedConflictCheckDoesNotStopTheInstall) {
    // A service section without "dst.ports" makes the file check fail.
    write("/pkg/svc.sc", "[svc]\ntitle=t\ndesc=d\n");
    EXPECT_EQ(KOVAServiceConfInstall(src().c_str(), 2), 0);
    EXPECT_TRUE(exists("/usr/local/etc/services.d/svc.sc"));
    EXPECT_EQ(our_log("utils.cpp"), Lines{"utils.cpp:N check " + src() + " conf file port conflict failed=-1"});
}

TEST_F(InstallTest, MissingSourceAndBadArguments) {
    const std::string missing = path("/pkg/missing.sc");
    EXPECT_EQ(KOVAServiceConfInstall(missing.c_str(), 2), -1);
    EXPECT_EQ(KVLIBCErrGet(), 0x0700u);
    EXPECT_EQ(log_normalized(), Lines{"utils.cpp:N Source configure file does not exist (" + missing +
                                      ")[0x0700 service_conf_file_verify.cpp:N]"});
    clear_log();
    for (unsigned int location : {0u, 3u, 4u}) {
        poison_error();
        EXPECT_EQ(KOVAServiceConfInstall(src().c_str(), location), -1);
        EXPECT_EQ(KVLIBCErrGet(), 0x0D00u);
    }
    poison_error();
    EXPECT_EQ(KOVAServiceConfInstall(nullptr, 2), -1);
    EXPECT_EQ(KVLIBCErrGet(), 0x0D00u);
    EXPECT_EQ(ServiceConfInstall("x.sc", nullptr, 2, nullptr), -1);
    EXPECT_TRUE(log().empty()) << ::testing::PrintToString(log());
    EXPECT_FALSE(exists("/usr/local/etc/services.d"));
    EXPECT_FALSE(exists("/usr/kova/etc/services.d/svc.sc"));
}

TEST_F(InstallTest, BaseNamesThatLeaveTheDirectoryAreRefused) {
    write("/usr/local/etc/victim", "keep\n");
    for (const char *name : {"", ".", "..", "../victim", "a/b", "/abs"}) {
        poison_error();
        EXPECT_EQ(KOVAServiceConfInstallBaseName(name, src().c_str(), 2, nullptr), -1) << name;
        EXPECT_EQ(KVLIBCErrGet(), 0x0D00u) << name;
        KVLIB_SERVICE_CONF_UPDATE_NOTICE notice{};
        EXPECT_EQ(KOVAServiceConfUpdateBaseNameWithoutNotify(name, src().c_str(), 2, nullptr, &notice), -1) << name;
        EXPECT_EQ(KOVAServiceConfUpdateBaseName(name, src().c_str(), 2, nullptr), -1) << name;
    }
    EXPECT_EQ(KOVAServiceConfInstallBaseName(nullptr, src().c_str(), 2, nullptr), -1);
    // The base name taken from "/" or "" is no file name either.
    EXPECT_EQ(KOVAServiceConfInstall("/", 2), -1);
    EXPECT_EQ(KOVAServiceConfInstall("", 2), -1);
    EXPECT_EQ(read("/usr/local/etc/victim"), "keep\n");
    EXPECT_FALSE(exists("/usr/local/etc/services.d"));
    EXPECT_TRUE(plugin_events().empty());
}

TEST_F(InstallTest, MkdirAndCopyFailures) {
    write("/usr/local/etc", "not a directory");
    EXPECT_EQ(KOVAServiceConfInstall(src().c_str(), 2), -1);
    EXPECT_EQ(KVLIBCErrGet(), 0x3C00u);
    EXPECT_EQ(our_log("utils.cpp"), Lines{"utils.cpp:N mkdir fail for path " + pkg_dir() + "[0x3C00 utils.cpp:N]"});

    clear_log();
    mkdir("/pkg/dir.sc");
    const std::string dir_source = path("/pkg/dir.sc");
    EXPECT_EQ(KOVAServiceConfInstall(dir_source.c_str(), 1), -1);
    EXPECT_EQ(KVLIBCErrGet(), 0x3B00u);
    EXPECT_EQ(our_log("utils.cpp"), Lines{"utils.cpp:N install configure file fail! from=" + dir_source +
                                          " to=" + path("/usr/kova/etc/services.d/dir.sc") + "[0x3B00 utils.cpp:N]"});
}

class UpdateTest : public InstallTest {
protected:
    void SetUp() override {
        InstallTest::SetUp();
        write("/usr/local/etc/services.d/svc.sc", sc_section("svc", "61000/tcp"));
    }
    std::string old_copy() const { return path("/tmp/servicetool.update.svc.sc.old"); }
};

TEST_F(UpdateTest, UpdateReplacesTheFileAndNotifies) {
    auto daemon = start_relay_daemon();
    KOVA_SERVICE_CONF_PORT *conflicts = nullptr;
    EXPECT_EQ(KOVAServiceConfUpdateBaseName("svc.sc", src().c_str(), 2, &conflicts), 0);
    EXPECT_EQ(conflicts, nullptr);
    EXPECT_EQ(read("/usr/local/etc/services.d/svc.sc"), sc_section("svc", "61001/tcp"));
    EXPECT_EQ(daemon->stop(), 1);
    const auto events = plugin_events();
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0].name, "port_config/update");
    EXPECT_EQ(events[0].args,
              (std::map<std::string, std::string>{{"OLD_PORT_CONFIG_CONTENT", sc_section("svc", "61000/tcp")},
                                                  {"NEW_PORT_CONFIG_CONTENT", sc_section("svc", "61001/tcp")},
                                                  {"NOTIFY_PF", "1"},
                                                  {"NOTIFY_FW", "1"}}));
    EXPECT_TRUE(leftovers().empty());
    EXPECT_TRUE(log().empty()) << ::testing::PrintToString(log());
}

TEST_F(UpdateTest, UpdateWithConflictReportsIt) {
    write("/pkg/svc.sc", sc_section("svc", "61005/tcp"));
    KOVA_SERVICE_CONF_PORT *conflicts = nullptr;
    EXPECT_EQ(KOVAServiceConfUpdateBaseName("svc.sc", src().c_str(), 2, &conflicts), 1);
    ASSERT_NE(conflicts, nullptr);
    EXPECT_EQ(conflicts->beginPort, 61005u);
    KOVAServiceConfPortsFree(conflicts);
    EXPECT_EQ(
        our_log("service_conf_update.cpp"),
        Lines{"service_conf_update.cpp:N " + src() + " conf file port conflict with existed conf file setting=svc.sc"});
    EXPECT_EQ(plugin_events().size(), 1u);
    EXPECT_TRUE(leftovers().empty());
}

TEST_F(UpdateTest, WithoutNotifyHandsTheNoticeToTheCaller) {
    KVLIB_SERVICE_CONF_UPDATE_NOTICE notice{};
    EXPECT_EQ(KOVAServiceConfUpdateBaseNameWithoutNotify("svc.sc", src().c_str(), 2, nullptr, &notice), 0);
    ASSERT_NE(notice.oldConfPath, nullptr);
    ASSERT_NE(notice.newConfPath, nullptr);
    EXPECT_EQ(std::string(notice.oldConfPath), old_copy());
    EXPECT_EQ(std::string(notice.newConfPath), path("/usr/local/etc/services.d/svc.sc"));
    EXPECT_EQ(notice.notifyFirewall, 1u);
    EXPECT_EQ(notice.notifyPortForward, 1u);
    // The old copy stays for the caller, and the paths outlive the call.
    EXPECT_EQ(read("/tmp/servicetool.update.svc.sc.old"), sc_section("svc", "61000/tcp"));
    EXPECT_EQ(KOVAServiceConfInstall(src().c_str(), 1), 0);
    EXPECT_EQ(std::string(notice.oldConfPath), old_copy());
    EXPECT_TRUE(plugin_events().empty());
    EXPECT_EQ(KVLIBServiceConfUpdateServNotify(&notice), 0);
    const auto events = plugin_events();
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0].args.at("OLD_PORT_CONFIG_CONTENT"), sc_section("svc", "61000/tcp"));

    poison_error();
    EXPECT_EQ(KOVAServiceConfUpdateBaseNameWithoutNotify("svc.sc", src().c_str(), 2, nullptr, nullptr), -1);
    EXPECT_EQ(KVLIBCErrGet(), 0x0D00u);
}

TEST_F(UpdateTest, UpdateOfAFileThatIsNotInstalledChangesNothing) {
    EXPECT_EQ(KOVAServiceConfUpdateBaseName("none.sc", src().c_str(), 2, nullptr), -1);
    EXPECT_EQ(log_normalized(), (Lines{"service_conf_update.cpp:N FAILED due to installed conf file=" +
                                           path("/usr/local/etc/services.d/none.sc") + " not exist",
                                       "service_conf_update.cpp:N FAILED to install .sc"}));
    clear_log();
    EXPECT_EQ(KOVAServiceConfUpdateBaseName("svc.sc", src().c_str(), 3, nullptr), -1);
    EXPECT_EQ(KVLIBCErrGet(), 0x0D00u);
    EXPECT_EQ(log_normalized(), (Lines{"service_conf_update.cpp:N FAILED to get installed path of file=svc.sc type=3",
                                       "service_conf_update.cpp:N FAILED to install .sc"}));
    EXPECT_FALSE(exists("/usr/local/etc/services.d/none.sc"));
    EXPECT_TRUE(plugin_events().empty());
    EXPECT_TRUE(leftovers().empty());
}

TEST_F(UpdateTest, FailedInstallStepIsReportedAndLeavesTheOldFile) {
    const std::string missing = path("/pkg/missing.sc");
    EXPECT_EQ(KOVAServiceConfUpdateBaseName("svc.sc", missing.c_str(), 2, nullptr), -1);
    EXPECT_EQ(read("/usr/local/etc/services.d/svc.sc"), sc_section("svc", "61000/tcp"));
    EXPECT_EQ(log_normalized(),
              (Lines{"utils.cpp:N Source configure file does not exist (" + missing +
                         ")[0x0700 service_conf_file_verify.cpp:N]",
                     "service_conf_update.cpp:N check " + missing + " conf file port conflict failed=-1",
                     "service_conf_update.cpp:N FAILED to install .sc"}));
    EXPECT_TRUE(plugin_events().empty());
    EXPECT_TRUE(leftovers().empty());
}

TEST_F(UpdateTest, PlantedLinkAtTheOldCopyIsNotFollowed) {
    write("/outside/victim", "precious\n");
    symlink(path("/outside/victim"), "/tmp/servicetool.update.svc.sc.old");
    EXPECT_EQ(KOVAServiceConfUpdateBaseName("svc.sc", src().c_str(), 2, nullptr), 0);
    EXPECT_EQ(read("/outside/victim"), "precious\n");
    EXPECT_FALSE(exists("/tmp/servicetool.update.svc.sc.old"));
    const auto events = plugin_events();
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0].args.at("OLD_PORT_CONFIG_CONTENT"), sc_section("svc", "61000/tcp"));
}

}  // namespace
}  // namespace kova::test
