#include "fault_harness.h"

#include <ctime>
#include <memory>

namespace kova::fault {

void expect_robust(const std::string &name, const Case &c, Mode mode) {
    const char *mode_name = mode == Mode::kSticky ? "sticky" : "once";
    const auto *result = ::testing::UnitTest::GetInstance()->current_test_info()->result();
    const int failures_before = result->total_part_count();
    long failed_calls = 0;
    // Run 0 injects nothing: lazy one-time set-ups of the C library (time zone, the system log)
    // happen there, and the operation must succeed.
    for (long n = 0; n <= 200000; ++n) {
        SCOPED_TRACE(name + ", " + mode_name + ", failing allocation " + std::to_string(n));
        const long base = live();
        c.prepare();
        if (n > 0) allocations.arm(n, mode == Mode::kSticky);
        bool escaped = false;
        try {
            c.call();
        } catch (...) {
            escaped = true;
        }
        const long fired = allocations.fired();
        allocations.disarm();
        if (escaped) {
            ADD_FAILURE() << name << ": an exception crossed the C interface";
            return;
        }
        // What the checks themselves leave alive (the records of failed expectations) does not count.
        const long before_check = live();
        const bool success = c.check(n > 0 && fired > 0);
        const long by_check = live() - before_check;
        c.release();
        EXPECT_EQ(live() - by_check, base) << name << ": blocks left alive";
        failed_calls += !success;
        EXPECT_TRUE(success || (n > 0 && fired > 0)) << name << ": fails without an injected failure";
        if (n > 0 && fired == 0) {
            std::printf("%s (%s): %ld allocations in a full call, %ld runs ended in the failure result\n", name.c_str(),
                        mode_name, n - 1, failed_calls);
            return;
        }
        if (result->total_part_count() != failures_before) return;
    }
    ADD_FAILURE() << name << ": still allocating after 200000 runs";
}

Case all_or_nothing(std::function<void()> reset, std::function<int()> op, std::function<std::string()> now,
                    const std::string &expected, const std::string &untouched, std::function<void()> release,
                    bool sets_error) {
    auto rc = std::make_shared<int>(0);
    return {[reset] {
                reset();
                KVLIBCErrSetEx(kPoison, "test", 0);
            },
            [rc, op] { *rc = op(); },
            [=](bool) {
                EXPECT_EQ(now(), *rc == 0 ? expected : untouched) << "returned " << *rc;
                const unsigned int error = KVLIBCErrGet();
                EXPECT_TRUE(*rc == 0 || *rc == -1) << *rc;
                EXPECT_TRUE(sets_error ? *rc == 0 || error == KOVA_ERR_OUT_OF_MEMORY
                                       : error == kPoison || error == KOVA_ERR_OUT_OF_MEMORY)
                    << "error state " << error << " set by " << KVLIBCErrorGetFile();
                return *rc == 0;
            },
            release};
}

void prime_c_library() {
    tzset();
    const time_t now = time(nullptr);
    struct tm parts;
    localtime_r(&now, &parts);
}

void FaultTest::SetUp() {
    if (!available()) GTEST_SKIP() << "allocation failure injection is off under AddressSanitizer";
    kova::test::RootTest::SetUp();
    prime_c_library();
    write("/etc/kovainfo.conf", "ftpport=21\nftplowport=55536\nftphighport=55899\nsyslogport=514\nsmsport=465\n");
    write("/etc.defaults/kovainfo.conf", "supportmysql=yes\nsupportweb=yes\n");
    write("/etc/ssh/sshd_config", "Port 22\n");
    write("/etc/nfs/kova_nfs_conf", "nfs_custom_port_enable=no\n");
    write("/usr/kova/etc/services.d/web.sc",
          "[global]\nversion=2\nsupport_key=supportweb\n\n"
          "[web]\ntitle_key=\"web:title\"\ntitle=\"Web\"\ndesc_key=\"pkg:web:desc\"\ndesc=\"Web pages\"\n"
          "desc_extra=\"more\"\nport_forward=\"yes\"\ndst.ports=\"80,443,8000:8010/tcp\"\n");
    write("/usr/local/etc/services.d/pkg.sc",
          "[pkg]\ntitle=\"Package\"\ndesc=\"A "
          "package\"\nsrc.ports=\"1024:2048/udp\"\ndst.ports=\"9000,9100:9110/udp\"\n");
    tables(kova::test::sock_line(22, 0x0A, 20123), "", "", "");
}

}  // namespace kova::fault
