// The configured ports as spans: what the system settings and the firewall catalogue declare,
// searchable by port without expanding a range into one record per port.
#pragma once

#include <kovaserviceconf.h>

#include <cstdint>
#include <optional>
#include <vector>

#include "firewall/firewall_service_enum.h"
#include "foundation/ports.h"

namespace kova::conflict {

// A port or span of ports that a system setting or a catalogue service declares for one
// protocol (1 TCP, 2 UDP).
struct Declared {
    ports::Span span;
    uint16_t protocol = 0;
    const char *name = nullptr;
};

// The whole inventory of configured ports (the system's five, then the catalogue's), as spans.
class ConfiguredPorts {
public:
    // Built from the settings and the catalogue with the log lines that building the inventory
    // with ServiceConfListFetch gives, in the same order; nothing when the catalogue cannot be
    // built (logged as that function logs it, the error state set).
    static std::optional<ConfiguredPorts> build();

    // The declarations of the port for one protocol (1 or 2): their positions, in inventory
    // order, into `positions` (emptied first), in the vector returned.
    const std::vector<Declared> &holders(uint16_t port, uint16_t protocol, std::vector<uint32_t> &positions) const;

    ConfiguredPorts(ConfiguredPorts &&) = default;

private:
    // The declarations of one protocol, in inventory order, and their index.
    struct OfProtocol {
        std::vector<Declared> declared;
        ports::SpanIndex index;
    };
    ConfiguredPorts(fw::Catalogue catalogue, const std::vector<Declared> &declared);
    static OfProtocol of_protocol(const std::vector<Declared> &all, uint16_t protocol);

    fw::Catalogue catalogue_;  // owns the service names
    OfProtocol tcp_;
    OfProtocol udp_;
};

// ---- module port_conflict_conf_helper: the inventory's pieces, logged under its name ------

// The five system ports, in inventory order (port 0 where a setting holds no number).
std::vector<Declared> system_ports();
// Every destination port text of the catalogue read as "%hu-%hu", in catalogue order; a text
// that is no port and a span written backwards are logged and left out.
void add_catalogue_ports(const KOVA_FW_SERVICE *head, std::vector<Declared> &out);
// Appends a no-conflict record (ConfNotConflictResultAppend).
int append_no_conflict(KVLIB_DLIST *list, uint16_t port, uint16_t protocol);

}  // namespace kova::conflict
