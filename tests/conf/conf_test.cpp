// Port lists: parsing texts, port and protocol checks, composing entries and rendering lists.
// Reading .sc files and sections (the lists they grow, their failures and log lines), enumerating
// and verifying files, and files as authors get them wrong. What a file means (orders, [global],
// field bounds, flags and display-string splits, a second file in front of the first) is the .sc
// reader fuzz harness's model.
#include <sys/stat.h>

#include <chrono>

#include "conf_test_util.h"
#include "foundation/door.h"

namespace {

using namespace kova::test;
using namespace std::string_literals;
using ConfGetTest = ConfTest;

TEST_F(ConfGetTest, GlobalFailures) {
    poison_error();
    ASSERT_EQ(get("[global]\n# nothing\n" + sc_section("a")), 0);  // unreadable: logged, fields stay zero
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
    EXPECT_EQ(outcome(KOVAServiceConfGet(nullptr, &confs_) + KOVAServiceConfGet("/x", nullptr)), "-2 0x0D00");
    KOVAServiceConfSectionFree(list);
}

TEST_F(ConfGetTest, EnumerationAndFileVerify) {
    poison_error();
    EXPECT_EQ(outcome(KOVAServiceConfEnum(&confs_, KOVA_CONF_LOCATION_SYSTEM)), "0 0x2A00");  // no directory
    for (const char *name : {"b.sc", "a.sc"}) write("/usr/kova/etc/services.d/"s + name, sc_section(name));
    for (const char *name : {"p.sc", "B.sc", ".hidden", "notes.txt"}) write(kPkgDir + name, sc_section(name));
    EXPECT_EQ(KOVAServiceConfEnum(&confs_, 3), 6);  // package files, then system files; no name filter
    EXPECT_EQ(first_sections(), (Strings{"p.sc", "notes.txt", "B.sc", ".hidden", "b.sc", "a.sc"}));
    EXPECT_EQ(
        outcome(KOVAServiceConfEnum(&confs_, 0) + KOVAServiceConfEnum(&confs_, 4) + KOVAServiceConfEnum(nullptr, 3)),
        "-3 0x0D00");

    write("/tmp/x/foo.sc", "");
    const std::string src = path("/tmp/x/foo.sc"), target = path("/usr/local/etc/services.d");
    EXPECT_EQ(KOVAServiceConfFileVerify(src.c_str(), target.c_str()), 0);
    write(kPkgDir + "foo.sc", "");
    EXPECT_EQ(outcome(KOVAServiceConfFileVerify(src.c_str(), target.c_str())), "-1 0xC000");
    EXPECT_EQ(outcome(KOVAServiceConfFileVerify(path("/tmp/x/bar.sc").c_str(), target.c_str())), "-1 0x0700");
    EXPECT_EQ(
        outcome(KOVAServiceConfFileVerify(nullptr, target.c_str()) + KOVAServiceConfFileVerify(src.c_str(), nullptr)),
        "-2 0x0D00");
}

// .sc files as authors get them wrong: odd files in the directory, raw bytes and their lines, a
// large file read in one pass. (Long lines, bounds and repeats: the .sc reader fuzz harness.)
TEST_F(ConfGetTest, OddFilesRawBytesAndManySections) {
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
    for (int i = 0; i < 20000; ++i) content += sc_section(str("s", i), std::to_string(i % 60000 + 1));
    const auto start = std::chrono::steady_clock::now();
    ASSERT_EQ(get(content), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(20));  // one pass, not one per section
    EXPECT_EQ(section_names(confs_->sections).size(), 20000u);
    EXPECT_EQ(confs_->sections->name + std::to_string(confs_->version), "s199993");
    // Handed out a few bytes a read, as some file systems do, the file is still read to its end.
    struct Pieces : kova::System {
        ssize_t read(int fd, void *buf, size_t size) override { return System::read(fd, buf, size < 7 ? size : 7); }
    } pieces;
    kova::System *const door = kova::install_system(&pieces);
    const int got = get(content + sc_section("last"));
    kova::install_system(door);
    ASSERT_EQ(got, 0);
    EXPECT_EQ(section_names(confs_->sections).size(), 20001u);
    EXPECT_EQ(confs_->sections->name, std::string("last"));
}

using Port = KOVA_SERVICE_CONF_PORT;  // {direction, type, protocol, beginPort, endPort, next}
using PortsTest = ConfTest;

// "ports|protocol" or "fail"; a failure writes neither buffer.
std::string render(const Port *list, int cb_ports = 256, int cb_proto = 64) {
    std::string ports(256, '#'), proto(64, '#');
    if (KVLIBServiceConfPortsToStr(list, ports.data(), cb_ports, proto.data(), cb_proto) == 0)
        return std::string(ports.c_str()) + "|" + proto.c_str();
    EXPECT_EQ(ports + proto, std::string(320, '#'));
    return "fail";
}

// What texts, protocol words and port numbers give (entries, results, codes, a held out-pointer
// refused) is the port list fuzz harness's model and seeds; here the lines they log.
TEST_F(PortsTest, BadTextsFailWithTheirLines) {
    for (const char *text : {"80:", "80,,90", "/tcp",  // an empty port number: no line
                             "80/tcp/udp", "80/icmp", "80/tcp,", "80/TCP,,udp", "80,8000 : 8010", "1:2:3", "80,65536"})
        EXPECT_EQ(parse(text), Strings{"fail"}) << text;
    for (const char *bad : {"", "-1", "8 0", "99999999999999999999999"}) EXPECT_EQ(KOVAServiceConfPortsCheck(bad), 0);
    EXPECT_EQ(KOVAServiceConfPortsCheck(nullptr), 0);
    char blank[] = " ";                                 // the empty test comes before the trim
    std::string longer = "  " + std::string(100, 'x');  // the line shows 63 characters as given
    EXPECT_EQ(KVLIBServiceConfProtocolParse(blank) + KVLIBServiceConfProtocolParse(longer.data()), -2);
    EXPECT_EQ(KOVAServiceConfPortsGet(nullptr, 1, &ports_) + KOVAServiceConfPortsGet("80", 2, &ports_), -2);
    EXPECT_EQ(ports_, nullptr);
    EXPECT_EQ(log_normalized(),
              (Strings{proto_error("tcp/udp"), proto_error("icmp"), proto_error("tcp,"), proto_error("TCP,,udp"),
                       illegal("8000 "), illegal("2:3"), illegal("65536"), illegal("-1"), illegal("8 0"),
                       illegal(std::string(23, '9')), proto_error(" "), proto_error("  " + std::string(61, 'x'))}));
}

TEST_F(PortsTest, ComposeCopiesInFrontAndRenderKeepsTheListOrder) {
    Port p80{0, 0, 3, 80, 99, nullptr}, p443{1, 0, 1, 443, 0, &p80}, range{0, 1, 2, 7000, 8000, nullptr};
    for (const Port *t : {&p80, &p443, &range}) ASSERT_EQ(KOVAServiceComposePortInfo(t, &ports_), 0);
    EXPECT_EQ(port_texts(ports_), (Strings{"d0 t1 p2 7000-8000", "d1 t0 p1 443", "d0 t0 p3 80-99"}));
    for (const Port &t : {Port{0, 1, 3, 8000, 7000, nullptr}, Port{0, 0, 0, 80, 0, nullptr},
                          Port{0, 0, 4, 80, 0, nullptr}, Port{0, 2, 3, 80, 0, nullptr}, Port{2, 0, 3, 80, 0, nullptr}})
        EXPECT_EQ(KOVAServiceComposePortInfo(&t, &ports_), -1);
    EXPECT_EQ(KOVAServiceComposePortInfo(nullptr, &ports_) + KOVAServiceComposePortInfo(&p80, nullptr), -2);
    EXPECT_EQ(port_texts(ports_).size(), 3u);
    EXPECT_EQ(log_normalized(),
              Strings(7, "service_compose_port_info.cpp:N Bad Parameters![0x0D00 service_compose_port_info.cpp:N]"));
    clear_log();
    write("/t.sc",
          "[n]\ntitle_key=p:s:k\ntitle=t\ndesc_key=a:b\ndesc=d\ndesc_extra=x\nport_forward=yes\n"
          "src.ports=1\ndst.ports=80,443,8000:8010/tcp\n");
    KOVA_SERVICE_CONF *conf = nullptr;
    KOVA_SERVICE_CONF_SECTION *copy = nullptr;
    ASSERT_EQ(KOVAServiceConfGet(path("/t.sc").c_str(), &conf), 0);
    for (int i = 0; i < 2; ++i) ASSERT_EQ(KOVAServiceComposeSectionInfo(conf->sections, &copy), 0);
    const Strings src = port_texts(conf->sections->srcPort), dst = port_texts(conf->sections->dstPort);
    KOVAServiceConfFree(conf);  // the copies own their own entries
    EXPECT_EQ(copy->name + parts(copy->title) + parts(copy->desc) + std::to_string(copy->portForward),
              "np|s|k|t||a|b|d|1");  // without the extra text
    EXPECT_EQ(port_texts(copy->srcPort), src);
    EXPECT_EQ(port_texts(copy->next->dstPort), dst);
    KOVAServiceConfSectionFree(copy);
    Port down{0, 1, 3, 9000, 8000, nullptr}, single{0, 0, 3, 80, 12345, &down};
    EXPECT_EQ(render(&single), "80,8000:9000|tcp,udp");
    ASSERT_EQ(parse("80,443/tcp").size(), 2u);
    EXPECT_EQ(render(ports_), "443,80|tcp");
    Port udp{1, 0, 2, 53, 0, nullptr}, tcp{0, 0, 1, 80, 0, &udp}, none{0, 0, 4, 80, 0, nullptr};
    EXPECT_EQ(render(&udp) + render(&tcp), "53|udpfail");
    EXPECT_EQ(render(&none) + render(nullptr) + render(&udp, 0) + render(&udp, 8, 0), "failfailfailfail");
    EXPECT_EQ(KVLIBCErrGet(), 0x0D00u);
    Port tail{0, 0, 3, 443, 0, nullptr}, head{0, 0, 3, 80, 0, &tail};  // exact sizes: the fuzz harness
    EXPECT_EQ(render(&head, 6), "fail");
    EXPECT_EQ(KVLIBCErrGet(), 0xBF00u);
    const std::string at = "[0x0D00 service_conf_ports_to_str.cpp:N]", to_str = "service_conf_ports_to_str.cpp:N ";
    const std::string small = to_str + "input array too small[0xBF00 service_conf_ports_to_str.cpp:N]";
    EXPECT_EQ(log_normalized(), (Strings{to_str + "Different protocol in port linked list" + at, small}));
}

}  // namespace
