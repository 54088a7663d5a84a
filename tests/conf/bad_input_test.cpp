// .sc files as authors get them wrong (odd files and bytes, huge lines, repeats), and the one-pass reader.
#include <sys/stat.h>

#include <chrono>
#include <random>

#include "conf/sc_file.h"
#include "conf_test_util.h"
#include "foundation/raii.h"

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
        const std::string line = enum_failed(i == 1 ? 0 : -1, i < 3 ? "[0x0900 " : "[0x0900 service_conf_get.cpp:N]");
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

// The one-pass reader must see every file exactly as the platform's enumeration and section
// reader see it: lines that cross the reader's 64 KiB reads at chosen places, and generated files.
TEST_F(BadInputTest, OnePassReaderMatchesThePlatformsSectionReader) {
    auto expect_same = [&](const std::string &content, const std::string &label) {
        SCOPED_TRACE(label);
        write("/f.sc", content);
        const std::string file = path("/f.sc");
        kova::conf::ScFile mine;
        ASSERT_EQ(kova::conf::read_sc_file(file.c_str(), mine), kova::conf::ScRead::kOk);
        KVLIB_SZLIST *names = KVLIBCSzListAlloc(1024);
        const int count = KVLIBCFileEnumSection(file.c_str(), &names);
        const kova::SzListPtr owned_names(names);
        ASSERT_EQ(count, static_cast<int>(mine.names.size()));
        for (int i = 0; i < count; ++i) {
            const std::string name = KVLIBCSzListGet(names, i);
            ASSERT_EQ(name, mine.names[static_cast<size_t>(i)]);
            KVLIB_SZHASH *hash = KVLIBCSzHashAlloc(1024);
            const int records = KVLIBCFileGetSection(file.c_str(), name.c_str(), &hash);
            const kova::SzHashPtr owned_hash(hash);
            const kova::conf::ScSection *section = mine.find(name);
            EXPECT_EQ(records > 0, section != nullptr && section->hasKeys) << name;
            for (const std::string_view key : kova::conf::kScKeys)
                EXPECT_STREQ(KVLIBCSzHashGetValue(hash, std::string(key).c_str()),
                             section ? section->value(std::string(key).c_str()) : nullptr)
                    << key;
        }
    };
    const std::string y(140000, 'y');
    auto pad = [](const std::string &head) { return head + std::string(2 * 64 * 1024 - head.size(), ' '); };
    for (const std::string &content :
         {"[a]\n" + y + "=v\n", "[a]\n=" + y + "\n", "[a]\ntitle\0"s + y + "=v\n", "[a]\ntitle=" + y + "\n",
          "[" + y + "]\ntitle=1\n", "[a]\n; desc=c\n  # title=c\n"s, pad("[a]\nd") + "esc=1\n",
          pad("[a]\ntitle") + "=v\n", pad("[a]\nport_forward") + "=yes\n"})
        expect_same(content, content.substr(0, 24));
    // clang-format off
    const std::vector<std::string> pieces = {
        "[a]", "[b]", " [ c ] ", "[global]", "[a\0z]"s, "[]", "[", "]", "[a]x", "title", "title=", "desc =", "desc",
        "dst.ports", "version", "other key", "title\0"s, "ti\0tle"s, "=", " = ", "==", "\"", "\"\"", "\"v\"", "v",
        " ", "\t", "\r", "\v", "\0"s, "#", ";", "x", "80,443/tcp", "\xff\xc3", std::string(66000, 'y'),
        std::string(66000, ' ')};
    // clang-format on
    std::mt19937 rng(20240611);
    for (int file = 0; file < 300 && !HasFatalFailure(); ++file) {
        std::string content;
        for (int l = 0, lines = 1 + static_cast<int>(rng() % 8); l < lines; ++l) {
            for (int k = static_cast<int>(rng() % 6); k > 0; --k) content += pieces[rng() % pieces.size()];
            content += (rng() % 5 == 0) ? "\r\n" : "\n";
        }
        if (rng() % 3 == 0) content.pop_back();
        expect_same(content, "generated file " + std::to_string(file));
    }
}

}  // namespace
