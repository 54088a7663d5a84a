// Port lists: "80,443,8000:8010/tcp" parsed into a list of port entries, port number checks,
// protocol words and freeing a list. The parsing works on values (kova::ports); the exported
// functions turn its failures into the error state and its entries into a linked list.
#include <kovaserviceconf.h>

#include <cstdint>
#include <cstring>
#include <string>

#include "conf/conf_internal.h"
#include "foundation/guard.h"
#include "foundation/log.h"
#include "foundation/ports.h"
#include "foundation/raii.h"
#include "foundation/result.h"

namespace kova::ports {

Failure port_failure(std::string_view text, PortError error) {
    const Failure f = KOVA_FAILURE(KOVA_ERR_BAD_PARAMETER);
    if (error != PortError::kEmpty)
        KOVA_LOG("illegal ports number, port=%.*s, kovaerr=" KOVA_ERRFMT, static_cast<int>(text.size()), text.data(),
                 KOVA_FAILURE_ARGS(f));
    return f;
}

Result<uint32_t> checked_port(std::string_view text) {
    uint32_t value = 0;
    const PortError error = parse_port(text, value);
    if (error == PortError::kNone) return value;
    return port_failure(text, error);
}

Result<int> protocol_of(std::string_view text) {
    if (text.empty()) return KOVA_PROTO_BOTH;
    const int flags = protocol_flags(trim(text));
    if (flags >= 0) return flags;
    const Failure f = KOVA_FAILURE(KOVA_ERR_BAD_PARAMETER);
    const std::string_view saved = text.substr(0, 63);
    KOVA_LOG("protocol format error (%.*s)! It should be \"tcp\" or \"udp\" or \"tcp,udp\", kovaerr=" KOVA_ERRFMT,
             static_cast<int>(saved.size()), saved.data(), KOVA_FAILURE_ARGS(f));
    return f;
}

Result<void> parse_port_list(std::string_view text, PortList &list) {
    const PortListText parts = split_port_list(text);
    const Result<int> flags = protocol_of(parts.has_protocol ? trim(parts.protocol) : std::string_view());
    if (!flags) return flags.failure();
    list.protocol = static_cast<uint32_t>(*flags);
    list.entries.clear();
    Failure failed{};
    const bool ok = each_piece(trim(parts.ports), ",", [&](std::string_view piece) {
        const Item item = split_item(trim(piece), ':');
        PortEntry entry{0, 0, item.joined};
        if (const PortError error = parse_port(item.first, entry.begin); error != PortError::kNone)
            return failed = port_failure(item.first, error), false;
        if (item.joined) {
            if (const PortError error = parse_port(item.last, entry.end); error != PortError::kNone)
                return failed = port_failure(item.last, error), false;
        }
        list.entries.push_back(entry);
        return true;
    });
    if (!ok) return failed;
    return {};
}

Result<PortList> parse_port_list(std::string_view text) {
    PortList list;
    if (Result<void> parsed = parse_port_list(text, list); !parsed) return parsed.failure();
    return list;
}

}  // namespace kova::ports

namespace kova::conf {

bool port_text_ok(const char *text) {
    if (text == nullptr) {
        KOVA_SET_ERR(KOVA_ERR_BAD_PARAMETER);
        return false;
    }
    const Result<uint32_t> port = ports::checked_port(text);
    if (!port) set_error(port.failure());
    return port.ok();
}

int parse_protocol(char *szProtocol) {
    if (szProtocol == nullptr || *szProtocol == '\0') return KOVA_PROTO_BOTH;
    const Result<int> flags = ports::protocol_of(szProtocol);
    // The caller's text is left as the parse leaves it: trimmed, lower-cased, and cut at the
    // commas into words that are trimmed in place.
    const std::string_view whole = ports::trim(szProtocol);
    std::memmove(szProtocol, whole.data(), whole.size());
    szProtocol[whole.size()] = '\0';
    for (char *p = szProtocol; *p != '\0'; ++p)
        if (*p >= 'A' && *p <= 'Z') *p = static_cast<char>(*p - 'A' + 'a');
    ports::each_piece(std::string_view(szProtocol, whole.size()), ",", [](std::string_view word) {
        char *at = const_cast<char *>(word.data());
        const std::string_view kept = ports::trim(word);
        std::memmove(at, kept.data(), kept.size());
        at[kept.size()] = '\0';
        return true;
    });
    if (!flags) {
        set_error(flags.failure());
        return -1;
    }
    return *flags;
}

PortsPtr port_entries(const ports::PortList &list, unsigned int direction) {
    // Each entry goes in front of the ones before: the list reads backwards.
    PortsPtr head;
    for (const ports::PortEntry &e : list.entries) {
        PortsPtr entry(calloc_record<KOVA_SERVICE_CONF_PORT>());
        if (!entry) {
            KOVA_SET_ERR(KOVA_ERR_OUT_OF_MEMORY);
            KOVA_LOG("Failed to allocate for service, kovaerr=" KOVA_ERRFMT, KOVA_ERRARGS);
            return nullptr;
        }
        entry->direction = direction;
        entry->protocol = list.protocol;
        entry->type = e.range ? 1 : 0;
        entry->beginPort = e.begin;
        entry->endPort = e.end;
        entry->next = head.release();
        head = std::move(entry);
    }
    return head;
}

PortsPtr parse_port_list(const char *text, unsigned int direction) {
    Result<ports::PortList> list = ports::parse_port_list(text);
    if (!list) {
        set_error(list.failure());
        return nullptr;
    }
    return port_entries(*list, direction);
}

}  // namespace kova::conf

extern "C" {

int KOVAServiceConfPortsCheck(const char *szPort) {
    return kova::conf::port_text_ok(szPort) ? 1 : 0;
}

int KVLIBServiceConfProtocolParse(char *szProtocol) {
    return kova::conf::parse_protocol(szProtocol);
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
