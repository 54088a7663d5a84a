// Backup, restore and deletion of the configuration trees, and the path helpers under them.
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "change/change_internal.h"
#include "change_test.h"

namespace kova::test {
namespace {

class BackupTest : public ChangeTest {
protected:
    void SetUp() override {
        ChangeTest::SetUp();
        suffix = ".tmp." + std::to_string(::getpid());
        write("/usr/kova/etc/services.d/a.sc", "[a]\nx=1\n");
        write("/usr/local/etc/services.d/p.sc", "[p]\n");
        write("/usr/kova/etc/firewall.d/rules", "fw\n");
        write("/etc/portforward/rule.conf", "[r]\ns_port=1\n");
    }
    std::string suffix;
};

TEST_F(BackupTest, BackupChangeRestoreBringsEveryTreeBack) {
    const auto req = request(1, 1, 3, 0x07, "a.sc", "a", 1);
    ASSERT_EQ(KVLIBServiceConfBackup(&req), 0);
    EXPECT_EQ(read("/usr/kova/etc/services.d" + suffix + "/a.sc"), "[a]\nx=1\n");
    EXPECT_EQ(read("/usr/kova/etc/firewall.d" + suffix + "/rules"), "fw\n");
    EXPECT_EQ(read("/etc/portforward/rule.conf" + suffix), "[r]\ns_port=1\n");
    // Location 1 selects the system tree only.
    EXPECT_FALSE(exists("/usr/local/etc/services.d" + suffix));

    write("/usr/kova/etc/services.d/a.sc", "changed\n");
    write("/usr/kova/etc/services.d/new.sc", "new\n");
    ASSERT_EQ(::unlink(path("/usr/kova/etc/firewall.d/rules").c_str()), 0);
    write("/etc/portforward/rule.conf", "changed\n");

    ASSERT_EQ(KVLIBServiceConfRestore(&req), 0);
    EXPECT_EQ(read("/usr/kova/etc/services.d/a.sc"), "[a]\nx=1\n");
    EXPECT_FALSE(exists("/usr/kova/etc/services.d/new.sc"));
    EXPECT_EQ(read("/usr/kova/etc/firewall.d/rules"), "fw\n");
    EXPECT_EQ(read("/etc/portforward/rule.conf"), "[r]\ns_port=1\n");
    EXPECT_TRUE(leftovers().empty());
    EXPECT_TRUE(log().empty()) << ::testing::PrintToString(log());
}

TEST_F(BackupTest, DeleteDropsTheCopiesAndKeepsTheChange) {
    const auto req = request(1, 1, 3, 0x05, "p.sc", "p", 2);
    ASSERT_EQ(KVLIBServiceConfBackup(&req), 0);
    EXPECT_TRUE(exists("/usr/local/etc/services.d" + suffix + "/p.sc"));
    EXPECT_FALSE(exists("/usr/kova/etc/services.d" + suffix));
    EXPECT_FALSE(exists("/etc/portforward/rule.conf" + suffix));
    write("/usr/local/etc/services.d/p.sc", "changed\n");
    ASSERT_EQ(KVLIBServiceBackupConfDelete(&req), 0);
    EXPECT_TRUE(leftovers().empty());
    EXPECT_EQ(read("/usr/local/etc/services.d/p.sc"), "changed\n");
    // With nothing to restore or delete, both succeed and change nothing.
    EXPECT_EQ(KVLIBServiceConfRestore(&req), 0);
    EXPECT_EQ(KVLIBServiceBackupConfDelete(&req), 0);
    EXPECT_EQ(read("/usr/local/etc/services.d/p.sc"), "changed\n");
}

TEST_F(BackupTest, RequestTest) {
    EXPECT_EQ(KVLIBServiceConfBackup(nullptr), -1);
    EXPECT_EQ(KVLIBCErrGet(), 0x0D00u);
    EXPECT_STREQ(KVLIBCErrorGetFile(), "service_conf_common.cpp");
    for (uint32_t scope : {0x00u, 0x08u, 0x10u, 0x18u}) {
        poison_error();
        const auto req = request(1, 1, 3, scope, "a.sc", "a", 1);
        EXPECT_EQ(KVLIBServiceConfBackup(&req), -1) << scope;
        EXPECT_EQ(KVLIBServiceConfRestore(&req), -1) << scope;
        EXPECT_EQ(KVLIBServiceBackupConfDelete(&req), -1) << scope;
        EXPECT_EQ(KVLIBCErrGet(), 0x0D00u);
    }
    const auto no_location = request(1, 1, 3, 0x04, "a.sc", "a", 0);
    EXPECT_EQ(KVLIBServiceConfBackup(&no_location), -1);
    // Location matters only with 0x04.
    const auto firewall_only = request(1, 1, 3, 0x01, "a.sc", "a", 0);
    EXPECT_EQ(KVLIBServiceConfBackup(&firewall_only), 0);
    EXPECT_TRUE(exists("/usr/kova/etc/firewall.d" + suffix + "/rules"));
    EXPECT_EQ(KVLIBServiceBackupConfDelete(&firewall_only), 0);
    // Location 3 passes the test but selects neither services.d tree.
    const auto both = request(1, 1, 3, 0x04, "a.sc", "a", 3);
    EXPECT_EQ(KVLIBServiceConfBackup(&both), 0);
    EXPECT_TRUE(leftovers().empty());
}

TEST_F(BackupTest, MissingRuleFileIsSkippedAndWhatTheChangeCreatedStays) {
    ASSERT_EQ(::unlink(path("/etc/portforward/rule.conf").c_str()), 0);
    const auto req = request(1, 1, 3, 0x02, "a.sc", "a", 1);
    ASSERT_EQ(KVLIBServiceConfBackup(&req), 0);
    EXPECT_TRUE(leftovers().empty());
    write("/etc/portforward/rule.conf", "created\n");
    ASSERT_EQ(KVLIBServiceConfRestore(&req), 0);
    EXPECT_EQ(read("/etc/portforward/rule.conf"), "created\n");
}

TEST_F(BackupTest, StaleCopyOfTheSameProcessIdIsReplaced) {
    write("/usr/kova/etc/services.d" + suffix + "/stale.sc", "old\n");
    const auto req = request(1, 1, 3, 0x04, "a.sc", "a", 1);
    ASSERT_EQ(KVLIBServiceConfBackup(&req), 0);
    EXPECT_FALSE(exists("/usr/kova/etc/services.d" + suffix + "/stale.sc"));
    EXPECT_TRUE(exists("/usr/kova/etc/services.d" + suffix + "/a.sc"));
    // Not nested inside the stale directory either.
    EXPECT_FALSE(exists("/usr/kova/etc/services.d" + suffix + "/services.d"));
}

TEST_F(BackupTest, FailedBackupRemovesTheCopiesItMade) {
    // firewall.d is a FIFO: it exists but is no valid source.
    remove_all("/usr/kova/etc/firewall.d");
    ASSERT_EQ(::mkfifo(path("/usr/kova/etc/firewall.d").c_str(), 0600), 0);
    const auto req = request(1, 1, 3, 0x07, "a.sc", "a", 1);
    EXPECT_EQ(KVLIBServiceConfBackup(&req), -1);
    EXPECT_EQ(KVLIBCErrGet(), 0x0600u);
    EXPECT_STREQ(KVLIBCErrorGetFile(), "service_conf_common.cpp");
    EXPECT_EQ(log_normalized(),
              std::vector<std::string>{"service_conf_common.cpp:N Source path is not valid (src path: " +
                                       path("/usr/kova/etc/firewall.d") + ")[0x0600 service_conf_common.cpp:N]"});
    EXPECT_FALSE(exists("/usr/kova/etc/services.d" + suffix));
    EXPECT_FALSE(exists("/etc/portforward/rule.conf" + suffix));
    EXPECT_EQ(read("/usr/kova/etc/services.d/a.sc"), "[a]\nx=1\n");
}

TEST_F(BackupTest, FailedRestoreStopsAtTheFailingItem) {
    const auto req = request(1, 1, 3, 0x07, "a.sc", "a", 1);
    ASSERT_EQ(KVLIBServiceConfBackup(&req), 0);
    write("/usr/kova/etc/services.d/a.sc", "changed\n");
    write("/etc/portforward/rule.conf", "changed\n");
    // The firewall copy is replaced by something that cannot be moved back.
    remove_all("/usr/kova/etc/firewall.d" + suffix);
    ASSERT_EQ(::mkfifo(path("/usr/kova/etc/firewall.d" + suffix).c_str(), 0600), 0);
    EXPECT_EQ(KVLIBServiceConfRestore(&req), -1);
    EXPECT_EQ(KVLIBCErrGet(), 0x0600u);
    EXPECT_EQ(read("/usr/kova/etc/services.d/a.sc"), "[a]\nx=1\n");
    EXPECT_EQ(read("/etc/portforward/rule.conf"), "changed\n");
    EXPECT_TRUE(exists("/etc/portforward/rule.conf" + suffix));
}

TEST_F(BackupTest, RemovePath) {
    EXPECT_EQ(RemovePath(nullptr), -1);
    EXPECT_EQ(KVLIBCErrGet(), 0x0D00u);
    poison_error();
    EXPECT_EQ(RemovePath(""), -1);
    EXPECT_EQ(KVLIBCErrGet(), 0x0D00u);
    EXPECT_EQ(RemovePath(path("/missing").c_str()), 0);
    ASSERT_EQ(::mkfifo(path("/fifo").c_str(), 0600), 0);
    EXPECT_EQ(RemovePath(path("/fifo").c_str()), 0);
    EXPECT_TRUE(exists("/fifo"));
    write("/tree/a/b", "x");
    EXPECT_EQ(RemovePath(path("/tree").c_str()), 0);
    EXPECT_FALSE(exists("/tree"));
    write("/file", "x");
    EXPECT_EQ(RemovePath(path("/file").c_str()), 0);
    EXPECT_FALSE(exists("/file"));
    EXPECT_TRUE(log().empty()) << ::testing::PrintToString(log());
}

TEST_F(BackupTest, CopyPath) {
    EXPECT_EQ(CopyPath(nullptr, "x", 0), -1);
    EXPECT_EQ(KVLIBCErrGet(), 0x0D00u);
    EXPECT_EQ(CopyPath("x", "", 0), -1);
    EXPECT_EQ(CopyPath("   ", "x", 0), -1);
    EXPECT_EQ(KVLIBCErrGet(), 0x0D00u);
    EXPECT_TRUE(log().empty()) << ::testing::PrintToString(log());

    // White space around the paths is trimmed; an older target directory is replaced, not
    // copied into.
    write("/src/one", "1");
    write("/dst/old", "0");
    EXPECT_EQ(CopyPath(("  " + path("/src") + " \t").c_str(), (path("/dst") + "  ").c_str(), 0), 0);
    EXPECT_EQ(read("/dst/one"), "1");
    EXPECT_FALSE(exists("/dst/old"));
    EXPECT_FALSE(exists("/dst/src"));
    EXPECT_TRUE(exists("/src/one"));

    // A link to a directory counts as a directory.
    symlink(path("/src"), "/link");
    EXPECT_EQ(CopyPath(path("/link").c_str(), path("/viaLink").c_str(), 0), 0);
    EXPECT_EQ(read("/viaLink/one"), "1");

    EXPECT_EQ(CopyPath(path("/src").c_str(), path("/moved").c_str(), 1), 0);
    EXPECT_FALSE(exists("/src"));
    EXPECT_EQ(read("/moved/one"), "1");

    clear_log();
    write("/f", "f");
    EXPECT_EQ(CopyPath(path("/f").c_str(), (path("/d") + "/").c_str(), 0), -1);
    EXPECT_EQ(KVLIBCErrGet(), 0x0D00u);
    ASSERT_EQ(log_normalized().size(), 1u);
    // The log line shows the error state before the code is set.
    EXPECT_EQ(log_normalized()[0].rfind("service_conf_common.cpp:N source/target must both be folder or file[", 0), 0u);

    clear_log();
    EXPECT_EQ(CopyPath(path("/nothing").c_str(), path("/x").c_str(), 0), -1);
    EXPECT_EQ(KVLIBCErrGet(), 0x0600u);
    EXPECT_EQ(log_normalized(),
              std::vector<std::string>{"service_conf_common.cpp:N Source path is not valid (src path: " +
                                       path("/nothing") + ")[0x0600 service_conf_common.cpp:N]"});

    // A copy into a directory that does not exist fails with cp's log line.
    clear_log();
    EXPECT_EQ(CopyPath(path("/f").c_str(), path("/no/such/dir/f").c_str(), 0), -1);
    ASSERT_EQ(log_normalized().size(), 1u);
    EXPECT_EQ(log_normalized()[0].rfind(
                  "service_conf_common.cpp:N Failed to cp -rf " + path("/f") + " " + path("/no/such/dir/f") + "[", 0),
              0u);
}

}  // namespace
}  // namespace kova::test
