// Running programs, plug-in events, service state and the FTP, port-forwarding and network
// stand-ins (the SSH port is the settings fuzz harness's model).
#include <kovacore.h>
#include <kovanetsdk.h>
#include <kovasdk.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>

#include "kova_test.h"

namespace {

using Platform = kova::test::RootTest;

TEST_F(Platform, ExecExitStatusSignalAndStartFailure) {
    const std::string missing = path("/usr/bin/no-such-program");
    EXPECT_EQ((std::vector<int>{KVLIBCExec("/bin/sh", "-c", "exit 0", nullptr, nullptr),
                                KVLIBCExec("/bin/sh", "-c", "exit 3", nullptr, nullptr),
                                KVLIBCExec("/bin/sh", "-c", "exit 255", nullptr, nullptr),
                                KVLIBCExec("/bin/sh", "-c", "kill -TERM $$", nullptr, nullptr),
                                KVLIBCExecl("/bin/sh", 0xBB, "-c", "exit 0", nullptr),
                                KVLIBCExecl("/bin/sh", 0xBB, "-c", "exit 1", nullptr),
                                KVLIBCExecl("/bin/sh", 0xBB, "-c", "kill -TERM $$", nullptr),
                                KVLIBCExecl(missing.c_str(), 0xBB, "--reload", nullptr)}),
              (std::vector<int>{0, 3, 255, 128 + 15, 0, -1, -1, -1}));
    EXPECT_LT(KVLIBCExec(missing.c_str(), nullptr, nullptr, nullptr, nullptr), 0);
}

TEST_F(Platform, ExecArgumentsStopAtFirstNullWithEnvironmentAndNullStdin) {
    const std::string out = path("/out"), prog = path("/usr/bin/record");
    script("/usr/bin/record",
           "out=\"$1\"; shift\n{ echo \"argc=$#\"; for a in \"$@\"; do echo \"[$a]\"; done;\n"
           "  echo \"env=$KOVA_EXEC_PROBE\"; echo \"stdin=$(readlink /proc/self/fd/0)\"; } > \"$out\"\n");
    setenv("KOVA_EXEC_PROBE", "from caller", 1);
    const std::string tail = "env=from caller\nstdin=/dev/null\n";
    ASSERT_EQ(KVLIBCExec(prog.c_str(), out.c_str(), "a b", "", nullptr), 0);
    EXPECT_EQ(read("/out"), "argc=2\n[a b]\n[]\n" + tail);
    ASSERT_EQ(KVLIBCExec(prog.c_str(), out.c_str(), nullptr, "ignored", "ignored"), 0);
    EXPECT_EQ(read("/out"), "argc=0\n" + tail);
    ASSERT_EQ(KVLIBCExecl(prog.c_str(), 0xBB, out.c_str(), "1", "2", "3", "4", "5", nullptr), 0);
    EXPECT_EQ(read("/out"), "argc=5\n[1]\n[2]\n[3]\n[4]\n[5]\n" + tail);
    unsetenv("KOVA_EXEC_PROBE");
}

TEST_F(Platform, PluginReceiversRunInNameOrderWithEventAndArguments) {
    const std::string dir = "/usr/kova/etc/plugin.d/port_config/", events = path("/events");
    // Each receiver appends its name, its arguments and the plug-in variables; 20-second fails,
    // and does not stop the next.
    for (const std::string name : {"20-second", "10-first", "30-third"})
        script(dir + name, "{ echo \"" + name + " $# $1\"; echo \"pf=${NOTIFY_PF-unset} fw=${NOTIFY_FW-unset}\";\n" +
                               "  echo \"old=<$OLD_PORT_CONFIG_CONTENT>\"; } >> \"" + events + "\"\nexit " +
                               (name[0] == '2' ? "3" : "0") + "\n");
    write(dir + "15-not-executable", "#!/bin/sh\necho bad >> " + events + "\n", 0644);
    write(dir + ".hidden", "#!/bin/sh\necho bad >> " + events + "\n", 0755);
    mkdir(dir + "25-directory");
    KVLIB_PLUGIN *plugin = nullptr;
    ASSERT_EQ(KVLIBPluginSDKInit("port_config", "port_config/update", &plugin), 0);
    ASSERT_EQ(KVLIBPluginSetArg(plugin, "OLD_PORT_CONFIG_CONTENT", "x"), 0);
    ASSERT_EQ(KVLIBPluginSetArg(plugin, "NOTIFY_PF", "1"), 0);
    ASSERT_EQ(KVLIBPluginSetArg(plugin, "OLD_PORT_CONFIG_CONTENT", "[svc]\ndst.ports=\"80/tcp\"\n\n"), 0);
    EXPECT_LT(KVLIBPluginSetArg(plugin, "A=B", "1"), 0);
    ASSERT_EQ(KVLIBPluginAction(5, plugin), 0);
    KVLIBPluginExit(plugin);
    const std::string one = " 1 port_config/update\npf=1 fw=unset\nold=<[svc]\ndst.ports=\"80/tcp\"\n\n>\n";
    EXPECT_EQ(read("/events"), "10-first" + one + "20-second" + one + "30-third" + one);
    ASSERT_EQ(KVLIBPluginSDKInit("no_receivers", "some/event", &plugin), 0);
    EXPECT_EQ(KVLIBPluginAction(5, plugin), 0);  // nothing to run
    KVLIBPluginExit(plugin);
    EXPECT_NE(KVLIBPluginSDKInit("../escape", "e", &plugin), 0);
}

// A live daemon named by its pid file gets the reload: the change tests' relay daemon counts it.
TEST_F(Platform, ServiceWithoutLiveProcessGetsNoReload) {
    EXPECT_EQ(KVLIBServiceIsRunning("kovarelayd"), 0);  // no pid file
    EXPECT_LT(KVLIBServiceReload("kovarelayd"), 0);
    write("/run/kovarelayd.pid", "garbage\n");
    EXPECT_EQ(KVLIBServiceIsRunning("kovarelayd"), 0);
    const pid_t pid = fork();
    if (pid == 0) _exit(0);
    ASSERT_EQ(waitpid(pid, nullptr, 0), pid);
    write("/run/kovarelayd.pid", std::to_string(pid) + "\n");  // a dead process
    EXPECT_EQ(KVLIBServiceIsRunning("kovarelayd"), 0);
    KVLIBCErrSetEx(0, "", 0);
    EXPECT_LT(KVLIBServiceReload("kovarelayd"), 0);
    EXPECT_EQ(KVLIBCErrGet(), static_cast<unsigned>(KOVA_ERR_FILE_NOT_FOUND));
}

// Listening TCP and every UDP socket, over both address families; the callers sort and merge the
// ports themselves (tests/range covers which sockets count), so here the array's bounds. (The FTP
// passive range shows in the firewall catalogue, the rule file path in the forwarding rule checks.)
TEST_F(Platform, UsedPortsStayInTheArrayAndAMissingTableFails) {
    using kova::test::sock_line;
    tables(sock_line(8080, 0x0A) + sock_line(22, 0x0A) + sock_line(8081, 0x01) + "garbage line\n",
           sock_line(443, 0x0A, 0, true), sock_line(53, 0x07), "");
    auto used = [](int first, int last, int tcp, int capacity) {
        std::vector<int32_t> ports(static_cast<size_t>(capacity) + 1, -7);
        int count = capacity;
        if (KOVANetGetPortUsedInRange(ports.data(), &count, first, last, tcp) < 0) return std::vector<int32_t>{-1};
        EXPECT_EQ(ports.back(), -7);  // nothing written past the array
        std::vector<int32_t> out(ports.begin(), ports.begin() + count);
        std::sort(out.begin(), out.end());
        return out;
    };
    using P = std::vector<int32_t>;
    EXPECT_EQ(used(1, 65535, 1, 10), (P{22, 443, 8080}));
    EXPECT_EQ(used(8080, 8082, 1, 3), (P{8080}));
    EXPECT_EQ(used(1, 65535, 0, 10), (P{53}));
    EXPECT_EQ(used(1, 65535, 1, 2).size(), 2u);  // cut to the array
    EXPECT_EQ(used(1, 70000, 1, 1), P{-1});
    std::remove(path("/proc/net/udp6").c_str());
    EXPECT_EQ(used(1, 65535, 0, 10), P{-1});
}

}  // namespace
