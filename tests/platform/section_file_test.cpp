// Sectioned files and key-value files of the core stand-in.
#include <kovaserviceconf.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
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
        int n = KVLIBCFileEnumSection(file().c_str(), &list);
        V out;
        for (int i = 0; i < list->nItem; ++i) out.emplace_back(KVLIBCSzListGet(list, i));
        KVLIBCSzListFree(list);
        EXPECT_EQ(n, static_cast<int>(out.size()));
        return out;
    }

    // The section as "key=value" texts in hash order; the read's result must equal their number.
    V section(const std::string &name) const {
        KVLIB_SZHASH *hash = KVLIBCSzHashAlloc(16);
        int n = KVLIBCFileGetSection(file().c_str(), name.c_str(), &hash);
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
            EXPECT_EQ(KVLIBCSzHashSetValue(&h, pairs[i].c_str(), pairs[i + 1].c_str()), 0);
        return h;
    }

    V dir_entries() const {
        V out;
        for (const auto &e : std::filesystem::directory_iterator(path("/etc/test")))
            out.push_back(e.path().filename().string());
        return out;
    }
};

const char kSample[] =
    "# service file\n[global]\nversion = 2\n\n"
    "[web-ui]\n; comment inside\ntitle=\"Web UI\"\n  protocol name  =  TCP  \ndesc=\"\"\n"
    "dst.ports=\"80,443/tcp\"\nno equals sign here\n"
    "[empty]\n[last]\ndst.ports = 22/tcp";  // no newline at the end

TEST_F(PlatformSectionFile, ReadsSectionsKeysQuotesCrlfAndDuplicates) {
    write("/etc/test/file.sc", kSample);
    EXPECT_EQ(sections(), (V{"global", "web-ui", "empty", "last"}));
    EXPECT_EQ(section("web-ui"), (V{"title=Web UI", "protocol name=TCP", "desc=", "dst.ports=80,443/tcp"}));
    EXPECT_EQ(section("last"), (V{"dst.ports=22/tcp"}));
    EXPECT_EQ(section("empty"), V{});
    EXPECT_EQ(section("Web-UI"), V{});  // names are case-sensitive

    write("/etc/test/file.sc",
          "[a]\r\nk1 = \"\"quoted\"\"\r\nk2=\"half\r\nk1=again\r\n[ b ]\r\nx=1\r\n[a]\r\nlater=1\r\n");
    EXPECT_EQ(sections(), (V{"a", "b"}));
    EXPECT_EQ(section("a"), (V{"k1=again", "k2=\"half"}));
    EXPECT_EQ(section("b"), (V{"x=1"}));

    write("/etc/test/file.sc", "key=value\n# no section\n");
    EXPECT_EQ(sections(), V{});
    std::remove(file().c_str());
    KVLIB_SZLIST *list = KVLIBCSzListAlloc(8);
    KVLIB_SZHASH *h = KVLIBCSzHashAlloc(8);
    KVLIBCErrSetEx(0, "", 0);
    EXPECT_LT(KVLIBCFileEnumSection(file().c_str(), &list), 0);
    EXPECT_EQ(KVLIBCErrGet(), static_cast<unsigned>(KOVA_ERR_FILE_OPEN));
    EXPECT_LT(KVLIBCFileGetSection(file().c_str(), "a", &h), 0);
    KVLIBCSzListFree(list);
    KVLIBCSzHashFree(h);
}

TEST_F(PlatformSectionFile, SetSectionValueKeepsEveryOtherLine) {
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
    EXPECT_EQ(section("last"), (V{"dst.ports=22/tcp", "title=Last"}));
    EXPECT_EQ(dir_entries(), V{"file.sc"});  // no temporary file left behind
}

TEST_F(PlatformSectionFile, SetSectionReplacesKeysRenamesAndKeepsComments) {
    write("/etc/test/file.sc", kSample);
    KVLIB_SZHASH *h = hash({"dst.ports", "\"8080/tcp\"", "title", "\"New\"", "port_forward", "\"yes\""});
    ASSERT_EQ(KVLIBCFileSetSection(file().c_str(), "web-ui", nullptr, h, 0), 0);
    EXPECT_EQ(read("/etc/test/file.sc"),
              "# service file\n[global]\nversion = 2\n\n"
              "[web-ui]\n; comment inside\ntitle=\"New\"\ndst.ports=\"8080/tcp\"\nport_forward=\"yes\"\n"
              "no equals sign here\n[empty]\n[last]\ndst.ports = 22/tcp");

    ASSERT_EQ(KVLIBCFileSetSection(file().c_str(), "empty", "renamed", h, 0), 0);
    EXPECT_EQ(sections(), (V{"global", "web-ui", "renamed", "last"}));
    EXPECT_EQ(section("renamed"), (V{"dst.ports=8080/tcp", "title=New", "port_forward=yes"}));
    EXPECT_EQ(section("last"), (V{"dst.ports=22/tcp"}));
    KVLIBCSzHashFree(h);
}

TEST_F(PlatformSectionFile, AddSectionAppendsOnceAndCreatesTheFile) {
    write("/etc/test/file.sc", "# head\n[a]\nx=1");
    KVLIB_SZHASH *h = hash({"title", "\"T\"", "dst.ports", "80/tcp"});
    ASSERT_EQ(KVLIBCFileAddSection(file().c_str(), "svc", h, 0), 0);
    EXPECT_EQ(read("/etc/test/file.sc"), "# head\n[a]\nx=1\n\n[svc]\ntitle=\"T\"\ndst.ports=80/tcp\n");
    KVLIB_SZHASH *h2 = hash({"title", "U"});
    ASSERT_EQ(KVLIBCFileAddSection(file().c_str(), "svc", h2, 0), 0);
    EXPECT_EQ(sections(), (V{"a", "svc"}));
    EXPECT_EQ(section("svc"), (V{"title=U"}));
    std::string other = path("/etc/test/new.sc");
    ASSERT_EQ(KVLIBCFileAddSection(other.c_str(), "first", h, 0), 0);
    EXPECT_EQ(read("/etc/test/new.sc"), "[first]\ntitle=\"T\"\ndst.ports=80/tcp\n");
    KVLIBCSzHashFree(h);
    KVLIBCSzHashFree(h2);
}

TEST_F(PlatformSectionFile, RemoveSectionKeepsOthersAndTheCommentOfTheNext) {
    write("/etc/test/file.sc", "[a]\nx=1\n# about b\n[b]\ny=2\n; inside b\nz=3\n\n# about c\n[c]\nw=4\n[b]\nagain=1\n");
    ASSERT_EQ(KVLIBCFileRemoveSection(file().c_str(), "b"), 0);
    EXPECT_EQ(read("/etc/test/file.sc"), "[a]\nx=1\n# about b\n\n# about c\n[c]\nw=4\n");
    EXPECT_EQ(KVLIBCFileRemoveSection(file().c_str(), "absent"), 0);
    EXPECT_EQ(read("/etc/test/file.sc"), "[a]\nx=1\n# about b\n\n# about c\n[c]\nw=4\n");
    KVLIBCErrSetEx(0, "", 0);
    std::string missing = path("/etc/test/missing.sc");
    EXPECT_LT(KVLIBCFileRemoveSection(missing.c_str(), "a"), 0);
    EXPECT_EQ(KVLIBCErrGet(), static_cast<unsigned>(KOVA_ERR_FILE_OPEN));
    EXPECT_FALSE(exists("/etc/test/missing.sc"));
}

TEST_F(PlatformSectionFile, LineBreaksAreRefusedAndNothingIsWritten) {
    write("/etc/test/file.sc", kSample);
    for (const char *bad : {"a\nb", "a\rb", "\n"}) {
        SCOPED_TRACE(testing::PrintToString(bad));
        KVLIBCErrSetEx(0, "", 0);
        EXPECT_EQ(KVLIBCFileSetSectionValue(file().c_str(), "web-ui", "title", bad), -1);
        EXPECT_EQ(KVLIBCErrGet(), static_cast<unsigned>(KOVA_ERR_BAD_PARAMETER));
        EXPECT_EQ(KVLIBCFileSetSectionValue(file().c_str(), "web-ui", bad, "v"), -1);
        EXPECT_EQ(KVLIBCFileSetSectionValue(file().c_str(), bad, "k", "v"), -1);
        KVLIB_SZHASH *h = hash({"ok", "1", "title", bad});
        EXPECT_EQ(KVLIBCFileSetSection(file().c_str(), "web-ui", nullptr, h, 0), -1);
        EXPECT_EQ(KVLIBCFileAddSection(file().c_str(), "other", h, 0), -1);
        KVLIBCSzHashFree(h);
        KVLIB_SZHASH *k = hash({"bad\nkey", "1"});
        EXPECT_EQ(KVLIBCFileAddSection(file().c_str(), "other", k, 0), -1);
        KVLIBCSzHashFree(k);
    }
    EXPECT_EQ(KVLIBCFileSetSectionValue(file().c_str(), "web-ui", "a=b", "v"), -1);
    EXPECT_EQ(KVLIBCFileSetSectionValue(file().c_str(), "x]y", "k", "v"), -1);
    EXPECT_EQ(KVLIBCFileSetSectionValue(file().c_str(), "", "k", "v"), -1);
    EXPECT_EQ(read("/etc/test/file.sc"), kSample);
    EXPECT_EQ(dir_entries(), V{"file.sc"});
}

TEST_F(PlatformSectionFile, RewriteKeepsModeAndFollowsLinks) {
    write("/etc/test/real.sc", "[a]\nx=1\n", 0600);
    symlink(path("/etc/test/real.sc"), "/etc/test/file.sc");
    ASSERT_EQ(KVLIBCFileSetSectionValue(file().c_str(), "a", "x", "2"), 0);
    struct stat st;
    ASSERT_EQ(lstat(file().c_str(), &st), 0);
    EXPECT_TRUE(S_ISLNK(st.st_mode));
    ASSERT_EQ(stat(path("/etc/test/real.sc").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0600u);
    EXPECT_EQ(read("/etc/test/real.sc"), "[a]\nx=2\n");
}

TEST_F(PlatformSectionFile, ConcurrentWritersLoseNoUpdate) {
    write("/etc/test/file.sc", "# shared\n[s]\n");
    constexpr int kKeys = 150;
    std::vector<pid_t> children;
    for (const char *prefix : {"a", "b"}) {
        pid_t pid = fork();
        ASSERT_GE(pid, 0);
        if (pid == 0) {
            int failures = 0;
            for (int i = 0; i < kKeys; ++i) {
                std::string key = std::string(prefix) + std::to_string(i);
                if (KVLIBCFileSetSectionValue(file().c_str(), "s", key.c_str(), std::to_string(i).c_str()) != 0)
                    ++failures;
            }
            _exit(failures == 0 ? 0 : 1);
        }
        children.push_back(pid);
    }
    for (int i = 0; i < 100; ++i) EXPECT_EQ(sections(), V{"s"});  // readers see a complete file
    for (pid_t pid : children) {
        int status = 0;
        ASSERT_EQ(waitpid(pid, &status, 0), pid);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    }
    V keys = section("s");
    EXPECT_EQ(keys.size(), 2u * kKeys);
    for (const char *prefix : {"a", "b"})
        for (int i = 0; i < kKeys; i += 37) {
            std::string entry = std::string(prefix) + std::to_string(i) + "=" + std::to_string(i);
            EXPECT_NE(std::find(keys.begin(), keys.end(), entry), keys.end()) << entry;
        }
    EXPECT_EQ(read("/etc/test/file.sc").rfind("# shared\n[s]\n", 0), 0u);
    EXPECT_EQ(dir_entries(), V{"file.sc"});
}

TEST_F(PlatformSectionFile, BinaryContentHugeLinesAndManySections) {
    const char raw[] = "[bin]\nk=v\0w\n\x01\xff\xfe=\x80\n";
    std::string binary(raw, sizeof raw - 1);
    binary += std::string(1 << 20, 'x') + "\n" + "big=" + std::string(1 << 20, 'y') + "\n[tail]\nz=1\n";
    write("/etc/test/file.sc", binary);
    EXPECT_EQ(sections(), (V{"bin", "tail"}));
    KVLIB_SZHASH *h = KVLIBCSzHashAlloc(8);
    EXPECT_EQ(KVLIBCFileGetSection(file().c_str(), "bin", &h), 3);
    EXPECT_STREQ(KVLIBCSzHashGetValue(h, "k"), "v");  // the value ends at the NUL byte
    EXPECT_EQ(std::string(KVLIBCSzHashGetValue(h, "big")).size(), size_t{1} << 20);
    KVLIBCSzHashFree(h);
    ASSERT_EQ(KVLIBCFileSetSectionValue(file().c_str(), "tail", "z", "2"), 0);
    EXPECT_EQ(read("/etc/test/file.sc"), binary.substr(0, binary.size() - 2) + "2\n");

    std::string many;
    for (int i = 0; i < 30000; ++i) many += "[s" + std::to_string(i) + "]\nkey=" + std::to_string(i) + "\n";
    write("/etc/test/file.sc", many);
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(sections().size(), 30000u);
    EXPECT_EQ(section("s29999"), (V{"key=29999"}));
    ASSERT_EQ(KVLIBCFileSetSectionValue(file().c_str(), "s15000", "key", "x"), 0);
    ASSERT_EQ(KVLIBCFileRemoveSection(file().c_str(), "s0"), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
    EXPECT_EQ(section("s15000"), (V{"key=x"}));
    EXPECT_EQ(sections().size(), 29999u);
}

using PlatformKeyValueFile = kova::test::RootTest;

TEST_F(PlatformKeyValueFile, GetAndCheckKeyValue) {
    write("/etc/kovainfo.conf", "# info\nftpport=\"21\"\nempty=\"\"\nbare = 2121 \nlong=\"0123456789abcdefXYZ\"\n");
    const std::string conf = path("/etc/kovainfo.conf"), missing = path("/etc/none.conf");
    struct Case {
        const char *key;
        int result;
        const char *value;
    };
    for (const Case &c : {Case{"ftpport", 2, "21"}, Case{"bare", 4, "2121"}, Case{"long", 15, "0123456789abcde"},
                          Case{"empty", 0, ""}, Case{"absent", 0, ""}}) {
        char buf[16] = "junk";
        EXPECT_EQ(KVLIBCFileGetKeyValue(conf.c_str(), c.key, buf, sizeof buf, 0), c.result) << c.key;
        EXPECT_STREQ(buf, c.value) << c.key;
    }
    char buf[16];
    KVLIBCErrSetEx(0, "", 0);
    EXPECT_EQ(KVLIBCFileGetKeyValue(missing.c_str(), "ftpport", buf, sizeof buf, 0), -1);
    EXPECT_EQ(KVLIBCErrGet(), static_cast<unsigned>(KOVA_ERR_FILE_OPEN));

    EXPECT_EQ(KVLIBCFileCheckKeyValue(conf.c_str(), "ftpport", "21", 0), 1);
    EXPECT_EQ(KVLIBCFileCheckKeyValue(conf.c_str(), "ftpport", "2", 1), 0);
    EXPECT_EQ(KVLIBCFileCheckKeyValue(conf.c_str(), "empty", "", 0), 1);
    EXPECT_EQ(KVLIBCFileCheckKeyValue(conf.c_str(), "absent", "", 0), 0);
    EXPECT_EQ(KVLIBCFileCheckKeyValue(missing.c_str(), "ftpport", "21", 0), 0);
}

TEST_F(PlatformKeyValueFile, ReadLinesExistAndTouch) {
    write("/proc/net/tcp", "header\r\nline one\n\nlast");
    const std::string table = path("/proc/net/tcp"), missing = path("/proc/net/udp");
    KVLIB_SZLIST *list = KVLIBCSzListAlloc(4);
    ASSERT_EQ(KVLIBCFileReadLines(table.c_str(), &list), 0);
    V lines;
    for (int i = 0; i < list->nItem; ++i) lines.emplace_back(KVLIBCSzListGet(list, i));
    EXPECT_EQ(lines, (V{"header", "line one", "", "last"}));
    KVLIBCErrSetEx(0, "", 0);
    EXPECT_LT(KVLIBCFileReadLines(missing.c_str(), &list), 0);
    EXPECT_EQ(KVLIBCErrGet(), static_cast<unsigned>(KOVA_ERR_FILE_OPEN));
    EXPECT_EQ(list->nItem, 4);
    KVLIBCSzListFree(list);

    EXPECT_EQ(KVLIBCFileExist(table.c_str()), 1);
    EXPECT_EQ(KVLIBCFileExist(missing.c_str()), 0);
    EXPECT_EQ(KVLIBCFileExist(nullptr), 0);
    ASSERT_EQ(KVLIBCFileTouch(missing.c_str()), 0);
    EXPECT_EQ(read("/proc/net/udp"), "");
    ASSERT_EQ(KVLIBCFileTouch(table.c_str()), 0);
    EXPECT_EQ(read("/proc/net/tcp"), "header\r\nline one\n\nlast");
    std::string nodir = path("/no/such/dir/file");
    EXPECT_LT(KVLIBCFileTouch(nodir.c_str()), 0);
}

}  // namespace
