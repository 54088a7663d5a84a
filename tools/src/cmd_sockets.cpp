// kova-svc sockets: the ports in use and the processes that hold them.
#include <charconv>
#include <iostream>
#include <string_view>

#include "commands.h"
#include "holders.h"
#include "json.h"
#include "ports_text.h"
#include "session.h"
#include "status.h"
#include "table.h"

namespace kovasvc {

int run_sockets(const Args &args) {
    HolderQuery query;
    query.runs = {{1, 65535}};
    query.sources = KOVA_PORT_CHECK_IN_USE;
    query.listening_only = args.has("--listening");
    HolderReport report = find_holders(query);

    if (args.json()) {
        Json json(std::cout);
        json.begin_object().key("sockets").begin_array();
        for (const auto &h : report.holders) {
            json.begin_object();
            socket_json(json, h);
            json.end_object();
        }
        json.end_array().key("in_use_known").boolean(report.in_use_known);
        warnings_json(json);
        json.end_object().finish();
        return kExitOk;
    }
    Table t({"PORT", "PROTO", "PID", "STATE", "PROGRAM"});
    t.flexible(4);
    t.align(0, Table::Align::Right);
    t.align(2, Table::Align::Right);
    // One line a holder: the holders of a port are one a process and state already.
    for (const auto &h : report.holders) {
        char port[16], pid[16] = "-";
        *std::to_chars(port, port + sizeof port - 1, h.run.first).ptr = '\0';
        if (h.visible) *std::to_chars(pid, pid + sizeof pid - 1, h.pid).ptr = '\0';
        const std::string_view program =
            h.visible ? (h.program.empty() ? "-" : std::string_view(h.program)) : "(not visible to this user)";
        t.add({port, protocol_names(h.protocols), pid, h.state, program});
    }
    if (!t.empty()) t.print(std::cout);
    return kExitOk;
}

}  // namespace kovasvc
