// The configured ports kept as spans, searched by port.
#include "conflict/configured_ports.h"

namespace kova::conflict {

ConfiguredPorts::OfProtocol ConfiguredPorts::of_protocol(const std::vector<Declared> &all, uint16_t protocol) {
    std::vector<Declared> declared;
    std::vector<ports::Span> spans;
    for (const Declared &d : all) {
        if (d.protocol != protocol) continue;
        declared.push_back(d);
        spans.push_back(d.span);
    }
    return {std::move(declared), ports::SpanIndex(spans)};
}

ConfiguredPorts::ConfiguredPorts(fw::Catalogue catalogue, const std::vector<Declared> &declared)
    : catalogue_(std::move(catalogue)),
      tcp_(of_protocol(declared, KOVA_PROTO_TCP)),
      udp_(of_protocol(declared, KOVA_PROTO_UDP)) {}

const std::vector<Declared> &ConfiguredPorts::holders(uint16_t port, uint16_t protocol,
                                                      std::vector<uint32_t> &positions) const {
    const OfProtocol &side = protocol == KOVA_PROTO_TCP ? tcp_ : udp_;
    positions.clear();
    side.index.overlapping({port, port}, positions);
    return side.declared;
}

}  // namespace kova::conflict
