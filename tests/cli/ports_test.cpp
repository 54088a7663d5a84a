// kova-svc check, who, sockets and free: conflicts, holders and free ports.
#include <gtest/gtest.h>
#include <unistd.h>

#include "cli_test.h"

namespace kova::cli_test {
namespace {

class CliPortsTest : public CliTest {
protected:
    void SetUp() override {
        CliTest::SetUp();
        write("/etc/kovainfo.conf", "ftpport=\"21\"\nsyslogport=\"41514\"\n");
        write("/usr/local/etc/services.d/cli-app.sc",
              "[cli-app]\ntitle=\"App\"\ndesc=\"Test app\"\ndst.ports=\"41001/tcp\"\n\n"
              "[cli-stream]\ntitle=\"Stream\"\ndesc=\"Test stream\"\ndst.ports=\"41003:41004/udp\"\n");
    }
};

TEST_F(CliPortsTest, CheckReportsTheCollisionAndWhoDeclaresEachPort) {
    drop_proc();
    ToolRun r = svc({"check", "41001,41090:41092/tcp", "--sources", "services", "--json"});
    EXPECT_EQ(r.status, 1) << r.err;
    EXPECT_EQ(r.err.rfind("kova-svc: warning: ", 0), 0u);  // no socket tables in this root
    JsonValue doc = r.json();
    EXPECT_EQ(doc.keys(), (std::vector<std::string>{"ports", "protocol", "skip", "sources", "conflict", "colliding",
                                                    "configured", "runtime"}));
    EXPECT_EQ(doc["ports"].str() + "/" + doc["protocol"].str(), "41001,41090:41092/tcp");
    EXPECT_EQ(rows(doc["sources"]), "services; ");
    EXPECT_TRUE(doc["conflict"].boolean());
    EXPECT_EQ(rows(doc["colliding"], {"first", "last"}), "41001 41001; ");
    // One record per port asked for, in the library's order.
    EXPECT_EQ(doc["configured"][0].keys(), (std::vector<std::string>{"port", "protocol", "service", "conflict"}));
    EXPECT_EQ(rows(doc["configured"], {"port", "protocol", "service", "conflict"}),
              "41001 tcp cli-app true; 41090 tcp - false; 41091 tcp - false; 41092 tcp - false; ");
    EXPECT_TRUE(doc["runtime"].is_null());

    ToolRun text = svc({"check", "41001,41090:41092/tcp", "--sources", "services"});
    EXPECT_EQ(text.status, 1);
    for (const char *line : {"Verdict:         conflict\n", "Colliding ports: 41001\n", "  41001  tcp    cli-app\n"})
        EXPECT_TRUE(text.has(line)) << line << text.out;

    // Skipped services do not collide.
    ToolRun skip = svc({"check", "41001/tcp", "--skip", "other,cli-app", "--sources", "services"});
    EXPECT_EQ(skip.status, 0) << skip.err;
    EXPECT_TRUE(skip.has("Verdict:         no conflict\n") && skip.has("cli-app (skipped)")) << skip.out;
    doc = svc({"check", "41001/tcp", "--skip", "other,cli-app", "--sources", "services", "--json"}).json();
    EXPECT_EQ(rows(doc["skip"]) + rows(doc["colliding"]) + doc["conflict"].text(), "other; cli-app; false");

    // The verdict follows the sources and the protocols.
    const struct {
        const char *ports, *sources;
        int status;
    } cases[] = {{"41514/tcp", "reserved", 1}, {"41515/tcp", "reserved", 0},  // the syslog setting
                 {"41003/udp", "services", 1}, {"41003/tcp", "services", 0},  // cli-stream is udp only
                 {"41001", "services", 1},     {"41001/udp", "services", 0}};
    for (const auto &c : cases)
        EXPECT_EQ(svc({"check", c.ports, "--sources", c.sources}).status, c.status) << c.ports << " " << c.sources;
}

TEST_F(CliPortsTest, RuntimeHoldersShowInCheckWhoSocketsAndFree) {
    use_real_proc();
    HeldPorts held;
    ASSERT_TRUE(held.tcp != 0 && held.udp != 0);
    const std::string port = std::to_string(held.tcp), pid = std::to_string(getpid());
    const std::string exe = std::filesystem::read_symlink("/proc/self/exe").string();

    EXPECT_EQ(svc({"check", port + "/tcp", "--sources", "in-use"}).status, 1);
    ToolRun who = svc({"who", port + "/tcp", "--json"});
    EXPECT_EQ(who.status, 1) << who.err;
    JsonValue doc = who.json();
    EXPECT_EQ(doc.keys(), (std::vector<std::string>{"port", "protocol", "configured", "runtime"}));
    ASSERT_EQ(doc["runtime"].size(), 1u);
    EXPECT_EQ(doc["runtime"][0].keys(),
              (std::vector<std::string>{"port", "protocol", "pid", "state", "state_name", "program", "conflict"}));
    EXPECT_EQ(rows(doc["runtime"], {"port", "protocol", "pid", "state", "state_name", "program", "conflict"}),
              port + " tcp " + pid + " 10 TCP_LISTEN " + exe + " true; ");
    EXPECT_TRUE(svc({"who", port + "/tcp"}).has(pid + "  LISTEN  " + exe));

    std::string sockets = rows(svc({"sockets", "--json"}).json()["sockets"], {"port", "protocol", "pid", "state"});
    EXPECT_NE(sockets.find(port + " tcp " + pid + " 10; "), std::string::npos) << sockets;
    EXPECT_NE(sockets.find(std::to_string(held.udp) + " udp " + pid + " 7; "), std::string::npos) << sockets;

    // The table: one row a socket, ports ascending, listening TCP and unconnected UDP sockets.
    ToolRun text = svc({"sockets", "--listening"});
    ASSERT_EQ(text.status, 0) << text.err;
    auto lines = text.lines();
    ASSERT_FALSE(lines.empty());
    EXPECT_NE(lines[0].find("PORT  PROTO"), std::string::npos) << lines[0];
    std::string rows_of_pid;
    for (size_t i = 1; i < lines.size(); ++i) {
        EXPECT_LE(lines[i].size(), 80u);
        EXPECT_GE(std::stoul(lines[i]), i > 1 ? std::stoul(lines[i - 1]) : 0) << lines[i];
        if (lines[i].find(" " + pid + "  ") != std::string::npos) rows_of_pid += lines[i] + "\n";
    }
    EXPECT_NE(rows_of_pid.find(port + "  tcp"), std::string::npos) << rows_of_pid;
    EXPECT_NE(rows_of_pid.find(" " + pid + "  LISTEN  " + exe), std::string::npos) << rows_of_pid;
    EXPECT_NE(rows_of_pid.find(" " + pid + "  UNCONN  " + exe), std::string::npos) << rows_of_pid;

    doc = svc({"free", "--near", port, "--proto", "tcp", "--json"}).json();
    EXPECT_TRUE(doc["in_use_checked"].boolean());
    EXPECT_EQ(doc["ports"].size(), 5u);
    EXPECT_EQ(rows(doc["ports"]).find(port + ";"), std::string::npos) << rows(doc["ports"]);
}

TEST_F(CliPortsTest, WithoutSocketTablesWhoAnswersFromTheConfigurationAndSocketsFails) {
    drop_proc();
    ToolRun r = svc({"who", "41001/tcp"});
    EXPECT_EQ(r.status, 1);
    EXPECT_TRUE(r.has("cli-app") && r.has("In use by processes: unknown")) << r.out;
    EXPECT_EQ(r.err, "");  // the text says it already
    EXPECT_EQ(svc({"who", "41002/tcp"}).status, 0);
    ToolRun json = svc({"who", "41001/tcp", "--json"});
    EXPECT_EQ(json.status, 1);
    EXPECT_TRUE(json.json()["runtime"].is_null());
    EXPECT_EQ(json.err.rfind("kova-svc: warning: ", 0), 0u) << json.err;

    expect_error(svc({"sockets"}), 3, "kova-svc: sockets: cannot read the ports in use");
}

TEST_F(CliPortsTest, FreeStepsOverDeclaredReservedAndRefusedPorts) {
    drop_proc();
    ASSERT_EQ(svc({"check", "412/tcp"}).status, 1);  // the conflict check refuses 412 whatever the sources
    const std::pair<std::string, std::string> cases[] = {
        {"--near 41000 --proto tcp", "41000 41002 41003 41004 41005"},
        {"--near 41000 --proto udp", "41000 41001 41002 41005 41006"},
        {"--near 41000", "41000 41002 41005 41006 41007"},
        {"--near 41000 --count 3", "41005 41006 41007"},
        {"--near 41512 --count 3", "41515 41516 41517"},  // 41514 is reserved
        {"--near 65535 --count 2", "65534 65535"},        // nothing above: the run below
        {"--near 412 --count 1 --proto tcp", "413"}};
    for (const auto &[args, ports] : cases) {
        ToolRun r = svc(words("free " + args));
        EXPECT_EQ(r.status, 0) << r.err;
        EXPECT_EQ(r.lines(), words(ports)) << args;
    }

    ToolRun r = svc({"free", "--near", "41000", "--count", "4", "--json"});
    ASSERT_EQ(r.status, 0) << r.err;
    JsonValue doc = r.json();
    EXPECT_EQ(doc.keys(), (std::vector<std::string>{"near", "protocol", "count", "ports", "in_use_checked"}));
    EXPECT_EQ(cells(doc, {"near", "protocol", "count", "in_use_checked"}), "41000 tcp,udp 4 false");
    EXPECT_EQ(rows(doc["ports"]), "41005; 41006; 41007; 41008; ");
    EXPECT_TRUE(svc({"free", "--json"}).json()["count"].is_null());

    // Without socket tables a warning comes first.
    ToolRun none = svc({"free", "--count", "65535"});
    EXPECT_EQ(none.status, 3);
    EXPECT_EQ(none.out, "");
    EXPECT_EQ(none.err.substr(none.err.find("\nkova-svc: free: ")),
              "\nkova-svc: free: no run of 65535 free tcp,udp ports is left\n")
        << none.err;
}

}  // namespace
}  // namespace kova::cli_test
