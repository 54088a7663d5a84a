// Port lists as the tool reads them from the command line and writes them for people.
#pragma once

#include <kovaserviceconf.h>

#include <span>
#include <string>
#include <vector>

#include "owners.h"

namespace kovasvc {

// An inclusive run of ports.
struct PortRun {
    unsigned int first = 0;
    unsigned int last = 0;
};

class Json;

// "8080" for a single port, "9000:9010" for a run: the syntax of the .sc files, which every
// command reads back.
std::string run_text(const PortRun &run);
// Runs joined by ",".
std::string runs_text(const std::vector<PortRun> &runs);

// A port list text with "a-b" ranges written "a:b", as the library's parser wants them.
std::string library_port_text(const std::string &text);

// The protocol names of the flags, one item each.
std::vector<std::string> protocol_list(unsigned int flags);
// JSON: ["tcp", "udp"].
void protocols_json(Json &json, unsigned int flags);
// JSON: [{"first": N, "last": N}, ...].
void runs_json(Json &json, const std::vector<PortRun> &runs);
// JSON: {"protocols": [...], "ports": [RANGE, ...], "text": "80,8000:8010/tcp"}.
void port_list_json(Json &json, unsigned int flags, const std::vector<PortRun> &runs);

// The names of the protocol flags, from the library's protocol table: "tcp", "udp",
// "tcp,udp"; the empty text when no known bit is set.
const std::string &protocol_names(unsigned int flags);

// A catalogue port item ("445" or "55536-55899") as a run; {0, 0} when it holds no number.
PortRun item_run(const char *item);

// The items of a string list in list order.
std::vector<std::string> list_items(const KVLIB_SZLIST *items);

// Runs sorted by their first port, then their last.
std::vector<PortRun> sorted_runs(std::span<const PortRun> runs);

// "137,138/udp": the runs sorted, ranges as "a:b"; "-" when there are none.
std::string ports_with_protocol(std::span<const PortRun> runs, unsigned int flags);
void append_ports_with_protocol(std::string &out, std::span<const PortRun> runs, unsigned int flags);

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

}  // namespace kovasvc
