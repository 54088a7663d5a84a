// Enumerating the services.d directories and verifying a file before an install.
#include <kovaserviceconf.h>

#include <string>
#include <vector>

#include "conf_test_util.h"
#include "kova_test.h"

namespace {

using kova::test::conf_first_sections;
using kova::test::sc_section;
using Strings = std::vector<std::string>;

constexpr const char *kSys = "/usr/kova/etc/services.d/";
constexpr const char *kPkg = "/usr/local/etc/services.d/";

class ConfEnumTest : public kova::test::RootTest {
protected:
    void TearDown() override {
        KOVAServiceConfFree(confs_);
        RootTest::TearDown();
    }
    KOVA_SERVICE_CONF *confs_ = nullptr;
};

TEST_F(ConfEnumTest, PackageFilesThenSystemFilesEachInReverseNameOrder) {
    write(std::string(kSys) + "a.sc", sc_section("a"));
    write(std::string(kSys) + "b.sc", sc_section("b"));
    write(std::string(kPkg) + "p.sc", sc_section("p"));
    EXPECT_EQ(KOVAServiceConfEnum(&confs_, 3), 3);
    EXPECT_EQ(conf_first_sections(confs_), (Strings{"p", "b", "a"}));

    // Records already in the list stay behind the new ones.
    EXPECT_EQ(KOVAServiceConfEnum(&confs_, KOVA_CONF_LOCATION_SYSTEM), 2);
    EXPECT_EQ(conf_first_sections(confs_), (Strings{"b", "a", "p", "b", "a"}));
    EXPECT_TRUE(log().empty());
}

TEST_F(ConfEnumTest, NamesSortInByteOrderWithoutAnyFilter) {
    write(std::string(kPkg) + "a.sc", sc_section("lower"));
    write(std::string(kPkg) + "B.sc", sc_section("upper"));
    write(std::string(kPkg) + ".hidden", sc_section("hidden"));
    write(std::string(kPkg) + "notes.txt", sc_section("notes"));
    write(std::string(kPkg) + "README", "just some words\n");
    EXPECT_EQ(KOVAServiceConfEnum(&confs_, KOVA_CONF_LOCATION_PACKAGE), 4);
    EXPECT_EQ(conf_first_sections(confs_), (Strings{"notes", "lower", "upper", "hidden"}));
    ASSERT_EQ(log_normalized().size(), 1u);  // README has no section
    EXPECT_NE(log_normalized()[0].find("README(ret: 0) or 0 section"), std::string::npos);
}

TEST_F(ConfEnumTest, MissingDirectoriesCountZeroAndLeaveTheScanError) {
    poison_error();
    EXPECT_EQ(KOVAServiceConfEnum(&confs_, KOVA_CONF_LOCATION_SYSTEM), 0);
    EXPECT_EQ(kova::test::error_text(), "0x2A00");
    EXPECT_STREQ(KVLIBCErrorGetFile(), "service_conf_enum.cpp");
    EXPECT_EQ(confs_, nullptr);

    write(std::string(kPkg) + "p.sc", sc_section("p"));
    EXPECT_EQ(KOVAServiceConfEnum(&confs_, 3), 1);  // the system directory is missing
    EXPECT_EQ(kova::test::error_text(), "0x2A00");
    write(std::string(kSys) + "s.sc", sc_section("s"));
    KOVAServiceConfFree(confs_);
    confs_ = nullptr;
    EXPECT_EQ(KOVAServiceConfEnum(&confs_, 5), 1);  // only the values 1 and 2 count
    EXPECT_EQ(conf_first_sections(confs_), Strings{"s"});
    EXPECT_TRUE(log().empty());
}

TEST_F(ConfEnumTest, BadArguments) {
    for (int locations : {0, 4, 8, -4}) {
        poison_error();
        EXPECT_EQ(KOVAServiceConfEnum(&confs_, locations), -1) << locations;
        EXPECT_EQ(kova::test::error_text(), "0x0D00");
    }
    EXPECT_EQ(KOVAServiceConfEnum(nullptr, 3), -1);
    EXPECT_TRUE(log().empty());
}

TEST_F(ConfEnumTest, FileVerify) {
    write("/tmp/x/foo.sc", sc_section("foo"));
    const std::string src = path("/tmp/x/foo.sc");
    const std::string target = path("/usr/local/etc/services.d");
    mkdir("/usr/local/etc/services.d");
    EXPECT_EQ(KOVAServiceConfFileVerify(src.c_str(), target.c_str()), 0);

    write(std::string(kPkg) + "foo.sc", "anything, not parsed");
    poison_error();
    EXPECT_EQ(KOVAServiceConfFileVerify(src.c_str(), target.c_str()), -1);
    EXPECT_EQ(kova::test::error_text(), "0xC000");
    EXPECT_STREQ(KVLIBCErrorGetFile(), "service_conf_file_verify.cpp");

    const std::string missing = path("/tmp/x/bar.sc");
    EXPECT_EQ(KOVAServiceConfFileVerify(missing.c_str(), target.c_str()), -1);
    EXPECT_EQ(kova::test::error_text(), "0x0700");

    EXPECT_EQ(KOVAServiceConfFileVerify(nullptr, target.c_str()), -1);
    EXPECT_EQ(kova::test::error_text(), "0x0D00");
    EXPECT_EQ(KOVAServiceConfFileVerify(src.c_str(), nullptr), -1);
    EXPECT_EQ(kova::test::error_text(), "0x0D00");
    EXPECT_TRUE(log().empty());
}

}  // namespace
