// The one-pass file reader must see every file exactly as the platform's section enumeration
// and section reader see it. Generated files full of edge cases are read both ways.
#include <kovaserviceconf.h>

#include <random>
#include <string>
#include <vector>

#include "conf/sc_file.h"
#include "foundation/raii.h"
#include "kova_test.h"

namespace {

using namespace std::string_literals;

class ScReaderTest : public kova::test::RootTest {
protected:
    // Compares the one-pass reading of `content` with the platform's reading of the same file.
    void expect_same(const std::string &content, const std::string &label) {
        write("/f.sc", content);
        const std::string file = path("/f.sc");

        kova::conf::ScFile mine;
        ASSERT_EQ(kova::conf::read_sc_file(file.c_str(), mine), kova::conf::ScRead::kOk) << label;

        kova::SzListPtr names(KVLIBCSzListAlloc(1024));
        KVLIB_SZLIST *raw = names.get();
        const int count = KVLIBCFileEnumSection(file.c_str(), &raw);
        ASSERT_EQ(count, static_cast<int>(mine.names.size())) << label;
        for (int i = 0; i < count; ++i) {
            const std::string name = KVLIBCSzListGet(names.get(), i);
            ASSERT_EQ(name, mine.names[static_cast<size_t>(i)]) << label;

            KVLIB_SZHASH *hash = KVLIBCSzHashAlloc(1024);
            const int records = KVLIBCFileGetSection(file.c_str(), name.c_str(), &hash);
            const kova::SzHashPtr owned(hash);
            const kova::conf::ScSection *section = mine.find(name);
            EXPECT_EQ(records > 0, section != nullptr && section->hasKeys) << label << " [" << name << "]";
            for (std::string_view key : kova::conf::kScKeys) {
                const std::string k(key);
                const char *theirs = KVLIBCSzHashGetValue(hash, k.c_str());
                const char *ours = section != nullptr ? section->value(k.c_str()) : nullptr;
                ASSERT_EQ(theirs == nullptr, ours == nullptr) << label << " [" << name << "] " << k;
                if (theirs != nullptr) {
                    EXPECT_STREQ(theirs, ours) << label << " [" << name << "] " << k;
                }
            }
        }
    }
};

TEST_F(ScReaderTest, HandPickedLines) {
    const std::vector<std::string> cases = {
        "",
        "[a]\ntitle=1\n",
        "title=outside\n[a]\n",
        "[ a ]\n title = \" v \" \n",
        "[a]\ntitle=\"\"\ndesc=\"\ndst.ports=\"x\"y\"\n",
        "[a]\n=novalue\n",
        "[a]\n  # title=comment\n; desc=c\n",
        "[]\n[ ]\ntitle=x\n",
        "[\n]\n[a]x\n[a]=title\n",
        "[a]\r\ntitle=x\r\n\r\n[b]\rtitle=y\r",
        "[a\0b]\ntitle=1\n[a]\ntitle=2\n"s,
        "[a]\ntitle\0x=1\ntitle=2\ndesc=a\0b\n"s,
        "[a]\ntitle=1\n[b]\n[a]\ntitle=3\ndesc=4\n",
        "[a]\ntitle=1\ntitle=2\n[A]\ntitle=3\n",
        "[a]\n\v\f title\t=\tv\t\n",
        "[a]\ntitle=x=y\n",
    };
    for (size_t i = 0; i < cases.size(); ++i) expect_same(cases[i], "case " + std::to_string(i));
}

TEST_F(ScReaderTest, LongLinesAroundTheStreamingLimits) {
    const std::string big(70000, 'x');
    const std::string spaces(70000, ' ');
    const std::vector<std::string> cases = {
        "[a]\n" + big + "\ntitle=1\n",
        "[a]\n" + big + "=v\ndesc=2\n",
        "[a]\n" + spaces + "title=" + big + "\n",
        "[a]\ntitle" + spaces + "=v\n",
        "[a]\ntitle" + spaces + "x=v\n",
        "[a]\nti\0tle"s + big + "=v\n",
        "[a]\ntitle\0"s + big + "=v\n",
        "[a]\n#" + big + "\ndesc=1\n",
        "[" + big + "]\ntitle=1\n",
        "[" + big + "\ntitle=1\n",
        "[a]\n" + big + "\n[b]\n" + big + "=\n",
        "[a]\ntitle=" + big,
        "[a]\n" + spaces + "\ndesc=1",
        "[a]\nother" + spaces + "\n",
        "[a]\nd" + spaces + "esc=1\n",
    };
    for (size_t i = 0; i < cases.size(); ++i) expect_same(cases[i], "long case " + std::to_string(i));
}

TEST_F(ScReaderTest, GeneratedFiles) {
    const std::vector<std::string> pieces = {
        "[a]",
        "[b]",
        " [ c ] ",
        "[global]",
        "[a\0z]"s,
        "[]",
        "[",
        "]",
        "[a]x",
        "title",
        "desc",
        "dst.ports",
        "src.ports",
        "version",
        "other key",
        "title\0"s,
        "=",
        " = ",
        "==",
        "\"",
        "\"\"",
        "\"v\"",
        "v",
        " ",
        "\t",
        "\r",
        "\0"s,
        "#",
        ";",
        "x",
        "80,443/tcp",
        "\xff\xc3",
        std::string(66000, 'y'),
        std::string(66000, ' '),
    };
    std::mt19937 rng(20240611);
    std::uniform_int_distribution<size_t> pick(0, pieces.size() - 1);
    std::uniform_int_distribution<int> line_length(0, 5);
    std::uniform_int_distribution<int> line_count(1, 40);
    for (int file = 0; file < 150; ++file) {
        std::string content;
        const int lines = line_count(rng);
        for (int l = 0; l < lines; ++l) {
            const int n = line_length(rng);
            for (int k = 0; k < n; ++k) content += pieces[pick(rng)];
            content += (rng() % 5 == 0) ? "\r\n" : "\n";
        }
        if (rng() % 3 == 0) content.pop_back();
        expect_same(content, "generated file " + std::to_string(file));
        if (HasFatalFailure()) return;
    }
}

}  // namespace
