// Rendering a port list as the two texts a .sc file stores: "80,8000:8010" and "tcp,udp".
#include <kovaserviceconf.h>

#include <algorithm>
#include <cstdio>
#include <string>

#include "conf/conf_internal.h"
#include "foundation/guard.h"
#include "foundation/log.h"
#include "foundation/ports.h"

namespace {

// "%d" or "%d:%d" with the smaller port first, behind "," from the second entry on.
void append_entry(std::string &out, const KOVA_SERVICE_CONF_PORT &p) {
    if (!out.empty()) out += ',';
    if (p.type != 1) return kova::ports::append_port(out, p.beginPort);
    kova::ports::append_port(out, std::min(p.beginPort, p.endPort));
    out += ':';
    kova::ports::append_port(out, std::max(p.beginPort, p.endPort));
}

// The names of the protocol table whose flag is set in `protocol`, in table order.
int protocol_text(uint32_t protocol, std::string &out) {
    const int size = KVLIBServiceProtoMapSizeGet();
    for (int i = 0; i < size; ++i) {
        int flag = 0;
        if (KVLIBServiceProtoIndexGet(i, &flag) < 0) return -1;
        if ((protocol & static_cast<uint32_t>(flag)) == 0) continue;
        char name[64];
        if (KVLIBServiceProtoStrGet(i, name, sizeof name) < 0) return -1;
        if (!out.empty()) out += ',';
        out += name;
    }
    return 0;
}

int ports_to_str(const KOVA_SERVICE_CONF_PORT *pPorts, char *szPorts, int cbPorts, char *szProtocol, int cbProtocol) {
    const uint32_t protocol = pPorts->protocol;
    if ((protocol & KOVA_PROTO_BOTH) == 0) {
        KOVA_SET_ERR(KOVA_ERR_BAD_PARAMETER);
        return -1;
    }
    std::string ports;
    for (const KOVA_SERVICE_CONF_PORT *p = pPorts; p != nullptr; p = p->next) {
        if (p->protocol != protocol) {
            KOVA_SET_ERR(KOVA_ERR_BAD_PARAMETER);
            KOVA_LOG("Different protocol in port linked list" KOVA_ERRFMT, KOVA_ERRARGS);
            return -1;
        }
        append_entry(ports, *p);
    }
    std::string protocols;
    if (protocol_text(protocol, protocols) < 0) return -1;

    if (ports.size() > static_cast<size_t>(cbPorts) - 1 || protocols.size() > static_cast<size_t>(cbProtocol) - 1) {
        KOVA_SET_ERR(KOVA_ERR_BUFFER_TOO_SMALL);
        KOVA_LOG("input array too small" KOVA_ERRFMT, KOVA_ERRARGS);
        return -1;
    }
    std::snprintf(szPorts, static_cast<size_t>(cbPorts), "%s", ports.c_str());
    std::snprintf(szProtocol, static_cast<size_t>(cbProtocol), "%s", protocols.c_str());
    return 0;
}

}  // namespace

int kova::conf::ports_to_text(const KOVA_SERVICE_CONF_PORT *pPorts, char *szPorts, int cbPorts, char *szProtocol,
                              int cbProtocol) noexcept {
    return KOVA_GUARDED(-1, [&] { return ports_to_str(pPorts, szPorts, cbPorts, szProtocol, cbProtocol); });
}

extern "C" {

int KVLIBServiceConfPortsToStr(const KOVA_SERVICE_CONF_PORT *pPorts, char *szPorts, int cbPorts, char *szProtocol,
                               int cbProtocol) {
    if (pPorts == nullptr || szPorts == nullptr || szProtocol == nullptr || cbPorts < 1 || cbProtocol < 1) {
        KOVA_SET_ERR(KOVA_ERR_BAD_PARAMETER);
        return -1;
    }
    return kova::conf::ports_to_text(pPorts, szPorts, cbPorts, szProtocol, cbProtocol);
}

}  // extern "C"
