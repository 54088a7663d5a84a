// kova-svc install, update, remove, remove-section and set-ports on a sandbox root.
#include <gtest/gtest.h>

#include <filesystem>

#include "cli_test.h"

namespace kova::cli_test {
namespace {

const char kApp[] =
    "[cli-app]\ntitle=\"App\"\ndesc=\"Test app\"\ndst.ports=\"43080/tcp\"\n\n"
    "[cli-app-admin]\ntitle=\"Admin\"\ndesc=\"Admin pages\"\ndst.ports=\"43443/tcp\"\n";

class CliChangeTest : public CliTest {
protected:
    void SetUp() override {
        CliTest::SetUp();
        write("/usr/kova/etc/services.d/cli-holder.sc",
              "[cli-holder]\ntitle=\"Holder\"\ndesc=\"Holds 43500\"\ndst.ports=\"43500/tcp\"\n");
    }

    std::string package(const std::string &name) const { return path("/usr/local/etc/services.d/" + name); }
};

TEST_F(CliChangeTest, InstallCopiesTheFileIntoThePackageDirectory) {
    std::string source = write_work("cli-app.sc", kApp);
    ToolRun r = svc({"install", source});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "installed " + package("cli-app.sc") + " from " + source + "\n");
    EXPECT_EQ(read("/usr/local/etc/services.d/cli-app.sc"), kApp);

    ToolRun as = svc({"install", source, "--as", "renamed.sc", "--system", "--json"});
    EXPECT_EQ(as.status, 0) << as.err;
    JsonValue doc = as.json();
    EXPECT_EQ(doc.keys(), (std::vector<std::string>{"path", "source", "conflict", "colliding"}));
    EXPECT_EQ(doc["path"].str(), path("/usr/kova/etc/services.d/renamed.sc"));
    EXPECT_FALSE(doc["conflict"].boolean());
    EXPECT_TRUE(exists("/usr/kova/etc/services.d/renamed.sc"));
}

TEST_F(CliChangeTest, InstallReportsCollisionsButInstallsAnyway) {
    std::string source = write_work("clash.sc", "[cli-clash]\ntitle=\"C\"\ndesc=\"C\"\ndst.ports=\"43500/tcp\"\n");
    ToolRun r = svc({"install", source, "--json"});
    EXPECT_EQ(r.status, 1) << r.err;
    JsonValue doc = r.json();
    EXPECT_TRUE(doc["conflict"].boolean());
    ASSERT_EQ(doc["colliding"].size(), 1u);
    EXPECT_EQ(doc["colliding"][0]["first"].number(), 43500);
    EXPECT_TRUE(exists("/usr/local/etc/services.d/clash.sc"));

    ToolRun text = svc({"install", source});
    EXPECT_EQ(text.status, 1);
    EXPECT_NE(text.out.find("Colliding ports: 43500\n"), std::string::npos) << text.out;
}

TEST_F(CliChangeTest, InstallFailuresNameTheLibraryError) {
    ToolRun missing = svc({"install", work() + "/absent.sc"});
    EXPECT_EQ(missing.status, 3);
    EXPECT_TRUE(missing.out.empty());
    EXPECT_EQ(
        missing.err.rfind("kova-svc: install: cannot install " + work() + "/absent.sc: file not found (0x0700 at ", 0),
        0u)
        << missing.err;
    EXPECT_EQ(missing.err.find('\n'), missing.err.size() - 1);

    // The package directory cannot be created where a file stands in its way.
    std::error_code ec;
    std::filesystem::remove_all(path("/usr/local/etc"), ec);
    write("/usr/local/etc", "not a directory");
    ToolRun blocked = svc({"install", write_work("x.sc", kApp)});
    EXPECT_EQ(blocked.status, 3);
    EXPECT_NE(blocked.err.find(": directory cannot be created (0x3C00 at "), std::string::npos) << blocked.err;
}

TEST_F(CliChangeTest, UpdateReplacesAnInstalledFile) {
    write("/usr/local/etc/services.d/cli-app.sc", kApp);
    std::string newer = write_work("newer.sc", "[cli-app]\ntitle=\"App 2\"\ndesc=\"Newer\"\ndst.ports=\"43081/tcp\"\n");
    ToolRun r = svc({"update", "cli-app.sc", newer});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "updated " + package("cli-app.sc") + " from " + newer + "\n");
    EXPECT_NE(read("/usr/local/etc/services.d/cli-app.sc").find("43081"), std::string::npos);

    // A missing source changes nothing (the library would notify with the old content).
    ToolRun no_source = svc({"update", "cli-app.sc", work() + "/absent.sc"});
    EXPECT_EQ(no_source.status, 3);
    EXPECT_EQ(no_source.err, "kova-svc: update: cannot update " + package("cli-app.sc") + " from " + work() +
                                 "/absent.sc: file not found\n");
    EXPECT_NE(read("/usr/local/etc/services.d/cli-app.sc").find("43081"), std::string::npos);

    ToolRun absent = svc({"update", "not-installed.sc", newer});
    EXPECT_EQ(absent.status, 3);
    EXPECT_EQ(absent.err, "kova-svc: update: cannot update not-installed.sc: it is not installed (no " +
                              package("not-installed.sc") + ")\n");
}

TEST_F(CliChangeTest, RemoveDeletesTheFileAndFailsTheSecondTime) {
    write("/usr/local/etc/services.d/cli-app.sc", kApp);
    ToolRun r = svc({"remove", "cli-app.sc", "--json"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.json()["path"].str(), package("cli-app.sc"));
    EXPECT_FALSE(exists("/usr/local/etc/services.d/cli-app.sc"));

    ToolRun again = svc({"remove", "cli-app.sc"});
    EXPECT_EQ(again.status, 3);
    EXPECT_EQ(
        again.err.rfind("kova-svc: remove: cannot remove " + package("cli-app.sc") + ": file not found (0x0700", 0), 0u)
        << again.err;
}

TEST_F(CliChangeTest, SetPortsWritesThePortsInTheOrderGiven) {
    write("/usr/local/etc/services.d/cli-app.sc", kApp);
    ToolRun r = svc({"set-ports", "cli-app.sc", "cli-app", "43090,43092:43095,43091/tcp"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "set dst.ports of [cli-app] in " + package("cli-app.sc") + " to 43090,43092:43095,43091/tcp\n");
    EXPECT_NE(read("/usr/local/etc/services.d/cli-app.sc").find("dst.ports=43090,43092:43095,43091/tcp"),
              std::string::npos);

    ToolRun src = svc({"set-ports", "cli-app.sc", "cli-app-admin", "43600/udp", "--src", "--json"});
    EXPECT_EQ(src.status, 0) << src.err;
    JsonValue doc = src.json();
    EXPECT_EQ(doc.keys(), (std::vector<std::string>{"path", "section", "key", "value", "conflict", "colliding"}));
    EXPECT_EQ(doc["key"].str(), "src.ports");
    EXPECT_EQ(doc["value"].str(), "43600/udp");
}

TEST_F(CliChangeTest, SetPortsRefusesCollisionsAndLeavesTheFileAlone) {
    write("/usr/local/etc/services.d/cli-app.sc", kApp);
    ToolRun r = svc({"set-ports", "cli-app.sc", "cli-app", "43500/tcp"});
    EXPECT_EQ(r.status, 1) << r.err;
    EXPECT_NE(r.out.find("not changed: 43500/tcp collides with other services"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("Colliding ports: 43500"), std::string::npos);
    EXPECT_EQ(read("/usr/local/etc/services.d/cli-app.sc"), kApp);

    // The section's own ports do not collide with themselves.
    EXPECT_EQ(svc({"set-ports", "cli-app.sc", "cli-app", "43080,43081/tcp"}).status, 0);
}

TEST_F(CliChangeTest, SetPortsOnAMissingFileOrSectionFails) {
    write("/usr/local/etc/services.d/cli-app.sc", kApp);
    ToolRun section = svc({"set-ports", "cli-app.sc", "no-such", "43700/tcp"});
    EXPECT_EQ(section.status, 3);
    EXPECT_EQ(section.err, "kova-svc: set-ports: cannot set dst.ports of [no-such] in " + package("cli-app.sc") +
                               ": the file has no such section\n");
    ToolRun file = svc({"set-ports", "absent.sc", "cli-app", "43700/tcp"});
    EXPECT_EQ(file.status, 3);
    EXPECT_NE(file.err.find(": the file is not installed\n"), std::string::npos) << file.err;
}

TEST_F(CliChangeTest, RemoveSectionKeepsTheRestAndDeletesAnEmptyFile) {
    write("/usr/local/etc/services.d/cli-app.sc", kApp);
    ToolRun r = svc({"remove-section", "cli-app.sc", "cli-app-admin"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "removed section [cli-app-admin] from " + package("cli-app.sc") + "\n");
    std::string rest = read("/usr/local/etc/services.d/cli-app.sc");
    EXPECT_EQ(rest.find("cli-app-admin"), std::string::npos);
    EXPECT_NE(rest.find("[cli-app]"), std::string::npos);

    ToolRun missing = svc({"remove-section", "cli-app.sc", "cli-app-admin", "--json"});
    EXPECT_EQ(missing.status, 0);
    JsonValue doc = missing.json();
    EXPECT_EQ(doc.keys(), (std::vector<std::string>{"path", "section", "found", "file_removed"}));
    EXPECT_FALSE(doc["found"].boolean());

    ToolRun last = svc({"remove-section", "cli-app.sc", "cli-app", "--files-only"});
    EXPECT_EQ(last.status, 0) << last.err;
    EXPECT_NE(last.out.find("deleted " + package("cli-app.sc") + ": it had no other service section"),
              std::string::npos)
        << last.out;
    EXPECT_FALSE(exists("/usr/local/etc/services.d/cli-app.sc"));
}

TEST_F(CliChangeTest, RemoveSectionRestoresTheFileWhenTheFirewallFails) {
    write("/usr/local/etc/services.d/cli-app.sc", kApp);
    script("/usr/kova/bin/kovafirewall", "exit 1\n");
    ToolRun r = svc({"remove-section", "cli-app.sc", "cli-app-admin"});
    EXPECT_EQ(r.status, 3);
    EXPECT_TRUE(r.out.empty());
    EXPECT_EQ(
        r.err.rfind(
            "kova-svc: remove-section: cannot remove section [cli-app-admin] from " + package("cli-app.sc") + ": ", 0),
        0u)
        << r.err;
    EXPECT_EQ(read("/usr/local/etc/services.d/cli-app.sc"), kApp);
    // Editing the file only does not need the firewall.
    EXPECT_EQ(svc({"remove-section", "cli-app.sc", "cli-app-admin", "--files-only"}).status, 0);
}

TEST_F(CliChangeTest, ChangesWarnWhenTheRootHasNoTemporaryDirectory) {
    write("/usr/local/etc/services.d/cli-app.sc", kApp);
    std::error_code ec;
    std::filesystem::remove_all(path("/tmp"), ec);
    ToolRun r = svc({"remove", "cli-app.sc"});
    EXPECT_NE(r.err.find("kova-svc: warning: " + path("/tmp") + " does not exist"), std::string::npos) << r.err;
}

}  // namespace
}  // namespace kova::cli_test
