// The built-in firewall services and the port getters that compute a service's ports from
// the current settings (FTP, NFS, SSH) or hand out a fixed range.
#include <kovaserviceconf.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "foundation/guard.h"
#include "foundation/log.h"
#include "foundation/ports.h"
#include "foundation/raii.h"
#include "kova_root.h"
#include "firewall/port_texts.h"
#include "firewall/settings_reads.h"

namespace {

using kova::fw::Texts;

// Whether the firewall takes port ranges: the getters then add their ranges.
constexpr bool kSupportPortRange = true;

// A display string of a table row: only its section and key are set.
template <size_t S, size_t K>
constexpr KOVA_SERVICE_STRING fw_string(const char (&section)[S], const char (&key)[K]) {
    static_assert(S <= sizeof(KOVA_SERVICE_STRING::section) && K <= sizeof(KOVA_SERVICE_STRING::key));
    KOVA_SERVICE_STRING s{};
    for (size_t i = 0; i < S; ++i) s.section[i] = section[i];
    for (size_t i = 0; i < K; ++i) s.key[i] = key[i];
    return s;
}

constexpr KOVA_FW_PORT_SPEC kNoPorts{0, 0, nullptr, nullptr};

constexpr KOVA_FW_PORT_SPEC fixed_ports(int32_t protocol, const char *ports) {
    return {1, protocol, ports, nullptr};
}

constexpr KOVA_FW_PORT_SPEC getter_ports(int32_t protocol, KOVA_FW_PORTS_GETTER getter) {
    return {1, protocol, nullptr, getter};
}

// Every key-value read of the getters uses a 16-byte buffer.
constexpr int kValueSize = 16;

int read_value(const std::string &path, const char *key, char (&buf)[kValueSize]) {
    std::memset(buf, 0, sizeof buf);
    return kova::fw::read_setting(path, key, buf, kValueSize);
}

// Every getter: checks the out-pointer, computes its port texts and hands them out as one new
// list, whole or not at all.
template <class Compute>
int port_getter(KVLIB_SZLIST **ppList, Compute &&compute) {
    if (ppList == nullptr) {
        KOVA_LOG("Bad parameters");
        return -1;
    }
    Texts texts;
    if (!compute(texts)) return -1;
    KVLIB_SZLIST *list = kova::fw::to_list(texts);
    if (list == nullptr) {
        KOVA_LOG("Failed to allocate for ports number, errno=0x%X", ::kova::shown_error_code());
        return -1;
    }
    *ppList = list;
    return 0;
}

// A port of the SSH settings: the value as a 32-bit integer, 22 when it is not a port.
uint32_t ssh_setting_port(const char *text) {
    const auto value = static_cast<int32_t>(kova::ports::lenient_number(text));
    return (value >= 1 && value <= 65535) ? static_cast<uint32_t>(value) : 22u;
}

std::string span_text(uint32_t first, uint32_t last) {
    std::string text;
    kova::ports::append_port(text, first);
    text += '-';
    kova::ports::append_port(text, last);
    return text;
}

bool fixed_range(Texts &texts, uint32_t first, uint32_t last) {
    if (kSupportPortRange) texts.push_back(span_text(first, last));
    return true;
}

bool ftp_ports(Texts &texts) {
    const std::string info = kova::resolve(kova::paths::kInfoConf);
    char port[kValueSize];
    if (read_value(info, "ftpport", port) == -1) {
        KOVA_LOG("Failed to get val of 'ftpport', errno=0x%X", ::kova::shown_error_code());
        return false;
    }
    texts.emplace_back(port[0] != '\0' ? port : "21");
    if (!kSupportPortRange) return true;

    char low[kValueSize];
    char high[kValueSize];
    const int low_ret = read_value(info, "ftplowport", low);
    const int high_ret = read_value(info, "ftphighport", high);
    if (low_ret == -1 || high_ret == -1) {
        KOVA_LOG("Failed to get val of 'ftp low/high port', errno=0x%X", ::kova::shown_error_code());
        return false;
    }
    if (low_ret <= 0 || high_ret <= 0) return true;
    if (std::strcmp(low, "0") == 0 || std::strcmp(high, "0") == 0) {
        KOVA_FTP_PASSIVE_PORT passive{};
        KOVAFTPDefaultPassivePortGet(&passive);
        texts.push_back(span_text(static_cast<uint32_t>(passive.lowPort), static_cast<uint32_t>(passive.highPort)));
    } else {
        texts.push_back(std::string(low) + "-" + high);
    }
    return true;
}

bool nfs_ports(Texts &texts) {
    texts = {"111", "892", "2049"};
    const std::string nfs = kova::resolve(kova::paths::kNfsConf);
    char value[kValueSize];
    if (read_value(nfs, "nfs_custom_port_enable", value) < 0) {
        KOVA_LOG("Failed to get val of 'nfs_custom_port_enable', errno=0x%X", ::kova::shown_error_code());
        return false;
    }
    if (std::strcmp(value, "yes") != 0) return true;
    if (read_value(nfs, "statd_port", value) <= 0) {
        KOVA_LOG("Failed to get val of 'NFS statd port', errno=0x%X", ::kova::shown_error_code());
        return false;
    }
    texts.emplace_back(value);
    if (read_value(nfs, "nlm_port", value) <= 0) {
        KOVA_LOG("Failed to get val of 'NFS nlm port', errno=0x%X", ::kova::shown_error_code());
        return false;
    }
    texts.emplace_back(value);
    return true;
}

bool ssh_ports(Texts &texts) {
    int32_t ssh = 0;
    if (KOVAServiceSSHPortGet(&ssh) < 0) {
        KOVA_LOG("Failed to get ssh_port");
        return false;
    }
    const std::string info = kova::resolve(kova::paths::kInfoConf);
    char value[kValueSize];
    if (read_value(info, "sftpPort", value) < 0) {
        KOVA_LOG("Failed to get sftpPort of kovainfo.conf. " KOVA_ERRFMT, KOVA_ERRARGS);
        return false;
    }
    const uint32_t sftp = ssh_setting_port(value);
    if (read_value(info, "rsync_sshd_port", value) < 0) {
        KOVA_LOG("Failed to get rsync_sshd_port of kovainfo.conf. " KOVA_ERRFMT, KOVA_ERRARGS);
        return false;
    }
    const uint32_t rsync = ssh_setting_port(value);
    // Each port once, in this order.
    for (const uint32_t port : {static_cast<uint32_t>(ssh), sftp, rsync}) {
        std::string text = std::to_string(port);
        if (std::find(texts.begin(), texts.end(), text) == texts.end()) texts.push_back(std::move(text));
    }
    return true;
}

}  // namespace

extern "C" {

constinit const KOVA_FW_SERVICE_ENTRY rgServices[16] = {
    {"telnet", nullptr, 1, 1, fw_string("firewall", "firewall_service_desc_telnet"),
     fw_string("firewall", "firewall_service_opt_telnet"), kNoPorts, fixed_ports(KOVA_PROTO_TCP, "23")},
    {"ssh", nullptr, 1, 1, fw_string("firewall", "firewall_service_desc_ssh"),
     fw_string("firewall", "firewall_service_opt_ssh"), kNoPorts, getter_ports(KOVA_PROTO_TCP, KOVAFwPortsSSH)},
    {"mysql", "supportmysql", 1, 0, fw_string("firewall", "firewall_service_desc_mysql"),
     fw_string("firewall", "firewall_service_opt_mysql"), kNoPorts, fixed_ports(KOVA_PROTO_TCP, "3306")},
    {"ups_server", "supportups", 1, 0, fw_string("firewall", "firewall_service_desc_ups"),
     fw_string("tree", "leaf_ups"), kNoPorts, fixed_ports(KOVA_PROTO_TCP, "3493")},
    {"netprobed", nullptr, 1, 0, fw_string("firewall", "firewall_service_desc_netprobed"),
     fw_string("firewall", "firewall_service_opt_netprobed"), kNoPorts,
     fixed_ports(KOVA_PROTO_UDP, "1234,9997,9998,9999")},
    {"nfs", "supportNFS", 1, 1, fw_string("firewall", "firewall_service_desc_nfs"), fw_string("tree", "leaf_nfs"),
     kNoPorts, getter_ports(KOVA_PROTO_BOTH, KOVAFwPortsNFS)},
    {"cifs", nullptr, 1, 1, fw_string("firewall", "firewall_service_desc_smb"),
     fw_string("firewall", "firewall_service_opt_smb"), fixed_ports(KOVA_PROTO_UDP, "137,138"),
     fixed_ports(KOVA_PROTO_TCP, "137,138,139,445")},
    {"afp", nullptr, 1, 1, fw_string("firewall", "firewall_service_desc_afp"), fw_string("network", "apple_subject"),
     kNoPorts, fixed_ports(KOVA_PROTO_TCP, "548")},
    {"ftp", nullptr, 1, 1, fw_string("firewall", "firewall_service_desc_ftp"), fw_string("tree", "leaf_ftp"), kNoPorts,
     getter_ports(KOVA_PROTO_TCP, KOVAFwPortsFTP)},
    {"snmp", nullptr, 1, 0, fw_string("firewall", "firewall_service_desc_snmp"), fw_string("tree", "leaf_snmp"),
     kNoPorts, fixed_ports(KOVA_PROTO_UDP, "161")},
    {"iscsitrg", "support_iscsi_target", 1, 0, fw_string("tree", "leaf_iscsitrg"), fw_string("tree", "leaf_iscsitrg"),
     kNoPorts, fixed_ports(KOVA_PROTO_TCP, "3260,3261,3262")},
    // In these two rows the description carries the "opt" key and the title the "desc" key.
    {"bonjour", nullptr, 1, 0, fw_string("firewall", "firewall_service_opt_bonjour"),
     fw_string("firewall", "firewall_service_desc_bonjour"), kNoPorts, fixed_ports(KOVA_PROTO_UDP, "5353")},
    {"rx52", "cm_rx", 1, 0, fw_string("firewall", "firewall_service_opt_rx52"),
     fw_string("firewall", "firewall_service_desc_rx52"), kNoPorts, fixed_ports(KOVA_PROTO_UDP, "19999")},
    {"lpr", nullptr, 1, 0, fw_string("firewall", "firewall_service_desc_lpr"),
     fw_string("firewall", "firewall_service_opt_lpr"), kNoPorts, fixed_ports(KOVA_PROTO_TCP, "515")},
    {"ipp", nullptr, 1, 0, fw_string("firewall", "firewall_service_desc_ipp"),
     fw_string("firewall", "firewall_service_opt_ipp"), kNoPorts, fixed_ports(KOVA_PROTO_TCP, "631")},
    {nullptr, nullptr, 1, 0, fw_string("null", "null"), fw_string("null", "null"), kNoPorts, kNoPorts},
};

int KOVAFwIsSupportPortRange(void) {
    return kSupportPortRange ? 1 : 0;
}

int KOVAFwPortsFTP(KVLIB_SZLIST **ppList) {
    return KOVA_GUARDED(-1, [&] { return port_getter(ppList, ftp_ports); });
}

int KOVAFwPortsNFS(KVLIB_SZLIST **ppList) {
    return KOVA_GUARDED(-1, [&] { return port_getter(ppList, nfs_ports); });
}

int KOVAFwPortsSSH(KVLIB_SZLIST **ppList) {
    return KOVA_GUARDED(-1, [&] { return port_getter(ppList, ssh_ports); });
}

int KOVAFwPortsSurveillanceCamSearch(KVLIB_SZLIST **ppList) {
    return KOVA_GUARDED(-1, [&] { return port_getter(ppList, [](Texts &t) { return fixed_range(t, 55900, 55910); }); });
}

int KOVAFwPortsMFP(KVLIB_SZLIST **ppList) {
    return KOVA_GUARDED(-1, [&] { return port_getter(ppList, [](Texts &t) { return fixed_range(t, 3240, 3259); }); });
}

}  // extern "C"
