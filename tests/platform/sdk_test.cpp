// Plug-in events and service state of the SDK stand-in.
#include <kovaserviceconf.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <fcntl.h>
#include <string>
#include <thread>

#include "kova_test.h"

namespace {

class PlatformPlugin : public kova::test::RootTest {
protected:
    const std::string dir_ = "/usr/kova/etc/plugin.d/port_config";

    // A receiver that appends its name, its arguments and chosen variables to /events.
    void receiver(const std::string &name, int status = 0) const {
        script(dir_ + "/" + name, "{ echo \"" + name +
                                      " $# $1\"; echo \"pf=${NOTIFY_PF-unset} fw=${NOTIFY_FW-unset}\";\n"
                                      "  echo \"old=<$OLD_PORT_CONFIG_CONTENT>\"; } >> \"" +
                                      path("/events") + "\"\n" + "exit " + std::to_string(status) + "\n");
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
    ASSERT_NE(plugin, nullptr);
    ASSERT_EQ(KVLIBPluginSetArg(plugin, "OLD_PORT_CONFIG_CONTENT", "x"), 0);
    ASSERT_EQ(KVLIBPluginSetArg(plugin, "NOTIFY_PF", "1"), 0);
    ASSERT_EQ(KVLIBPluginSetArg(plugin, "OLD_PORT_CONFIG_CONTENT", "[svc]\ndst.ports=\"80/tcp\"\n\n"), 0);
    ASSERT_EQ(KVLIBPluginAction(5, plugin), 0);
    KVLIBPluginExit(plugin);

    const std::string one = "pf=1 fw=unset\nold=<[svc]\ndst.ports=\"80/tcp\"\n\n>\n";
    EXPECT_EQ(read("/events"), "10-first 1 port_config/update\n" + one + "20-second 1 port_config/update\n" + one +
                                   "30-third 1 port_config/update\n" + one);
}

TEST_F(PlatformPlugin, EmptyValuesNoDirectoryAndBadArguments) {
    receiver("10-first");
    KVLIB_PLUGIN *plugin = nullptr;
    ASSERT_EQ(KVLIBPluginSDKInit("port_config", "port_config/remove", &plugin), 0);
    ASSERT_EQ(KVLIBPluginSetArg(plugin, "OLD_PORT_CONFIG_CONTENT", ""), 0);
    ASSERT_EQ(KVLIBPluginSetArg(plugin, "NOTIFY_FW", "1"), 0);
    EXPECT_LT(KVLIBPluginSetArg(plugin, "A=B", "1"), 0);
    EXPECT_LT(KVLIBPluginSetArg(plugin, "", "1"), 0);
    EXPECT_LT(KVLIBPluginSetArg(plugin, "X", nullptr), 0);
    EXPECT_LT(KVLIBPluginSetArg(nullptr, "X", "1"), 0);
    ASSERT_EQ(KVLIBPluginAction(5, plugin), 0);
    KVLIBPluginExit(plugin);
    EXPECT_EQ(read("/events"), "10-first 1 port_config/remove\npf=unset fw=1\nold=<>\n");

    ASSERT_EQ(KVLIBPluginSDKInit("no_receivers", "some/event", &plugin), 0);
    EXPECT_EQ(KVLIBPluginAction(5, plugin), 0);
    KVLIBPluginExit(plugin);
    KVLIBPluginExit(nullptr);

    EXPECT_NE(KVLIBPluginSDKInit("../escape", "e", &plugin), 0);
    EXPECT_NE(KVLIBPluginSDKInit("port_config", nullptr, &plugin), 0);
    EXPECT_NE(KVLIBPluginSDKInit("port_config", "e", nullptr), 0);
    EXPECT_LT(KVLIBPluginAction(5, nullptr), 0);
}

class PlatformService : public kova::test::RootTest {};

// A child that records each SIGHUP in a file, announcing when it is ready.
pid_t spawn_daemon(const std::string &marker, const std::string &ready) {
    pid_t pid = fork();
    if (pid != 0) return pid;
    static volatile sig_atomic_t hups = 0;
    struct sigaction sa {};
    sa.sa_handler = [](int) { hups = hups + 1; };
    sigaction(SIGHUP, &sa, nullptr);
    int fd = open(ready.c_str(), O_WRONLY | O_CREAT, 0644);
    close(fd);
    int seen = 0;
    for (;;) {
        while (seen < hups) {
            ++seen;
            int m = open(marker.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
            ssize_t ignored = write(m, "HUP\n", 4);
            (void)ignored;
            close(m);
        }
        usleep(2000);
    }
}

bool wait_for(const std::function<bool()> &cond) {
    for (int i = 0; i < 2500; ++i) {
        if (cond()) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return false;
}

TEST_F(PlatformService, RunningAndReloadFollowThePidFile) {
    EXPECT_EQ(KVLIBServiceIsRunning("kovarelayd"), 0);  // no pid file
    EXPECT_LT(KVLIBServiceReload("kovarelayd"), 0);
    mkdir("/run");
    const std::string marker = path("/hups"), ready = path("/ready");
    pid_t pid = spawn_daemon(marker, ready);
    ASSERT_GT(pid, 0);
    ASSERT_TRUE(wait_for([&] { return exists("/ready"); }));

    write("/run/kovarelayd.pid", "garbage\n");
    EXPECT_EQ(KVLIBServiceIsRunning("kovarelayd"), 0);
    write("/run/kovarelayd.pid", std::to_string(pid) + "\n");
    EXPECT_EQ(KVLIBServiceIsRunning("kovarelayd"), 1);
    EXPECT_EQ(KVLIBServiceIsRunning("otherd"), 0);
    ASSERT_EQ(KVLIBServiceReload("kovarelayd"), 0);
    EXPECT_TRUE(wait_for([&] { return read("/hups") == "HUP\n"; }));
    ASSERT_EQ(KVLIBServiceReload("kovarelayd"), 0);
    EXPECT_TRUE(wait_for([&] { return read("/hups") == "HUP\nHUP\n"; }));

    kill(pid, SIGKILL);
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_EQ(KVLIBServiceIsRunning("kovarelayd"), 0);  // the pid file names a dead process
    EXPECT_LT(KVLIBServiceReload("kovarelayd"), 0);
    EXPECT_EQ(KVLIBServiceIsRunning(nullptr), 0);
    EXPECT_EQ(KVLIBServiceIsRunning("../x"), 0);
}

}  // namespace
