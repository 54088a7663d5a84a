// .sc files as hostile input: the bytes become a file of the system services.d directory
// under a private root, and go through KOVAServiceConfGet, KOVAServiceConfEnum,
// KOVAFwServiceEnum and KVLIBIsConfPortConflict.
//
// Oracles:
//   - the whole-file reader must give the record that the platform's sectioned-file reader
//     gives section by section (KVLIBCFileEnumSection, KVLIBCFileGetSection and
//     KOVAServiceConfSectionGet);
//   - every section must hold what its keys say (texts cut to their fields and terminated,
//     the port_forward flag, the port lists as KOVAServiceConfPortsGet parses them), and its
//     port lists must render and parse back;
//   - enumeration gives the same record; the firewall catalogue holds one record per section,
//     converted field by field, ahead of the built-in services;
//   - the file conflict check answers -1, 0 or 1 and leaves a well-formed conflict list.
#include <kovaserviceconf.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "fuzz_support.h"

namespace {

using namespace kova::fuzz;

constexpr const char *kScFile = "/usr/kova/etc/services.d/fuzz.sc";
constexpr const char *kSocketHeader =
    "  sl  local_address rem_address   st tx_queue rx_queue tr tm->when retrnsmt   uid  timeout inode\n";

int g_builtin_count = -1;
std::vector<std::string> g_builtin_names;

std::vector<std::string> fw_names(const KOVA_FW_SERVICE *list) {
    std::vector<std::string> out;
    for (; list != nullptr; list = list->next) out.emplace_back(list->name);
    return out;
}

void setup() {
    if (g_builtin_count >= 0) return;
    write_file("/etc/kovainfo.conf",
               "ftpport=21\nftplowport=55536\nftphighport=55899\nsyslogport=514\nsmsport=465\nWebDavPort=5005\n");
    write_file("/etc.defaults/kovainfo.conf", "supportmysql=yes\nsupportfuzz=yes\nsupportno=no\n");
    write_file("/etc/ssh/sshd_config", "Port 22\n");
    write_file("/etc/nfs/kova_nfs_conf", "statd_port=662\nnlm_port=32768\nmountd_port=892\n");
    for (const char *table : {"/proc/net/tcp", "/proc/net/tcp6", "/proc/net/udp", "/proc/net/udp6"})
        write_file(table, kSocketHeader);
    make_dirs("/usr/kova/etc/services.d");
    make_dirs("/usr/local/etc/services.d");

    KOVA_FW_SERVICE *builtin = nullptr;
    g_builtin_count = KOVAFwServiceEnum(&builtin);
    FUZZ_CHECK(g_builtin_count >= 0);
    g_builtin_names = fw_names(builtin);
    KOVAFwServiceFree(builtin);
}

bool valid_name(const std::string &name) {
    if (name.empty()) return false;
    for (char c : name) {
        const bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' ||
                        c == '.' || c == '_';
        if (!ok) return false;
    }
    return true;
}

// ---- comparing records -----------------------------------------------------------------------

void check_string_terminated(const KOVA_SERVICE_STRING &s) {
    FUZZ_CHECK(terminated(s.prefix) && terminated(s.section) && terminated(s.key) && terminated(s.text) &&
               terminated(s.extraText));
}

bool same_string(const KOVA_SERVICE_STRING &a, const KOVA_SERVICE_STRING &b) {
    return std::strcmp(a.prefix, b.prefix) == 0 && std::strcmp(a.section, b.section) == 0 &&
           std::strcmp(a.key, b.key) == 0 && std::strcmp(a.text, b.text) == 0 &&
           std::strcmp(a.extraText, b.extraText) == 0;
}

bool same_section(const KOVA_SERVICE_CONF_SECTION &a, const KOVA_SERVICE_CONF_SECTION &b) {
    return std::strcmp(a.name, b.name) == 0 && same_string(a.title, b.title) && same_string(a.desc, b.desc) &&
           a.portForward == b.portForward && to_vector(a.srcPort) == to_vector(b.srcPort) &&
           to_vector(a.dstPort) == to_vector(b.dstPort);
}

bool same_conf(const KOVA_SERVICE_CONF &a, const KOVA_SERVICE_CONF &b) {
    if (a.version != b.version || std::strcmp(a.supportKey, b.supportKey) != 0 || std::strcmp(a.runKey, b.runKey) != 0)
        return false;
    const KOVA_SERVICE_CONF_SECTION *x = a.sections;
    const KOVA_SERVICE_CONF_SECTION *y = b.sections;
    for (; x != nullptr && y != nullptr; x = x->next, y = y->next)
        if (!same_section(*x, *y)) return false;
    return x == nullptr && y == nullptr;
}

std::vector<std::string> section_names(const KOVA_SERVICE_CONF_SECTION *s) {
    std::vector<std::string> out;
    for (; s != nullptr; s = s->next) out.emplace_back(s->name);
    return out;
}

std::string join(const std::vector<std::string> &names) {
    std::string out;
    for (const std::string &n : names) out += "[" + n + "]";
    return out;
}

// ---- the reference reader --------------------------------------------------------------------

struct Hash {
    KVLIB_SZHASH *hash = KVLIBCSzHashAlloc(1024);
    ~Hash() { KVLIBCSzHashFree(hash); }
    const char *get(const char *key) const { return KVLIBCSzHashGetValue(hash, key); }
};

// The record as the reading algorithm builds it from the platform's section-by-section reader;
// null when the file is refused. `names` gets the full names of its sections, in list order
// (a record keeps a name cut to its field).
KOVA_SERVICE_CONF *reference_get(const std::string &path, std::vector<std::string> &names_out) {
    KVLIB_SZLIST *names = KVLIBCSzListAlloc(1024);
    FUZZ_CHECK(names != nullptr);
    const int count = KVLIBCFileEnumSection(path.c_str(), &names);
    KOVA_SERVICE_CONF *conf = nullptr;
    if (count >= 1 && !(count == 1 && std::strcmp(KVLIBCSzListGet(names, 0), "global") == 0)) {
        conf = static_cast<KOVA_SERVICE_CONF *>(std::calloc(1, sizeof(KOVA_SERVICE_CONF)));
        FUZZ_CHECK(conf != nullptr);
        int parsed = 0;
        for (int i = 0; i < names->nItem; ++i) {
            const std::string name = KVLIBCSzListGet(names, i);
            if (!valid_name(name)) continue;
            if (name == "global") {
                Hash h;
                if (KVLIBCFileGetSection(path.c_str(), "global", &h.hash) < 1) continue;
                const char *version = h.get("version");
                conf->version = version != nullptr ? static_cast<int32_t>(std::strtol(version, nullptr, 10)) : 1;
                if (const char *v = h.get("support_key"))
                    std::snprintf(conf->supportKey, sizeof conf->supportKey, "%s", v);
                if (const char *v = h.get("run_key")) std::snprintf(conf->runKey, sizeof conf->runKey, "%s", v);
                continue;
            }
            if (KOVAServiceConfSectionGet(path.c_str(), name.c_str(), &conf->sections) == 0) {
                names_out.insert(names_out.begin(), name);
                ++parsed;
            }
        }
        if (parsed == 0) {
            KOVAServiceConfFree(conf);
            conf = nullptr;
        }
    }
    KVLIBCSzListFree(names);
    return conf;
}

// ---- one section against its keys ------------------------------------------------------------

void check_ports_from_key(const KOVA_SERVICE_CONF_PORT *list, const char *value, uint32_t direction) {
    if (value == nullptr) {
        FUZZ_CHECK(list == nullptr);
        return;
    }
    const auto expected = model_ports_get(value, direction);
    FUZZ_CHECKF(expected.has_value(), "a section with the port list \"%s\" was accepted", value);
    FUZZ_CHECKF(to_vector(list) == *expected, "\"%s\" read as %s, expected %s", value,
                describe(to_vector(list)).c_str(), describe(*expected).c_str());
    check_port_list(list, direction);
    check_render_round_trip(list);
}

void check_split(const KOVA_SERVICE_STRING &s, const char *key) {
    // The splitter writes prefix, section and key only for a key with ":".
    KOVA_SERVICE_STRING expected{};
    if (key != nullptr && *key != '\0' && std::strchr(key, ':') != nullptr)
        FUZZ_CHECK(KOVAServiceConfServiceStringGet(key, &expected) == 0);
    FUZZ_CHECKF(std::strcmp(s.prefix, expected.prefix) == 0 && std::strcmp(s.section, expected.section) == 0 &&
                    std::strcmp(s.key, expected.key) == 0,
                "string key \"%s\" split as \"%s\" \"%s\" \"%s\"", key != nullptr ? key : "(none)", s.prefix, s.section,
                s.key);
}

int model_port_forward(const char *value) {
    if (value == nullptr) return 0;
    return trim(lower(cut(value, 32))) == "yes" ? 1 : 0;
}

void check_section(const std::string &path, const std::string &name, const KOVA_SERVICE_CONF_SECTION &s) {
    FUZZ_CHECK(terminated(s.name));
    check_string_terminated(s.title);
    check_string_terminated(s.desc);
    FUZZ_CHECKF(valid_name(s.name), "section name \"%s\"", s.name);
    FUZZ_CHECKF(cut(name, sizeof s.name) == s.name, "section \"%s\" read as \"%s\"", name.c_str(), s.name);
    FUZZ_CHECK(s.dstPort != nullptr);

    Hash h;
    FUZZ_CHECKF(KVLIBCFileGetSection(path.c_str(), name.c_str(), &h.hash) >= 1, "section [%s] has no keys",
                name.c_str());
    const char *title = h.get("title");
    const char *desc = h.get("desc");
    FUZZ_CHECK(title != nullptr && desc != nullptr);
    FUZZ_CHECKF(cut(title, sizeof s.title.text) == s.title.text, "title \"%s\"", s.title.text);
    FUZZ_CHECKF(cut(desc, sizeof s.desc.text) == s.desc.text, "desc \"%s\"", s.desc.text);
    const char *extra = h.get("desc_extra");
    FUZZ_CHECK(cut(extra != nullptr ? extra : "", sizeof s.desc.extraText) == s.desc.extraText);
    FUZZ_CHECK(s.title.extraText[0] == '\0');
    check_split(s.title, h.get("title_key"));
    check_split(s.desc, h.get("desc_key"));
    FUZZ_CHECKF(s.portForward == model_port_forward(h.get("port_forward")), "port_forward \"%s\" gave %d",
                h.get("port_forward"), s.portForward);
    check_ports_from_key(s.srcPort, h.get("src.ports"), 0);
    check_ports_from_key(s.dstPort, h.get("dst.ports"), 1);
}

// ---- the firewall catalogue ------------------------------------------------------------------

std::vector<std::string> port_items(const KOVA_SERVICE_CONF_PORT *list) {
    std::vector<std::string> out;
    for (; list != nullptr; list = list->next) {
        std::string item = std::to_string(static_cast<int>(list->beginPort));
        if (list->type == 1) item += "-" + std::to_string(static_cast<int>(list->endPort));
        out.push_back(item);
    }
    return out;
}

std::vector<std::string> list_items(const KVLIB_SZLIST *list) {
    std::vector<std::string> out;
    for (int i = 0; list != nullptr && i < list->nItem; ++i) out.emplace_back(KVLIBCSzListGet(list, i));
    return out;
}

void check_fw_record(const KOVA_FW_SERVICE &fw, const KOVA_SERVICE_CONF &conf, const KOVA_SERVICE_CONF_SECTION &s) {
    FUZZ_CHECK(terminated(fw.name));
    FUZZ_CHECKF(cut(s.name, sizeof fw.name) == fw.name, "catalogue name \"%s\" for section \"%s\"", fw.name, s.name);
    int supported = 1;
    if (conf.supportKey[0] != '\0')
        supported =
            KVLIBCFileCheckKeyValue(under_root("/etc.defaults/kovainfo.conf").c_str(), conf.supportKey, "yes", 1);
    FUZZ_CHECKF(fw.supported == supported, "supported %d for key \"%s\"", fw.supported, conf.supportKey);
    FUZZ_CHECK(fw.portForward == s.portForward);
    KOVA_SERVICE_STRING title = s.title;
    title.extraText[0] = '\0';
    FUZZ_CHECK(same_string(fw.title, title));
    FUZZ_CHECK(same_string(fw.desc, s.desc));
    FUZZ_CHECK(list_items(fw.dstPorts) == port_items(s.dstPort));
    FUZZ_CHECK(fw.dstProtocol == static_cast<int32_t>(s.dstPort->protocol));
    if (s.srcPort == nullptr) {
        FUZZ_CHECK(fw.srcPorts == nullptr && fw.srcProtocol == 0);
    } else {
        FUZZ_CHECK(list_items(fw.srcPorts) == port_items(s.srcPort));
        FUZZ_CHECK(fw.srcProtocol == static_cast<int32_t>(s.srcPort->protocol));
    }
}

void check_catalogue(const KOVA_SERVICE_CONF *conf) {
    std::vector<const KOVA_SERVICE_CONF_SECTION *> sections;
    if (conf != nullptr)
        for (const KOVA_SERVICE_CONF_SECTION *s = conf->sections; s != nullptr; s = s->next) sections.push_back(s);

    KOVA_FW_SERVICE *list = reinterpret_cast<KOVA_FW_SERVICE *>(0x1);
    const int count = KOVAFwServiceEnum(&list);
    const std::vector<std::string> names = fw_names(list);
    FUZZ_CHECKF(count == static_cast<int>(names.size()), "catalogue count %d for %zu records", count, names.size());
    FUZZ_CHECKF(count == g_builtin_count + static_cast<int>(sections.size()), "catalogue %s for sections of %s",
                join(names).c_str(), conf != nullptr ? join(section_names(conf->sections)).c_str() : "no file");

    // The .sc records come first, in the reverse order of the file's section list.
    const KOVA_FW_SERVICE *fw = list;
    for (auto it = sections.rbegin(); it != sections.rend(); ++it, fw = fw->next) check_fw_record(*fw, *conf, **it);
    FUZZ_CHECK(fw_names(fw) == g_builtin_names);
    for (const KOVA_SERVICE_CONF_SECTION *s : sections) {
        const KOVA_FW_SERVICE *found = KOVAFWServiceFind(list, cut(s->name, sizeof fw->name).c_str());
        FUZZ_CHECK(found != nullptr && std::strncmp(found->name, s->name, sizeof found->name - 1) == 0);
    }
    KOVAFwServiceFree(list);
}

// ---- the file conflict check -----------------------------------------------------------------

void check_conflicts(const std::string &path) {
    KOVA_SERVICE_CONF_PORT *conflicts = nullptr;
    const int rc = KVLIBIsConfPortConflict(path.c_str(), &conflicts);
    FUZZ_CHECKF(rc >= -1 && rc <= 1, "conflict check gave %d", rc);
    for (const KOVA_SERVICE_CONF_PORT *p = conflicts; p != nullptr; p = p->next) {
        FUZZ_CHECKF(p->type == 0 || p->type == 1, "conflict entry type %u", p->type);
        FUZZ_CHECKF(p->beginPort <= 65535 && p->endPort <= 65535, "conflict entry %u-%u", p->beginPort, p->endPort);
        if (p->type == 1) FUZZ_CHECK(p->beginPort <= p->endPort);
    }
    KOVAServiceConfPortsFree(conflicts);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size > 65536) return 0;
    setup();
    write_file(kScFile, std::string(reinterpret_cast<const char *>(data), size));
    const std::string path = under_root(kScFile);

    // A list that already holds a record: a new record goes in front, a failure leaves it.
    KOVA_SERVICE_CONF *held = static_cast<KOVA_SERVICE_CONF *>(std::calloc(1, sizeof(KOVA_SERVICE_CONF)));
    FUZZ_CHECK(held != nullptr);
    KOVA_SERVICE_CONF *list = held;
    const int rc = KOVAServiceConfGet(path.c_str(), &list);
    std::vector<std::string> names;
    KOVA_SERVICE_CONF *reference = reference_get(path, names);
    FUZZ_CHECKF(rc == (reference != nullptr ? 0 : -1), "read gave %d, the platform's reader %s", rc,
                reference != nullptr ? "accepts the file" : "refuses it");
    KOVA_SERVICE_CONF *conf = nullptr;
    if (rc == 0) {
        FUZZ_CHECK(list != held && list->next == held);
        conf = list;
        FUZZ_CHECK(terminated(conf->supportKey) && terminated(conf->runKey));
        FUZZ_CHECK(conf->sections != nullptr);
        FUZZ_CHECKF(same_conf(*conf, *reference), "read %s (version %d), the platform's reader %s (version %d)",
                    join(section_names(conf->sections)).c_str(), conf->version,
                    join(section_names(reference->sections)).c_str(), reference->version);
        size_t i = 0;
        for (const KOVA_SERVICE_CONF_SECTION *s = conf->sections; s != nullptr; s = s->next, ++i)
            check_section(path, names.at(i), *s);
    } else {
        FUZZ_CHECK(list == held);
    }
    KOVAServiceConfFree(reference);

    // Enumeration reads the same file into the same record.
    KOVA_SERVICE_CONF *all = nullptr;
    const int files = KOVAServiceConfEnum(&all, 3);
    FUZZ_CHECKF(files == (rc == 0 ? 1 : 0), "enumeration counted %d files", files);
    if (rc == 0) FUZZ_CHECK(all != nullptr && all->next == nullptr && same_conf(*all, *conf));
    KOVAServiceConfFree(all);

    check_catalogue(conf);
    int sections = 0;
    for (const KOVA_SERVICE_CONF_SECTION *s = conf != nullptr ? conf->sections : nullptr; s != nullptr; s = s->next)
        ++sections;
    if (size <= 8192 && sections <= 16) check_conflicts(path);

    conf = nullptr;
    KOVAServiceConfFree(list);
    return 0;
}
