// Allocation failures in the changing operations: every run ends with the catalogue's files as
// they were or as a clean call leaves them. A call that fails once leaves no backup behind; when
// memory stays exhausted, or a successful call's clean-up runs out of it, a backup may stay
// (outside the catalogue; the next backup replaces it).
#include <kovaserviceconf.h>

#include <cstring>
#include <filesystem>
#include <map>
#include <string>

#include "fault_harness.h"

namespace kova::fault {
namespace {

namespace fs = std::filesystem;
using Tree = std::map<std::string, std::string>;

class ChangeFaultTest : public FaultTest {
protected:
    void SetUp() override {
        FaultTest::SetUp();
        if (IsSkipped()) return;
        mkdir("/tmp");
        script("/usr/kova/bin/kovafirewall", "exit 0");
        write("/usr/kova/etc/firewall.d/rules", "pkg\n");
    }
    // Every file under the trees a change touches, backups and temporaries included.
    Tree all() const {
        Tree t;
        for (const char *dir : {"/usr/kova/etc", "/usr/local/etc", "/tmp"}) {
            std::error_code ec;
            for (auto it = fs::recursive_directory_iterator(path(dir), ec); !ec && it != fs::end(it); it.increment(ec))
                if (!it->is_directory())
                    t[it->path().string().substr(root().size())] = read(it->path().string().substr(root().size()));
        }
        return t;
    }
    // The live files: no backups, no temporaries.
    Tree tree() const {
        Tree t = all();
        std::erase_if(t, [](const auto &f) {
            return f.first.find(".tmp.") != std::string::npos || f.first.starts_with("/tmp/");
        });
        return t;
    }
    // Runs `op` through the harness; each run starts from `before` and must end in it or in the
    // tree that a clean call leaves.
    void expect_old_or_new(const std::string &name, const std::function<int()> &op) {
        const Tree before = all();
        ASSERT_EQ(op(), 0) << name;
        const Tree after = tree();
        ASSERT_NE(before, after) << name;
        int rc = 0;
        expect_robust(name, {[&] { restore(before); }, [&] { rc = op(); },
                             [&](bool) {
                                 const Tree now = tree();
                                 EXPECT_TRUE(rc == 0 || rc == -1) << rc;
                                 EXPECT_TRUE(now == before || now == after) << testing::PrintToString(now);
                                 if (rc != 0 && !sticky()) {
                                     EXPECT_EQ(all(), now);
                                 }
                                 return rc == 0;
                             },
                             [] {}, [] {}});
    }
    void restore(const Tree &t) const {
        std::error_code ec;
        for (const char *dir :
             {"/usr/kova/etc/services.d", "/usr/local/etc/services.d", "/usr/kova/etc/firewall.d", "/tmp"})
            fs::remove_all(path(dir), ec);
        mkdir("/tmp");
        for (const auto &[rel, text] : t) write(rel, text);
    }
    static KVLIB_SERVICE_CONF_REQUEST request(uint32_t scope, const char *file, const char *section) {
        KVLIB_SERVICE_CONF_REQUEST r{1, 1, 3, scope, {}, {}, KOVA_CONF_LOCATION_PACKAGE};
        std::strncpy(r.fileName, file, sizeof r.fileName - 1);
        std::strncpy(r.sectionName, section, sizeof r.sectionName - 1);
        return r;
    }
};
KOVA_FAULT_MODES(ChangeFaultTest);

TEST_P(ChangeFaultTest, SectionRemoval) {
    const auto req = request(0x05, "pkg.sc", "pkg");
    expect_old_or_new("KVLIBServiceConfSectionRemove", [&] { return KVLIBServiceConfSectionRemove(&req); });
}

}  // namespace
}  // namespace kova::fault
