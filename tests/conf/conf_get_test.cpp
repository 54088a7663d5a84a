// Reading .sc files and sections (the lists they grow, their failures and log lines), enumerating
// and verifying files. What a file means (orders, [global], field bounds, flags and display-string
// splits) is the .sc reader fuzz harness's model.
#include "conf_test_util.h"

namespace {

using namespace kova::test;
using namespace std::string_literals;
using ConfGetTest = ConfTest;

TEST_F(ConfGetTest, ASecondFileGoesInFrontAndGlobalFailures) {
    // Sections, [global] settings and their fields are the .sc reader fuzz harness's model.
    const std::string sections = sc_section("a") + sc_section("b", "443,80/tcp") + sc_section("c");
    ASSERT_EQ(get(sections), 0);
    write("/g.sc", sc_section("second"));
    ASSERT_EQ(KOVAServiceConfGet(path("/g.sc").c_str(), &confs_), 0);
    EXPECT_EQ(first_sections(), (Strings{"second", "c"}));  // a second file goes in front
    poison_error();
    ASSERT_EQ(get("[global]\n# nothing\n" + sections), 0);  // unreadable: logged, fields stay zero
    EXPECT_EQ(confs_->version, 0);
    EXPECT_EQ(log_normalized(), Strings{no_section("service_conf_get", "global", 0, kPoison)});
    EXPECT_EQ(get("[global]\nversion=2\n[global]\nversion=3\n"), -1);  // a repeated [global] is one section
    EXPECT_EQ(confs_, nullptr);
    const std::string only = ") Only [global] section, you should add at least one service section in the file. ";
    EXPECT_EQ(log_normalized(), Strings{"service_conf_get.cpp:N Configure file format error! (file: " + file_ + only +
                                        "kovaerr=" + kPoison});
}

TEST_F(ConfGetTest, SectionFailuresEachLogTheirLine) {
    const std::string sec = "service_conf_section_get.cpp:N ", ports = kPortsErr;
    auto no_key = [&](const char *key, const char *name) {
        return sec + "Get key \"" + key + "\" fail! (file: " + file_ + ", section name: " + name +
               "), kovaerr=" + kPoison;
    };
    auto no_ports = [&](const char *name, const char *target, const std::string &err) {
        return sec + "Service get port error, filepath: " + file_ + ", section name: " + name + ", target: " + target +
               ", kovaerr=" + err;
    };
    auto bad_name = [&](const std::string &name, const std::string &err) {
        return "service_conf_get.cpp:N Section name format error (File: " + file_ + ", Section Name: [" + name +
               "])! It can not be empty, and just can composed of a~z, 0~9, `-`, '_', kovaerr=" + err;
    };
    poison_error();
    ASSERT_EQ(get("[notitle]\ndesc=d\ndst.ports=80\n[nodesc]\ntitle=t\ndst.ports=80\n"
                  "[nodst]\ntitle=t\ndesc=d\nsrc.ports=80\n[baddst]\ntitle=t\ndesc=d\ndst.ports=80/icmp\n"
                  "[badsrc]\ntitle=t\ndesc=d\nsrc.ports=99999\ndst.ports=80\n[empty]\n" +
                  sc_section("bad name") + sc_section("") + sc_section("caf\xc3\xa9") + sc_section("Web.UI-2")),
              0);
    EXPECT_EQ(section_names(confs_->sections), Strings{"Web.UI-2"});
    const std::string here = "[0x0D00 service_conf_get.cpp:N]";
    EXPECT_EQ(log_normalized(),
              (Strings{no_key("title", "notitle"), no_key("desc", "nodesc"), no_ports("nodst", "dstPort", kPoison),
                       proto_error("icmp"), no_ports("baddst", "dstPort", ports), illegal("99999"),
                       no_ports("badsrc", "srcPort", ports), no_section("service_conf_section_get", "empty", 0, ports),
                       bad_name("bad name", ports), bad_name("", here), bad_name("caf\xc3\xa9", here)}));
    poison_error();
    EXPECT_EQ(get("[a]\ntitle=t\n[b c]\n"), -1);
    EXPECT_EQ(confs_, nullptr);
    EXPECT_EQ(log_normalized(),
              (Strings{no_key("desc", "a"), bad_name("b c", kPoison),
                       "service_conf_get.cpp:N Get service section fail. (file: " + file_ + "), kovaerr=" + kPoison}));

    // The single-section reader: no name rule, the list grows at its head, a failure leaves it.
    write("/x/f.sc", sc_section("bad name", "53/udp") + sc_section("ok"));
    file_ = path("/x/f.sc");
    KOVA_SERVICE_CONF_SECTION *list = nullptr;
    ASSERT_EQ(KOVAServiceConfSectionGet(file_.c_str(), "bad name", &list), 0);
    ASSERT_EQ(KOVAServiceConfSectionGet(file_.c_str(), "ok", &list), 0);
    EXPECT_EQ(port_texts(list->next->dstPort), Strings{"d1 t0 p2 53"});
    poison_error();
    EXPECT_EQ(KOVAServiceConfSectionGet(file_.c_str(), "missing", &list), -1);
    EXPECT_EQ(section_names(list), (Strings{"ok", "bad name"}));
    EXPECT_EQ(log_normalized().back(), no_section("service_conf_section_get", "missing", 0, kPoison));
    EXPECT_EQ(KOVAServiceConfSectionGet(nullptr, "ok", &list) + KOVAServiceConfSectionGet("/x", nullptr, &list), -2);
    EXPECT_EQ(KOVAServiceConfGet(nullptr, &confs_) + KOVAServiceConfGet("/x", nullptr), -2);
    EXPECT_EQ(KVLIBCErrGet(), 0x0D00u);
    KOVAServiceConfSectionFree(list);
}

TEST_F(ConfGetTest, EnumerationAndFileVerify) {
    poison_error();
    EXPECT_EQ(KOVAServiceConfEnum(&confs_, KOVA_CONF_LOCATION_SYSTEM), 0);  // no directory
    EXPECT_EQ(KVLIBCErrGet(), 0x2A00u);
    for (const char *name : {"b.sc", "a.sc"}) write("/usr/kova/etc/services.d/"s + name, sc_section(name));
    for (const char *name : {"p.sc", "B.sc", ".hidden", "notes.txt"}) write(kPkgDir + name, sc_section(name));
    EXPECT_EQ(KOVAServiceConfEnum(&confs_, 3), 6);  // package files, then system files; no name filter
    EXPECT_EQ(first_sections(), (Strings{"p.sc", "notes.txt", "B.sc", ".hidden", "b.sc", "a.sc"}));
    EXPECT_EQ(KOVAServiceConfEnum(&confs_, 0) + KOVAServiceConfEnum(&confs_, 4) + KOVAServiceConfEnum(nullptr, 3), -3);
    EXPECT_EQ(KVLIBCErrGet(), 0x0D00u);

    write("/tmp/x/foo.sc", "");
    const std::string src = path("/tmp/x/foo.sc"), target = path("/usr/local/etc/services.d");
    EXPECT_EQ(KOVAServiceConfFileVerify(src.c_str(), target.c_str()), 0);
    write(kPkgDir + "foo.sc", "");
    EXPECT_EQ(KOVAServiceConfFileVerify(src.c_str(), target.c_str()), -1);
    EXPECT_EQ(KVLIBCErrGet(), 0xC000u);
    EXPECT_EQ(KOVAServiceConfFileVerify(path("/tmp/x/bar.sc").c_str(), target.c_str()), -1);
    EXPECT_EQ(KVLIBCErrGet(), 0x0700u);
    EXPECT_EQ(KOVAServiceConfFileVerify(nullptr, target.c_str()) + KOVAServiceConfFileVerify(src.c_str(), nullptr), -2);
    EXPECT_EQ(KVLIBCErrGet(), 0x0D00u);
}

}  // namespace
