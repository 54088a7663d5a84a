// The fault matrix of the changing operations: allocation failure (once and sticky) and I/O
// failure through the door (each system call failing in turn, and reads cut to one byte) over
// install, update, removal, section set, ports set, section port set and section removal.
//
// Every run returns 0 or -1 and ends with the catalogue's files (the firewall's record included)
// as they were or as a clean call leaves them, never in between. A failure injected once leaves
// no backup or temporary behind when the call fails; a call that succeeds may leave one when only
// its clean-up failed, and so may memory that stays exhausted (the next change replaces or
// removes it).
#include <kovaserviceconf.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <map>
#include <tuple>

#include "../change/change_test.h"
#include "foundation/door.h"
#include "fault_harness.h"

namespace kova::fault {
namespace {

namespace fs = std::filesystem;
using Tree = std::map<std::string, std::string>;  // file under the root -> content

// A door whose calls fail when its trigger fires, each with the errno of its kind; reads can be
// cut to one byte at a time.
class FailingSystem : public kova::System {
public:
    Trigger trigger;
    bool short_reads = false;
    std::string failed_call;  // the first call failed since the trigger was armed

#define KOVA_FAIL_OR_CALL(type, name, params, args)   \
    type name params override {                       \
        return fails(#name) ? -1 : System::name args; \
    }
    KOVA_FAIL_OR_CALL(int, open, (const char *path, int flags, mode_t mode), (path, flags, mode))
    KOVA_FAIL_OR_CALL(ssize_t, write, (int fd, const void *buf, size_t size), (fd, buf, size))
    KOVA_FAIL_OR_CALL(off_t, lseek, (int fd, off_t offset, int whence), (fd, offset, whence))
    KOVA_FAIL_OR_CALL(int, fstat, (int fd, struct stat *st), (fd, st))
    KOVA_FAIL_OR_CALL(int, stat, (const char *path, struct stat *st), (path, st))
    KOVA_FAIL_OR_CALL(int, access, (const char *path, int mode), (path, mode))
    KOVA_FAIL_OR_CALL(int, unlink, (const char *path), (path))
    KOVA_FAIL_OR_CALL(int, rename, (const char *from, const char *to), (from, to))
    KOVA_FAIL_OR_CALL(int, mkdir, (const char *path, mode_t mode), (path, mode))
    KOVA_FAIL_OR_CALL(int, list_dir, (const char *path, std::vector<std::string> &names), (path, names))
    KOVA_FAIL_OR_CALL(int, open_dir, (const char *path, std::vector<kova::DirEntry> &entries), (path, entries))
    KOVA_FAIL_OR_CALL(int, openat, (int dir, const char *name, int flags, mode_t mode), (dir, name, flags, mode))
    KOVA_FAIL_OR_CALL(ssize_t, readlinkat, (int dir, const char *name, char *buf, size_t size), (dir, name, buf, size))
    KOVA_FAIL_OR_CALL(int, run, (const char *program, const char *a1, const char *a2, const char *a3, const char *a4),
                      (program, a1, a2, a3, a4))
    KOVA_FAIL_OR_CALL(int, run_with, (const char *program, int options, const char *a1, const char *a2),
                      (program, options, a1, a2))
#undef KOVA_FAIL_OR_CALL
    ssize_t read(int fd, void *buf, size_t size) override {
        return fails("read") ? -1 : System::read(fd, buf, short_reads && size > 1 ? 1 : size);
    }
    // The descriptor is released even when the close reports a failure, as close(2) does.
    int close(int fd) override {
        const bool failing = fails("close");
        const int rc = System::close(fd);
        if (failing) errno = EIO;
        return failing ? -1 : rc;
    }

private:
    bool fails(const std::string &call) {
        if (!trigger.fire()) return false;
        if (trigger.fired() == 1) failed_call = call;
        errno = call == "write"                                                            ? ENOSPC
                : call == "open" || call == "openat" || call == "access" || call == "stat" ? EACCES
                : call == "list_dir" || call == "open_dir"                                 ? ENOENT
                                                                                           : EIO;
        return true;
    }
};

enum class Op { kInstall, kUpdate, kRemove, kSectionSet, kPortsSet, kSectionPortSet, kSectionRemove };
enum class Inject { kAllocOnce, kAllocSticky, kIo };

class ChangeFaultTest : public kova::test::ChangeTest, public ::testing::WithParamInterface<std::tuple<Op, Inject>> {
protected:
    void SetUp() override {
        if (inject() != Inject::kIo && !available()) GTEST_SKIP() << "no allocation failure injection under ASan";
        ChangeTest::SetUp();
        fs::remove_all(path("/usr/kova/etc/plugin.d"));  // no receiver: a run starts the tools only
        prime_c_library();
        new_source_ = path("/source/new.sc"), app_source_ = path("/source/app.sc");
        write("/source/new.sc", "[new]\ntitle=\"N\"\ndesc=\"N\"\ndst.ports=\"62000/tcp\"\n");
        write("/source/app.sc", "[app]\ntitle=\"U\"\ndesc=\"U\"\ndst.ports=\"62001/tcp\"\n");
        write("/usr/kova/etc/services.d/other.sc", "[other]\ntitle=\"O\"\ndesc=\"O\"\ndst.ports=\"61005/tcp\"\n");
        write("/usr/local/etc/services.d/app.sc",
              "[global]\nv=2\n\n[app]\ntitle=\"T\"\ndesc=\"D\"\ndst.ports=\"61000/tcp\"\n\n[b]\ntitle=\"B\"\n"
              "desc=\"B\"\ndst.ports=\"2/udp\"\n");
        // The firewall tool drops the service's record, which a failed removal must bring back.
        write("/usr/kova/etc/firewall.d/rules", "app\nother\n");
        firewall_tool(
            0, "[ \"$1\" = --remove-serv-rec ] && sed -i \"/^$2\\$/d\" " + path("/usr/kova/etc/firewall.d/rules"));
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
    int run_through(FailingSystem &sys) {
        kova::System *const previous = kova::install_system(&sys);
        const int rc = run_op();
        kova::install_system(previous);
        return rc;
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
        // Memory that stays exhausted can stop the roll-back itself: the firewall's record is then
        // left out, and its backup is kept.
        Tree kept = now;
        kept[kRules] = before_.at(kRules);
        const bool backed_up = std::ranges::any_of(all(), [&](const auto &f) {
            return f.first.starts_with("/usr/kova/etc/firewall.d.tmp.") && f.second == before_.at(kRules);
        });
        EXPECT_TRUE(now == live_of(before_) || now == after_ ||
                    (!once && rc != 0 && backed_up && kept == live_of(before_)))
            << what << ": " << testing::PrintToString(now);
        if (rc != 0 && once) {
            EXPECT_EQ(all(), now) << what << ": left behind";
        }
    }

    static KVLIB_SERVICE_CONF_REQUEST request(uint32_t action, uint32_t scope, const char *section) {
        return ChangeTest::request(1, 1, action, scope, "app.sc", section, KOVA_CONF_LOCATION_PACKAGE);
    }

    static constexpr const char *kRules = "/usr/kova/etc/firewall.d/rules";
    Tree before_, after_;
    std::string new_source_, app_source_;
    KVLIB_SERVICE_CONF_REQUEST req_{};
    KOVA_SERVICE_CONF_PORT port_{1, 0, KOVA_PROTO_TCP, 61001, 0, nullptr};
    KOVA_SERVICE_CONF_SECTION section_{};
};

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
                       }},
                      inject() == Inject::kAllocSticky ? Mode::kSticky : Mode::kOnce);
        return;
    }
    FailingSystem sys;
    put_back(before_);
    sys.short_reads = true;
    EXPECT_EQ(run_through(sys), 0) << "with one-byte reads";
    EXPECT_EQ(live(), after_);
    sys.short_reads = false;
    long failures = 0;
    for (long n = 1; !HasFailure(); ++n) {
        put_back(before_);
        sys.trigger.arm(n, false);
        const int rc = run_through(sys);
        if (sys.trigger.fired() == 0) {
            EXPECT_EQ(rc, 0);
            break;
        }
        failures += rc != 0;
        check_run(rc, true, sys.failed_call + " #" + std::to_string(n));
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
