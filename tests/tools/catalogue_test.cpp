// kova-svc makes the firewall catalogue itself, to learn each record's file from the one read of
// it: the records must be the library's (KOVAFwServiceEnum), field by field and in order.
#include <kovaserviceconf.h>

#include <algorithm>
#include <cstring>
#include <filesystem>

#include "catalogue.h"
#include "foundation/raii.h"
#include "kova_test.h"

namespace {

using Texts = kova::test::Lines;
using kova::test::str;

std::string text(const KOVA_SERVICE_STRING &s) {
    return str(s.prefix, "|", s.section, "|", s.key, "|", s.text, "|", s.extraText);
}

std::string text(const kovasvc::DisplayText &s) {
    return str(s.prefix(), "|", s.section(), "|", s.key(), "|", s.text(), "|", s.extra_text());
}

std::string ports(int protocol, const KVLIB_SZLIST *list) {
    std::string out = str(protocol, ":");
    for (int i = 0; list != nullptr && i < list->nItem; ++i) {
        kovasvc::PortRun run = kovasvc::item_run(KVLIBCSzListGet(list, i));
        out += str(run.first, "-", run.last, " ");
    }
    return out;
}

std::string ports(unsigned int protocol, std::span<const kovasvc::PortRun> runs) {
    std::string out = str(protocol, ":");
    for (const auto &run : runs) out += str(run.first, "-", run.last, " ");
    return out;
}

// Every field of a record, one line, as the tool's commands read it.
std::string record(const KOVA_FW_SERVICE &s) {
    return str(s.name, " s", s.supported, " f", s.portForward, " title ", text(s.title), " desc ", text(s.desc),
               " dst ", ports(s.dstProtocol, s.dstPorts), "src ", ports(s.srcProtocol, s.srcPorts));
}

std::string record(const kovasvc::CatalogueEntry &e) {
    return str(e.name, " s", int{e.supported}, " f", int{e.port_forward}, " title ", text(e.title), " desc ",
               text(e.desc), " dst ", ports(e.dst_protocol, e.dst), "src ", ports(e.src_protocol, e.src));
}

class ToolCatalogue : public kova::test::RootTest {
protected:
    static constexpr const char *kSys = "/usr/kova/etc/services.d/", *kPkg = "/usr/local/etc/services.d/";

    // The library's catalogue and the tool's, record by record, and what lookups find in them;
    // the tool's sources of the records from .sc files and of the hidden ones.
    Texts compare() {
        KOVA_FW_SERVICE *raw = nullptr;
        EXPECT_GE(KOVAFwServiceEnum(&raw), 0);
        kova::FwServicePtr list(raw);
        std::vector<const KOVA_FW_SERVICE *> records;
        Texts library;
        for (const KOVA_FW_SERVICE *s = list.get(); s != nullptr; s = s->next) {
            records.push_back(s);
            library.push_back(record(*s));
        }
        kovasvc::Catalogue cat = kovasvc::Catalogue::load(kovasvc::Catalogue::Detail::kTexts);
        const auto &entries = cat.entries();
        Texts tool, sources;
        for (size_t i = 0; i < entries.size(); ++i) {
            const kovasvc::CatalogueEntry &e = entries[i];
            tool.push_back(record(e));
            const KOVA_FW_SERVICE *found = KOVAFWServiceFind(list.get(), e.name);
            size_t at = std::find(records.begin(), records.end(), found) - records.begin();
            EXPECT_EQ(cat.find(e.name) - entries.data(), static_cast<ptrdiff_t>(at)) << e.name;
            EXPECT_EQ(e.shadowed, at != i) << e.name;
            if (e.origin == kovasvc::Origin::BuiltIn && !e.shadowed) continue;
            std::string file(e.file);
            sources.push_back(str(e.name, " ", kovasvc::origin_name(e.origin), e.shadowed ? "* " : " ",
                                  file.substr(file.find_last_of('/') + 1), " ", e.support_key));
        }
        EXPECT_EQ(tool, library);
        return sources;
    }
};

TEST_F(ToolCatalogue, SameRecordsAsTheLibraryInTheSameOrder) {
    const std::string long_name(70, 'n');
    write("/etc.defaults/kovainfo.conf",
          "# defaults\nsupportmysql=\"yes\"\nsupportups=no\nyeskey = yes\nnokey=YES\n[other]\ndupkey=no\ndupkey=yes\n");
    write(str(kSys, "b.sc"),
          "[global]\nsupport_key=yeskey\n\n[web]\ntitle=Web\ntitle_key=p:s:t\ndesc=D\ndesc_key=s:d\ndesc_extra=X\n"
          "dst.ports=443,80,8000:8010/tcp\nsrc.ports=1024:65535/tcp\nport_forward=YES\n\n"
          "[nodst]\ntitle=T\ndesc=D\n\n[" +
              long_name + "]\ntitle=T\ndesc=D\ndst.ports=9000/udp\n");
    write(str(kSys, "a.sc"), "[global]\nsupport_key=nokey\n[web]\ntitle=W\ndesc=D\ndst.ports=81/tcp,udp\n");
    write(str(kSys, "c.sc"), "[global]\nsupport_key=dupkey\n[telnet]\ntitle=T\ndesc=D\ndst.ports=2323/tcp\n");
    write(str(kPkg, "broken.sc"), "[global]\nversion=1\n");  // no service section: the reader refuses it
    write(str(kPkg, "notes.txt"), "not a service file\n");
    mkdir(str(kPkg, "subdir"));
    write(str(kPkg, "p.sc"), "[p]\ntitle=P\ndesc=D\ndst.ports=5353/udp\n[web]\ntitle=P\ndesc=D\ndst.ports=82/tcp\n");

    // Getters failing (their settings unreadable) leave their rows out; nfs fails without its file.
    mkdir("/etc/kovainfo.conf");
    const Texts sources = compare();
    EXPECT_EQ(sources, (Texts{"web system a.sc nokey", "web system* b.sc yeskey",
                              str(long_name.substr(0, 63), " system b.sc yeskey"), "telnet system c.sc dupkey",
                              "p package p.sc ", "web package* p.sc ", "telnet built-in*  "}));

    // Getters that succeed, one with a port text that holds no number; no defaults file.
    std::filesystem::remove(path("/etc/kovainfo.conf"));
    write("/etc/kovainfo.conf", "ftpport=abc\nftplowport=600\nftphighport=700\nsftpPort=2222\n");
    write("/etc/nfs/kova_nfs_conf", "nfs_custom_port_enable=yes\nstatd_port=662\nnlm_port=875\n");
    write("/etc/ssh/sshd_config", "Port 822\n");
    std::filesystem::remove(path("/etc.defaults/kovainfo.conf"));
    EXPECT_EQ(compare(), sources);
}

}  // namespace
