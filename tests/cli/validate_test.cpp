// kova-svc validate: a .sc file read as the library reads it.
#include <gtest/gtest.h>

#include "cli_test.h"

namespace kova::cli_test {
namespace {

class CliValidateTest : public CliTest {
protected:
    void SetUp() override {
        CliTest::SetUp();
        write("/usr/local/etc/services.d/installed.sc",
              "[cli-installed]\ntitle=\"Installed\"\ndesc=\"Already here\"\ndst.ports=\"42001/tcp\"\n");
    }

    static std::vector<std::string> findings(const ToolRun &r) {
        auto lines = r.lines();
        if (!lines.empty()) lines.pop_back();  // the summary
        return lines;
    }
};

TEST_F(CliValidateTest, AGoodFileHasNoFindings) {
    std::string file = write_work("good.sc",
                                  "[global]\nversion=2\n\n[cli-good]\ntitle=\"Good\"\ndesc=\"Fine\"\n"
                                  "dst.ports=\"42010,42011/tcp\"\n");
    ToolRun r = svc({"validate", file});
    EXPECT_EQ(r.status, 0) << r.out << r.err;
    EXPECT_EQ(r.out, file + ": 1 service section, 1 accepted; 0 errors, 0 warnings, 0 collisions\n");

    JsonValue doc = svc({"validate", file, "--json"}).json();
    EXPECT_EQ(doc.keys(), (std::vector<std::string>{"file", "accepted", "version", "support_key", "sections",
                                                    "problems", "collisions"}));
    EXPECT_TRUE(doc["accepted"].boolean());
    EXPECT_EQ(doc["version"].number(), 2);
    ASSERT_EQ(doc["sections"].size(), 1u);
    EXPECT_EQ(doc["sections"][0].keys(), (std::vector<std::string>{"name", "accepted", "dst", "src"}));
    EXPECT_EQ(doc["sections"][0]["dst"]["ports"][0].str(), "42010");  // the file's order
    EXPECT_TRUE(doc["sections"][0]["src"].is_null());
    EXPECT_EQ(doc["problems"].size(), 0u);
}

TEST_F(CliValidateTest, ReportsEveryProblemSectionBySection) {
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
    };
    auto lines = findings(r);
    ASSERT_EQ(lines.size(), expected.size()) << r.out;
    for (size_t i = 0; i < lines.size(); ++i) EXPECT_EQ(lines[i].substr(0, expected[i].size()), expected[i]) << i;
    EXPECT_EQ(r.lines().back(),
              f.substr(0, f.size() - 2) + ": 5 service sections, 3 accepted; 4 errors, 3 warnings, 1 collision");

    JsonValue doc = svc({"validate", file, "--json"}).json();
    EXPECT_TRUE(doc["accepted"].boolean());  // some sections are good
    ASSERT_EQ(doc["collisions"].size(), 1u);
    EXPECT_EQ(doc["collisions"][0]["section"].str(), "cli-clash");
    EXPECT_EQ(doc["collisions"][0]["first"].number(), 42001);
    EXPECT_EQ(doc["collisions"][0]["services"][0].str(), "cli-installed");
    EXPECT_EQ(doc["problems"].size(), 7u);
    EXPECT_EQ(doc["problems"][0].keys(), (std::vector<std::string>{"section", "severity", "message"}));
    EXPECT_EQ(doc["sections"][1]["name"].str(), "bad name");
    EXPECT_FALSE(doc["sections"][1]["accepted"].boolean());
}

TEST_F(CliValidateTest, AFileTheLibraryRefusesAsAWhole) {
    std::string only_global = write_work("global.sc", "[global]\nversion=1\n");
    ToolRun r = svc({"validate", only_global});
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.out.find(only_global + ": error: the file has no service section\n"), std::string::npos) << r.out;
    EXPECT_FALSE(svc({"validate", only_global, "--json"}).json()["accepted"].boolean());

    std::string none_good = write_work("none.sc", "[cli-a]\ntitle=\"A\"\n");
    ToolRun n = svc({"validate", none_good});
    EXPECT_EQ(n.status, 1);
    EXPECT_NE(n.out.find("error: the library does not accept the file"), std::string::npos) << n.out;
}

TEST_F(CliValidateTest, AMissingFileIsAFailedOperation) {
    ToolRun r = svc({"validate", work() + "/absent.sc"});
    EXPECT_EQ(r.status, 3);
    EXPECT_TRUE(r.out.empty());
    EXPECT_EQ(r.err, "kova-svc: validate: cannot read " + work() + "/absent.sc: file not found\n");
    EXPECT_EQ(svc({"validate", work()}).status, 3);  // a directory
}

TEST_F(CliValidateTest, ReinstallingTheSameFileIsNotACollision) {
    // The installed copy's sections skip themselves, as the install does.
    std::string file = write_work("installed.sc",
                                  "[cli-installed]\ntitle=\"Installed\"\ndesc=\"Already here\"\n"
                                  "dst.ports=\"42001/tcp\"\n");
    ToolRun r = svc({"validate", file});
    EXPECT_EQ(r.status, 0) << r.out;
}

}  // namespace
}  // namespace kova::cli_test
