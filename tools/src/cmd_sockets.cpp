// kova-svc sockets: the runtime inventory of ports in use.
#include <algorithm>
#include <iostream>
#include <tuple>

#include "commands.h"
#include "json.h"
#include "ports_text.h"
#include "reports.h"
#include "status.h"
#include "table.h"

namespace kovasvc {

namespace {

using RuntimeRecords = DListRecords<KOVA_RUNTIME_PORT_CONFLICT_RESULT>;

bool listening(const KOVA_RUNTIME_PORT_CONFLICT_RESULT &r) {
    // A listening TCP socket, or a UDP socket bound without a peer.
    return (r.protocol == KOVA_PROTO_TCP && r.state == 10) || (r.protocol == KOVA_PROTO_UDP && r.state == 7);
}

std::string program_of(const KOVA_RUNTIME_PORT_CONFLICT_RESULT &r) {
    return r.program != nullptr ? r.program : "-";
}

}  // namespace

int run_sockets(const Args &args) {
    bool only_listening = args.has("--listening");
    RuntimeResultsPtr inventory(RuntimeServiceListFetch());
    if (!inventory)
        throw Failure("cannot read the ports in use: the socket tables could not be read (see the system log)");

    std::vector<const KOVA_RUNTIME_PORT_CONFLICT_RESULT *> rows;
    for (const auto &r : RuntimeRecords(inventory.get()))
        if (!only_listening || listening(r)) rows.push_back(&r);

    if (args.json()) {
        Json json(std::cout);
        json.begin_object().key("sockets").begin_array();
        for (const auto *r : rows) runtime_json(json, *r);
        json.end_array().end_object().finish();
        return kExitOk;
    }

    // One line per port, protocol, pid and program; the states of its sockets joined.
    std::stable_sort(rows.begin(), rows.end(), [](const auto *a, const auto *b) {
        return std::make_tuple(a->port, a->protocol, a->pid, program_of(*a)) <
               std::make_tuple(b->port, b->protocol, b->pid, program_of(*b));
    });
    Table t({"PORT", "PROTO", "PID", "STATE", "PROGRAM"});
    t.flexible(4);
    t.align(0, Table::Align::Right);
    t.align(2, Table::Align::Right);
    for (size_t i = 0; i < rows.size();) {
        const auto *r = rows[i];
        std::string states;
        size_t j = i;
        for (; j < rows.size() && rows[j]->port == r->port && rows[j]->protocol == r->protocol &&
               rows[j]->pid == r->pid && program_of(*rows[j]) == program_of(*r);
             ++j) {
            std::string s = socket_state(rows[j]->protocol, rows[j]->state);
            if ((',' + states + ',').find(',' + s + ',') == std::string::npos)
                states += (states.empty() ? "" : ",") + s;
        }
        t.add({std::to_string(r->port), protocol_names(r->protocol), std::to_string(r->pid), states, program_of(*r)});
        i = j;
    }
    t.print(std::cout);
    if (rows.empty()) std::cout << "(no socket of a process that this user may inspect)\n";
    return kExitOk;
}

}  // namespace kovasvc
