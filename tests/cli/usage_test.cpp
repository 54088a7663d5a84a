// Help, usage errors and the options that every command takes.
#include <gtest/gtest.h>

#include <sstream>

#include "cli_test.h"

namespace kova::cli_test {
namespace {

using CliUsageTest = CliTest;

size_t longest_line(const std::string &text) {
    size_t longest = 0, cur = 0;
    for (char c : text) longest = std::max(longest, cur = c == '\n' ? 0 : cur + 1);
    return longest;
}

TEST_F(CliUsageTest, HelpNamesEveryCommandAndDocumentsItsJsonWithinEightyColumns) {
    ToolRun help = run({"--help"});
    EXPECT_EQ(help.status, 0);
    EXPECT_EQ(help.out.rfind("Usage: kova-svc", 0), 0u);
    EXPECT_EQ(help.err, "");
    EXPECT_LE(longest_line(help.out), 80u);
    EXPECT_EQ(run({"-h"}).out, help.out);
    EXPECT_EQ(run({"help"}).out, help.out);
    EXPECT_EQ(run({"--version"}).out.rfind("kova-svc ", 0), 0u);
    for (const char *c : {"list", "show", "check", "who", "sockets", "free", "validate", "install", "update", "remove",
                          "remove-section", "set-ports"}) {
        SCOPED_TRACE(c);
        EXPECT_TRUE(help.has(std::string("\n  ") + c + " "));
        ToolRun r = run({c, "--help"});
        EXPECT_EQ(r.status, 0);
        EXPECT_EQ(r.out.rfind(std::string("Usage: kova-svc ") + c, 0), 0u) << r.out;
        EXPECT_TRUE(r.has("--json"));
        EXPECT_LE(longest_line(r.out), 80u);
        EXPECT_EQ(run({"help", c}).out, r.out);
        // -h wins over bad operands and options.
        EXPECT_EQ(run({c, "bad", "operands", "here", "--no-such-option", "-h"}).out, r.out);
    }
}

TEST_F(CliUsageTest, UsageErrorsExitTwoWithOneLineOnStandardError) {
    // Command lines separated by '|', words by spaces ('' is an empty word): no command, an
    // unknown one, an operand too many or too few; unknown options, a missing value, a value for
    // a flag, options that exclude each other; values unknown, out of range, or not a plain name.
    std::istringstream lines(
        "|frobnicate|help frobnicate|list extra|show|list --bogus|--bogus list|check 80 --skip|list --json=yes|"
        "list --names --json|install x.sc --system --package|check 80/icmp|check 80 --sources dns|who 80:90|who 0|"
        "free --count 0|free --near 65536|free --proto sctp|install x.sc --as a/b.sc|remove ../x.sc|"
        "set-ports f.sc '' 80/tcp|set-ports f.sc s 80,,90/tcp");
    int cases = 0;
    for (std::string line; std::getline(lines, line, '|'); ++cases) {
        SCOPED_TRACE(line);
        expect_error(svc(words(line)), 2, "kova-svc: ");
    }
    EXPECT_EQ(cases, 22);
    // A port list the library refuses names the library's code in words.
    ToolRun ports = svc({"check", "80,,90/tcp"});
    expect_error(ports, 2, "kova-svc: check: ");
    EXPECT_NE(ports.err.find("bad parameter (0x0D00"), std::string::npos) << ports.err;
    expect_error(run({"--root", root() + "/absent", "list"}), 2,
                 "kova-svc: list: --root: '" + root() + "/absent' is not a directory");
    expect_error(run({"--root", "", "list"}), 2, "kova-svc: list: --root: '' is not a directory");
}

TEST_F(CliUsageTest, RootAndJsonApplyWhereverTheyStand) {
    write("/usr/local/etc/services.d/root-test.sc", "[root-probe]\ntitle=T\ndesc=D\ndst.ports=41234/tcp\n");
    // The environment points at an empty tree: --root wins over it.
    mkdir("/scratch/empty");
    std::vector<std::string> env = {"KOVA_ROOT=" + work() + "/empty"};
    for (const auto &args : {std::vector<std::string>{"--root", root(), "list", "--names"},
                             std::vector<std::string>{"list", "--names", "--root", root()},
                             std::vector<std::string>{"list", "--names", "--root=" + root()}}) {
        ToolRun r = run(args, env);
        EXPECT_EQ(r.status, 0) << r.err;
        EXPECT_TRUE(r.has("\nroot-probe\n")) << r.out;
    }
    ToolRun without = run({"list", "--names"}, env);
    EXPECT_EQ(without.status, 0);
    EXPECT_FALSE(without.has("root-probe"));

    ToolRun json = run({"--json", "--root", root(), "list"});
    EXPECT_EQ(json.status, 0) << json.err;
    EXPECT_EQ(json.json().keys(), std::vector<std::string>{"services"});
}

}  // namespace
}  // namespace kova::cli_test
