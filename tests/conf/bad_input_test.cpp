// .sc files as package authors get them wrong: odd kinds of file, odd bytes, huge lines, many
// sections, repeats. Each gives its result and log line; nothing hangs, overflows or leaks.
#include <fcntl.h>
#include <kovaserviceconf.h>
#include <sys/stat.h>

#include <chrono>
#include <string>
#include <vector>

#include "conf_test_util.h"
#include "kova_test.h"

namespace {

using namespace std::string_literals;
using kova::test::port_texts;
using kova::test::sc_section;
using kova::test::section_names;
using Strings = std::vector<std::string>;

constexpr const char *kDir = "/usr/local/etc/services.d/";

class BadInputTest : public kova::test::RootTest {
protected:
    void TearDown() override {
        KOVAServiceConfFree(confs_);
        RootTest::TearDown();
    }
    int get_path(const std::string &rel) {
        file_ = path(rel);
        return KOVAServiceConfGet(file_.c_str(), &confs_);
    }
    int get(const std::string &content) {
        write(std::string(kDir) + "f.sc", content);
        return get_path(std::string(kDir) + "f.sc");
    }
    // The enumeration failure line up to the error state's code.
    std::string enum_failed(int ret, const std::string &code) const {
        return "service_conf_get.cpp:N Failed to KVLIBCFileEnumSection " + file_ + "(ret: " + std::to_string(ret) +
               ") or 0 section, kovaerr=[" + code;
    }
    bool only_line_starts_with(const std::string &prefix) const {
        const Strings lines = log_normalized();
        return lines.size() == 1 && lines[0].compare(0, prefix.size(), prefix) == 0;
    }

    KOVA_SERVICE_CONF *confs_ = nullptr;
    std::string file_;
};

TEST_F(BadInputTest, DirectoryMissingFileAndEmptyFile) {
    mkdir(std::string(kDir) + "dir.sc");
    EXPECT_EQ(get_path(std::string(kDir) + "dir.sc"), -1);
    EXPECT_TRUE(only_line_starts_with(enum_failed(-1, "0x0900 "))) << log_normalized()[0];
    clear_log();

    EXPECT_EQ(get_path(std::string(kDir) + "missing.sc"), -1);
    EXPECT_TRUE(only_line_starts_with(enum_failed(-1, "0x0900 ")));
    clear_log();

    poison_error();
    EXPECT_EQ(get(""), -1);
    EXPECT_EQ(log_normalized(), Strings{enum_failed(0, "0xEEEE poison:7]")});
    EXPECT_EQ(confs_, nullptr);
}

TEST_F(BadInputTest, PipesAndDevicesAreNotRead) {
    mkdir(kDir);
    ASSERT_EQ(::mkfifo(path(std::string(kDir) + "pipe.sc").c_str(), 0644), 0);
    EXPECT_EQ(get_path(std::string(kDir) + "pipe.sc"), -1);  // returns at once
    EXPECT_EQ(log_normalized(), Strings{enum_failed(-1, "0x0900 service_conf_get.cpp:N]")});
    clear_log();
    symlink("/dev/zero", std::string(kDir) + "zero.sc");
    EXPECT_EQ(get_path(std::string(kDir) + "zero.sc"), -1);
    EXPECT_EQ(log_normalized(), Strings{enum_failed(-1, "0x0900 service_conf_get.cpp:N]")});
}

TEST_F(BadInputTest, BinaryBytesInvalidUtf8AndNul) {
    std::string binary;
    for (int round = 0; round < 50; ++round)
        for (int c = 0; c < 256; ++c) binary += static_cast<char>(c);
    poison_error();
    EXPECT_EQ(get(binary), -1);  // no line is a section header
    EXPECT_EQ(log_normalized(), Strings{enum_failed(0, "0xEEEE poison:7]")});

    // Valid sections between binary lines; raw bytes in values are kept as they are, and a
    // value ends at a NUL byte.
    clear_log();
    std::string mixed =
        binary + "\n" + sc_section("bin") + "[t]\ntitle=\xff\xfe\xc3(\ndesc=ab\0cd\ndst.ports=22\n"s + binary;
    ASSERT_EQ(get(mixed), 0);
    EXPECT_EQ(section_names(confs_->sections), (Strings{"t", "bin"}));
    EXPECT_STREQ(confs_->sections->title.text, "\xff\xfe\xc3(");
    EXPECT_STREQ(confs_->sections->desc.text, "ab");

    // A name holding a NUL byte is listed up to it; no section has that shorter name.
    KOVAServiceConfFree(confs_);
    confs_ = nullptr;
    clear_log();
    poison_error();
    ASSERT_EQ(get("[x\0y]\ntitle=t\ndesc=d\ndst.ports=80\n"s + sc_section("ok")), 0);
    EXPECT_EQ(section_names(confs_->sections), Strings{"ok"});
    EXPECT_EQ(log_normalized(), Strings{"service_conf_section_get.cpp:N Failed to KVLIBCFileGetSection, file: " +
                                        file_ + ", section name: x, nHashRecords: 0, kovaerr=[0xEEEE poison:7]"});
}

TEST_F(BadInputTest, LineEndings) {
    ASSERT_EQ(get("[a]\r\ntitle=\"T\"\r\ndesc=D\r\ndst.ports=80,81"), 0);  // CRLF, no final newline
    EXPECT_STREQ(confs_->sections->title.text, "T");
    EXPECT_STREQ(confs_->sections->desc.text, "D");
    EXPECT_EQ(port_texts(confs_->sections->dstPort), (Strings{"d1 t0 p3 81", "d1 t0 p3 80"}));
}

TEST_F(BadInputTest, MegabyteLines) {
    const std::string mb(1 << 20, 'x');
    std::string ports;
    for (int i = 0; i < 100000; ++i) ports += std::to_string(1000 + i % 60000) + ",";
    ports += "7/tcp";
    const std::string content = "# " + mb + "\n" + mb + "\n" + "[a]\n" + "junk" + std::string(1 << 20, ' ') + "=1\n" +
                                "title=" + mb + "\n" + "other=" + mb + "\n" + "desc=d\n" + "dst.ports=" + ports + "\n" +
                                "title" + std::string(1 << 20, ' ') + "=\"short\"\n";
    ASSERT_EQ(get(content), 0);
    const KOVA_SERVICE_CONF_SECTION *a = confs_->sections;
    ASSERT_NE(a, nullptr);
    EXPECT_STREQ(a->title.text, "short");  // the last "title" line wins
    int n = 0;
    for (auto *p = a->dstPort; p != nullptr; p = p->next) ++n;
    EXPECT_EQ(n, 100001);
    EXPECT_EQ(a->dstPort->beginPort, 7u);
    EXPECT_TRUE(log().empty());

    // A megabyte title is cut to the field; a megabyte section name is checked and cut.
    KOVAServiceConfFree(confs_);
    confs_ = nullptr;
    ASSERT_EQ(get("[" + mb + "]\ntitle=" + mb + "\ndesc=d\ndst.ports=80\n"), 0);
    EXPECT_EQ(std::string(confs_->sections->title.text), std::string(127, 'x'));
    EXPECT_EQ(std::string(confs_->sections->name), std::string(255, 'x'));
}

TEST_F(BadInputTest, TensOfThousandsOfSections) {
    constexpr int kSections = 20000;
    std::string content = "[global]\nversion=3\n";
    for (int i = 0; i < kSections; ++i) content += sc_section("s" + std::to_string(i), std::to_string(i % 60000 + 1));
    const auto start = std::chrono::steady_clock::now();
    ASSERT_EQ(get(content), 0);
    const auto elapsed = std::chrono::steady_clock::now() - start;
    EXPECT_LT(elapsed, std::chrono::seconds(20));  // one pass, not one pass per section
    EXPECT_EQ(confs_->version, 3);
    int n = 0;
    for (auto *s = confs_->sections; s != nullptr; s = s->next) ++n;
    EXPECT_EQ(n, kSections);
    EXPECT_STREQ(confs_->sections->name, ("s" + std::to_string(kSections - 1)).c_str());
}

TEST_F(BadInputTest, RepeatedSectionsAndKeys) {
    ASSERT_EQ(get("[a]\ntitle=first\ntitle=second\ndesc=d\ndst.ports=80\n"
                  "[b]\ntitle=b\ndesc=d\ndst.ports=81\n"
                  "[a]\ntitle=third\ndesc=d2\ndst.ports=82\n"),
              0);
    // A repeated section is listed once and read from its first occurrence.
    EXPECT_EQ(section_names(confs_->sections), (Strings{"b", "a"}));
    EXPECT_STREQ(confs_->sections->next->title.text, "second");
    EXPECT_EQ(port_texts(confs_->sections->next->dstPort), Strings{"d1 t0 p3 80"});

    // [global] twice is one section: with nothing else the file is only [global].
    KOVAServiceConfFree(confs_);
    confs_ = nullptr;
    clear_log();
    EXPECT_EQ(get("[global]\nversion=1\n[global]\nversion=2\n"), -1);
    ASSERT_EQ(log_normalized().size(), 1u);
    EXPECT_NE(log_normalized()[0].find("Only [global] section"), std::string::npos);
}

TEST_F(BadInputTest, EnumerationSkipsWhatCannotBeRead) {
    write(std::string(kDir) + "a.sc", sc_section("a"));
    symlink(path("/nowhere.sc"), std::string(kDir) + "b.sc");  // vanished before it was read
    mkdir(std::string(kDir) + "c.sc");
    ASSERT_EQ(::mkfifo(path(std::string(kDir) + "d.sc").c_str(), 0644), 0);
    write(std::string(kDir) + "e.sc", "");
    EXPECT_EQ(KOVAServiceConfEnum(&confs_, KOVA_CONF_LOCATION_PACKAGE), 1);
    EXPECT_EQ(kova::test::conf_first_sections(confs_), Strings{"a"});
    const Strings lines = log_normalized();
    ASSERT_EQ(lines.size(), 4u);
    for (const char *name : {"b.sc", "c.sc", "d.sc"}) {
        const std::string p = path(std::string(kDir) + name);
        bool found = false;
        for (const auto &l : lines) found = found || l.find(p + "(ret: -1) or 0 section") != std::string::npos;
        EXPECT_TRUE(found) << name;
    }
    EXPECT_NE(lines[3].find("e.sc(ret: 0) or 0 section"), std::string::npos);
}

}  // namespace
