// Protocol flags, port text conversion and TCP state names.
#include <kovaserviceconf.h>

#include "foundation/log.h"
#include "foundation/ports.h"

uint16_t kova::ports::port_or_zero(const char *text) noexcept {
    const std::optional<uint16_t> port = text != nullptr ? scan_port(text) : std::nullopt;
    if (!port) {
        KOVA_LOG("Failed on parse port: %s", text != nullptr ? text : "");
        return 0;
    }
    return *port;
}

extern "C" {

int IsTCP(uint16_t protocol) {
    return protocol == KOVA_PROTO_TCP ? 1 : 0;
}

int IsUDP(uint16_t protocol) {
    return protocol == KOVA_PROTO_UDP ? 1 : 0;
}

int IsBothTCPAndUDP(uint16_t protocol) {
    return protocol == KOVA_PROTO_BOTH ? 1 : 0;
}

int HasTCP(unsigned int protocol) {
    return static_cast<int>(protocol & KOVA_PROTO_TCP);
}

int HasUDP(unsigned int protocol) {
    return static_cast<int>(protocol & KOVA_PROTO_UDP);
}

int IsLegalProtocol(unsigned int protocol) {
    return kova::ports::is_legal_protocol(protocol) ? 1 : 0;
}

uint16_t ToUPort(const char *szPort) {
    return kova::ports::port_or_zero(szPort);
}

const char *KOVATCPStateToString(uint32_t state) {
    switch (state) {
        case 1:
            return "TCP_ESTABLISHED";
        case 2:
            return "TCP_SYN_SENT";
        case 3:
            return "TCP_SYN_RECV";
        case 4:
            return "TCP_FIN_WAIT1";
        case 5:
            return "TCP_FIN_WAIT2";
        case 6:
            return "TCP_TIME_WAIT";
        case 7:
            return "TCP_CLOSE";
        case 8:
            return "TCP_CLOSE_WAIT";
        case 9:
            return "TCP_LAST_ACK";
        case 10:
            return "TCP_LISTEN";
        case 11:
            return "TCP_CLOSING";
        default:
            return "Illegal_TCP_STATE";
    }
}

int KOVAProtocolMapping(int protocol) {
    return kova::ports::firewall_protocol(protocol);
}

}  // extern "C"
