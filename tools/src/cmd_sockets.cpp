// kova-svc sockets: the ports in use and the processes that hold them.
#include <iostream>

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
    std::vector<std::string> last;
    for (const auto &h : report.holders) {
        std::vector<std::string> row = {
            std::to_string(h.run.first), protocol_names(h.protocols), h.visible ? std::to_string(h.pid) : "-", h.state,
            h.visible ? (h.program.empty() ? "-" : h.program) : "(not visible to this user)"};
        if (row != last) t.add(row);
        last = row;
    }
    if (!t.empty()) t.print(std::cout);
    return kExitOk;
}

}  // namespace kovasvc
