// .sc files as authors get them wrong: odd files and bytes, huge lines, repeats.
#include <sys/stat.h>

#include <chrono>

#include "conf/sc_reader.h"
#include "conf_test_util.h"

namespace {

using namespace kova::test;
using namespace std::string_literals;
using BadInputTest = ConfTest;

TEST_F(BadInputTest, OddFilesBytesHugeLinesAndRepeats) {
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
    const std::string mb(1 << 20, 'x'), blanks(1 << 20, ' ');
    std::string ports;
    for (int i = 0; i < 100000; ++i) ports += std::to_string(1000 + i % 60000) + ",";
    ASSERT_EQ(get("# " + mb + "\n" + mb + "\n[a]\njunk" + blanks + "=1\ntitle=" + mb + "\nother=" + mb +
                  "\ndesc=d\ndst.ports=" + ports + "7/tcp\ntitle" + blanks + "=\"short\"\n[b]\n" + sc_section("c") +
                  "[a]\ntitle=again\ndesc=d\ndst.ports=82\n[" + mb + "]\ntitle=" + mb + "\ndesc=d\ndst.ports=8\n"),
              0);
    EXPECT_EQ(section_names(confs_->sections), (Strings{mb.substr(0, 255), "c", "a"}));  // a repeat is read once
    const KOVA_SERVICE_CONF_SECTION *a = confs_->sections->next->next;
    EXPECT_STREQ(a->title.text, "short");  // the last of repeated keys wins
    EXPECT_EQ(port_texts(a->dstPort).size(), 100001u);
    EXPECT_EQ(a->dstPort->beginPort, 7u);
    EXPECT_EQ(log_normalized().size(), 1u);  // [b] has no keys
    std::string content = "[global]\nversion=3\n";
    for (int i = 0; i < 20000; ++i) content += sc_section("s" + std::to_string(i), std::to_string(i % 60000 + 1));
    const auto start = std::chrono::steady_clock::now();
    ASSERT_EQ(get(content), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(20));  // one pass, not one per section
    EXPECT_EQ(section_names(confs_->sections).size(), 20000u);
    EXPECT_EQ(confs_->sections->name + std::to_string(confs_->version), "s199993");
}

// The reader as the rule-file readers use it: every key of a section, in first-appearance order
// with its last value, the first section of a name, names cut at a NUL byte.
TEST(ScReader, KeysInOrderLastValueFirstSectionOfAName) {
    const kova::conf::ScFile file = kova::conf::parse_sc_text(
        "k=before\n[rule]\nservice_id = 7\nprotocol name=\"tcp\"\nservice_id=8\n\n[rule]\nlater=1\n[a\0b]\nx=1\n"
        "[empty]\n; k=v\n"s);
    EXPECT_EQ(file.names(), (std::vector<std::string>{"rule", "a", "empty"}));
    const kova::conf::ScSection *rule = file.find("rule");
    ASSERT_NE(rule, nullptr);
    EXPECT_EQ(rule->entries(),
              (std::vector<std::pair<std::string, std::string>>{{"service_id", "8"}, {"protocol name", "tcp"}}));
    EXPECT_STREQ(rule->value("protocol name"), "tcp");
    EXPECT_EQ(rule->key_count(), 2);
    EXPECT_EQ(rule->value("later"), nullptr);
    EXPECT_EQ(file.find("a"), nullptr);  // the section is "a\0b"
    EXPECT_EQ(file.find("empty")->key_count(), 0);
    EXPECT_FALSE(kova::conf::read_sc_file("/nonexistent/kova/missing.sc").ok());
}

}  // namespace
