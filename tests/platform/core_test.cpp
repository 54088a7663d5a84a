// The core stand-in as the library relies on it: the error state, the containers and the
// sectioned-file writers (where new lines go, refusals, temporaries, scale). What the readers and
// writers mean, repeated keys, untouched lines and refused line breaks are the section-write fuzz
// harness's model; crashes and concurrent writers: tests/change/crash_test.cpp.
#include <kovacore.h>
#include <sys/stat.h>

#include <chrono>
#include <filesystem>
#include <thread>

#include "kova_test.h"

namespace {

using kova::test::Lines;

TEST(PlatformErrorState, IsPerThreadAndCopiesTheFileName) {
    std::thread([] {
        EXPECT_EQ(KVLIBCErrGet(), 0u);
        KVLIBCErrSetEx(0x0D00, "other_thread.cpp", 12);
    }).join();
    std::string name = "module.cpp";
    KVLIBCErrSetEx(0x0700, name.c_str(), 42);
    name.assign("overwritten");
    EXPECT_EQ(KVLIBCErrGet(), 0x0700u);
    EXPECT_STREQ(KVLIBCErrorGetFile(), "module.cpp");
    EXPECT_EQ(KVLIBCErrorGetLine(), 42);
    KVLIBCErrSetEx(2, KVLIBCErrorGetFile(), 4);  // from the state's own text
    EXPECT_STREQ(KVLIBCErrorGetFile(), "module.cpp");
}

// (Hashes keep their keys in order: the section readers; record lists copy and free through
// their callbacks: the result list copies of the conflict tests and the fault tests' block counts.)
TEST(PlatformContainers, ListRecordNeverMoves) {
    KVLIB_SZLIST *list = KVLIBCSzListAlloc(2);
    KVLIB_SZLIST *const original = list;
    char first[] = "alpha";
    ASSERT_EQ(KVLIBCSzListPush(&list, first), 0);
    first[0] = 'X';
    for (int i = 1; i < 1000; ++i) ASSERT_EQ(KVLIBCSzListPush(&list, std::to_string(i).c_str()), 0);
    EXPECT_EQ(list, original);
    EXPECT_EQ(list->nItem, 1000);
    EXPECT_STREQ(KVLIBCSzListGet(list, 0), "alpha");
    EXPECT_EQ(KVLIBCSzListGet(list, 1000), nullptr);
    ASSERT_EQ(KVLIBCSzListPop(list), 0);
    EXPECT_EQ(list->nItem, 999);
    KVLIBCSzListFree(list);
}

class PlatformSectionFile : public kova::test::RootTest {
protected:
    std::string file() const { return path("/etc/test/file.sc"); }
};

TEST_F(PlatformSectionFile, NewLinesGoAfterTheSectionAndAMissingFileStaysMissing) {
    const char sample[] =
        "# service file\n[global]\nversion = 2\n\n"
        "[web-ui]\n; comment inside\ntitle=\"Web UI\"\n  protocol name  =  TCP  \ndesc=\"\"\n"
        "dst.ports=\"80,443/tcp\"\nno equals sign here\n"
        "[empty]\n[last]\ndst.ports = 22/tcp";  // no newline at the end
    write("/etc/test/file.sc", sample);
    EXPECT_EQ(KVLIBCFileSetSectionValue(file().c_str(), "web-ui", "a=b", "v"), -1);
    EXPECT_EQ(KVLIBCFileSetSectionValue(file().c_str(), "x]y", "k", "v"), -1);
    EXPECT_EQ(KVLIBCFileSetSectionValue(file().c_str(), "", "k", "v"), -1);
    EXPECT_EQ(read("/etc/test/file.sc"), sample);
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
    symlink(file(), "/etc/test/link.sc");
    Lines after = entries("/etc");
    struct stat st;
    ASSERT_EQ(stat(path("/etc/test").c_str(), &st), 0);
    const std::string tag = "." + std::to_string(st.st_ino) + ".Ab12Cd";
    write("/etc/.file.sc" + tag, "left by a killed writer");
    write("/etc/.other.sc" + tag, "another file's");
    ASSERT_EQ(KVLIBCFileSetSectionValue(path("/etc/test/link.sc").c_str(), "a", "x", "2"), 0);
    EXPECT_EQ(entries("/etc/test"), (Lines{"file.sc", "link.sc"}));
    after.push_back(".other.sc" + tag);
    std::sort(after.begin(), after.end());
    EXPECT_EQ(entries("/etc"), after);
    EXPECT_TRUE(std::filesystem::is_symlink(path("/etc/test/link.sc")));  // the link stays a link
    ASSERT_EQ(stat(file().c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0600u);
    EXPECT_EQ(read("/etc/test/file.sc"), "[a]\nx=2\n");
}

TEST_F(PlatformSectionFile, ManySectionsInLinearTime) {
    std::string many;
    for (int i = 0; i < 30000; ++i) many += "[s" + std::to_string(i) + "]\nkey=" + std::to_string(i) + "\n";
    write("/etc/test/file.sc", many);
    const auto start = std::chrono::steady_clock::now();
    KVLIB_SZLIST *list = KVLIBCSzListAlloc(8);
    EXPECT_EQ(KVLIBCFileEnumSection(file().c_str(), &list), 30000);
    KVLIBCSzListFree(list);
    ASSERT_EQ(KVLIBCFileSetSectionValue(file().c_str(), "s15000", "key", "x"), 0);
    ASSERT_EQ(KVLIBCFileRemoveSection(file().c_str(), "s0"), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
    KVLIB_SZHASH *hash = KVLIBCSzHashAlloc(16);
    EXPECT_EQ(KVLIBCFileGetSection(file().c_str(), "s15000", &hash), 1);
    EXPECT_STREQ(KVLIBCSzHashGetValue(hash, "key"), "x");
    KVLIBCSzHashFree(hash);
}

}  // namespace
