// kova-svc who: the services that declare a port and the processes that hold it.
#include <iostream>

#include "commands.h"
#include "json.h"
#include "ports_text.h"
#include "reports.h"
#include "status.h"

namespace kovasvc {

int run_who(const Args &args) {
    PortSpec spec = parse_port_spec(args.operands()[0], "PORT");
    if (spec.runs.size() != 1 || spec.runs[0].first != spec.runs[0].last)
        throw UsageError("name one port, not '" + args.operands()[0] + "'");
    unsigned int port = spec.runs[0].first;
    if (port == 0) throw UsageError("port 0 is not a port that services use");

    Reports reports = build_reports({port}, spec.flags, args.json());
    if (!reports.configured && !reports.runtime)
        throw Failure("no report could be built for port " + std::to_string(port));

    if (args.json()) {
        Json json(std::cout);
        json.begin_object();
        json.key("port").number(port);
        json.key("protocol").string(spec.protocol);
        reports_json(json, reports);
        json.end_object().finish();
    } else {
        std::cout << "Port " << port << "/" << spec.protocol << "\n";
        print_reports(std::cout, reports, {});
    }
    return any_holder(reports) ? kExitConflict : kExitOk;
}

}  // namespace kovasvc
