// I/O failures through the door: every system call of an operation fails in turn. Each run ends
// with the catalogue's files as they were or as a clean call leaves them, never anything in
// between; a failure before the first write returns the failure result with nothing touched.
#include <kovaserviceconf.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <functional>
#include <map>

#include "failing_system.h"
#include "kova_test.h"

namespace kova::test {
namespace {

namespace fs = std::filesystem;
using Tree = std::map<std::string, std::string>;  // path under the root -> content ("/" for a directory)

class DoorFaultTest : public RootTest {
protected:
    void SetUp() override {
        RootTest::SetUp();
        mkdir("/tmp");
        write("/etc/kovainfo.conf", "ftpport=\"21\"\nsyslogport=\"514\"\n");
        write("/etc/nfs/kova_nfs_conf", "nfs_custom_port_enable=\"no\"\n");
        for (const char *t : {"tcp", "tcp6", "udp", "udp6"}) write(std::string("/proc/net/") + t, "  sl  local\n");
        script("/usr/kova/bin/kovafirewall", "exit 0");
        script("/usr/kova/sbin/kovaroutertool", "exit 0");
        write("/source/new.sc", "[new]\ntitle=\"N\"\ndesc=\"N\"\ndst.ports=\"62000/tcp\"\n");
    }

    // The catalogue every run starts from.
    void reset() const {
        std::error_code ec;
        for (const char *dir : {"/usr/kova/etc", "/usr/local/etc", "/tmp"}) fs::remove_all(path(dir), ec);
        mkdir("/tmp");
        write("/usr/kova/etc/services.d/other.sc", "[other]\ntitle=\"O\"\ndesc=\"O\"\ndst.ports=\"61005/tcp\"\n");
        write("/usr/local/etc/services.d/app.sc",
              "[global]\nv=2\n\n[app]\ntitle=\"T\"\ndesc=\"D\"\ndst.ports=\"61000/tcp\"\n\n[b]\ntitle=\"B\"\n"
              "desc=\"B\"\ndst.ports=\"2/udp\"\n");
        write("/usr/kova/etc/firewall.d/rules", "app\n");
    }

    // The live trees: services.d directories and the firewall's.
    Tree tree() const {
        Tree t;
        for (const char *dir : {"/usr/kova/etc/services.d", "/usr/local/etc/services.d", "/usr/kova/etc/firewall.d"}) {
            std::error_code ec;
            for (auto it = fs::recursive_directory_iterator(path(dir), ec); !ec && it != fs::end(it);
                 it.increment(ec)) {
                const std::string rel = it->path().string().substr(root().size());
                t[rel] = it->is_directory() ? "/" : read(rel);
            }
        }
        return t;
    }

    // Runs `op` failing system call 1, 2, ... with `error` until a run sees no failure. With
    // `untouched`, some run must fail before anything is written.
    void each_call_fails(const std::string &name, int error, const std::function<int()> &op, bool untouched = true) {
        reset();
        const Tree before = tree();
        ASSERT_EQ(op(), 0) << name << " fails without an injected failure";
        const Tree after = tree();
        ASSERT_NE(after, before) << name << " changes nothing";
        long failures = 0, untouched_failures = 0;
        for (long n = 1;; ++n) {
            reset();
            FailingSystem sys;
            int rc = 0;
            {
                const ScopedSystem in_place(sys);
                sys.arm(n, error);
                rc = op();
            }
            if (sys.failures() == 0) {
                EXPECT_EQ(rc, 0) << name;
                EXPECT_EQ(tree(), after) << name;
                break;
            }
            const std::string what = name + ": " + sys.failed_call() + " #" + std::to_string(n) + " failing";
            const Tree now = tree();
            EXPECT_TRUE(rc == 0 || rc == -1) << what << ": " << rc;
            EXPECT_TRUE(now == before || now == after) << what << ": " << testing::PrintToString(now);
            failures += rc == -1;
            untouched_failures += rc == -1 && now == before;
            if (HasFailure()) break;
        }
        EXPECT_GT(failures, 0) << name << ": no injected failure made it fail";
        if (untouched) {
            EXPECT_GT(untouched_failures, 0) << name << ": no failure left everything untouched";
        }
    }

    static KVLIB_SERVICE_CONF_REQUEST request(uint32_t action, uint32_t scope, const char *file, const char *section) {
        KVLIB_SERVICE_CONF_REQUEST r{1, 1, action, scope, {}, {}, KOVA_CONF_LOCATION_PACKAGE};
        std::strncpy(r.fileName, file, sizeof r.fileName - 1);
        std::strncpy(r.sectionName, section, sizeof r.sectionName - 1);
        return r;
    }
};

TEST_F(DoorFaultTest, RemovalLeavesTheFileOrRemovesIt) {
    const auto req = request(3, 0x04, "app.sc", "");
    each_call_fails("remove", EIO, [&] { return KOVAServiceConfRemove(&req); });
}

TEST_F(DoorFaultTest, SectionRemovalRestoresWhatItTouched) {
    const auto req = request(3, 0x05, "app.sc", "app");
    each_call_fails("section remove", EIO, [&] { return KVLIBServiceConfSectionRemove(&req); });
}

TEST_F(DoorFaultTest, PortEditKeepsTheOldFileOrWritesTheNewOne) {
    KOVA_SERVICE_CONF_PORT port{1, 0, KOVA_PROTO_TCP, 61001, 0, nullptr};
    // Its only call through the door is the firewall reload after the write.
    each_call_fails(
        "section port set", ENOSPC,
        [&] { return KOVAServiceConfSectionPortSet(KOVA_CONF_LOCATION_PACKAGE, "app.sc", "app", &port); }, false);
}

TEST_F(DoorFaultTest, InstallCopiesTheFileOrNothing) {
    const std::string source = path("/source/new.sc");
    each_call_fails("install", EACCES,
                    [&] { return KOVAServiceConfInstall(source.c_str(), KOVA_CONF_LOCATION_PACKAGE); });
}

}  // namespace
}  // namespace kova::test
