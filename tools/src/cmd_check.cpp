// kova-svc check and who: the service-wide conflict check, and who declares or holds a port.
#include <iostream>
#include <set>

#include "commands.h"
#include "holders.h"
#include "json.h"
#include "ports_text.h"
#include "session.h"
#include "status.h"
#include "table.h"

namespace kovasvc {

namespace {

constexpr int kAllSources =
    KOVA_PORT_CHECK_PORT_FORWARD | KOVA_PORT_CHECK_SERVICES | KOVA_PORT_CHECK_RESERVED | KOVA_PORT_CHECK_IN_USE;

std::string joined(const std::vector<std::string> &items, const char *sep) {
    std::string out;
    for (const auto &i : items) out += (out.empty() ? "" : sep) + i;
    return out;
}

}  // namespace

int run_check(const Args &args) {
    PortSpec spec = parse_port_spec(args.operands()[0], "PORTS");
    int flags = sources_option(args, kAllSources);
    std::vector<std::string> skip = split_list(args.value("--skip").value_or(""));
    int library_flags = session().offline() ? flags & ~KOVA_PORT_CHECK_IN_USE : flags;

    int verdict = 0;
    std::vector<PortRun> runs;
    if (library_flags != 0) {
        ConflictList colliding;
        clear_library_error();
        verdict = KVLIBIsPortConflict(joined(skip, ",").c_str(), spec.ports.c_str(), spec.protocol.c_str(),
                                      library_flags, colliding.out());
        if (verdict < 0)
            fail_with_library_error("the conflict check of " + runs_text(spec.runs) + "/" + spec.protocol + " failed");
        runs = conflict_runs(colliding.head());
    }
    HolderQuery query;
    query.runs = spec.runs;
    query.protocols = spec.flags;
    query.sources = flags;
    query.skip = std::set<std::string>(skip.begin(), skip.end());
    query.listening_only = true;
    HolderReport report = find_holders(query);
    for (const auto &h : report.holders) runs.push_back(h.run);
    runs = merged(runs);
    bool conflict = verdict == 1 || !report.holders.empty();

    if (args.json()) {
        Json json(std::cout);
        json.begin_object().key("ports");
        port_list_json(json, spec.flags, spec.runs);
        json.key("skip").begin_array();
        for (const auto &s : skip) json.string(s);
        json.end_array();
        json.key("sources").begin_array();
        for (const auto &s : source_names(flags)) json.string(s);
        json.end_array();
        json.key("conflict").boolean(conflict);
        json.key("colliding");
        runs_json(json, runs);
        holders_json(json, report);
        warnings_json(json);
        json.end_object().finish();
    } else {
        print_labelled(std::cout, "Ports:", runs_text(spec.runs) + "/" + spec.protocol, 15);
        std::string compared = joined(source_names(flags), ", ");
        if (!skip.empty()) compared += " (skipping " + joined(skip, ", ") + ")";
        print_labelled(std::cout, "Compared with:", compared, 15);
        print_labelled(std::cout, "Verdict:", conflict ? "conflict" : "no conflict", 15);
        if (conflict) print_labelled(std::cout, "Colliding:", runs.empty() ? "-" : runs_text(runs), 15);
        if (!report.holders.empty() || !report.in_use_known) print_holders(std::cout, report);
    }
    return conflict ? kExitConflict : kExitOk;
}

int run_who(const Args &args) {
    PortSpec spec = parse_port_spec(args.operands()[0], "PORT");
    if (spec.runs.size() != 1 || spec.runs[0].first != spec.runs[0].last)
        throw UsageError("name one port, not '" + args.operands()[0] + "'");
    unsigned int port = spec.runs[0].first;

    HolderQuery query;
    query.runs = spec.runs;
    query.protocols = spec.flags;
    query.sources = kAllSources;
    query.system_ports = true;
    HolderReport report = find_holders(query);

    if (args.json()) {
        Json json(std::cout);
        json.begin_object().key("port").number(port).key("protocols");
        protocols_json(json, spec.flags);
        holders_json(json, report);
        warnings_json(json);
        json.end_object().finish();
    } else {
        std::cout << "Port " << port << "/" << spec.protocol << "\n";
        print_holders(std::cout, report);
    }
    return report.holders.empty() ? kExitConflict : kExitOk;
}

}  // namespace kovasvc
