// Removing a service section under backup, with roll-back.
#include <unistd.h>

#include <string>

#include "change/change_internal.h"
#include "change_test.h"

namespace kova::test {
namespace {

using Lines = std::vector<std::string>;

class SectionRemoveTest : public ChangeTest {
protected:
    void SetUp() override {
        ChangeTest::SetUp();
        install_firewall_tool();
        write("/usr/local/etc/services.d/app.sc", original);
        write("/usr/kova/etc/firewall.d/rules", "rules\n");
    }
    std::string app() const { return path("/usr/local/etc/services.d/app.sc"); }
    // A firewall tool that changes firewall.d when it drops a record, and fails for one kind
    // of call.
    void firewall_failing_on(const std::string &option) const {
        script("/usr/kova/bin/kovafirewall",
               "echo \"$*\" >> '" + path("/calls/firewall") + "'\n[ \"$1\" = --remove-serv-rec ] && echo changed > '" +
                   path("/usr/kova/etc/firewall.d/rules") + "'\n[ \"$1\" = " + option + " ] && exit 1\nexit 0\n");
    }
    const std::string original =
        "[global]\nversion=2\n\n[app]\ndst.ports=\"61001/tcp\"\n\n[web]\ndst.ports=\"61002/tcp\"\n";
};

TEST_F(SectionRemoveTest, RemovesTheSectionUnderBackup) {
    auto daemon = start_relay_daemon();
    const auto req = request(2, 1, 3, 0x05, "app.sc", "app", 2);
    EXPECT_EQ(KVLIBServiceConfSectionRemove(&req), 0);
    EXPECT_EQ(read("/usr/local/etc/services.d/app.sc"), "[global]\nversion=2\n\n\n[web]\ndst.ports=\"61002/tcp\"\n");
    EXPECT_EQ(firewall_calls(), (Lines{"--remove-serv-rec app", "--reload"}));
    EXPECT_EQ(daemon->stop(), 1);
    EXPECT_TRUE(leftovers().empty());
    EXPECT_TRUE(log().empty()) << ::testing::PrintToString(log());
}

TEST_F(SectionRemoveTest, FileLeftWithoutServiceSectionIsDeleted) {
    const auto web = request(1, 0, 3, 0x04, "app.sc", "web", 2 | 8);
    EXPECT_EQ(KVLIBServiceConfSectionRemove(&web), 0);
    EXPECT_TRUE(exists("/usr/local/etc/services.d/app.sc"));
    const auto app_req = request(1, 0, 3, 0x04, "app.sc", "app", 2);
    EXPECT_EQ(KVLIBServiceConfSectionRemove(&app_req), 0);
    EXPECT_FALSE(exists("/usr/local/etc/services.d/app.sc"));
    EXPECT_TRUE(firewall_calls().empty());
    EXPECT_TRUE(leftovers().empty());

    // A missing section in a file that holds only "global": the file goes too.
    write("/usr/kova/etc/services.d/g.sc", "[global]\nversion=1\n");
    clear_log();
    poison_error();
    const auto missing = request(1, 0, 3, 0x04, "g.sc", "nosuch", 1);
    EXPECT_EQ(KVLIBServiceConfSectionRemove(&missing), 0);
    EXPECT_FALSE(exists("/usr/kova/etc/services.d/g.sc"));
    EXPECT_EQ(log_normalized(),
              Lines{"service_conf_section_remove.cpp:N Section (nosuch) not found![0xEEEE poison:7]"});
}

TEST_F(SectionRemoveTest, MissingFileCountsAsDoneAndStillRestarts) {
    auto daemon = start_relay_daemon();
    poison_error();
    const auto req = request(2, 2, 3, 0x04, "none.sc", "app", 2);
    EXPECT_EQ(KVLIBServiceConfSectionRemove(&req), 0);
    EXPECT_EQ(log_normalized(),
              Lines{"service_conf_section_remove.cpp:N Configure file (" + path("/usr/local/etc/services.d/none.sc") +
                    ") does not exist![0xEEEE poison:7]"});
    EXPECT_EQ(daemon->stop(), 1);
    EXPECT_TRUE(leftovers().empty());
}

TEST_F(SectionRemoveTest, FailingFirewallToolRollsBack) {
    firewall_failing_on("--remove-serv-rec");
    const auto req = request(2, 1, 3, 0x05, "app.sc", "app", 2);
    EXPECT_EQ(KVLIBServiceConfSectionRemove(&req), -1);
    const std::string tool = path("/usr/kova/bin/kovafirewall");
    const auto lines = log_normalized();
    ASSERT_EQ(lines.size(), 2u) << ::testing::PrintToString(lines);
    EXPECT_EQ(lines[0], "utils.cpp:N Failed to execute [" + tool + " --remove-serv-rec app], ret:-1");
    EXPECT_EQ(lines[1].rfind("service_conf_section_remove.cpp:N Remove service record in firewall rule fail![", 0), 0u);
    // Both trees are as they were: the tool's change of firewall.d is undone; no restart.
    EXPECT_EQ(read("/usr/local/etc/services.d/app.sc"), original);
    EXPECT_EQ(read("/usr/kova/etc/firewall.d/rules"), "rules\n");
    EXPECT_EQ(firewall_calls(), Lines{"--remove-serv-rec app"});
    EXPECT_TRUE(leftovers().empty());
}

TEST_F(SectionRemoveTest, FailingRestartRestoresAndRestartsAgain) {
    firewall_failing_on("--reload");
    auto daemon = start_relay_daemon();
    const auto req = request(2, 1, 3, 0x05, "app.sc", "app", 2);
    EXPECT_EQ(KVLIBServiceConfSectionRemove(&req), -1);
    EXPECT_EQ(read("/usr/local/etc/services.d/app.sc"), original);
    EXPECT_EQ(read("/usr/kova/etc/firewall.d/rules"), "rules\n");
    EXPECT_EQ(firewall_calls(), (Lines{"--remove-serv-rec app", "--reload", "--reload"}));
    EXPECT_EQ(daemon->stop(), 0);
    Lines ours;
    for (const auto &line : log_normalized())
        if (line.rfind("service_conf_section_remove.cpp:", 0) == 0) ours.push_back(line.substr(0, line.find('[')));
    EXPECT_EQ(ours, (Lines{"service_conf_section_remove.cpp:N Restart service fail",
                           "service_conf_section_remove.cpp:N Restart service fail"}));
    EXPECT_TRUE(leftovers().empty());
}

TEST_F(SectionRemoveTest, FailedSectionRemovalRollsBack) {
    // A file that cannot be read as a sectioned file: a directory by the file's name.
    remove_all("/usr/local/etc/services.d/app.sc");
    mkdir("/usr/local/etc/services.d/app.sc");
    write("/usr/local/etc/services.d/keep.sc", "[k]\n");
    const auto req = request(1, 0, 3, 0x05, "app.sc", "app", 2);
    EXPECT_EQ(KVLIBServiceConfSectionRemove(&req), -1);
    EXPECT_TRUE(logged("service_conf_section_remove.cpp:N Failed to get section(app) from file(" + app() + ")"))
        << ::testing::PrintToString(log());
    const auto lines = log_normalized();
    EXPECT_EQ(lines.back().rfind("service_conf_section_remove.cpp:N Remove service configure section fail![", 0), 0u);
    EXPECT_EQ(read("/usr/local/etc/services.d/keep.sc"), "[k]\n");
    EXPECT_TRUE(leftovers().empty());
}

TEST_F(SectionRemoveTest, FailedBackupChangesNothing) {
    remove_all("/usr/kova/etc/firewall.d");
    ASSERT_EQ(::mkfifo(path("/usr/kova/etc/firewall.d").c_str(), 0600), 0);
    const auto req = request(1, 0, 3, 0x05, "app.sc", "app", 2);
    EXPECT_EQ(KVLIBServiceConfSectionRemove(&req), -1);
    EXPECT_EQ(KVLIBCErrGet(), 0x0600u);
    EXPECT_EQ(log_normalized().back(),
              "service_conf_section_remove.cpp:N Backup configure fail![0x0600 service_conf_common.cpp:N]");
    EXPECT_EQ(read("/usr/local/etc/services.d/app.sc"), original);
    EXPECT_TRUE(firewall_calls().empty());
    EXPECT_TRUE(leftovers().empty());
}

TEST_F(SectionRemoveTest, RequestTest) {
    poison_error();
    EXPECT_EQ(KVLIBServiceConfSectionRemove(nullptr), -1);
    EXPECT_EQ(KVLIBCErrGet(), 0x0D00u);
    const KVLIB_SERVICE_CONF_REQUEST bad[] = {
        request(0, 1, 3, 0x05, "app.sc", "app", 2), request(2, 0x10, 3, 0x05, "app.sc", "app", 2),
        request(1, 0, 1, 0x05, "app.sc", "app", 2), request(1, 0, 3, 0x01, "app.sc", "app", 2),
        request(1, 0, 3, 0x05, "app.sc", "app", 3), request(1, 0, 3, 0x05, "app.sc", "app", 0),
        request(1, 0, 3, 0x05, "", "app", 2),       request(1, 0, 3, 0x05, "app.sc", "", 2),
        request(1, 0, 3, 0x05, "..", "app", 2),     request(1, 0, 3, 0x05, "../services.d/app.sc", "app", 2),
    };
    for (const auto &req : bad) {
        poison_error();
        EXPECT_EQ(KVLIBServiceConfSectionRemove(&req), -1);
        EXPECT_EQ(KVLIBCErrGet(), 0x0D00u);
        EXPECT_STREQ(KVLIBCErrorGetFile(), "service_conf_section_remove.cpp");
    }
    // The file step tests what concerns it (not mode or restart mask).
    const KVLIB_SERVICE_CONF_REQUEST bad_step[] = {
        request(1, 0, 1, 0x05, "app.sc", "app", 2), request(1, 0, 3, 0x03, "app.sc", "app", 2),
        request(1, 0, 3, 0x04, "app.sc", "app", 3), request(1, 0, 3, 0x04, "", "app", 2),
        request(1, 0, 3, 0x04, "app.sc", "", 2),    request(1, 0, 3, 0x04, "../x/app.sc", "app", 2),
    };
    EXPECT_EQ(SectionRemoveFromFile(nullptr), -1);
    for (const auto &req : bad_step) {
        poison_error();
        EXPECT_EQ(SectionRemoveFromFile(&req), -1);
        EXPECT_EQ(KVLIBCErrGet(), 0x0D00u);
    }
    EXPECT_EQ(read("/usr/local/etc/services.d/app.sc"), original);
    EXPECT_TRUE(firewall_calls().empty());
    EXPECT_TRUE(leftovers().empty());
}

}  // namespace
}  // namespace kova::test
