// The catalogue: built-in rows and .sc sections as one list, lookup and freeing.
#include <kovaserviceconf.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "firewall/firewall_service_enum.h"
#include "foundation/raii.h"
#include "fw_test.h"

namespace {

using kova::fw::test::err_hex;
using kova::fw::test::err_state;
using kova::fw::test::items;
using Texts = std::vector<std::string>;

const Texts kBuiltIn = {"ipp",  "lpr", "rx52",      "bonjour",    "iscsitrg", "snmp", "ftp",   "afp",
                        "cifs", "nfs", "netprobed", "ups_server", "mysql",    "ssh",  "telnet"};

Texts names(const KOVA_FW_SERVICE *list) {
    Texts out;
    for (; list != nullptr; list = list->next) out.emplace_back(list->name);
    return out;
}

Texts with_built_in(Texts head) {
    head.insert(head.end(), kBuiltIn.begin(), kBuiltIn.end());
    return head;
}

Texts without(Texts all, const std::string &name) {
    std::erase(all, name);
    return all;
}

std::string section(const std::string &name, const std::string &dst, const std::string &extra = "") {
    return "[" + name + "]\ntitle=Title " + name + "\ndesc=Desc " + name + "\ndst.ports=" + dst + "\n" + extra + "\n";
}

class FwEnum : public kova::fw::test::FwTest {
protected:
    void SetUp() override {
        FwTest::SetUp();
        write_settings();
    }
    // Enumerates, checks that the result is the list's length, and owns the list.
    kova::FwServicePtr enumerate() {
        KOVA_FW_SERVICE *list = nullptr;
        const int n = KOVAFwServiceEnum(&list);
        EXPECT_EQ(n, static_cast<int>(names(list).size()));
        return kova::FwServicePtr(list);
    }
};

TEST_F(FwEnum, NullOutPointer) {
    EXPECT_EQ(KOVAFwServiceEnum(nullptr), -1);
    EXPECT_EQ(log_normalized(), Texts{"firewall_service_enum.cpp:N Bad parameters"});
}

TEST_F(FwEnum, BuiltInServicesInReverseTableOrder) {
    poison_error();
    auto list = enumerate();
    EXPECT_EQ(names(list.get()), kBuiltIn);
    EXPECT_TRUE(log().empty());
    EXPECT_EQ(KVLIBCErrGet(), 0xEEEEu);

    const KOVA_FW_SERVICE *cifs = KOVAFWServiceFind(list.get(), "cifs");
    ASSERT_NE(cifs, nullptr);
    EXPECT_EQ(cifs->portForward, 1);
    EXPECT_EQ(cifs->srcProtocol, 2);
    EXPECT_EQ(items(cifs->srcPorts), (Texts{"137", "138"}));
    EXPECT_EQ(cifs->dstProtocol, 1);
    EXPECT_EQ(items(cifs->dstPorts), (Texts{"137", "138", "139", "445"}));
    EXPECT_STREQ(cifs->title.key, "firewall_service_opt_smb");
    EXPECT_STREQ(cifs->desc.section, "firewall");
    EXPECT_STREQ(cifs->desc.text, "");

    const KOVA_FW_SERVICE *nfs = KOVAFWServiceFind(list.get(), "nfs");
    ASSERT_NE(nfs, nullptr);
    EXPECT_EQ(nfs->dstProtocol, 3);
    EXPECT_EQ(items(nfs->dstPorts), (Texts{"111", "892", "2049"}));
    EXPECT_EQ(nfs->srcProtocol, 0);
    EXPECT_EQ(nfs->srcPorts, nullptr);
    EXPECT_EQ(items(KOVAFWServiceFind(list.get(), "ftp")->dstPorts), (Texts{"21", "55536-55899"}));
    EXPECT_EQ(items(KOVAFWServiceFind(list.get(), "netprobed")->dstPorts), (Texts{"1234", "9997", "9998", "9999"}));
    EXPECT_STREQ(KOVAFWServiceFind(list.get(), "bonjour")->title.key, "firewall_service_desc_bonjour");
}

TEST_F(FwEnum, SupportedFromDefaultsFile) {
    write(kDefaults, "supportmysql=no\nsupportups=yes\ncm_rx=YES\nsupportNFS=yes\n");
    auto list = enumerate();
    EXPECT_EQ(names(list.get()), kBuiltIn);
    auto supported = [&](const char *name) { return KOVAFWServiceFind(list.get(), name)->supported; };
    EXPECT_EQ(supported("mysql"), 0);
    EXPECT_EQ(supported("ups_server"), 1);
    EXPECT_EQ(supported("rx52"), 0);
    EXPECT_EQ(supported("nfs"), 1);
    EXPECT_EQ(supported("iscsitrg"), 0);
    EXPECT_EQ(supported("telnet"), 1);

    write(kDefaults, "supportmysql=yes\n");
    auto again = enumerate();
    EXPECT_EQ(KOVAFWServiceFind(again.get(), "mysql")->supported, 1);
}

TEST_F(FwEnum, UnreadableNfsSettingsLeaveOnlyNfsOut) {
    make_unreadable(kNfs);
    KVLIB_SZLIST *probe = nullptr;
    ASSERT_EQ(KOVAFwPortsNFS(&probe), -1);  // the platform's error state that the lines print
    const std::string hex = err_hex();
    clear_log();
    auto list = enumerate();
    EXPECT_EQ(names(list.get()), without(kBuiltIn, "nfs"));
    EXPECT_EQ(log_normalized(),
              (Texts{"firewall_service_register.cpp:N Failed to get val of 'nfs_custom_port_enable', " + hex,
                     "firewall_service_enum.cpp:N Failed to enum dst ports in firewall services: nfs"}));
}

TEST_F(FwEnum, NfsCustomPortsOnWithoutStatdLeavesNfsOut) {
    write(kNfs, "nfs_custom_port_enable=yes\n");
    auto list = enumerate();
    EXPECT_EQ(names(list.get()), without(kBuiltIn, "nfs"));
    EXPECT_EQ(log_normalized().size(), 2u);
    EXPECT_TRUE(logged("firewall_service_enum.cpp:N Failed to enum dst ports in firewall services: nfs"));
}

TEST_F(FwEnum, UnreadableInfoFileLeavesFtpAndSshOut) {
    // Both getters read the same settings file.
    make_unreadable(kInfo);
    auto list = enumerate();
    EXPECT_EQ(names(list.get()), without(without(kBuiltIn, "ftp"), "ssh"));
    const Texts lines = log_normalized();
    ASSERT_EQ(lines.size(), 4u);
    EXPECT_EQ(lines[1], "firewall_service_enum.cpp:N Failed to enum dst ports in firewall services: ssh");
    EXPECT_EQ(lines[3], "firewall_service_enum.cpp:N Failed to enum dst ports in firewall services: ftp");
}

TEST_F(FwEnum, ScSectionsComeFirstInWalkOrder) {
    write(std::string(kSysDir) + "/a.sc", section("a1", "80/tcp") + section("a2", "81/tcp"));
    write(std::string(kSysDir) + "/b.sc", section("b1", "82/tcp"));
    write(std::string(kPkgDir) + "/p.sc", section("p1", "90/tcp") + section("p2", "91/tcp"));
    auto list = enumerate();
    EXPECT_EQ(names(list.get()), with_built_in({"a1", "a2", "b1", "p1", "p2"}));
}

TEST_F(FwEnum, ScRecordFields) {
    write(std::string(kPkgDir) + "/web.sc",
          "[global]\nversion=2\n\n" + section("web", "21,20/tcp",
                                              "src.ports=5000:5010/udp\nport_forward=yes\ntitle_key=pkg:web:title\n"
                                              "desc_key=web:desc\ndesc_extra=More\n"));
    auto list = enumerate();
    ASSERT_EQ(names(list.get()), with_built_in({"web"}));
    const KOVA_FW_SERVICE &web = *list;
    EXPECT_EQ(web.supported, 1);
    EXPECT_EQ(web.portForward, 1);
    EXPECT_EQ(web.dstProtocol, 1);
    EXPECT_EQ(items(web.dstPorts), (Texts{"20", "21"}));
    EXPECT_EQ(web.srcProtocol, 2);
    EXPECT_EQ(items(web.srcPorts), Texts{"5000-5010"});
    EXPECT_STREQ(web.title.prefix, "pkg");
    EXPECT_STREQ(web.title.section, "web");
    EXPECT_STREQ(web.title.key, "title");
    EXPECT_STREQ(web.title.text, "Title web");
    EXPECT_STREQ(web.title.extraText, "");
    EXPECT_STREQ(web.desc.section, "web");
    EXPECT_STREQ(web.desc.key, "desc");
    EXPECT_STREQ(web.desc.text, "Desc web");
    EXPECT_STREQ(web.desc.extraText, "More");
}

TEST_F(FwEnum, ScWithoutSourcePortsAndBothProtocols) {
    write(std::string(kSysDir) + "/x.sc", section("x", "1900"));
    auto list = enumerate();
    EXPECT_EQ(list->srcPorts, nullptr);
    EXPECT_EQ(list->srcProtocol, 0);
    EXPECT_EQ(list->dstProtocol, 3);
    EXPECT_EQ(list->portForward, 0);
}

TEST_F(FwEnum, ScSupportKey) {
    write(kDefaults, "supportyes=yes\nsupportno=no\n");
    write(std::string(kSysDir) + "/1.sc",
          "[global]\nsupport_key=supportyes\n" + section("on1", "1") + section("on2", "2"));
    write(std::string(kSysDir) + "/2.sc", "[global]\nsupport_key=supportno\n" + section("off", "3"));
    write(std::string(kSysDir) + "/3.sc", "[global]\nsupport_key=supportyes\n" + section("on3", "4"));
    write(std::string(kSysDir) + "/4.sc", "[global]\nsupport_key=\n" + section("always", "5"));
    auto list = enumerate();
    ASSERT_EQ(names(list.get()), with_built_in({"on1", "on2", "off", "on3", "always"}));
    for (const char *name : {"on1", "on2", "on3", "always"})
        EXPECT_EQ(KOVAFWServiceFind(list.get(), name)->supported, 1);
    EXPECT_EQ(KOVAFWServiceFind(list.get(), "off")->supported, 0);
}

TEST_F(FwEnum, FindPrefersScRecordAndIsCaseSensitive) {
    write(std::string(kPkgDir) + "/ssh.sc", section("ssh", "2200/tcp"));
    auto list = enumerate();
    const KOVA_FW_SERVICE *ssh = KOVAFWServiceFind(list.get(), "ssh");
    ASSERT_NE(ssh, nullptr);
    EXPECT_EQ(ssh, list.get());
    EXPECT_EQ(items(ssh->dstPorts), Texts{"2200"});
    EXPECT_NE(KOVAFWServiceFind(ssh->next, "ssh"), nullptr);  // the built-in one further down
    EXPECT_EQ(KOVAFWServiceFind(list.get(), "SSH"), nullptr);
    EXPECT_EQ(KOVAFWServiceFind(list.get(), "ss"), nullptr);
    EXPECT_TRUE(log().empty());
}

TEST_F(FwEnum, FindRejectsNullArguments) {
    auto list = enumerate();
    EXPECT_EQ(KOVAFWServiceFind(nullptr, "ssh"), nullptr);
    EXPECT_EQ(KOVAFWServiceFind(list.get(), nullptr), nullptr);
    EXPECT_EQ(log_normalized(),
              (Texts{"firewall_service_find.cpp:N Bad parameters", "firewall_service_find.cpp:N Bad parameters"}));
}

TEST_F(FwEnum, LongSectionNameIsCutTo63) {
    const std::string name(70, 'n');
    write(std::string(kSysDir) + "/long.sc", section(name, "7000/udp"));
    auto list = enumerate();
    EXPECT_EQ(std::string(list->name), name.substr(0, 63));
    EXPECT_EQ(KOVAFWServiceFind(list.get(), name.c_str()), nullptr);
    EXPECT_EQ(KOVAFWServiceFind(list.get(), name.substr(0, 63).c_str()), list.get());
}

TEST_F(FwEnum, UnparsableScFilesAreLeftOut) {
    write(std::string(kSysDir) + "/bad.sc", "[global]\nversion=1\n");
    write(std::string(kSysDir) + "/good.sc", section("good", "443/tcp"));
    auto list = enumerate();
    EXPECT_EQ(names(list.get()), with_built_in({"good"}));
}

TEST_F(FwEnum, MissingServiceDirectoriesGiveBuiltInsOnly) {
    std::filesystem::remove_all(path(kSysDir));
    std::filesystem::remove_all(path(kPkgDir));
    auto list = enumerate();
    EXPECT_EQ(names(list.get()), kBuiltIn);
    EXPECT_TRUE(log().empty());
}

TEST_F(FwEnum, ResultReplacesOutValue) {
    KOVA_FW_SERVICE stale{};
    KOVA_FW_SERVICE *list = &stale;
    EXPECT_EQ(KOVAFwServiceEnum(&list), 15);
    EXPECT_NE(list, &stale);
    KOVAFwServiceFree(list);
    KOVAFwServiceFree(nullptr);
}

TEST_F(FwEnum, ExampleRootCatalogue) {
    const std::string example = std::string(KOVA_SOURCE_DIR) + "/examples/root";
    if (!std::filesystem::exists(example + "/etc/kovainfo.conf")) GTEST_SKIP() << "no example root";
    setenv("KOVA_ROOT", example.c_str(), 1);
    auto list = enumerate();
    const Texts all = names(list.get());
    ASSERT_GE(all.size(), kBuiltIn.size());
    EXPECT_EQ(Texts(all.end() - static_cast<long>(kBuiltIn.size()), all.end()), kBuiltIn);
    // The example root ships one deliberately broken file: only the reader complains about it,
    // every setting the getters read is valid.
    for (const std::string &line : log()) EXPECT_EQ(line.rfind("service_conf_", 0), 0u) << line;
}

// ---- converters ---------------------------------------------------------------------------

TEST_F(FwEnum, PortTextConverter) {
    KVLIB_SZLIST *list = nullptr;
    ASSERT_EQ(kova::fw::ports_text_to_list(",,137,,138,", &list), 0);
    EXPECT_EQ(items(list), (Texts{"137", "138"}));
    KVLIBCSzListFree(list);

    list = nullptr;
    EXPECT_EQ(kova::fw::ports_text_to_list("137,13a8,139", &list), -1);
    EXPECT_EQ(list, nullptr);
    EXPECT_EQ(kova::fw::ports_text_to_list("", &list), -1);
    EXPECT_EQ(kova::fw::ports_text_to_list("1", nullptr), -1);
    EXPECT_EQ(log_normalized(),
              (Texts{"firewall_service_enum.cpp:N illegal ports number, port=13a8",
                     "firewall_service_enum.cpp:N Bad parameters", "firewall_service_enum.cpp:N Bad parameters"}));
}

TEST_F(FwEnum, PortEntryConverter) {
    KOVA_SERVICE_CONF_PORT odd{1, 7, 1, 9, 9, nullptr};
    KOVA_SERVICE_CONF_PORT range{1, 1, 2, 5000, 5010, &odd};
    KOVA_SERVICE_CONF_PORT single{1, 0, 3, 80, 0, &range};
    int32_t protocol = 0;
    KVLIB_SZLIST *list = nullptr;
    ASSERT_EQ(kova::fw::port_entries_to_list(&single, &protocol, &list), 0);
    EXPECT_EQ(items(list), (Texts{"80", "5000-5010"}));
    EXPECT_EQ(protocol, 1);  // the last entry's
    KVLIBCSzListFree(list);

    list = nullptr;
    EXPECT_EQ(kova::fw::port_entries_to_list(nullptr, &protocol, &list), -1);
    EXPECT_TRUE(log().empty());
    const std::string state = err_state();
    EXPECT_EQ(kova::fw::port_entries_to_list(&single, nullptr, &list), -1);
    EXPECT_EQ(kova::fw::port_entries_to_list(&single, &protocol, nullptr), -1);
    EXPECT_EQ(list, nullptr);
    EXPECT_EQ(log_normalized(), (Texts{"firewall_service_enum.cpp:N Bad parameters, kovaerr=" + state,
                                       "firewall_service_enum.cpp:N Bad parameters, kovaerr=" + state}));
}

}  // namespace
