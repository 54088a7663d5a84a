// kova-svc install, update, remove, remove-section and set-ports on a sandbox root.
#include <gtest/gtest.h>

#include <filesystem>

#include "cli_test.h"

namespace kova::cli_test {
namespace {

const char kApp[] =
    "[cli-app]\ntitle=\"App\"\ndesc=\"Test app\"\ndst.ports=\"43080/tcp\"\n\n"
    "[cli-app-admin]\ntitle=\"Admin\"\ndesc=\"Admin pages\"\ndst.ports=\"43443/tcp\"\n";
const char kInstalled[] = "/usr/local/etc/services.d/cli-app.sc";

class CliChangeTest : public CliTest {
protected:
    void SetUp() override {
        CliTest::SetUp();
        write("/usr/kova/etc/services.d/cli-holder.sc",
              "[cli-holder]\ntitle=\"Holder\"\ndesc=\"Holds 43500\"\ndst.ports=\"43500/tcp\"\n");
        write(kInstalled, kApp);
    }
    void remove_all(const std::string &rel) const {
        std::error_code ec;
        std::filesystem::remove_all(path(rel), ec);
    }
};

TEST_F(CliChangeTest, InstallCopiesTheFileReportsCollisionsAndNamesFailures) {
    std::string source = write_work("new-app.sc", kApp);
    ToolRun r = svc({"install", source});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "installed " + path("/usr/local/etc/services.d/new-app.sc") + " from " + source + "\n");
    EXPECT_EQ(read("/usr/local/etc/services.d/new-app.sc"), kApp);

    ToolRun as = svc({"install", source, "--as", "renamed.sc", "--system", "--json"});
    EXPECT_EQ(as.status, 0) << as.err;
    JsonValue doc = as.json();
    EXPECT_EQ(doc.keys(), (std::vector<std::string>{"path", "source", "conflict", "colliding"}));
    EXPECT_EQ(cells(doc, {"path", "source", "conflict"}) + rows(doc["colliding"]),
              path("/usr/kova/etc/services.d/renamed.sc") + " " + source + " false");
    EXPECT_TRUE(exists("/usr/kova/etc/services.d/renamed.sc"));

    // A collision is reported with exit status 1, and the file is installed anyway.
    std::string clash = write_work("clash.sc", "[cli-clash]\ntitle=\"C\"\ndesc=\"C\"\ndst.ports=\"43500/tcp\"\n");
    ToolRun json = svc({"install", clash, "--json"});
    EXPECT_EQ(json.status, 1) << json.err;
    doc = json.json();
    EXPECT_EQ(doc["conflict"].text() + " " + rows(doc["colliding"], {"first", "last"}), "true 43500 43500; ");
    EXPECT_TRUE(exists("/usr/local/etc/services.d/clash.sc"));
    ToolRun text = svc({"install", clash});
    EXPECT_EQ(text.status, 1);
    EXPECT_TRUE(text.has("Colliding ports: 43500\n")) << text.out;

    // Failures name the library's error in words.
    expect_error(svc({"install", work() + "/absent.sc"}), 3,
                 "kova-svc: install: cannot install " + work() + "/absent.sc: file not found (0x0700 at ");
    // The package directory cannot be created where a file stands in its way.
    remove_all("/usr/local/etc");
    write("/usr/local/etc", "not a directory");
    ToolRun blocked = svc({"install", write_work("x.sc", kApp)});
    EXPECT_EQ(blocked.status, 3);
    EXPECT_TRUE(blocked.err.find(": directory cannot be created (0x3C00 at ") != std::string::npos) << blocked.err;
}

TEST_F(CliChangeTest, UpdateReplacesAnInstalledFileAndRemoveDeletesIt) {
    std::string newer = write_work("newer.sc", "[cli-app]\ntitle=\"App 2\"\ndesc=\"Newer\"\ndst.ports=\"43081/tcp\"\n");
    ToolRun r = svc({"update", "cli-app.sc", newer});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "updated " + path(kInstalled) + " from " + newer + "\n");
    std::string updated = read(kInstalled);
    EXPECT_NE(updated.find("43081"), std::string::npos);

    // A missing source changes nothing (the library would notify with the old content).
    expect_error(
        svc({"update", "cli-app.sc", work() + "/absent.sc"}), 3,
        "kova-svc: update: cannot update " + path(kInstalled) + " from " + work() + "/absent.sc: file not found\n");
    EXPECT_EQ(read(kInstalled), updated);
    expect_error(svc({"update", "not-installed.sc", newer}), 3,
                 "kova-svc: update: cannot update not-installed.sc: it is not installed (no " +
                     path("/usr/local/etc/services.d/not-installed.sc") + ")\n");

    remove_all("/tmp");  // the library keeps its temporary copies there
    ToolRun removed = svc({"remove", "cli-app.sc", "--json"});
    EXPECT_EQ(removed.status, 0) << removed.err;
    EXPECT_EQ(removed.out, "{\"path\":\"" + path(kInstalled) + "\"}\n");
    EXPECT_EQ(removed.err.rfind("kova-svc: warning: " + path("/tmp") + " does not exist", 0), 0u) << removed.err;
    EXPECT_FALSE(exists(kInstalled));
    mkdir("/tmp");
    expect_error(svc({"remove", "cli-app.sc"}), 3,
                 "kova-svc: remove: cannot remove " + path(kInstalled) + ": file not found (0x0700 at ");
}

TEST_F(CliChangeTest, SetPortsWritesThePortsInTheOrderGivenUnlessTheyCollide) {
    ToolRun r = svc({"set-ports", "cli-app.sc", "cli-app", "43090,43092:43095,43091/tcp"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "set dst.ports of [cli-app] in " + path(kInstalled) + " to 43090,43092:43095,43091/tcp\n");
    std::string written = read(kInstalled);
    EXPECT_NE(written.find("dst.ports=43090,43092:43095,43091/tcp\n"), std::string::npos) << written;

    ToolRun src = svc({"set-ports", "cli-app.sc", "cli-app-admin", "43600/udp", "--src", "--json"});
    EXPECT_EQ(src.status, 0) << src.err;
    JsonValue doc = src.json();
    EXPECT_EQ(doc.keys(), (std::vector<std::string>{"path", "section", "key", "value", "conflict", "colliding"}));
    EXPECT_EQ(cells(doc, {"path", "section", "key", "value", "conflict"}) + rows(doc["colliding"]),
              path(kInstalled) + " cli-app-admin src.ports 43600/udp false");
    written = read(kInstalled);

    ToolRun clash = svc({"set-ports", "cli-app.sc", "cli-app", "43500/tcp"});
    EXPECT_EQ(clash.status, 1) << clash.err;
    EXPECT_TRUE(clash.has("not changed: 43500/tcp collides with other services\nColliding ports: 43500\n"))
        << clash.out;
    EXPECT_EQ(read(kInstalled), written);
    // The section's own ports do not collide with themselves.
    EXPECT_EQ(svc({"set-ports", "cli-app.sc", "cli-app", "43090,43099/tcp"}).status, 0);

    expect_error(svc({"set-ports", "cli-app.sc", "no-such", "43700/tcp"}), 3,
                 "kova-svc: set-ports: cannot set dst.ports of [no-such] in " + path(kInstalled) +
                     ": the file has no such section\n");
    expect_error(svc({"set-ports", "absent.sc", "cli-app", "43700/tcp"}), 3,
                 "kova-svc: set-ports: cannot set dst.ports of [cli-app] in " +
                     path("/usr/local/etc/services.d/absent.sc") + ": the file is not installed\n");
}

TEST_F(CliChangeTest, RemoveSectionRestoresTheFileOnFailureKeepsTheRestAndDeletesAnEmptyFile) {
    script("/usr/kova/bin/kovafirewall", "exit 1\n");
    expect_error(svc({"remove-section", "cli-app.sc", "cli-app-admin"}), 3,
                 "kova-svc: remove-section: cannot remove section [cli-app-admin] from " + path(kInstalled) + ": ");
    EXPECT_EQ(read(kInstalled), kApp);
    script("/usr/kova/bin/kovafirewall", "exit 0\n");
    ToolRun r = svc({"remove-section", "cli-app.sc", "cli-app-admin"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "removed section [cli-app-admin] from " + path(kInstalled) + "\n");
    std::string rest = read(kInstalled);
    EXPECT_TRUE(rest.find("cli-app-admin") == std::string::npos && rest.find("[cli-app]") != std::string::npos);

    ToolRun missing = svc({"remove-section", "cli-app.sc", "cli-app-admin", "--json"});
    EXPECT_EQ(missing.status, 0);
    EXPECT_EQ(missing.json().keys(), (std::vector<std::string>{"path", "section", "found", "file_removed"}));
    EXPECT_EQ(cells(missing.json(), {"path", "section", "found", "file_removed"}),
              path(kInstalled) + " cli-app-admin false false");

    // Editing the file only does not need the firewall.
    script("/usr/kova/bin/kovafirewall", "exit 1\n");
    ToolRun last = svc({"remove-section", "cli-app.sc", "cli-app", "--files-only"});
    EXPECT_EQ(last.status, 0) << last.err;
    EXPECT_TRUE(last.has("deleted " + path(kInstalled) + ": it had no other service section\n")) << last.out;
    EXPECT_FALSE(exists(kInstalled));
}

}  // namespace
}  // namespace kova::cli_test
