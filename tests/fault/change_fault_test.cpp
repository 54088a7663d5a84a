// The fault matrix of the changing operations: allocation failure (once and sticky) and I/O
// failure through the door (each system call failing in turn, and reads cut to one byte) over
// install, update, removal, section set, ports set, section port set and section removal.
//
// Every run returns 0 or -1 and ends with the catalogue's files as they were or as a clean call
// leaves them, never in between. A failure injected once leaves no backup or temporary behind
// when the call fails; a call that succeeds may leave one when only its clean-up failed, and so
// may memory that stays exhausted (the next change replaces or removes it).
#include <kovaserviceconf.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <functional>
#include <map>
#include <tuple>

#include "../change/change_test.h"
#include "failing_system.h"
#include "fault_harness.h"

namespace kova::fault {
namespace {

namespace fs = std::filesystem;
using Tree = std::map<std::string, std::string>;  // file under the root -> content
using kova::test::FailingSystem;
using kova::test::ScopedSystem;

enum class Op { kInstall, kUpdate, kRemove, kSectionSet, kPortsSet, kSectionPortSet, kSectionRemove };
enum class Inject { kAllocOnce, kAllocSticky, kIo };

class ChangeFaultTest : public kova::test::ChangeTest, public ::testing::WithParamInterface<std::tuple<Op, Inject>> {
protected:
    void SetUp() override {
        if (inject() != Inject::kIo && !available()) GTEST_SKIP() << "no allocation failure injection under ASan";
        ChangeTest::SetUp();
        fs::remove_all(path("/usr/kova/etc/plugin.d"));  // no receiver: a run starts the tools only
        prime_c_library();
        new_source_ = path("/source/new.sc");
        app_source_ = path("/source/app.sc");
        write("/source/new.sc", "[new]\ntitle=\"N\"\ndesc=\"N\"\ndst.ports=\"62000/tcp\"\n");
        write("/source/app.sc", "[app]\ntitle=\"U\"\ndesc=\"U\"\ndst.ports=\"62001/tcp\"\n");
        write("/usr/kova/etc/services.d/other.sc", "[other]\ntitle=\"O\"\ndesc=\"O\"\ndst.ports=\"61005/tcp\"\n");
        write("/usr/local/etc/services.d/app.sc",
              "[global]\nv=2\n\n[app]\ntitle=\"T\"\ndesc=\"D\"\ndst.ports=\"61000/tcp\"\n\n[b]\ntitle=\"B\"\n"
              "desc=\"B\"\ndst.ports=\"2/udp\"\n");
        write("/usr/kova/etc/firewall.d/rules", "app\n");
        std::strcpy(section_.name, "app");
        std::strcpy(section_.title.text, "T2");
        std::strcpy(section_.desc.text, "D2");
        section_.dstPort = &port_;
    }
    Inject inject() const { return std::get<1>(GetParam()); }

    int run_op() {
        switch (std::get<0>(GetParam())) {
            case Op::kInstall:
                return KOVAServiceConfInstall(new_source_.c_str(), KOVA_CONF_LOCATION_PACKAGE);
            case Op::kUpdate:
                return KOVAServiceConfUpdateBaseName("app.sc", app_source_.c_str(), KOVA_CONF_LOCATION_PACKAGE,
                                                     nullptr);
            case Op::kRemove:
                return KOVAServiceConfRemove(&(req_ = request(3, 0x04, "")));
            case Op::kSectionSet:
                return KVLIBServiceConfSectionSet(&(req_ = request(1, 0x06, "app")), &section_);
            case Op::kPortsSet:
                return KVLIBServiceConfPortsSet(&(req_ = request(1, 0x06, "app")), &port_);
            case Op::kSectionPortSet:
                return KOVAServiceConfSectionPortSet(KOVA_CONF_LOCATION_PACKAGE, "app.sc", "app", &port_);
            case Op::kSectionRemove:
                return KVLIBServiceConfSectionRemove(&(req_ = request(3, 0x05, "app")));
        }
        return -2;
    }

    // Every file under the trees a change touches, backups and temporaries included; and only
    // the live ones.
    Tree all() const {
        Tree t;
        for (const char *dir : {"/usr/kova/etc", "/usr/local/etc", "/tmp"}) {
            std::error_code ec;
            for (auto it = fs::recursive_directory_iterator(path(dir), ec); !ec && it != fs::end(it);
                 it.increment(ec)) {
                const std::string rel = it->path().string().substr(root().size());
                if (!it->is_directory()) t[rel] = read(rel);
            }
        }
        return t;
    }
    Tree live() const { return live_of(all()); }
    static Tree live_of(Tree t) {
        std::erase_if(t, [](const auto &f) { return f.first.find(".tmp.") != std::string::npos || f.first[1] == 't'; });
        return t;
    }
    void put_back(const Tree &t) const {
        std::error_code ec;
        for (const char *dir : {"/usr/kova/etc", "/usr/local/etc", "/tmp"}) fs::remove_all(path(dir), ec);
        mkdir("/tmp");
        for (const auto &[rel, text] : t) write(rel, text);
    }

    // One run's outcome against the states before and after a clean call.
    void check_run(int rc, bool once, const std::string &what) const {
        const Tree now = live();
        EXPECT_TRUE(rc == 0 || rc == -1) << what << ": " << rc;
        EXPECT_TRUE(now == live_of(before_) || now == after_) << what << ": " << testing::PrintToString(now);
        if (rc != 0 && once) {
            EXPECT_EQ(all(), now) << what << ": left behind";
        }
    }

    static KVLIB_SERVICE_CONF_REQUEST request(uint32_t action, uint32_t scope, const char *section) {
        return ChangeTest::request(1, 1, action, scope, "app.sc", section, KOVA_CONF_LOCATION_PACKAGE);
    }

    Tree before_, after_;
    std::string new_source_, app_source_;
    KVLIB_SERVICE_CONF_REQUEST req_{};
    KOVA_SERVICE_CONF_PORT port_{1, 0, KOVA_PROTO_TCP, 61001, 0, nullptr};
    KOVA_SERVICE_CONF_SECTION section_{};
};

// The errno a call of each kind fails with.
int error_for(const std::string &call) {
    if (call == "read") return EIO;
    if (call == "write") return ENOSPC;
    if (call == "open" || call == "access" || call == "stat") return EACCES;
    if (call == "list_dir") return ENOENT;
    return EIO;
}

TEST_P(ChangeFaultTest, OldOrNewFilesNeverHalf) {
    before_ = all();
    ASSERT_EQ(run_op(), 0);
    after_ = live();
    ASSERT_NE(after_, live_of(before_));
    if (inject() != Inject::kIo) {
        int rc = 0;
        expect_robust("change",
                      {[&] { put_back(before_); }, [&] { rc = run_op(); },
                       [&](bool) {
                           check_run(rc, inject() == Inject::kAllocOnce, "allocation");
                           return rc == 0;
                       },
                       [] {}, [] {}},
                      inject() == Inject::kAllocSticky ? Mode::kSticky : Mode::kOnce);
        return;
    }
    FailingSystem sys;
    put_back(before_);
    sys.short_reads(true);
    {
        const ScopedSystem in_place(sys);
        EXPECT_EQ(run_op(), 0) << "with one-byte reads";
    }
    EXPECT_EQ(live(), after_);
    sys.short_reads(false);
    long failures = 0;
    for (long n = 1; !HasFailure(); ++n) {
        put_back(before_);
        int rc = 0;
        sys.arm(n, EIO);
        {
            const ScopedSystem in_place(sys);
            rc = run_op();
        }
        if (sys.failures() == 0) {
            EXPECT_EQ(rc, 0);
            break;
        }
        // The same call again, failing with the errno of its kind.
        put_back(before_);
        sys.arm(n, error_for(sys.failed_call()));
        {
            const ScopedSystem in_place(sys);
            rc = run_op();
        }
        failures += rc != 0;
        check_run(rc, true, sys.failed_call() + " #" + std::to_string(n));
    }
    EXPECT_GT(failures, 0) << "no injected failure made it fail";
}

std::string name_of(const ::testing::TestParamInfo<std::tuple<Op, Inject>> &info) {
    static const char *const ops[] = {"Install",  "Update",         "Remove",       "SectionSet",
                                      "PortsSet", "SectionPortSet", "SectionRemove"};
    static const char *const injects[] = {"AllocOnce", "AllocSticky", "Io"};
    return std::string(ops[static_cast<int>(std::get<0>(info.param))]) +
           injects[static_cast<int>(std::get<1>(info.param))];
}

INSTANTIATE_TEST_SUITE_P(Matrix, ChangeFaultTest,
                         ::testing::Combine(::testing::Values(Op::kInstall, Op::kUpdate, Op::kRemove, Op::kSectionSet,
                                                              Op::kPortsSet, Op::kSectionPortSet, Op::kSectionRemove),
                                            ::testing::Values(Inject::kAllocOnce, Inject::kAllocSticky, Inject::kIo)),
                         name_of);

}  // namespace
}  // namespace kova::fault
