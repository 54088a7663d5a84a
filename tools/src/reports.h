// The library's structured reports for a set of ports: which configured services declare each
// port and which running processes hold it.
#pragma once

#include <ostream>
#include <set>
#include <string>
#include <vector>

#include "owners.h"

namespace kovasvc {

class Json;

struct Reports {
    ConfResultsPtr configured;  // null when the configured-ports report failed
    RuntimeResultsPtr runtime;  // null when the runtime report failed (no socket tables)
};

// Runs both checks for `ports` and the protocol flags; a report that fails is left null (and,
// with `warn_failures`, named in a warning: the JSON document shows it only as a null).
Reports build_reports(const std::vector<unsigned int> &ports, unsigned int flags, bool warn_failures);

// Whether a report names a service or a process for one of the ports.
bool any_holder(const Reports &reports);

// {"configured": [...] | null, "runtime": [...] | null} members, in the library's order.
void reports_json(Json &json, const Reports &reports);

// Two tables for people, ports ascending: the services that declare the ports (a service of
// `skipped` marked as such) and the processes that hold them.
void print_reports(std::ostream &out, const Reports &reports, const std::set<std::string> &skipped);

// The runtime record fields as a JSON object.
void runtime_json(Json &json, const KOVA_RUNTIME_PORT_CONFLICT_RESULT &r);

}  // namespace kovasvc
