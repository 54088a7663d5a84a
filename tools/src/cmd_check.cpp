// kova-svc check: the service-wide conflict check with the reports for every port asked for.
#include <iostream>
#include <set>

#include "commands.h"
#include "json.h"
#include "ports_text.h"
#include "reports.h"
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
    std::string skip_text = joined(skip, ",");

    ConflictList colliding;
    clear_library_error();
    int verdict =
        KVLIBIsPortConflict(skip_text.c_str(), spec.ports.c_str(), spec.protocol.c_str(), flags, colliding.out());
    if (verdict < 0) fail_with_library_error("the conflict check of " + spec.ports + "/" + spec.protocol + " failed");
    std::vector<PortRun> runs = conflict_runs(colliding.head());
    Reports reports = build_reports(expand(spec.runs), spec.flags, args.json());

    if (args.json()) {
        Json json(std::cout);
        json.begin_object();
        json.key("ports").string(spec.ports);
        json.key("protocol").string(spec.protocol);
        json.key("skip").begin_array();
        for (const auto &s : skip) json.string(s);
        json.end_array();
        json.key("sources").begin_array();
        for (const auto &s : source_names(flags)) json.string(s);
        json.end_array();
        json.key("conflict").boolean(verdict == 1);
        json.key("colliding").begin_array();
        for (const auto &r : runs)
            json.begin_object().key("first").number(r.first).key("last").number(r.last).end_object();
        json.end_array();
        reports_json(json, reports);
        json.end_object().finish();
    } else {
        print_labelled(std::cout, "Ports:", spec.ports + "/" + spec.protocol, 17);
        std::string compared = joined(source_names(flags), ", ");
        if (!skip.empty()) compared += " (skipping " + joined(skip, ", ") + ")";
        print_labelled(std::cout, "Compared with:", compared, 17);
        print_labelled(std::cout, "Verdict:", verdict == 1 ? "conflict" : "no conflict", 17);
        if (verdict == 1) {
            std::vector<std::string> texts;
            for (const auto &r : merged(runs)) texts.push_back(run_text(r));
            print_labelled(std::cout,
                           "Colliding ports:", texts.empty() ? "none named by the sources" : joined(texts, ", "), 17);
        }
        print_reports(std::cout, reports, std::set<std::string>(skip.begin(), skip.end()));
    }
    return verdict == 1 ? kExitConflict : kExitOk;
}

}  // namespace kovasvc
