// Port lists as the tool reads them from the command line and writes them for people.
#pragma once

#include <kovaserviceconf.h>

#include <string>
#include <vector>

#include "owners.h"

namespace kovasvc {

// An inclusive run of ports.
struct PortRun {
    unsigned int first = 0;
    unsigned int last = 0;
};

// "8080" for a single port, "9000-9010" for a run.
std::string run_text(const PortRun &run);

// The names of the protocol flags, from the library's protocol table: "tcp", "udp",
// "tcp,udp"; the empty text when no known bit is set.
std::string protocol_names(unsigned int flags);

// A catalogue port item ("445" or "55536-55899") as a run; {0, 0} when it holds no number.
PortRun item_run(const char *item);

// The items of a catalogue port list, sorted by their first port (ties keep list order).
std::vector<std::string> sorted_items(const KVLIB_SZLIST *items);
// The items in list order.
std::vector<std::string> list_items(const KVLIB_SZLIST *items);

// "137,138/udp"; "-" when there are no items.
std::string ports_with_protocol(const std::vector<std::string> &items, unsigned int flags);

// The runs of a conflict list, in list order.
std::vector<PortRun> conflict_runs(const KOVA_SERVICE_CONF_PORT *list);

// Runs sorted ascending, touching or overlapping runs merged.
std::vector<PortRun> merged(std::vector<PortRun> runs);

// A port list given on the command line, PORTS[/PROTO], parsed by the library's port list
// parser.
struct PortSpec {
    std::string ports;     // the ports part in text order, ranges as "first:last"
    std::string protocol;  // "tcp", "udp" or "tcp,udp"
    unsigned int flags = 0;
    std::vector<PortRun> runs;  // in text order
};

// Throws UsageError naming `what` when the library refuses the text.
PortSpec parse_port_spec(const std::string &text, const std::string &what);

// Every port of the runs, in order, each once; port 0 left out.
std::vector<unsigned int> expand(const std::vector<PortRun> &runs);

// A string list of the ports as decimal texts (for the structured reports).
SzListPtr port_text_list(const std::vector<unsigned int> &ports);

// The state of a socket for people: the library's name without its "TCP_" prefix; an unbound
// UDP socket (state 7) is "UNCONN".
std::string socket_state(unsigned int protocol, unsigned int state);

}  // namespace kovasvc
