// Help, usage errors and the options that every command takes.
#include <gtest/gtest.h>

#include <filesystem>

#include "cli_test.h"

namespace kova::cli_test {
namespace {

const std::vector<std::string> kCommands = {"list",     "show",    "check",  "who",    "sockets",        "free",
                                            "validate", "install", "update", "remove", "remove-section", "set-ports"};

class CliUsageTest : public CliTest {};

size_t longest_line(const std::string &text) {
    size_t longest = 0, cur = 0;
    for (char c : text) {
        cur = c == '\n' ? 0 : cur + 1;
        longest = std::max(longest, cur);
    }
    return longest;
}

TEST_F(CliUsageTest, ToolHelpListsEveryCommandWithinEightyColumns) {
    for (const char *flag : {"--help", "-h"}) {
        ToolRun r = run({flag});
        EXPECT_EQ(r.status, 0) << flag;
        EXPECT_EQ(r.out.rfind("Usage: kova-svc", 0), 0u);
        for (const auto &c : kCommands) EXPECT_NE(r.out.find("\n  " + c + " "), std::string::npos) << c;
        EXPECT_LE(longest_line(r.out), 80u);
        EXPECT_TRUE(r.err.empty());
    }
    EXPECT_EQ(run({"help"}).out, run({"--help"}).out);
}

TEST_F(CliUsageTest, EveryCommandHasHelpThatDocumentsItsJson) {
    for (const auto &c : kCommands) {
        ToolRun r = run({c, "--help"});
        EXPECT_EQ(r.status, 0) << c;
        EXPECT_EQ(r.out.rfind("Usage: kova-svc " + c, 0), 0u) << r.out;
        EXPECT_NE(r.out.find("--json"), std::string::npos) << c;
        EXPECT_LE(longest_line(r.out), 80u) << c;
        // The same text through "help COMMAND", and --help wins over bad operands.
        EXPECT_EQ(run({"help", c}).out, r.out);
        EXPECT_EQ(run({c, "bad", "operands", "here", "--no-such-option", "-h"}).status, 0);
    }
}

TEST_F(CliUsageTest, VersionNamesTheTool) {
    ToolRun r = run({"--version"});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out.rfind("kova-svc ", 0), 0u);
}

TEST_F(CliUsageTest, UsageErrorsExitTwoWithOneLineOnStandardError) {
    const std::vector<std::vector<std::string>> bad = {
        {},                                   // no command
        {"frobnicate"},                       // unknown command
        {"help", "frobnicate"},               // help for an unknown command
        {"list", "extra"},                    // an operand too many
        {"show"},                             // a missing operand
        {"list", "--bogus"},                  // unknown option
        {"--bogus", "list"},                  // unknown option before the command
        {"check", "80,,90/tcp"},              // a port list the library refuses
        {"check", "80/icmp"},                 // an unknown protocol
        {"check", "80", "--sources", "dns"},  // an unknown source
        {"check", "80", "--skip"},            // an option without its value
        {"who", "80:90"},                     // a range where one port is wanted
        {"who", "0"},                         // port 0
        {"free", "--count", "0"},             // out of range
        {"free", "--near", "65536"},          // out of range
        {"free", "--proto", "sctp"},          // unknown protocol
        {"list", "--json=yes"},               // a flag with a value
        {"list", "--names", "--json"},        // options that exclude each other
        {"install", "x.sc", "--system", "--package"},
        {"install", "x.sc", "--as", "a/b.sc"},
        {"remove", "../x.sc"},
        {"set-ports", "f.sc", "", "80/tcp"},
    };
    for (const auto &args : bad) {
        std::vector<std::string> all = {"--root", root()};
        all.insert(all.end(), args.begin(), args.end());
        ToolRun r = run(all);
        std::string shown;
        for (const auto &a : args) shown += a + " ";
        EXPECT_EQ(r.status, 2) << shown << r.err;
        EXPECT_TRUE(r.out.empty()) << shown;
        ASSERT_FALSE(r.err.empty()) << shown;
        EXPECT_EQ(r.err.rfind("kova-svc: ", 0), 0u) << r.err;
        EXPECT_EQ(r.err.find('\n'), r.err.size() - 1) << "one line: " << r.err;
    }
}

TEST_F(CliUsageTest, BadPortListNamesTheLibraryCodeInWords) {
    ToolRun r = svc({"check", "80,,90/tcp"});
    EXPECT_EQ(r.status, 2);
    EXPECT_NE(r.err.find("bad parameter (0x0D00"), std::string::npos) << r.err;
}

TEST_F(CliUsageTest, RootMustBeADirectory) {
    ToolRun r = run({"--root", root() + "/does-not-exist", "list"});
    EXPECT_EQ(r.status, 2);
    EXPECT_NE(r.err.find("is not a directory"), std::string::npos);
    EXPECT_EQ(run({"--root", "", "list"}).status, 2);
}

TEST_F(CliUsageTest, RootOverridesTheEnvironmentBeforeOrAfterTheCommand) {
    write("/usr/local/etc/services.d/root-test.sc", "[root-probe]\ntitle=T\ndesc=D\ndst.ports=41234/tcp\n");
    // The environment points at an empty tree; --root must win, wherever it stands.
    std::string empty = work() + "/empty";
    std::filesystem::create_directories(empty);
    std::vector<std::string> env = {"KOVA_ROOT=" + empty};
    for (const auto &args : {std::vector<std::string>{"--root", root(), "list", "--names"},
                             std::vector<std::string>{"list", "--names", "--root", root()},
                             std::vector<std::string>{"list", "--names", "--root=" + root()}}) {
        ToolRun r = run(args, env);
        EXPECT_EQ(r.status, 0) << r.err;
        EXPECT_NE(r.out.find("root-probe\n"), std::string::npos) << r.out;
    }
    ToolRun without = run({"list", "--names"}, env);
    EXPECT_EQ(without.status, 0);
    EXPECT_EQ(without.out.find("root-probe"), std::string::npos);
}

TEST_F(CliUsageTest, JsonBeforeTheCommandAppliesToIt) {
    ToolRun r = run({"--json", "--root", root(), "list"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_TRUE(r.json().has("services"));
}

}  // namespace
}  // namespace kova::cli_test
