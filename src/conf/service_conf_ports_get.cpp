// Port lists: "80,443,8000:8010/tcp" parsed into a list of port entries, port number checks,
// protocol words and freeing a list.
#include <kovaserviceconf.h>

#include <cstdint>
#include <cstring>
#include <string>

#include "foundation/guard.h"
#include "foundation/log.h"
#include "conf/conf_internal.h"
#include "foundation/raii.h"

namespace {

constexpr uint32_t kMaxPort = 65535;

// The value of a text that passed KOVAServiceConfPortsCheck (digits only, at most 65535).
uint32_t checked_port_value(const char *text) {
    uint32_t value = 0;
    for (const char *p = text; *p != '\0'; ++p) value = value * 10 + static_cast<uint32_t>(*p - '0');
    return value;
}

// Checks one port text and stores its value; false leaves the error state set by the check.
bool take_port(const char *text, uint32_t &out) {
    if (!kova::conf::port_text_ok(text)) return false;
    out = checked_port_value(text);
    return true;
}

// One item of the ports part: a port, or "first:last". The item is changed in place.
bool parse_item(char *item, KOVA_SERVICE_CONF_PORT &entry) {
    char *last = item;
    char *first = KVLIBCStrTokIndex(&last, ":");
    if (last != nullptr) {
        entry.type = 1;
        return take_port(first, entry.beginPort) && take_port(last, entry.endPort);
    }
    entry.type = 0;
    return take_port(item, entry.beginPort);
}

}  // namespace

namespace kova::conf {

// Whether a port text is digits only and at most 65535; a bad one sets 0x0D00 (and is logged
// when not empty).
bool port_text_ok(const char *szPort) {
    if (szPort == nullptr || *szPort == '\0') {
        KOVA_SET_ERR(KOVA_ERR_BAD_PARAMETER);
        return false;
    }
    for (const char *p = szPort; *p != '\0'; ++p) {
        if (*p < '0' || *p > '9') {
            KOVA_SET_ERR(KOVA_ERR_BAD_PARAMETER);
            KOVA_LOG("illegal ports number, port=%s, kovaerr=" KOVA_ERRFMT, szPort, KOVA_ERRARGS);
            return false;
        }
    }
    uint32_t value = 0;
    for (const char *p = szPort; *p != '\0'; ++p) {
        value = value * 10 + static_cast<uint32_t>(*p - '0');
        if (value > kMaxPort) {
            KOVA_SET_ERR(KOVA_ERR_BAD_PARAMETER);
            KOVA_LOG("illegal ports number, port=%s, kovaerr=" KOVA_ERRFMT, szPort, KOVA_ERRARGS);
            return false;
        }
    }
    return true;
}

// The protocol flags of a protocol text (changed in place); an empty text means both.
int parse_protocol(char *szProtocol) {
    if (szProtocol == nullptr || *szProtocol == '\0') return KOVA_PROTO_BOTH;

    char saved[64];
    copy_field(saved, szProtocol);

    if (KVLIBCStrTrimSpace(szProtocol, 0) < 0) return -1;
    KVLIBCStrCaseLower(szProtocol, 0, nullptr, 0);

    int flags = 0;
    char *cursor = szProtocol;
    while (char *word = KVLIBCStrTokIndex(&cursor, ",")) {
        if (KVLIBCStrTrimSpace(word, 0) < 0) return -1;
        if (std::strcmp(word, "tcp") == 0) {
            flags |= KOVA_PROTO_TCP;
        } else if (std::strcmp(word, "udp") == 0) {
            flags |= KOVA_PROTO_UDP;
        } else {
            KOVA_SET_ERR(KOVA_ERR_BAD_PARAMETER);
            KOVA_LOG("protocol format error (%s)! It should be \"tcp\" or \"udp\" or \"tcp,udp\", kovaerr=" KOVA_ERRFMT,
                     saved, KOVA_ERRARGS);
            return -1;
        }
    }
    return flags;
}

PortsPtr parse_port_list(const char *szPorts, unsigned int direction) {
    std::string copy(szPorts);
    char *cursor = copy.data();
    char *ports = KVLIBCStrTokIndex(&cursor, "/");
    char *protocol = cursor;

    if (protocol != nullptr && *protocol != '\0' && KVLIBCStrTrimSpace(protocol, 0) < 0) return nullptr;
    if (ports != nullptr && KVLIBCStrTrimSpace(ports, 0) < 0) return nullptr;

    const int flags = parse_protocol(protocol);
    if (flags < 0) return nullptr;
    if (ports == nullptr || (flags & KOVA_PROTO_BOTH) == 0) {
        KOVA_SET_ERR(KOVA_ERR_BAD_PARAMETER);
        return nullptr;
    }
    if (KVLIBCStrTrimSpace(ports, 0) < 0) return nullptr;

    PortsPtr head;
    char *items = ports;
    while (char *item = KVLIBCStrTokIndex(&items, ",")) {
        PortsPtr entry(calloc_record<KOVA_SERVICE_CONF_PORT>());
        if (!entry) {
            KOVA_SET_ERR(KOVA_ERR_OUT_OF_MEMORY);
            KOVA_LOG("Failed to allocate for service, kovaerr=" KOVA_ERRFMT, KOVA_ERRARGS);
            return nullptr;
        }
        if (KVLIBCStrTrimSpace(item, 0) < 0) return nullptr;
        entry->direction = direction;
        entry->protocol = static_cast<uint32_t>(flags);
        if (!parse_item(item, *entry)) return nullptr;
        entry->next = head.release();
        head.reset(entry.release());
    }
    return head;
}

}  // namespace kova::conf

extern "C" {

int KOVAServiceConfPortsCheck(const char *szPort) {
    return kova::conf::port_text_ok(szPort) ? 1 : 0;
}

int KVLIBServiceConfProtocolParse(char *szProtocol) {
    return KOVA_GUARDED(-1, [&] { return kova::conf::parse_protocol(szProtocol); });
}

int KOVAServiceConfPortsGet(const char *szPorts, unsigned int direction, KOVA_SERVICE_CONF_PORT **ppPorts) {
    if (szPorts == nullptr || ppPorts == nullptr || *ppPorts != nullptr || direction > 1) {
        KOVA_SET_ERR(KOVA_ERR_BAD_PARAMETER);
        return -1;
    }
    return KOVA_GUARDED(-1, [&] {
        kova::PortsPtr ports = kova::conf::parse_port_list(szPorts, direction);
        if (!ports) return -1;
        *ppPorts = ports.release();
        return 0;
    });
}

void KOVAServiceConfPortsFree(KOVA_SERVICE_CONF_PORT *pPorts) {
    while (pPorts != nullptr) {
        KOVA_SERVICE_CONF_PORT *next = pPorts->next;
        std::free(pPorts);
        pPorts = next;
    }
}

}  // extern "C"
