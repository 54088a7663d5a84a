// .sc files as authors get them wrong: odd files in the directory, raw bytes and their lines, a
// large file read in one pass. Long lines, bounds and repeats are the .sc reader fuzz harness's
// model; the rule-file reading the settings harness's.
#include <sys/stat.h>

#include <chrono>

#include "conf_test_util.h"

namespace {

using namespace kova::test;
using namespace std::string_literals;
using BadInputTest = ConfTest;

TEST_F(BadInputTest, OddFilesRawBytesAndManySections) {
    write(kPkgDir + "a.sc", sc_section("a"));
    mkdir(kPkgDir + "b.sc");
    write(kPkgDir + "c.sc", "");
    symlink(path("/nowhere.sc"), kPkgDir + "d.sc");                // vanished before it was read
    ASSERT_EQ(::mkfifo(path(kPkgDir + "e.sc").c_str(), 0644), 0);  // would block a reader
    symlink("/dev/zero", kPkgDir + "f.sc");                        // would never end
    EXPECT_EQ(KOVAServiceConfEnum(&confs_, KOVA_CONF_LOCATION_PACKAGE), 1);
    EXPECT_EQ(first_sections(), Strings{"a"});
    const Strings lines = log_normalized();
    ASSERT_EQ(lines.size(), 5u);
    for (size_t i = 0; i < lines.size(); ++i) {
        file_ = path(kPkgDir + "bcdef"[i] + ".sc");
        const std::string line = enum_failed(i == 1 ? 0 : -1, "[0x0900 ");
        EXPECT_EQ(lines[i].substr(0, line.size()), line);
    }
    std::string binary;
    for (int c = 0; c < 256 * 50; ++c) binary += static_cast<char>(c);
    for (const std::string &content : {""s, binary}) {  // no section: the error state is left alone
        poison_error();
        EXPECT_EQ(get(content), -1);
        EXPECT_EQ(log_normalized(), Strings{enum_failed(0, kPoison)});
    }
    ASSERT_EQ(get(binary + "\n" + sc_section("bin") + "[t]\ntitle=\xff\xfe\xc3(\ndesc=ab\0cd\ndst.ports=22\n"s +
                  "[x\0y]\ntitle=t\ndesc=d\ndst.ports=80\n"s + binary),
              0);
    EXPECT_EQ(section_names(confs_->sections), (Strings{"t", "bin"}));  // raw bytes kept, a NUL ends a text
    EXPECT_EQ(parts(confs_->sections->title) + parts(confs_->sections->desc), "|||\xff\xfe\xc3(||||ab|");
    EXPECT_EQ(log_normalized(), Strings{no_section("service_conf_section_get", "x", 0, kPoison)});
    std::string content = "[global]\nversion=3\n";
    for (int i = 0; i < 20000; ++i) content += sc_section("s" + std::to_string(i), std::to_string(i % 60000 + 1));
    const auto start = std::chrono::steady_clock::now();
    ASSERT_EQ(get(content), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(20));  // one pass, not one per section
    EXPECT_EQ(section_names(confs_->sections).size(), 20000u);
    EXPECT_EQ(confs_->sections->name + std::to_string(confs_->version), "s199993");
}

}  // namespace
