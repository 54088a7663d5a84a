// The built-in firewall services and the port getters that compute a service's ports from
// the current settings (FTP, NFS, SSH) or hand out a fixed range.
#include <kovaserviceconf.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "foundation/guard.h"
#include "foundation/log.h"
#include "foundation/raii.h"
#include "foundation/root_path.h"
#include "firewall/port_list_push.h"

namespace {

using kova::fw::push;

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
    return KVLIBCFileGetKeyValue(path.c_str(), key, buf, kValueSize, 0);
}

// Common start of every getter: checks the out-pointer and creates the list.
kova::SzListPtr begin_list(KVLIB_SZLIST **ppList) {
    if (ppList == nullptr) {
        KOVA_LOG("Bad parameters");
        return nullptr;
    }
    kova::SzListPtr list(KVLIBCSzListAlloc(128));
    if (!list) KOVA_LOG("Failed to allocate for ports number, errno=0x%X", KVLIBCErrGet());
    return list;
}

int hand_out(kova::SzListPtr &list, KVLIB_SZLIST **ppList) {
    *ppList = list.release();
    return 0;
}

// A port of the SSH settings: the value as a 32-bit integer, 22 when it is not a port.
uint32_t ssh_setting_port(const char *text) {
    const auto value = static_cast<int32_t>(std::strtol(text, nullptr, 10));
    return (value >= 1 && value <= 65535) ? static_cast<uint32_t>(value) : 22u;
}

int fixed_range(KVLIB_SZLIST **ppList, int first, int last) {
    kova::SzListPtr list = begin_list(ppList);
    if (!list) return -1;
    if (KOVAFwIsSupportPortRange() != 0) {
        char range[32];
        std::snprintf(range, sizeof range, "%d-%d", first, last);
        push(list, range);
    }
    return hand_out(list, ppList);
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
    return 1;
}

int KOVAFwPortsFTP(KVLIB_SZLIST **ppList) {
    return KOVA_GUARDED(-1, [&] {
        kova::SzListPtr list = begin_list(ppList);
        if (!list) return -1;
        const std::string info = kova::resolve(kova::paths::kInfoConf);

        char port[kValueSize];
        if (read_value(info, "ftpport", port) == -1) {
            KOVA_LOG("Failed to get val of 'ftpport', errno=0x%X", KVLIBCErrGet());
            return -1;
        }
        push(list, port[0] != '\0' ? port : "21");
        if (KOVAFwIsSupportPortRange() == 0) return hand_out(list, ppList);

        char low[kValueSize];
        char high[kValueSize];
        const int low_ret = read_value(info, "ftplowport", low);
        const int high_ret = read_value(info, "ftphighport", high);
        if (low_ret == -1 || high_ret == -1) {
            KOVA_LOG("Failed to get val of 'ftp low/high port', errno=0x%X", KVLIBCErrGet());
            return -1;
        }
        if (low_ret <= 0 || high_ret <= 0) return hand_out(list, ppList);

        char range[2 * kValueSize + 16];
        if (std::strcmp(low, "0") == 0 || std::strcmp(high, "0") == 0) {
            KOVA_FTP_PASSIVE_PORT passive{};
            KOVAFTPDefaultPassivePortGet(&passive);
            std::snprintf(range, sizeof range, "%d-%d", passive.lowPort, passive.highPort);
        } else {
            std::snprintf(range, sizeof range, "%s-%s", low, high);
        }
        push(list, range);
        return hand_out(list, ppList);
    });
}

int KOVAFwPortsNFS(KVLIB_SZLIST **ppList) {
    return KOVA_GUARDED(-1, [&] {
        kova::SzListPtr list = begin_list(ppList);
        if (!list) return -1;

        kova::CStrPtr fixed(strdup("111,892,2049"));
        if (!fixed) {
            KOVA_LOG("Failed to strdup, errno=0x%X", KVLIBCErrGet());
            return -1;
        }
        char *save = nullptr;
        for (char *tok = strtok_r(fixed.get(), ",", &save); tok != nullptr; tok = strtok_r(nullptr, ",", &save)) {
            if (push(list, tok) < 0) return -1;
        }

        const std::string nfs = kova::resolve(kova::paths::kNfsConf);
        char value[kValueSize];
        if (read_value(nfs, "nfs_custom_port_enable", value) < 0) {
            KOVA_LOG("Failed to get val of 'nfs_custom_port_enable', errno=0x%X", KVLIBCErrGet());
            return -1;
        }
        if (std::strcmp(value, "yes") != 0) return hand_out(list, ppList);

        if (read_value(nfs, "statd_port", value) <= 0) {
            KOVA_LOG("Failed to get val of 'NFS statd port', errno=0x%X", KVLIBCErrGet());
            return -1;
        }
        if (push(list, value) < 0) return -1;
        if (read_value(nfs, "nlm_port", value) <= 0) {
            KOVA_LOG("Failed to get val of 'NFS nlm port', errno=0x%X", KVLIBCErrGet());
            return -1;
        }
        if (push(list, value) < 0) return -1;
        return hand_out(list, ppList);
    });
}

int KOVAFwPortsSSH(KVLIB_SZLIST **ppList) {
    return KOVA_GUARDED(-1, [&] {
        kova::SzListPtr list = begin_list(ppList);
        if (!list) return -1;

        int32_t ssh = 0;
        if (KOVAServiceSSHPortGet(&ssh) < 0) {
            KOVA_LOG("Failed to get ssh_port");
            return -1;
        }
        const std::string info = kova::resolve(kova::paths::kInfoConf);
        char value[kValueSize];
        if (read_value(info, "sftpPort", value) < 0) {
            KOVA_LOG("Failed to get sftpPort of kovainfo.conf. " KOVA_ERRFMT, KOVA_ERRARGS);
            return -1;
        }
        const uint32_t sftp = ssh_setting_port(value);
        if (read_value(info, "rsync_sshd_port", value) < 0) {
            KOVA_LOG("Failed to get rsync_sshd_port of kovainfo.conf. " KOVA_ERRFMT, KOVA_ERRARGS);
            return -1;
        }
        const uint32_t rsync = ssh_setting_port(value);

        const uint32_t ports[3] = {static_cast<uint32_t>(ssh), sftp, rsync};
        for (size_t i = 0; i < 3; ++i) {
            bool seen = false;
            for (size_t j = 0; j < i; ++j) seen = seen || ports[j] == ports[i];
            if (seen) continue;
            char text[16];
            std::snprintf(text, sizeof text, "%u", ports[i]);
            push(list, text);
        }
        return hand_out(list, ppList);
    });
}

int KOVAFwPortsSurveillanceCamSearch(KVLIB_SZLIST **ppList) {
    return KOVA_GUARDED(-1, [&] { return fixed_range(ppList, 55900, 55910); });
}

int KOVAFwPortsMFP(KVLIB_SZLIST **ppList) {
    return KOVA_GUARDED(-1, [&] { return fixed_range(ppList, 3240, 3259); });
}

}  // extern "C"
