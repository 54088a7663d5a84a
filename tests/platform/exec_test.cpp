// Running programs, plug-in events and service state.
#include <kovacore.h>
#include <kovasdk.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "kova_test.h"

namespace {

using PlatformExec = kova::test::RootTest;

TEST_F(PlatformExec, ExitStatusSignalAndStartFailure) {
    EXPECT_EQ(KVLIBCExec("/bin/sh", "-c", "exit 0", nullptr, nullptr), 0);
    EXPECT_EQ(KVLIBCExec("/bin/sh", "-c", "exit 3", nullptr, nullptr), 3);
    EXPECT_EQ(KVLIBCExec("/bin/sh", "-c", "exit 255", nullptr, nullptr), 255);
    EXPECT_EQ(KVLIBCExec("/bin/sh", "-c", "kill -TERM $$", nullptr, nullptr), 128 + 15);

    const std::string missing = path("/usr/bin/no-such-program");
    EXPECT_LT(KVLIBCExec(missing.c_str(), nullptr, nullptr, nullptr, nullptr), 0);

    EXPECT_EQ(KVLIBCExecl("/bin/sh", 0xBB, "-c", "exit 0", nullptr), 0);
    EXPECT_EQ(KVLIBCExecl("/bin/sh", 0xBB, "-c", "exit 1", nullptr), -1);
    EXPECT_EQ(KVLIBCExecl("/bin/sh", 0xBB, "-c", "kill -TERM $$", nullptr), -1);
    EXPECT_EQ(KVLIBCExecl(missing.c_str(), 0xBB, "--reload", nullptr), -1);
}

TEST_F(PlatformExec, ArgumentsStopAtFirstNullWithEnvironmentAndNullStdin) {
    const std::string out = path("/out");
    script("/usr/bin/record",
           "out=\"$1\"; shift\n"
           "{ echo \"argc=$#\"; for a in \"$@\"; do echo \"[$a]\"; done;\n"
           "  echo \"env=$KOVA_EXEC_PROBE\"; echo \"stdin=$(readlink /proc/self/fd/0)\"; } > \"$out\"\n");
    const std::string prog = path("/usr/bin/record");
    setenv("KOVA_EXEC_PROBE", "from caller", 1);
    ASSERT_EQ(KVLIBCExec(prog.c_str(), out.c_str(), "a b", "", nullptr), 0);
    EXPECT_EQ(read("/out"), "argc=2\n[a b]\n[]\nenv=from caller\nstdin=/dev/null\n");
    ASSERT_EQ(KVLIBCExec(prog.c_str(), out.c_str(), nullptr, "ignored", "ignored"), 0);
    EXPECT_EQ(read("/out"), "argc=0\nenv=from caller\nstdin=/dev/null\n");
    ASSERT_EQ(KVLIBCExecl(prog.c_str(), 0xBB, out.c_str(), "1", "2", "3", "4", "5", nullptr), 0);
    EXPECT_EQ(read("/out"), "argc=5\n[1]\n[2]\n[3]\n[4]\n[5]\nenv=from caller\nstdin=/dev/null\n");
    unsetenv("KOVA_EXEC_PROBE");
}

class PlatformPlugin : public kova::test::RootTest {
protected:
    const std::string dir_ = "/usr/kova/etc/plugin.d/port_config";

    // A receiver that appends its name, its arguments and the plug-in variables to /events.
    void receiver(const std::string &name, int status = 0) const {
        script(dir_ + "/" + name, "{ echo \"" + name +
                                      " $# $1\"; echo \"pf=${NOTIFY_PF-unset} fw=${NOTIFY_FW-unset}\";\n" +
                                      "  echo \"old=<$OLD_PORT_CONFIG_CONTENT>\"; } >> \"" + path("/events") +
                                      "\"\nexit " + std::to_string(status) + "\n");
    }
};

TEST_F(PlatformPlugin, ReceiversRunInNameOrderWithEventAndArguments) {
    receiver("20-second", 3);  // fails, and does not stop the next
    receiver("10-first");
    receiver("30-third");
    write(dir_ + "/15-not-executable", "#!/bin/sh\necho bad >> " + path("/events") + "\n", 0644);
    write(dir_ + "/.hidden", "#!/bin/sh\necho bad >> " + path("/events") + "\n", 0755);
    mkdir(dir_ + "/25-directory");

    KVLIB_PLUGIN *plugin = nullptr;
    ASSERT_EQ(KVLIBPluginSDKInit("port_config", "port_config/update", &plugin), 0);
    ASSERT_EQ(KVLIBPluginSetArg(plugin, "OLD_PORT_CONFIG_CONTENT", "x"), 0);
    ASSERT_EQ(KVLIBPluginSetArg(plugin, "NOTIFY_PF", "1"), 0);
    ASSERT_EQ(KVLIBPluginSetArg(plugin, "OLD_PORT_CONFIG_CONTENT", "[svc]\ndst.ports=\"80/tcp\"\n\n"), 0);
    EXPECT_LT(KVLIBPluginSetArg(plugin, "A=B", "1"), 0);
    ASSERT_EQ(KVLIBPluginAction(5, plugin), 0);
    KVLIBPluginExit(plugin);

    const std::string one = "pf=1 fw=unset\nold=<[svc]\ndst.ports=\"80/tcp\"\n\n>\n";
    EXPECT_EQ(read("/events"), "10-first 1 port_config/update\n" + one + "20-second 1 port_config/update\n" + one +
                                   "30-third 1 port_config/update\n" + one);

    ASSERT_EQ(KVLIBPluginSDKInit("no_receivers", "some/event", &plugin), 0);
    EXPECT_EQ(KVLIBPluginAction(5, plugin), 0);  // nothing to run
    KVLIBPluginExit(plugin);
    EXPECT_NE(KVLIBPluginSDKInit("../escape", "e", &plugin), 0);
}

using PlatformService = kova::test::RootTest;

// A live daemon named by its pid file gets the reload: the change tests' relay daemon counts it.
TEST_F(PlatformService, NoLiveProcessNoReload) {
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

}  // namespace
