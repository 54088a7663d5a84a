// Reading .sc files: records, orders, [global], section rules, field bounds, log lines.
#include <kovaserviceconf.h>

#include <string>
#include <vector>

#include "conf_test_util.h"
#include "foundation/raii.h"
#include "kova_test.h"

namespace {

using kova::test::port_texts;
using kova::test::sc_section;
using kova::test::section_names;
using Strings = std::vector<std::string>;

constexpr const char *kPoison = "kovaerr=[0xEEEE poison:7]";

class ConfGetTest : public kova::test::RootTest {
protected:
    void TearDown() override {
        KOVAServiceConfFree(confs_);
        RootTest::TearDown();
    }
    // Writes `content` as a package .sc file and reads it; the result of KOVAServiceConfGet.
    int get(const std::string &content, const std::string &name = "test.sc") {
        file_ = path("/usr/local/etc/services.d/" + name);
        write("/usr/local/etc/services.d/" + name, content);
        return KOVAServiceConfGet(file_.c_str(), &confs_);
    }
    std::string enum_failed(int ret, const std::string &err) const {
        return "service_conf_get.cpp:N Failed to KVLIBCFileEnumSection " + file_ + "(ret: " + std::to_string(ret) +
               ") or 0 section, kovaerr=" + err;
    }
    std::string bad_name(const std::string &name, const std::string &err) const {
        return "service_conf_get.cpp:N Section name format error (File: " + file_ + ", Section Name: [" + name +
               "])! It can not be empty, and just can composed of a~z, 0~9, `-`, '_', kovaerr=" + err;
    }
    std::string section_line(const std::string &what, const std::string &section, const std::string &err) const {
        return "service_conf_section_get.cpp:N " + what + file_ + ", section name: " + section + "), kovaerr=" + err;
    }
    std::string port_error(const std::string &section, const std::string &target, const std::string &err) const {
        return "service_conf_section_get.cpp:N Service get port error, filepath: " + file_ +
               ", section name: " + section + ", target: " + target + ", kovaerr=" + err;
    }

    KOVA_SERVICE_CONF *confs_ = nullptr;
    std::string file_;
};

TEST_F(ConfGetTest, SectionsComeInReverseFileOrderAndFilesLinkAtTheHead) {
    ASSERT_EQ(get(sc_section("a") + sc_section("b", "443,80/tcp") + sc_section("c")), 0);
    ASSERT_NE(confs_, nullptr);
    EXPECT_EQ(section_names(confs_->sections), (Strings{"c", "b", "a"}));
    const KOVA_SERVICE_CONF_SECTION *b = confs_->sections->next;
    EXPECT_STREQ(b->title.text, "b title");
    EXPECT_STREQ(b->desc.text, "b desc");
    EXPECT_EQ(b->srcPort, nullptr);
    EXPECT_EQ(port_texts(b->dstPort), (Strings{"d1 t0 p1 80", "d1 t0 p1 443"}));
    EXPECT_EQ(confs_->version, 0);  // no [global]
    EXPECT_EQ(confs_->next, nullptr);

    KOVA_SERVICE_CONF *first = confs_;
    ASSERT_EQ(get(sc_section("second"), "second.sc"), 0);
    EXPECT_EQ(confs_->next, first);
    EXPECT_STREQ(confs_->sections->name, "second");
    EXPECT_TRUE(log().empty());
}

TEST_F(ConfGetTest, GlobalSection) {
    ASSERT_EQ(get("[global]\nversion=\"2\"\nsupport_key=\"support_web\"\nrun_key=\"runweb\"\n" + sc_section("web")), 0);
    EXPECT_EQ(confs_->version, 2);
    EXPECT_STREQ(confs_->supportKey, "support_web");
    EXPECT_STREQ(confs_->runKey, "runweb");
    EXPECT_EQ(section_names(confs_->sections), Strings{"web"});  // [global] is not a service

    KOVAServiceConfFree(confs_);
    confs_ = nullptr;
    ASSERT_EQ(get("[global]\nsupport_key=x\n" + sc_section("web")), 0);
    EXPECT_EQ(confs_->version, 1);  // the key is missing
    KOVAServiceConfFree(confs_);
    confs_ = nullptr;
    ASSERT_EQ(get("[global]\nversion=abc\n" + sc_section("web")), 0);
    EXPECT_EQ(confs_->version, 0);
    EXPECT_TRUE(log().empty());

    // An empty [global] cannot be read: logged, the fields stay zero.
    KOVAServiceConfFree(confs_);
    confs_ = nullptr;
    poison_error();
    ASSERT_EQ(get("[global]\n# nothing\n" + sc_section("web")), 0);
    EXPECT_EQ(confs_->version, 0);
    EXPECT_EQ(log_normalized(), Strings{"service_conf_get.cpp:N Failed to KVLIBCFileGetSection, file: " + file_ +
                                        ", section name: global, nHashRecords: 0, " + kPoison});
}

TEST_F(ConfGetTest, OnlyGlobalIsAFormatError) {
    poison_error();
    EXPECT_EQ(get("[global]\nversion=2\n"), -1);
    EXPECT_EQ(confs_, nullptr);
    EXPECT_EQ(log_normalized(), Strings{"service_conf_get.cpp:N Configure file format error! (file: " + file_ +
                                        ") Only [global] section, you should add at least one service section in "
                                        "the file. " +
                                        kPoison});
}

TEST_F(ConfGetTest, SectionNamesAreChecked) {
    poison_error();
    ASSERT_EQ(get(sc_section("Web.UI-2") + sc_section("bad name") + sc_section("") + sc_section("caf\xc3\xa9")), 0);
    EXPECT_EQ(section_names(confs_->sections), Strings{"Web.UI-2"});
    EXPECT_EQ(log_normalized(),
              (Strings{bad_name("bad name", "[0xEEEE poison:7]"), bad_name("", "[0x0D00 service_conf_get.cpp:N]"),
                       bad_name("caf\xc3\xa9", "[0x0D00 service_conf_get.cpp:N]")}));
}

TEST_F(ConfGetTest, SectionsMissingRequiredKeysAreLeftOut) {
    const std::string content =
        "[notitle]\ndesc=d\ndst.ports=80\n"
        "[nodesc]\ntitle=t\ndst.ports=80\n"
        "[nodst]\ntitle=t\ndesc=d\nsrc.ports=80\n"
        "[baddst]\ntitle=t\ndesc=d\ndst.ports=80/icmp\n"
        "[badsrc]\ntitle=t\ndesc=d\nsrc.ports=99999\ndst.ports=80\n"
        "[empty]\n"
        "[nosrc]\ntitle=t\ndesc=d\ndst.ports=80\n";
    poison_error();
    ASSERT_EQ(get(content), 0);
    EXPECT_EQ(section_names(confs_->sections), Strings{"nosrc"});
    EXPECT_EQ(confs_->sections->srcPort, nullptr);
    const std::string ports_err = "kovaerr=[0x0D00 service_conf_ports_get.cpp:N]";
    const Strings lines = log_normalized();
    ASSERT_EQ(lines.size(), 8u);
    EXPECT_EQ(lines[0], section_line("Get key \"title\" fail! (file: ", "notitle", "[0xEEEE poison:7]"));
    EXPECT_EQ(lines[1], section_line("Get key \"desc\" fail! (file: ", "nodesc", "[0xEEEE poison:7]"));
    EXPECT_EQ(lines[2], port_error("nodst", "dstPort", "[0xEEEE poison:7]"));
    EXPECT_EQ(lines[3].substr(0, 45), "service_conf_ports_get.cpp:N protocol format ");
    EXPECT_EQ(lines[4], port_error("baddst", "dstPort", "[0x0D00 service_conf_ports_get.cpp:N]"));
    EXPECT_EQ(lines[5].substr(0, 57), "service_conf_ports_get.cpp:N illegal ports number, port=9");
    EXPECT_EQ(lines[6], port_error("badsrc", "srcPort", "[0x0D00 service_conf_ports_get.cpp:N]"));
    EXPECT_EQ(lines[7], "service_conf_section_get.cpp:N Failed to KVLIBCFileGetSection, file: " + file_ +
                            ", section name: empty, nHashRecords: 0, " + ports_err);
}

TEST_F(ConfGetTest, NoGoodSectionFailsTheFile) {
    poison_error();
    EXPECT_EQ(get("[a]\ntitle=t\n[b c]\n"), -1);
    EXPECT_EQ(confs_, nullptr);
    const Strings lines = log_normalized();
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[2], "service_conf_get.cpp:N Get service section fail. (file: " + file_ + "), " + kPoison);
}

TEST_F(ConfGetTest, PortForwardFlag) {
    std::string content;
    const Strings values = {" YES ", "yes", "Yes", "y", "true", "no", "", std::string(40, ' ') + "yes"};
    for (size_t i = 0; i < values.size(); ++i)
        content += sc_section("s" + std::to_string(i), "80", "port_forward=\"" + values[i] + "\"\n");
    content += sc_section("none");
    ASSERT_EQ(get(content), 0);
    Strings flags;
    for (auto *s = confs_->sections; s != nullptr; s = s->next)
        flags.push_back(std::string(s->name) + "=" + std::to_string(s->portForward));
    // The value is looked at through its first 31 characters.
    EXPECT_EQ(flags, (Strings{"none=0", "s7=0", "s6=0", "s5=0", "s4=0", "s3=0", "s2=1", "s1=1", "s0=1"}));
}

TEST_F(ConfGetTest, DisplayStringKeys) {
    ASSERT_EQ(get("[s]\ntitle_key=\"common:ok\"\ntitle=T\ndesc_key=\"pkg : common : a:b\"\ndesc_extra=X\ndesc=D\n"
                  "dst.ports=80\n"
                  "[plain]\ntitle_key=nocolon\ntitle=T2\ndesc=D2\ndst.ports=80\n"),
              0);
    const KOVA_SERVICE_CONF_SECTION *plain = confs_->sections;
    const KOVA_SERVICE_CONF_SECTION *s = plain->next;
    EXPECT_EQ(std::string(s->title.prefix) + "|" + s->title.section + "|" + s->title.key + "|" + s->title.text + "|" +
                  s->title.extraText,
              "|common|ok|T|");
    EXPECT_EQ(std::string(s->desc.prefix) + "|" + s->desc.section + "|" + s->desc.key + "|" + s->desc.text + "|" +
                  s->desc.extraText,
              "pkg|common|a:b|D|X");
    // A key without ":" leaves no trace: its text is replaced by the title.
    EXPECT_EQ(std::string(plain->title.section) + "|" + plain->title.key + "|" + plain->title.text, "||T2");
}

TEST_F(ConfGetTest, ServiceStringSplitter) {
    KOVA_SERVICE_STRING str{};
    ASSERT_EQ(KOVAServiceConfServiceStringGet("pkg:common:ok", &str), 0);
    EXPECT_STREQ(str.prefix, "pkg");
    EXPECT_STREQ(str.section, "common");
    EXPECT_STREQ(str.key, "ok");
    // One colon: the prefix is emptied, the text is left as it was.
    kova::copy_field(str.text, "kept");
    ASSERT_EQ(KOVAServiceConfServiceStringGet(" a : b ", &str), 0);
    EXPECT_STREQ(str.prefix, "");
    EXPECT_STREQ(str.section, "a");
    EXPECT_STREQ(str.key, "b");
    EXPECT_STREQ(str.text, "kept");
    // No colon: only the text, untrimmed.
    ASSERT_EQ(KOVAServiceConfServiceStringGet(" plain ", &str), 0);
    EXPECT_STREQ(str.text, " plain ");
    EXPECT_STREQ(str.section, "a");
    EXPECT_EQ(KOVAServiceConfServiceStringGet("", &str), -1);
    EXPECT_EQ(KOVAServiceConfServiceStringGet(nullptr, &str), -1);
    EXPECT_EQ(KOVAServiceConfServiceStringGet("a:b", nullptr), -1);
    // Every field is cut to its capacity.
    const std::string big = std::string(300, 'p') + ":" + std::string(300, 's') + ":" + std::string(300, 'k');
    KOVA_SERVICE_STRING cut{};
    ASSERT_EQ(KOVAServiceConfServiceStringGet(big.c_str(), &cut), 0);
    EXPECT_EQ(std::string(cut.prefix), std::string(255, 'p'));
    EXPECT_EQ(std::string(cut.section), std::string(63, 's'));
    EXPECT_EQ(std::string(cut.key), std::string(127, 'k'));
    ASSERT_EQ(KOVAServiceConfServiceStringGet(std::string(300, 't').c_str(), &cut), 0);
    EXPECT_EQ(std::string(cut.text), std::string(127, 't'));
    EXPECT_TRUE(log().empty());
}

TEST_F(ConfGetTest, TextFieldsAreCutToTheirCapacity) {
    const std::string name(300, 'n');
    ASSERT_EQ(get("[global]\nsupport_key=" + std::string(200, 'k') + "\nrun_key=" + std::string(200, 'r') + "\n[" +
                  name + "]\ntitle=" + std::string(300, 't') + "\ndesc=" + std::string(300, 'd') +
                  "\ndesc_extra=" + std::string(300, 'x') + "\ndst.ports=80\n"),
              0);
    EXPECT_EQ(std::string(confs_->supportKey), std::string(127, 'k'));
    EXPECT_EQ(std::string(confs_->runKey), std::string(127, 'r'));
    const KOVA_SERVICE_CONF_SECTION *s = confs_->sections;
    EXPECT_EQ(std::string(s->name), std::string(255, 'n'));
    EXPECT_EQ(std::string(s->title.text), std::string(127, 't'));
    EXPECT_EQ(std::string(s->desc.text), std::string(127, 'd'));
    EXPECT_EQ(std::string(s->desc.extraText), std::string(127, 'x'));
}

TEST_F(ConfGetTest, SectionReaderReadsOneSectionWithoutTheNameRule) {
    const std::string content = sc_section("bad name", "53/udp") + sc_section("ok");
    write("/x/f.sc", content);
    file_ = path("/x/f.sc");
    KOVA_SERVICE_CONF_SECTION *list = nullptr;
    ASSERT_EQ(KOVAServiceConfSectionGet(file_.c_str(), "bad name", &list), 0);
    ASSERT_EQ(KOVAServiceConfSectionGet(file_.c_str(), "ok", &list), 0);
    EXPECT_EQ(section_names(list), (Strings{"ok", "bad name"}));
    EXPECT_EQ(port_texts(list->next->dstPort), Strings{"d1 t0 p2 53"});

    poison_error();
    EXPECT_EQ(KOVAServiceConfSectionGet(file_.c_str(), "missing", &list), -1);
    EXPECT_EQ(section_names(list), (Strings{"ok", "bad name"}));
    EXPECT_EQ(log_normalized(), Strings{"service_conf_section_get.cpp:N Failed to KVLIBCFileGetSection, file: " +
                                        file_ + ", section name: missing, nHashRecords: 0, " + kPoison});
    clear_log();
    const std::string gone = path("/x/gone.sc");
    EXPECT_EQ(KOVAServiceConfSectionGet(gone.c_str(), "ok", &list), -1);
    EXPECT_EQ(kova::test::error_text(), "0x0900");
    ASSERT_EQ(log_normalized().size(), 1u);
    EXPECT_NE(log_normalized()[0].find("section name: ok, nHashRecords: -1, kovaerr=[0x0900 "), std::string::npos);

    EXPECT_EQ(KOVAServiceConfSectionGet(nullptr, "ok", &list), -1);
    EXPECT_EQ(KOVAServiceConfSectionGet(file_.c_str(), nullptr, &list), -1);
    EXPECT_EQ(KOVAServiceConfSectionGet(file_.c_str(), "ok", nullptr), -1);
    EXPECT_EQ(kova::test::error_text(), "0x0D00");
    KOVAServiceConfSectionFree(list);
}

TEST_F(ConfGetTest, ArgumentChecks) {
    poison_error();
    EXPECT_EQ(KOVAServiceConfGet(nullptr, &confs_), -1);
    EXPECT_EQ(kova::test::error_text(), "0x0D00");
    EXPECT_EQ(KOVAServiceConfGet("/x", nullptr), -1);
    EXPECT_TRUE(log().empty());
    KOVAServiceConfFree(nullptr);
    KOVAServiceConfSectionFree(nullptr);
}

}  // namespace
