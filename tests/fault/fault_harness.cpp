#include "fault_harness.h"

#include <kovaserviceconf.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <sstream>

namespace kova::fault {

namespace {

constexpr long kMaxRuns = 200000;

std::string join(const std::vector<long> &values) {
    std::ostringstream out;
    for (size_t i = 0; i < values.size() && i < 20; ++i) out << (i ? ", " : "") << values[i];
    if (values.size() > 20) out << ", ... (" << values.size() << " runs)";
    return out.str();
}

// With KOVA_FAULT_TRACE set, the run that failed allocation `n` is repeated with call stacks
// recorded, and the stacks of the blocks it leaked are printed.
void trace_leak(const Case &c, long n, Mode mode) {
    if (std::getenv("KOVA_FAULT_TRACE") == nullptr) return;
    trace(true);
    c.prepare();
    arm(n, mode == Mode::kSticky);
    try {
        c.call();
    } catch (...) {
    }
    disarm();
    c.check(true);
    c.release();
    c.finish();
    trace(false);
    print_traced();
}

std::vector<std::string> *g_notes = nullptr;  // notes of the current run, when collecting

int failure_count() {
    return ::testing::UnitTest::GetInstance()->current_test_info()->result()->total_part_count();
}

}  // namespace

void degraded(const std::string &what) {
    if (g_notes != nullptr) g_notes->push_back(what);
}

void PrintTo(Mode mode, std::ostream *out) {
    *out << (mode == Mode::kSticky ? "sticky" : "once");
}

Outcome exhaust(const std::string &name, const Case &c, Mode mode) {
    Outcome out;
    const char *mode_name = mode == Mode::kSticky ? "sticky" : "once";
    const int failures_before = failure_count();

    // One run without failures first: lazy one-time set-ups of the C library (time zone, the
    // system log) happen there, and the operation must succeed.
    {
        const long before = live();
        c.prepare();
        c.call();
        const bool ok = c.check(false);
        c.release();
        c.finish();
        EXPECT_EQ(live(), before) << name << ": leaks without any failure";
        if (!ok || failure_count() != failures_before) {
            ADD_FAILURE() << name << ": the call does not succeed without failures";
            return out;
        }
    }

    for (long n = 1; n <= kMaxRuns; ++n) {
        SCOPED_TRACE(name + ", " + mode_name + ", failing allocation " + std::to_string(n));
        const long base = live();
        c.prepare();
        arm(n, mode == Mode::kSticky);
        bool escaped = false;
        try {
            c.call();
        } catch (...) {
            escaped = true;
        }
        const long fired = injected();
        disarm();
        if (escaped) {
            ADD_FAILURE() << name << ": an exception crossed the C interface";
            c.finish();
            return out;
        }
        // What the checks themselves leave alive (the records of failed expectations) does not count.
        const long before_check = live();
        std::vector<std::string> notes;
        g_notes = &notes;
        const bool success = c.check(fired > 0);
        g_notes = nullptr;
        for (const std::string &note : notes) out.degraded[note].push_back(n);
        notes.clear();
        notes.shrink_to_fit();
        const long by_check = live() - before_check;
        c.release();
        c.finish();
        if (live() - by_check != base) {
            out.leaks.push_back(n);
            trace_leak(c, n, mode);
        }
        if (!success) ++out.failed_calls;
        if (fired == 0) {
            out.allocations = n - 1;
            EXPECT_TRUE(success) << name << ": fails without an injected failure";
            return out;
        }
        if (failure_count() != failures_before) return out;
    }
    ADD_FAILURE() << name << ": still allocating after " << kMaxRuns << " runs";
    return out;
}

void expect_robust(const std::string &name, const Case &c, Mode mode) {
    const Outcome o = exhaust(name, c, mode);
    std::printf("%s (%s): %ld allocations in a full call, %ld runs ended in the failure result\n", name.c_str(),
                mode == Mode::kSticky ? "sticky" : "once", o.allocations, o.failed_calls);
    for (const auto &[note, runs] : o.degraded)
        std::printf("note: %s (%s): %s, after failing allocation %s\n", name.c_str(),
                    mode == Mode::kSticky ? "sticky" : "once", note.c_str(), join(runs).c_str());
    EXPECT_TRUE(o.leaks.empty()) << name << ": blocks left alive after failing allocation " << join(o.leaks);
    if (o.allocations > 0) ::testing::Test::RecordProperty(name + "_allocations", static_cast<int>(o.allocations));
}

std::string mode_name(const ::testing::TestParamInfo<Mode> &info) {
    return info.param == Mode::kSticky ? "Sticky" : "Once";
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
    write_small_root();
}

void FaultTest::write_small_root() const {
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
    const char *header =
        "  sl  local_address rem_address   st tx_queue rx_queue tr tm->when retrnsmt   uid  timeout inode\n";
    const char *line =
        "   0: 00000000:0016 00000000:0000 0A 00000000:00000000 00:00000000 00000000     0        0 20123 1 "
        "0000000000000000 100 0 0 10 0\n";
    write("/proc/net/tcp", std::string(header) + line);
    write("/proc/net/tcp6", header);
    write("/proc/net/udp", header);
    write("/proc/net/udp6", header);
}

}  // namespace kova::fault
