// Sectioned files and key-value files of the core stand-in (the writers' meaning, repeated keys
// and untouched lines are also the section-write fuzz harness's model; crashes and concurrent
// writers: tests/change/crash_test.cpp).
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

    KVLIB_SZHASH *hash(const V &pairs) const {
        KVLIB_SZHASH *h = KVLIBCSzHashAlloc(16);
        for (size_t i = 0; i + 1 < pairs.size(); i += 2)
            KVLIBCSzHashSetValue(&h, pairs[i].c_str(), pairs[i + 1].c_str());
        return h;
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

TEST_F(PlatformSectionFile, ReadsSectionsKeysAndRawBytes) {
    write("/etc/test/file.sc", kSample);
    EXPECT_EQ(sections(), (V{"global", "web-ui", "empty", "last"}));
    EXPECT_EQ(section("web-ui"), (V{"title=Web UI", "protocol name=TCP", "desc=", "dst.ports=80,443/tcp"}));
    EXPECT_EQ(section("empty"), V{});
    EXPECT_EQ(section("Web-UI"), V{});  // names are case-sensitive

    const char raw[] = "[bin]\nk=v\0w\n\x01\xff\xfe=\x80\n";
    write("/etc/test/file.sc", std::string(raw, sizeof raw - 1) + "big=" + std::string(1 << 20, 'y') + "\n");
    EXPECT_EQ(section("bin"), (V{"k=v", "\x01\xff\xfe=\x80", "big=" + std::string(1 << 20, 'y')}));

    std::filesystem::remove(file());
    KVLIB_SZLIST *list = KVLIBCSzListAlloc(8);
    KVLIBCErrSetEx(0, "", 0);
    EXPECT_LT(KVLIBCFileEnumSection(file().c_str(), &list), 0);
    EXPECT_EQ(KVLIBCErrGet(), static_cast<unsigned>(KOVA_ERR_FILE_OPEN));
    KVLIBCSzListFree(list);
}

TEST_F(PlatformSectionFile, WritesKeepEveryOtherLine) {
    write("/etc/test/file.sc", kSample);
    ASSERT_EQ(KVLIBCFileSetSectionValue(file().c_str(), "web-ui", "protocol name", "UDP"), 0);
    ASSERT_EQ(KVLIBCFileSetSectionValue(file().c_str(), "web-ui", "src.ports", "1024:2048/tcp"), 0);
    ASSERT_EQ(KVLIBCFileSetSectionValue(file().c_str(), "last", "title", "\"Last\""), 0);
    ASSERT_EQ(KVLIBCFileSetSectionValue(file().c_str(), "new", "dst.ports", "9/udp"), 0);
    EXPECT_EQ(read("/etc/test/file.sc"),
              "# service file\n[global]\nversion = 2\n\n"
              "[web-ui]\n; comment inside\ntitle=\"Web UI\"\n  protocol name  =  UDP\ndesc=\"\"\n"
              "dst.ports=\"80,443/tcp\"\nsrc.ports=1024:2048/tcp\nno equals sign here\n"
              "[empty]\n[last]\ndst.ports = 22/tcp\ntitle=\"Last\"\n\n[new]\ndst.ports=9/udp\n");

    write("/etc/test/file.sc", kSample);
    KVLIB_SZHASH *h = hash({"dst.ports", "\"8080/tcp\"", "title", "\"New\"", "port_forward", "\"yes\""});
    ASSERT_EQ(KVLIBCFileSetSection(file().c_str(), "web-ui", nullptr, h, 0), 0);
    ASSERT_EQ(KVLIBCFileSetSection(file().c_str(), "empty", "renamed", h, 0), 0);
    ASSERT_EQ(KVLIBCFileAddSection(file().c_str(), "svc", h, 0), 0);
    ASSERT_EQ(KVLIBCFileAddSection(file().c_str(), "svc", h, 0), 0);  // never twice
    EXPECT_EQ(read("/etc/test/file.sc"),
              "# service file\n[global]\nversion = 2\n\n"
              "[web-ui]\n; comment inside\ntitle=\"New\"\ndst.ports=\"8080/tcp\"\nport_forward=\"yes\"\n"
              "no equals sign here\n[renamed]\ndst.ports=\"8080/tcp\"\ntitle=\"New\"\nport_forward=\"yes\"\n"
              "[last]\ndst.ports = 22/tcp\n\n[svc]\ndst.ports=\"8080/tcp\"\ntitle=\"New\"\nport_forward=\"yes\"\n");
    KVLIBCSzHashFree(h);

    write("/etc/test/file.sc", "[a]\nx=1\n# about b\n[b]\ny=2\n; inside b\nz=3\n\n# about c\n[c]\nw=4\n[b]\nagain=1\n");
    ASSERT_EQ(KVLIBCFileRemoveSection(file().c_str(), "b"), 0);
    ASSERT_EQ(KVLIBCFileRemoveSection(file().c_str(), "absent"), 0);
    EXPECT_EQ(read("/etc/test/file.sc"), "[a]\nx=1\n# about b\n\n# about c\n[c]\nw=4\n");
    const std::string missing = path("/etc/test/missing.sc");
    EXPECT_LT(KVLIBCFileRemoveSection(missing.c_str(), "a"), 0);
    EXPECT_FALSE(exists("/etc/test/missing.sc"));
}

TEST_F(PlatformSectionFile, BadTextIsRefusedAndNothingIsWritten) {
    write("/etc/test/file.sc", kSample);
    KVLIBCErrSetEx(0, "", 0);
    EXPECT_EQ(KVLIBCFileSetSectionValue(file().c_str(), "web-ui", "title", "a\nb"), -1);
    EXPECT_EQ(KVLIBCErrGet(), static_cast<unsigned>(KOVA_ERR_BAD_PARAMETER));
    EXPECT_EQ(KVLIBCFileSetSectionValue(file().c_str(), "web-ui", "a\rb", "v"), -1);
    EXPECT_EQ(KVLIBCFileSetSectionValue(file().c_str(), "a\nb", "k", "v"), -1);
    KVLIB_SZHASH *h = hash({"ok", "1", "title", "a\rb"});
    EXPECT_EQ(KVLIBCFileSetSection(file().c_str(), "web-ui", nullptr, h, 0), -1);
    EXPECT_EQ(KVLIBCFileAddSection(file().c_str(), "other", h, 0), -1);
    KVLIBCSzHashFree(h);
    EXPECT_EQ(KVLIBCFileSetSectionValue(file().c_str(), "web-ui", "a=b", "v"), -1);
    EXPECT_EQ(KVLIBCFileSetSectionValue(file().c_str(), "x]y", "k", "v"), -1);
    EXPECT_EQ(KVLIBCFileSetSectionValue(file().c_str(), "", "k", "v"), -1);
    EXPECT_EQ(read("/etc/test/file.sc"), kSample);
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

using PlatformKeyValueFile = kova::test::RootTest;

// Key-value lookups are the settings fuzz harness's model; here the line reader.
TEST_F(PlatformKeyValueFile, ReadLines) {
    write("/proc/net/tcp", "header\r\nline one\n\nlast");
    KVLIB_SZLIST *list = KVLIBCSzListAlloc(4);
    ASSERT_EQ(KVLIBCFileReadLines(path("/proc/net/tcp").c_str(), &list), 0);
    V lines;
    for (int i = 0; i < list->nItem; ++i) lines.emplace_back(KVLIBCSzListGet(list, i));
    EXPECT_EQ(lines, (V{"header", "line one", "", "last"}));
    KVLIBCErrSetEx(0, "", 0);
    EXPECT_LT(KVLIBCFileReadLines(path("/proc/net/udp").c_str(), &list), 0);
    EXPECT_EQ(KVLIBCErrGet(), static_cast<unsigned>(KOVA_ERR_FILE_OPEN));  // the socket reader looks at it
    KVLIBCSzListFree(list);
}

}  // namespace
