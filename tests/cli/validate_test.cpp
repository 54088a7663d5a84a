// kova-svc validate: a .sc file read as the library reads it.
#include <gtest/gtest.h>

#include "cli_test.h"

namespace kova::cli_test {
namespace {

const char kInstalled[] = "[cli-installed]\ntitle=\"Installed\"\ndesc=\"Already here\"\ndst.ports=\"42001/tcp\"\n";

using CliValidateTest = CliTest;

TEST_F(CliValidateTest, AGoodFileHasNoFindings) {
    write("/usr/local/etc/services.d/installed.sc", kInstalled);
    std::string file = write_work(
        "good.sc", "[global]\nversion=2\n\n[cli-good]\ntitle=\"Good\"\ndesc=\"Fine\"\ndst.ports=\"42010,42011/tcp\"\n");
    ToolRun r = svc({"validate", file});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, file + ": 1 service section, 1 accepted; 0 errors, 0 warnings, 0 collisions\n");

    JsonValue doc = svc({"validate", file, "--json"}).json();
    EXPECT_EQ(doc.keys(), (std::vector<std::string>{"file", "accepted", "version", "support_key", "sections",
                                                    "problems", "collisions"}));
    EXPECT_EQ(cells(doc, {"file", "accepted", "version"}) + rows(doc["problems"]) + rows(doc["collisions"]),
              file + " true 2");
    ASSERT_EQ(doc["sections"].size(), 1u);
    EXPECT_EQ(doc["sections"][0].keys(), (std::vector<std::string>{"name", "accepted", "dst", "src"}));
    // The ports in the file's order.
    EXPECT_EQ(cells(doc["sections"][0], {"name", "accepted", "src"}) + " " + rows(doc["sections"][0]["dst"]["ports"]),
              "cli-good true - 42010; 42011; ");

    // Validating the installed file again: its sections do not collide with themselves.
    EXPECT_EQ(svc({"validate", write_work("installed.sc", kInstalled)}).status, 0);
}

TEST_F(CliValidateTest, ReportsEveryProblemSectionBySection) {
    write("/usr/local/etc/services.d/installed.sc", kInstalled);
    std::string file = write_work("bad.sc",
                                  "[global]\nversion=1\n\n"
                                  "[cli-clash]\ntitle=\"Clash\"\ndesc=\"Collides\"\ndst.ports=\"42001,42050/tcp\"\n\n"
                                  "[bad name]\ntitle=\"x\"\ndesc=\"y\"\ndst.ports=\"42060/tcp\"\n\n"
                                  "[cli-broken]\ntitle=\"Broken\"\nsrc.ports=\"80,,90\"\n\n"
                                  "[cli-backwards]\ntitle=\"Back\"\ndesc=\"Backwards\"\ndst.ports=\"42090:42080\"\n\n"
                                  "[cli-installed]\ntitle=\"Dup\"\ndesc=\"Same name\"\ndst.ports=\"42070/tcp\"\n");
    ToolRun r = svc({"validate", file});
    EXPECT_EQ(r.status, 1) << r.err;
    std::string f = file + ": ";
    std::vector<std::string> expected = {
        f + "[cli-clash] collision: port 42001 collides with cli-installed",
        f + "[bad name] error: the section name may hold only letters, digits, '-', '.' and '_'",
        f + "[cli-broken] error: missing key \"desc\"",
        f + "[cli-broken] error: missing key \"dst.ports\"",
        f + "[cli-broken] error: \"src.ports\" value '80,,90' is not a port list: bad parameter (0x0D00 at "
            "service_conf_ports_get.cpp:",
        f + "[cli-backwards] warning: \"dst.ports\" names no protocol: the install-time conflict check does not "
            "compare it",
        f + "[cli-backwards] warning: \"dst.ports\" has the backwards range 42090:42080",
        f + "[cli-installed] warning: a package service of this name exists (" +
            path("/usr/local/etc/services.d/installed.sc") + "): lookups find only one of them",
        file + ": 5 service sections, 3 accepted; 4 errors, 3 warnings, 1 collision",
    };
    auto lines = r.lines();
    ASSERT_EQ(lines.size(), expected.size()) << r.out;
    for (size_t i = 0; i < lines.size(); ++i) EXPECT_EQ(lines[i].substr(0, expected[i].size()), expected[i]) << i;
    EXPECT_EQ(lines.back(), expected.back());

    JsonValue doc = svc({"validate", file, "--json"}).json();
    EXPECT_TRUE(doc["accepted"].boolean());  // some sections are good
    EXPECT_EQ(rows(doc["sections"], {"name", "accepted"}),
              "cli-clash true; bad name false; cli-broken false; cli-backwards true; cli-installed true; ");
    EXPECT_EQ(rows(doc["collisions"], {"section", "first", "last"}), "cli-clash 42001 42001; ");
    EXPECT_EQ(rows(doc["collisions"][0]["services"]), "cli-installed; ");
    EXPECT_EQ(doc["problems"][0].keys(), (std::vector<std::string>{"section", "severity", "message"}));
    EXPECT_EQ(rows(doc["problems"], {"section", "severity"}),
              "bad name error; cli-broken error; cli-broken error; cli-broken error; cli-backwards warning; "
              "cli-backwards warning; cli-installed warning; ");
}

TEST_F(CliValidateTest, FilesTheLibraryRefusesOrCannotRead) {
    std::string only_global = write_work("global.sc", "[global]\nversion=1\n");
    ToolRun r = svc({"validate", only_global});
    EXPECT_EQ(r.status, 1);
    EXPECT_TRUE(r.has(only_global + ": error: the file has no service section\n")) << r.out;
    EXPECT_FALSE(svc({"validate", only_global, "--json"}).json()["accepted"].boolean());

    ToolRun none = svc({"validate", write_work("none.sc", "[cli-a]\ntitle=\"A\"\n")});
    EXPECT_EQ(none.status, 1);
    EXPECT_TRUE(none.has("error: the library does not accept the file")) << none.out;

    expect_error(svc({"validate", work() + "/absent.sc"}), 3,
                 "kova-svc: validate: cannot read " + work() + "/absent.sc: file not found\n");
    EXPECT_EQ(svc({"validate", work()}).status, 3);  // a directory
}

}  // namespace
}  // namespace kova::cli_test
