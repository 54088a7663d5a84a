// kova-svc check, who, sockets and free: conflicts, holders and free ports.
#include <gtest/gtest.h>
#include <kovaserviceconf.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <filesystem>

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

    // Without socket tables the runtime inventory cannot be built.
    void drop_proc() const {
        std::error_code ec;
        std::filesystem::remove_all(path("/proc"), ec);
    }

    static std::string self_exe() {
        char buf[PATH_MAX];
        ssize_t n = readlink("/proc/self/exe", buf, sizeof buf - 1);
        return n > 0 ? std::string(buf, static_cast<size_t>(n)) : std::string();
    }

    static std::vector<unsigned int> numbers(const ToolRun &r) {
        std::vector<unsigned int> out;
        for (const auto &l : r.lines()) out.push_back(static_cast<unsigned int>(std::stoul(l)));
        return out;
    }
};

TEST_F(CliPortsTest, CheckReportsTheCollisionAndWhoDeclaresEachPort) {
    drop_proc();
    ToolRun r = svc({"check", "41001,41090:41092/tcp", "--sources", "services", "--json"});
    EXPECT_EQ(r.status, 1) << r.err;
    JsonValue doc = r.json();
    EXPECT_EQ(doc.keys(), (std::vector<std::string>{"ports", "protocol", "skip", "sources", "conflict", "colliding",
                                                    "configured", "runtime"}));
    EXPECT_EQ(doc["ports"].str(), "41001,41090:41092");
    EXPECT_EQ(doc["protocol"].str(), "tcp");
    EXPECT_EQ(doc["sources"].size(), 1u);
    EXPECT_EQ(doc["sources"][0].str(), "services");
    EXPECT_TRUE(doc["conflict"].boolean());
    ASSERT_EQ(doc["colliding"].size(), 1u);
    EXPECT_EQ(doc["colliding"][0]["first"].number(), 41001);
    EXPECT_EQ(doc["colliding"][0]["last"].number(), 41001);
    // One record per port and protocol asked for, in the library's order.
    const JsonValue &conf = doc["configured"];
    ASSERT_EQ(conf.size(), 4u);
    EXPECT_EQ(conf[0].keys(), (std::vector<std::string>{"port", "protocol", "service", "conflict"}));
    EXPECT_EQ(conf[0]["port"].number(), 41001);
    EXPECT_EQ(conf[0]["service"].str(), "cli-app");
    EXPECT_TRUE(conf[0]["conflict"].boolean());
    for (size_t i = 1; i < 4; ++i) {
        EXPECT_EQ(conf[i]["port"].number(), 41089 + static_cast<double>(i));
        EXPECT_TRUE(conf[i]["service"].is_null());
        EXPECT_FALSE(conf[i]["conflict"].boolean());
    }
    EXPECT_TRUE(doc["runtime"].is_null());  // no socket tables in this root
    EXPECT_NE(r.err.find("warning"), std::string::npos);

    ToolRun text = svc({"check", "41001,41090:41092/tcp", "--sources", "services"});
    EXPECT_EQ(text.status, 1);
    EXPECT_NE(text.out.find("Verdict:         conflict\n"), std::string::npos) << text.out;
    EXPECT_NE(text.out.find("Colliding ports: 41001\n"), std::string::npos);
    EXPECT_NE(text.out.find("  41001  tcp    cli-app\n"), std::string::npos) << text.out;
}

TEST_F(CliPortsTest, SkippedServicesDoNotCollide) {
    drop_proc();
    ToolRun r = svc({"check", "41001/tcp", "--skip", "other,cli-app", "--sources", "services"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.out.find("Verdict:         no conflict"), std::string::npos);
    EXPECT_NE(r.out.find("cli-app (skipped)"), std::string::npos) << r.out;
    JsonValue doc = svc({"check", "41001/tcp", "--skip", "other,cli-app", "--sources", "services", "--json"}).json();
    EXPECT_FALSE(doc["conflict"].boolean());
    EXPECT_EQ(doc["skip"].size(), 2u);
    EXPECT_EQ(doc["colliding"].size(), 0u);
}

TEST_F(CliPortsTest, ReservedPortsAndProtocolsFollowTheLibrary) {
    drop_proc();
    EXPECT_EQ(svc({"check", "41514/tcp", "--sources", "reserved"}).status, 1);
    EXPECT_EQ(svc({"check", "41515/tcp", "--sources", "reserved"}).status, 0);
    // cli-stream is declared for udp only.
    EXPECT_EQ(svc({"check", "41003/udp", "--sources", "services"}).status, 1);
    EXPECT_EQ(svc({"check", "41003/tcp", "--sources", "services"}).status, 0);
}

TEST_F(CliPortsTest, CheckAndWhoNameTheProcessThatHoldsAPort) {
    use_real_proc();
    HeldPorts held;
    ASSERT_NE(held.tcp(), 0u);
    std::string port = std::to_string(held.tcp());

    EXPECT_EQ(svc({"check", port + "/tcp", "--sources", "in-use"}).status, 1);

    ToolRun who = svc({"who", port + "/tcp", "--json"});
    EXPECT_EQ(who.status, 1) << who.err;
    JsonValue doc = who.json();
    EXPECT_EQ(doc.keys(), (std::vector<std::string>{"port", "protocol", "configured", "runtime"}));
    bool found = false;
    for (size_t i = 0; i < doc["runtime"].size(); ++i) {
        const JsonValue &rec = doc["runtime"][i];
        EXPECT_EQ(rec.keys(),
                  (std::vector<std::string>{"port", "protocol", "pid", "state", "state_name", "program", "conflict"}));
        if (rec["pid"].number() == getpid()) {
            found = true;
            EXPECT_EQ(rec["state"].number(), 10);
            EXPECT_EQ(rec["state_name"].str(), "TCP_LISTEN");
            EXPECT_EQ(rec["program"].str(), self_exe());
            EXPECT_TRUE(rec["conflict"].boolean());
        }
    }
    EXPECT_TRUE(found) << who.out;

    ToolRun text = svc({"who", port + "/tcp"});
    EXPECT_EQ(text.status, 1);
    EXPECT_NE(text.out.find(std::to_string(getpid()) + "  LISTEN  " + self_exe()), std::string::npos) << text.out;

    // Nobody declares or holds the port for udp (unless the example root declares it).
    if (KOVAConfIsConflictPort(static_cast<uint16_t>(held.tcp()), KOVA_PROTO_UDP) == 0 &&
        KOVARuntimeIsConflictPort(static_cast<uint16_t>(held.tcp()), KOVA_PROTO_UDP) == 0) {
        ToolRun udp = svc({"who", port + "/udp"});
        EXPECT_EQ(udp.status, 0) << udp.out;
        EXPECT_NE(udp.out.find("In use by processes: none"), std::string::npos);
    }
}

TEST_F(CliPortsTest, WhoWithoutSocketTablesWarnsAndAnswersFromTheConfiguration) {
    drop_proc();
    ToolRun r = svc({"who", "41001/tcp"});
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.out.find("cli-app"), std::string::npos);
    EXPECT_NE(r.out.find("In use by processes: unknown"), std::string::npos);
    EXPECT_TRUE(r.err.empty()) << r.err;  // the text says it already
    EXPECT_EQ(svc({"who", "41002/tcp"}).status, 0);
    ToolRun json = svc({"who", "41001/tcp", "--json"});
    EXPECT_EQ(json.status, 1);
    EXPECT_TRUE(json.json()["runtime"].is_null());
    EXPECT_EQ(json.err.rfind("kova-svc: warning: ", 0), 0u) << json.err;
}

TEST_F(CliPortsTest, SocketsListsTheInventoryPortsAscending) {
    use_real_proc();
    HeldPorts held;
    ASSERT_NE(held.tcp(), 0u);
    ASSERT_NE(held.udp(), 0u);

    ToolRun json = svc({"sockets", "--json"});
    ASSERT_EQ(json.status, 0) << json.err;
    JsonValue doc = json.json();
    bool tcp = false, udp = false;
    for (size_t i = 0; i < doc["sockets"].size(); ++i) {
        const JsonValue &s = doc["sockets"][i];
        if (s["pid"].number() != getpid()) continue;
        tcp = tcp || (s["port"].number() == held.tcp() && s["protocol"].str() == "tcp" && s["state"].number() == 10);
        udp = udp || (s["port"].number() == held.udp() && s["protocol"].str() == "udp" && s["state"].number() == 7);
    }
    EXPECT_TRUE(tcp);
    EXPECT_TRUE(udp);

    ToolRun text = svc({"sockets", "--listening"});
    ASSERT_EQ(text.status, 0) << text.err;
    auto lines = text.lines();
    ASSERT_FALSE(lines.empty());
    for (const char *column : {"PORT", "PROTO", "PID", "STATE", "PROGRAM"})
        EXPECT_NE(lines[0].find(column), std::string::npos) << lines[0];
    unsigned long previous = 0;
    std::string pid = std::to_string(getpid());
    bool listed_tcp = false, listed_udp = false;
    for (size_t i = 1; i < lines.size(); ++i) {
        EXPECT_LE(lines[i].size(), 80u);
        unsigned long port = std::stoul(lines[i]);
        EXPECT_GE(port, previous) << lines[i];
        previous = port;
        if (lines[i].find(" " + pid + "  LISTEN ") != std::string::npos && port == held.tcp()) listed_tcp = true;
        if (lines[i].find(" " + pid + "  UNCONN ") != std::string::npos && port == held.udp()) listed_udp = true;
    }
    EXPECT_TRUE(listed_tcp) << text.out;
    EXPECT_TRUE(listed_udp) << text.out;
}

TEST_F(CliPortsTest, SocketsFailsWithoutSocketTables) {
    drop_proc();
    ToolRun r = svc({"sockets"});
    EXPECT_EQ(r.status, 3);
    EXPECT_TRUE(r.out.empty());
    EXPECT_EQ(r.err.rfind("kova-svc: sockets: cannot read the ports in use", 0), 0u) << r.err;
    EXPECT_EQ(r.err.find('\n'), r.err.size() - 1);
}

TEST_F(CliPortsTest, FreeStepsOverDeclaredAndReservedPortsPerProtocol) {
    drop_proc();
    ToolRun tcp = svc({"free", "--near", "41000", "--proto", "tcp"});
    EXPECT_EQ(tcp.status, 0) << tcp.err;
    EXPECT_EQ(numbers(tcp), (std::vector<unsigned int>{41000, 41002, 41003, 41004, 41005}));
    ToolRun udp = svc({"free", "--near", "41000", "--proto", "udp"});
    EXPECT_EQ(numbers(udp), (std::vector<unsigned int>{41000, 41001, 41002, 41005, 41006}));
    ToolRun both = svc({"free", "--near", "41000"});
    EXPECT_EQ(numbers(both), (std::vector<unsigned int>{41000, 41002, 41005, 41006, 41007}));
    ToolRun run = svc({"free", "--near", "41000", "--count", "3"});
    EXPECT_EQ(numbers(run), (std::vector<unsigned int>{41005, 41006, 41007}));
    // 41514 is reserved by the syslog setting.
    ToolRun reserved = svc({"free", "--near", "41512", "--count", "3"});
    EXPECT_EQ(numbers(reserved), (std::vector<unsigned int>{41515, 41516, 41517}));
    // When nothing is left above, the closest run below is taken.
    ToolRun below = svc({"free", "--near", "65535", "--count", "2"});
    EXPECT_EQ(numbers(below), (std::vector<unsigned int>{65534, 65535}));
}

TEST_F(CliPortsTest, FreeAnswersPassTheCheckAndItsJsonIsDocumented) {
    drop_proc();
    ToolRun r = svc({"free", "--near", "41000", "--count", "4", "--json"});
    ASSERT_EQ(r.status, 0) << r.err;
    JsonValue doc = r.json();
    EXPECT_EQ(doc.keys(), (std::vector<std::string>{"near", "protocol", "count", "ports", "in_use_checked"}));
    EXPECT_EQ(doc["near"].number(), 41000);
    EXPECT_EQ(doc["protocol"].str(), "tcp,udp");
    EXPECT_EQ(doc["count"].number(), 4);
    EXPECT_FALSE(doc["in_use_checked"].boolean());
    ASSERT_EQ(doc["ports"].size(), 4u);
    std::string first = std::to_string(static_cast<unsigned int>(doc["ports"][0].number()));
    std::string last = std::to_string(static_cast<unsigned int>(doc["ports"][3].number()));
    EXPECT_EQ(svc({"check", first + ":" + last}).status, 0);
    EXPECT_TRUE(svc({"free", "--json"}).json()["count"].is_null());
}

TEST_F(CliPortsTest, FreeSkipsWhatTheLibraryCheckRefuses) {
    drop_proc();
    // The conflict check refuses the single port 412 whatever the sources say.
    ASSERT_EQ(svc({"check", "412/tcp"}).status, 1);
    ToolRun r = svc({"free", "--near", "412", "--count", "1", "--proto", "tcp"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(numbers(r), (std::vector<unsigned int>{413}));
}

TEST_F(CliPortsTest, FreeLeavesOutPortsInUse) {
    use_real_proc();
    HeldPorts held;
    ASSERT_NE(held.tcp(), 0u);
    ToolRun r = svc({"free", "--near", std::to_string(held.tcp()), "--proto", "tcp", "--json"});
    ASSERT_EQ(r.status, 0) << r.err;
    JsonValue doc = r.json();
    EXPECT_TRUE(doc["in_use_checked"].boolean());
    for (size_t i = 0; i < doc["ports"].size(); ++i) EXPECT_NE(doc["ports"][i].number(), held.tcp());
}

TEST_F(CliPortsTest, FreeFailsWhenNoRunIsLeft) {
    drop_proc();
    ToolRun r = svc({"free", "--count", "65535"});
    EXPECT_EQ(r.status, 3);
    EXPECT_NE(r.err.find("no run of 65535 free tcp,udp ports is left"), std::string::npos) << r.err;
}

}  // namespace
}  // namespace kova::cli_test
