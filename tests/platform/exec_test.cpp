// Running programs through the core stand-in.
#include <kovaserviceconf.h>

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
    EXPECT_EQ(KVLIBCExec("/bin/sh", "-c", "kill -KILL $$", nullptr, nullptr), 128 + 9);

    KVLIBCErrSetEx(0, "", 0);
    std::string missing = path("/usr/bin/no-such-program");
    EXPECT_LT(KVLIBCExec(missing.c_str(), nullptr, nullptr, nullptr, nullptr), 0);
    EXPECT_NE(KVLIBCErrGet(), 0u);
    write("/usr/bin/not-executable", "#!/bin/sh\nexit 0\n", 0644);
    std::string plain = path("/usr/bin/not-executable");
    EXPECT_LT(KVLIBCExec(plain.c_str(), nullptr, nullptr, nullptr, nullptr), 0);
    EXPECT_LT(KVLIBCExec(nullptr, nullptr, nullptr, nullptr, nullptr), 0);

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
           "  echo \"env=$KOVA_EXEC_PROBE\"; echo \"stdin=$(readlink /proc/self/fd/0)\";\n"
           "  if read line; then echo \"read=$line\"; else echo eof; fi; } > \"$out\"\n");
    const std::string prog = path("/usr/bin/record");
    setenv("KOVA_EXEC_PROBE", "from caller", 1);
    ASSERT_EQ(KVLIBCExec(prog.c_str(), out.c_str(), "a b", "", nullptr), 0);
    EXPECT_EQ(read("/out"), "argc=2\n[a b]\n[]\nenv=from caller\nstdin=/dev/null\neof\n");
    ASSERT_EQ(KVLIBCExec(prog.c_str(), out.c_str(), nullptr, "ignored", "ignored"), 0);
    EXPECT_EQ(read("/out"), "argc=0\nenv=from caller\nstdin=/dev/null\neof\n");
    ASSERT_EQ(KVLIBCExecl(prog.c_str(), 0xBB, out.c_str(), "1", "2", "3", "4", "5", nullptr), 0);
    EXPECT_EQ(read("/out"), "argc=5\n[1]\n[2]\n[3]\n[4]\n[5]\nenv=from caller\nstdin=/dev/null\neof\n");
    unsetenv("KOVA_EXEC_PROBE");
}

}  // namespace
