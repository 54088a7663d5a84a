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
    // A socket's line; two sockets that read the same are listed once.
    auto program = [](const Holder &h) -> std::string_view {
        return h.visible ? (h.program.empty() ? "-" : std::string_view(h.program)) : "(not visible to this user)";
    };
    auto same_line = [&](const Holder &a, const Holder &b) {
        return a.run.first == b.run.first && a.protocols == b.protocols && a.visible == b.visible &&
               (!a.visible || a.pid == b.pid) && a.state == b.state && program(a) == program(b);
    };
    const Holder *last = nullptr;
    for (const auto &h : report.holders) {
        if (last != nullptr && same_line(*last, h)) continue;
        last = &h;
        char port[16], pid[16] = "-";
        *std::to_chars(port, port + sizeof port - 1, h.run.first).ptr = '\0';
        if (h.visible) *std::to_chars(pid, pid + sizeof pid - 1, h.pid).ptr = '\0';
        t.add({port, protocol_names(h.protocols), pid, h.state, program(h)});
    }
    if (!t.empty()) t.print(std::cout);
    return kExitOk;
}

}  // namespace kovasvc
