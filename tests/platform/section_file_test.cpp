// Sectioned-file writers of the core stand-in: where new lines go, refusals, temporaries, scale.
// What the readers and writers mean, repeated keys and untouched lines are the section-write fuzz
// harness's model (the line reader the socket table harness's); crashes and concurrent writers:
// tests/change/crash_test.cpp.
#include <kovacore.h>
#include <sys/stat.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <string>
#include <vector>

#include "kova_test.h"

namespace {

using V = std::vector<std::string>;

class PlatformSectionFile : public kova::test::RootTest {
protected:
    std::string file() const { return path("/etc/test/file.sc"); }

    V sections() const {
        KVLIB_SZLIST *list = KVLIBCSzListAlloc(8);
        const int n = KVLIBCFileEnumSection(file().c_str(), &list);
        V out;
        for (int i = 0; i < list->nItem; ++i) out.emplace_back(KVLIBCSzListGet(list, i));
        KVLIBCSzListFree(list);
        EXPECT_EQ(n, static_cast<int>(out.size()));
        return out;
    }

    // The section as "key=value" texts in hash order; the read's result must equal their number.
    V section(const std::string &name) const {
        KVLIB_SZHASH *hash = KVLIBCSzHashAlloc(16);
        const int n = KVLIBCFileGetSection(file().c_str(), name.c_str(), &hash);
        V out;
        for (int i = 0; i < KVLIBCSzHashCount(hash); ++i)
            out.push_back(std::string(KVLIBCSzHashKeyAt(hash, i)) + "=" + KVLIBCSzHashValueAt(hash, i));
        KVLIBCSzHashFree(hash);
        EXPECT_EQ(n, static_cast<int>(out.size())) << name;
        return out;
    }

    V entries(const std::string &rel) const {
        V out;
        for (const auto &e : std::filesystem::directory_iterator(path(rel))) out.push_back(e.path().filename());
        std::sort(out.begin(), out.end());
        return out;
    }
};

const char kSample[] =
    "# service file\n[global]\nversion = 2\n\n"
    "[web-ui]\n; comment inside\ntitle=\"Web UI\"\n  protocol name  =  TCP  \ndesc=\"\"\n"
    "dst.ports=\"80,443/tcp\"\nno equals sign here\n"
    "[empty]\n[last]\ndst.ports = 22/tcp";  // no newline at the end

TEST_F(PlatformSectionFile, BadTextIsRefusedAndWritesKeepEveryOtherLine) {
    write("/etc/test/file.sc", kSample);
    KVLIBCErrSetEx(0, "", 0);
    EXPECT_EQ(KVLIBCFileSetSectionValue(file().c_str(), "web-ui", "title", "a\nb"), -1);
    EXPECT_EQ(KVLIBCErrGet(), static_cast<unsigned>(KOVA_ERR_BAD_PARAMETER));
    EXPECT_EQ(KVLIBCFileSetSectionValue(file().c_str(), "web-ui", "a=b", "v"), -1);
    EXPECT_EQ(KVLIBCFileSetSectionValue(file().c_str(), "x]y", "k", "v"), -1);
    EXPECT_EQ(KVLIBCFileSetSectionValue(file().c_str(), "", "k", "v"), -1);
    EXPECT_EQ(read("/etc/test/file.sc"), kSample);
    ASSERT_EQ(KVLIBCFileSetSectionValue(file().c_str(), "web-ui", "protocol name", "UDP"), 0);
    ASSERT_EQ(KVLIBCFileSetSectionValue(file().c_str(), "web-ui", "src.ports", "1024:2048/tcp"), 0);
    ASSERT_EQ(KVLIBCFileSetSectionValue(file().c_str(), "last", "title", "\"Last\""), 0);
    ASSERT_EQ(KVLIBCFileSetSectionValue(file().c_str(), "new", "dst.ports", "9/udp"), 0);
    EXPECT_EQ(read("/etc/test/file.sc"),
              "# service file\n[global]\nversion = 2\n\n"
              "[web-ui]\n; comment inside\ntitle=\"Web UI\"\n  protocol name  =  UDP\ndesc=\"\"\n"
              "dst.ports=\"80,443/tcp\"\nsrc.ports=1024:2048/tcp\nno equals sign here\n"
              "[empty]\n[last]\ndst.ports = 22/tcp\ntitle=\"Last\"\n\n[new]\ndst.ports=9/udp\n");
    EXPECT_LT(KVLIBCFileRemoveSection(path("/etc/test/missing.sc").c_str(), "a"), 0);
    EXPECT_FALSE(exists("/etc/test/missing.sc"));
}

TEST_F(PlatformSectionFile, TemporariesNeverLieInTheDirectoryAndStaleOnesGo) {
    write("/etc/test/file.sc", "[a]\nx=1\n", 0600);
    symlink(path("/etc/test/file.sc"), "/etc/test/link.sc");
    const V parent = entries("/etc");
    struct stat dir;
    ASSERT_EQ(stat(path("/etc/test").c_str(), &dir), 0);
    const std::string tag = "." + std::to_string(dir.st_ino) + ".";
    write("/etc/.file.sc" + tag + "Ab12Cd", "left by a killed writer");
    write("/etc/.other.sc" + tag + "Ab12Cd", "another file's");
    ASSERT_EQ(KVLIBCFileSetSectionValue(path("/etc/test/link.sc").c_str(), "a", "x", "2"), 0);
    EXPECT_EQ(entries("/etc/test"), (V{"file.sc", "link.sc"}));
    V after = parent;
    after.push_back(".other.sc" + tag + "Ab12Cd");
    std::sort(after.begin(), after.end());
    EXPECT_EQ(entries("/etc"), after);
    EXPECT_TRUE(std::filesystem::is_symlink(path("/etc/test/link.sc")));  // the link stays a link
    struct stat st;
    ASSERT_EQ(stat(file().c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0600u);
    EXPECT_EQ(read("/etc/test/file.sc"), "[a]\nx=2\n");
}

TEST_F(PlatformSectionFile, ManySectionsInLinearTime) {
    std::string many;
    for (int i = 0; i < 30000; ++i) many += "[s" + std::to_string(i) + "]\nkey=" + std::to_string(i) + "\n";
    write("/etc/test/file.sc", many);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(sections().size(), 30000u);
    ASSERT_EQ(KVLIBCFileSetSectionValue(file().c_str(), "s15000", "key", "x"), 0);
    ASSERT_EQ(KVLIBCFileRemoveSection(file().c_str(), "s0"), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
    EXPECT_EQ(section("s15000"), (V{"key=x"}));
}

}  // namespace
