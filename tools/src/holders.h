// Who declares or holds a set of ports: catalogue services, reserved system ports,
// port-forwarding rules and processes (also those this user may not inspect). One report
// serves check, who and the audit of what listens against what is declared.
#pragma once

#include <ostream>
#include <set>
#include <string>
#include <vector>

#include "ports_text.h"

namespace kovasvc {

class Json;
class Catalogue;

enum class HolderSource { Forward, Service, Reserved, InUse };

const char *source_name(HolderSource source);

struct Holder {
    HolderSource source = HolderSource::Service;
    PortRun run;                 // the ports asked for that it declares or holds
    unsigned int protocols = 0;  // protocol flags
    std::string name;            // service, reserved name, rule section; empty for a process
    std::string file;            // where it is declared (.sc file, settings file, rule file)
    std::string setting;         // the settings key or rule key that names the ports
    // Processes only.
    unsigned int pid = 0;
    std::string program;
    std::string state;
    bool visible = true;  // false: the socket's owner cannot be inspected by this user
};

struct HolderQuery {
    std::vector<PortRun> runs;
    unsigned int protocols = KOVA_PROTO_BOTH;
    int sources = 0;  // KOVA_PORT_CHECK_* flags
    std::set<std::string> skip;
    bool system_ports = false;             // also the system's fixed ports (kova-webdav, kova-syslog, ...)
    bool listening_only = false;           // in-use: listening TCP and bound UDP sockets, as the check counts
    const Catalogue *catalogue = nullptr;  // one already built, else the services source builds it
};

struct HolderReport {
    std::vector<Holder> holders;  // ports ascending, then by source
    bool in_use_known = true;     // false when the ports in use could not be read (offline root)
};

HolderReport find_holders(const HolderQuery &query);

// One HOLDER object.
void holder_json(Json &json, const Holder &holder);
// The members of a socket record: "port", "protocols", "pid" (null when not visible),
// "program" (null when unknown), "state", "visible".
void socket_json(Json &json, const Holder &socket);
// "holders": [HOLDER, ...] and "in_use_known": bool members.
void holders_json(Json &json, const HolderReport &report);
// A table: PORTS PROTO SOURCE NAME DETAIL, or a line saying nobody.
void print_holders(std::ostream &out, const HolderReport &report);

// The reserved system port of that name (kova-webdav, kova-syslog, ...), as holders.
std::vector<Holder> reserved_ports_named(const std::string &name);

// A socket's state for people: "LISTEN", "ESTABLISHED"; "UNCONN" for a UDP socket without a
// peer.
std::string socket_state(unsigned int protocol, unsigned int state);

}  // namespace kovasvc
