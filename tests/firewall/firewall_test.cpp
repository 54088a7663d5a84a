// The firewall catalogue: the built-in table, the port getters, enumeration, lookup and converters.
#include <kovaserviceconf.h>

#include <cstdio>
#include <filesystem>

#include "firewall/firewall_service_enum.h"
#include "foundation/raii.h"
#include "kova_test.h"

namespace {

using Texts = kova::test::Lines;
using kova::test::str;

const Texts kBuiltIn = {"ipp",  "lpr", "rx52",      "bonjour",    "iscsitrg", "snmp", "ftp",   "afp",
                        "cifs", "nfs", "netprobed", "ups_server", "mysql",    "ssh",  "telnet"};

// "protocol:port,port" of one direction of a record.
std::string ports(int protocol, const KVLIB_SZLIST *list) {
    std::string out = std::to_string(protocol) + ":";
    for (int i = 0; list && i < list->nItem; ++i) out += str(i ? "," : "", KVLIBCSzListGet(list, i));
    return out;
}

Texts names(const KOVA_FW_SERVICE *list) {
    Texts out;
    for (; list != nullptr; list = list->next) out.emplace_back(list->name);
    return out;
}

// "name src dst fPortForward sSupported" of a record.
std::string record(const KOVA_FW_SERVICE &s) {
    return std::string(s.name) + " " + ports(s.srcProtocol, s.srcPorts) + " " + ports(s.dstProtocol, s.dstPorts) +
           " f" + std::to_string(s.portForward) + " s" + std::to_string(s.supported);
}

// "errno=0x%X" or "[0x%04X file:N]": the current error state as the log lines print it.
std::string err_text(bool state) {
    char buf[256];
    if (!state) std::snprintf(buf, sizeof buf, "errno=0x%X", KVLIBCErrGet());
    if (state)
        std::snprintf(buf, sizeof buf, "[0x%04X %s:%d]", KVLIBCErrGet(), KVLIBCErrorGetFile(), KVLIBCErrorGetLine());
    return kova::test::normalize(buf);
}

std::string section(const std::string &name, const std::string &dst, const std::string &extra = "") {
    return "[" + name + "]\ntitle=Title " + name + "\ndesc=Desc " + name + "\ndst.ports=" + dst + "\n" + extra + "\n";
}

class Fw : public kova::test::RootTest {
protected:
    static constexpr const char *kInfo = "/etc/kovainfo.conf", *kNfs = "/etc/nfs/kova_nfs_conf",
                                *kDefaults = "/etc.defaults/kovainfo.conf";
    static constexpr const char *kSys = "/usr/kova/etc/services.d/", *kPkg = "/usr/local/etc/services.d/";
    // A settings tree in which every getter succeeds and both services.d directories exist.
    void SetUp() override {
        RootTest::SetUp();
        write(kInfo, "ftpport=21\nftplowport=55536\nftphighport=55899\n");
        write(kDefaults, "supportmysql=yes\n");
        write(kNfs, "nfs_custom_port_enable=no\n");
        for (const char *dir : {kSys, kPkg}) mkdir(dir);
    }
    // Replaces a settings file; null content makes it unreadable (a directory in its place).
    void put(const std::string &rel, const char *content) {
        std::filesystem::remove_all(path(rel));
        content != nullptr ? write(rel, content) : mkdir(rel);
    }
    // Enumerates, checks that the result is the list's length, and owns the list.
    kova::FwServicePtr enumerate() {
        KOVA_FW_SERVICE *list = nullptr;
        const int n = KOVAFwServiceEnum(&list);
        EXPECT_EQ(n, static_cast<int>(names(list).size()));
        return kova::FwServicePtr(list);
    }
};

TEST_F(Fw, GetterPortsAndFailures) {
    const auto FTP = KOVAFwPortsFTP, NFS = KOVAFwPortsNFS, SSH = KOVAFwPortsSSH;
    // Content null: the settings file is unreadable. "!": the getter fails with this line and stores nothing.
    const std::tuple<KOVA_FW_PORTS_GETTER, const char *, std::string> cases[] = {
        {FTP, "ftpport=990\nftplowport=600\nftphighport=700\n", "990,600-700"},
        {FTP, "ftpport=abc\nftplowport=900\nftphighport=x\n", "abc,900-x"},          // neither converted nor compared
        {FTP, "ftpport=2121\nftplowport=0\nftphighport=700\n", "2121,55536-55899"},  // the FTP library's default
        {FTP, "ftplowport=600\nftphighport=0\n", "21,55536-55899"},
        {FTP, "ftpport=990\nftplowport=600\n", "990"},
        {FTP, "ftpport=12345678901234567\nftpport=1\nftplowport = \"600\"\nftphighport=7\n", "123456789012345,600-7"},
        {FTP, nullptr, "!Failed to get val of 'ftpport', "},
        {NFS, "nfs_custom_port_enable=YES\nstatd_port=662\n", "111,892,2049"},
        {NFS, "nfs_custom_port_enable=yes\nstatd_port=662\nnlm_port=875\n", "111,892,2049,662,875"},
        {NFS, "nfs_custom_port_enable=yes\nnlm_port=875\n", "!Failed to get val of 'NFS statd port', "},
        {NFS, "nfs_custom_port_enable=yes\nstatd_port=662\nnlm_port=\n", "!Failed to get val of 'NFS nlm port', "},
        {NFS, nullptr, "!Failed to get val of 'nfs_custom_port_enable', "},
        {SSH, "sftpPort=2222\nrsync_sshd_port=822\n", "822,2222"},
        {SSH, "sftpPort=65536\nrsync_sshd_port=65535\n", "822,22,65535"},
        {SSH, "sftpPort=1\nrsync_sshd_port=abc\n", "822,1,22"},
        {SSH, "sftpPort=4294967319\nrsync_sshd_port=-5\n", "822,23,22"},  // a 32-bit value: 2^32 + 23
        {SSH, nullptr, "!Failed to get sftpPort of kovainfo.conf. "},
        {KOVAFwPortsSurveillanceCamSearch, "", "55900-55910"},
        {KOVAFwPortsMFP, "", "3240-3259"},
    };
    write("/etc/ssh/sshd_config", "Port 822\n");
    // Inside the catalogue, where each settings file is read once, the getter's row gets the same
    // ports, or is left out after the same line.
    const auto in_catalogue = [&](KOVA_FW_PORTS_GETTER getter, const std::string &want) {
        const char *row = getter == FTP ? "ftp" : getter == NFS ? "nfs" : getter == SSH ? "ssh" : nullptr;
        if (row == nullptr) return;
        clear_log();
        const auto list = enumerate();
        const KOVA_FW_SERVICE *found = KOVAFWServiceFind(list.get(), row);
        EXPECT_EQ(found != nullptr ? ports(0, found->dstPorts) : "!", want[0] == '!' ? "!" : "0:" + want);
        const Texts lines = log_normalized();
        const auto said =
            std::find(lines.begin(), lines.end(),
                      "firewall_service_enum.cpp:N Failed to enum dst ports in firewall services: " + std::string(row));
        EXPECT_EQ(said != lines.end(), want[0] == '!');
        if (want[0] == '!' && said != lines.begin() && said != lines.end()) {
            EXPECT_NE((said - 1)->find(want.substr(1)), std::string::npos) << *(said - 1);  // the getter's line
        }
    };
    for (const auto &[getter, content, want] : cases) {
        SCOPED_TRACE(content ? content : "(unreadable)");
        clear_log();
        EXPECT_EQ(getter(nullptr), -1);
        EXPECT_EQ(log_normalized(), Texts{"firewall_service_register.cpp:N Bad parameters"});
        put(getter == NFS ? kNfs : kInfo, content);
        KVLIB_SZLIST sentinel{}, *list = &sentinel;
        clear_log();
        poison_error();
        const int ret = getter(&list);
        if (want[0] == '!') {
            EXPECT_TRUE(ret == -1 && list == &sentinel) << ret;
            EXPECT_EQ(log_normalized(),
                      Texts{"firewall_service_register.cpp:N " + want.substr(1) + err_text(getter == SSH)});
        } else {
            ASSERT_EQ(ret, 0);
            EXPECT_EQ(ports(0, list), "0:" + want);
            KVLIBCSzListFree(list);
            EXPECT_EQ(log().size() + KVLIBCErrGet(), 0xEEEEu);  // silent, error state untouched
        }
        in_catalogue(getter, want);
    }
}

TEST_F(Fw, BuiltInTableAndServicesInReverseOrder) {
    poison_error();
    KOVA_FW_SERVICE stale{}, *raw = &stale;
    EXPECT_EQ(KOVAFwServiceEnum(&raw), 15);
    kova::FwServicePtr list(raw);
    Texts rows;
    for (const KOVA_FW_SERVICE *s = list.get(); s != nullptr; s = s->next)
        rows.push_back(record(*s) + s->desc.text + s->title.text);
    EXPECT_EQ(rows,
              (Texts{"ipp 0: 1:631 f0 s1", "lpr 0: 1:515 f0 s1", "rx52 0: 2:19999 f0 s0", "bonjour 0: 2:5353 f0 s1",
                     "iscsitrg 0: 1:3260,3261,3262 f0 s0", "snmp 0: 2:161 f0 s1", "ftp 0: 1:21,55536-55899 f1 s1",
                     "afp 0: 1:548 f1 s1", "cifs 2:137,138 1:137,138,139,445 f1 s1", "nfs 0: 3:111,892,2049 f1 s0",
                     "netprobed 0: 2:1234,9997,9998,9999 f0 s1", "ups_server 0: 1:3493 f0 s0", "mysql 0: 1:3306 f0 s1",
                     "ssh 0: 1:22 f1 s1", "telnet 0: 1:23 f1 s1"}));
    EXPECT_STREQ(KOVAFWServiceFind(list.get(), "bonjour")->title.key, "firewall_service_desc_bonjour");
    EXPECT_EQ(log().size() + KVLIBCErrGet(), 0xEEEEu);  // silent, error state untouched
    KOVAFwServiceFree(nullptr);
    // The exported table: 15 rows, then a terminator whose texts read "null".
    const KOVA_FW_SERVICE_ENTRY *row = rgServices + 15;
    EXPECT_EQ(row->name, nullptr);
    EXPECT_EQ(std::string(row->desc.section) + row->desc.key + row->title.section + row->title.key + " " +
                  rgServices[11].desc.key + " " + rgServices[12].title.key,
              "nullnullnullnull firewall_service_opt_bonjour firewall_service_desc_rx52");
    EXPECT_EQ(row->src.enabled + row->dst.enabled, 0);
    put(kNfs, nullptr);  // failing getters leave only their rows out
    put(kInfo, nullptr);
    std::filesystem::remove_all(path(kSys));  // no directory of .sc files: nothing to add, nothing said
    std::filesystem::remove_all(path(kPkg));
    Texts want = kBuiltIn;
    for (const char *name : {"ftp", "nfs", "ssh"}) std::erase(want, name);
    EXPECT_EQ(names(enumerate().get()), want);
    const Texts lines = log_normalized();
    ASSERT_EQ(lines.size(), 6u);  // each after the getter's own line, in table order
    for (size_t i = 0; i < 3; ++i)
        EXPECT_EQ(lines[2 * i + 1], "firewall_service_enum.cpp:N Failed to enum dst ports in firewall services: " +
                                        (Texts{"ssh", "nfs", "ftp"}[i]));
}

TEST_F(Fw, ScSectionsFirstInWalkOrderFieldsAndFind) {
    const std::string name(70, 'n');
    write(kSys + std::string("a.sc"), section("a1", "80/tcp") + section("a2", "81/tcp"));
    write(kSys + std::string("b.sc"), section("b1", "82/tcp") + section(name, "1900"));
    write(kPkg + std::string("p.sc"), section("p1", "90/tcp") + section("ssh", "2200/tcp"));
    const char *web = "src.ports=5000:5010/udp\nport_forward=yes\ntitle_key=p:s:t\ndesc_key=s:d\ndesc_extra=X";
    write(kPkg + std::string("web.sc"), "[global]\nversion=2\n\n" + section("web", "21,20/tcp", web));
    auto list = enumerate();
    const std::string cut = name.substr(0, 63);
    Texts want = {"a1", "a2", "b1", cut, "p1", "ssh", "web"};
    want.insert(want.end(), kBuiltIn.begin(), kBuiltIn.end());
    ASSERT_EQ(names(list.get()), want);
    const KOVA_FW_SERVICE *ssh = KOVAFWServiceFind(list.get(), "ssh"), *web_rec = ssh->next;
    EXPECT_EQ(record(*KOVAFWServiceFind(list.get(), cut.c_str())), cut + " 0: 3:1900 f0 s1");
    EXPECT_EQ(record(*ssh), "ssh 0: 1:2200 f0 s1");
    EXPECT_EQ(record(*web_rec), "web 2:5000-5010 1:20,21 f1 s1");
    const KOVA_SERVICE_STRING &t = web_rec->title, &d = web_rec->desc;
    EXPECT_EQ(Texts({t.prefix, t.section, t.key, t.text, t.extraText}), Texts({"p", "s", "t", "Title web", ""}));
    EXPECT_EQ(Texts({d.prefix, d.section, d.key, d.text, d.extraText}), Texts({"", "s", "d", "Desc web", "X"}));
    EXPECT_EQ(record(*KOVAFWServiceFind(web_rec, "ssh")), "ssh 0: 1:22 f1 s1");  // the built-in one further down
    for (const char *missing : {"SSH", "ss", name.c_str()}) EXPECT_EQ(KOVAFWServiceFind(list.get(), missing), nullptr);
    EXPECT_TRUE(log().empty());
    EXPECT_EQ(KOVAFwServiceEnum(nullptr), -1);
    EXPECT_EQ(KOVAFWServiceFind(nullptr, "ssh"), nullptr);
    EXPECT_EQ(KOVAFWServiceFind(list.get(), nullptr), nullptr);
    EXPECT_EQ(log_normalized(),
              (Texts{"firewall_service_enum.cpp:N Bad parameters", "firewall_service_find.cpp:N Bad parameters",
                     "firewall_service_find.cpp:N Bad parameters"}));
}

// A section that fails its check late (its strings already taken) leaves nothing in the next record.
TEST_F(Fw, FailedSectionLeavesNothingToTheNext) {
    const char *keys = "title_key=p:s:t\ndesc_key=q:r:d\ndesc_extra=X\nport_forward=yes\nsrc.ports=7/udp";
    write(kSys + std::string("a.sc"), section("bad", "99999/tcp", keys) + section("good", "80/tcp"));
    auto list = enumerate();
    EXPECT_EQ(KOVAFWServiceFind(list.get(), "bad"), nullptr);
    const KOVA_FW_SERVICE *good = KOVAFWServiceFind(list.get(), "good");
    ASSERT_NE(good, nullptr);
    EXPECT_EQ(record(*good), "good 0: 1:80 f0 s1");
    const KOVA_SERVICE_STRING &t = good->title, &d = good->desc;
    EXPECT_EQ(Texts({t.prefix, t.section, t.key, t.text, d.prefix, d.section, d.key, d.text, d.extraText}),
              Texts({"", "", "", "Title good", "", "", "", "Desc good", ""}));
}

// The defaults file decides for table rows with a support key and for .sc files with one.
TEST_F(Fw, SupportedFromDefaultsFile) {
    // Many keys (found through a table), and a key's first line counts: "supportno" reads "no".
    std::string defaults = "supportmysql=no\nsupportups=yes\ncm_rx=YES\nsupportNFS=yes\nsupportyes=yes\nsupportno=no\n";
    for (int i = 0; i < 300; ++i) defaults += str("other", i, "=yes\n");
    write(kDefaults, defaults + "supportno=yes\n[s]\nsupportmysql=yes\n");
    write(kSys + std::string("1.sc"), "[global]\nsupport_key=supportyes\n" + section("on1", "1") + section("on2", "2"));
    write(kSys + std::string("2.sc"), "[global]\nsupport_key=supportno\n" + section("off", "3"));
    write(kSys + std::string("3.sc"), "[global]\nsupport_key=supportyes\n" + section("on3", "4"));
    write(kSys + std::string("bad.sc"), "[global]\nversion=1\n");  // unparsable: left out
    write(kSys + std::string("4.sc"), "[global]\nsupport_key=\n" + section("always", "5"));
    auto list = enumerate();
    std::string flags;
    for (const KOVA_FW_SERVICE *s = list.get(); s != nullptr; s = s->next) flags += std::to_string(s->supported);
    // on1 on2 off on3 always, then ipp lpr rx52 bonjour iscsitrg ... ups_server mysql ssh telnet
    EXPECT_EQ(flags, "11011110101111111011");

    // Handed to a sink one at a time (as the conflict checks take them), the records come in the
    // list's order, each with its file's support value, unlinked.
    struct Collect final : kova::fw::RecordSink {
        std::string seen;
        void take(kova::FwServicePtr r) override { seen += (r->next == nullptr ? "" : "linked ") + record(*r) + ";"; }
    } sink;
    std::string listed;
    for (const KOVA_FW_SERVICE *s = list.get(); s != nullptr; s = s->next) listed += record(*s) + ";";
    const kova::Result<kova::fw::Catalogue> built = kova::fw::build_catalogue(&sink);
    ASSERT_TRUE(built);
    EXPECT_TRUE(built->count == 20 && built->head == nullptr);
    EXPECT_EQ(sink.seen, listed);
}

}  // namespace
