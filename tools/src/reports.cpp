#include "reports.h"

#include <algorithm>
#include <tuple>

#include "json.h"
#include "ports_text.h"
#include "status.h"
#include "table.h"

namespace kovasvc {

namespace {

using ConfRecords = DListRecords<KOVA_CONF_PORT_CONFLICT_RESULT>;
using RuntimeRecords = DListRecords<KOVA_RUNTIME_PORT_CONFLICT_RESULT>;

void print_configured(std::ostream &out, const KVLIB_DLIST *list, const std::set<std::string> &skipped) {
    std::vector<const KOVA_CONF_PORT_CONFLICT_RESULT *> rows;
    for (const auto &r : ConfRecords(list))
        if (r.isConflict == 1) rows.push_back(&r);
    std::stable_sort(rows.begin(), rows.end(), [](const auto *a, const auto *b) {
        return std::tie(a->port, a->protocol) < std::tie(b->port, b->protocol);
    });
    out << "Declared by services:";
    if (rows.empty()) {
        out << " none\n";
        return;
    }
    out << '\n';
    Table t({"PORT", "PROTO", "SERVICE"});
    t.flexible(2);
    t.align(0, Table::Align::Right);
    for (const auto *r : rows) {
        std::string name = r->serviceName != nullptr ? r->serviceName : "-";
        if (skipped.count(name) != 0) name += " (skipped)";
        t.add({std::to_string(r->port), protocol_names(r->protocol), name});
    }
    t.print(out, 80, 2);
}

void print_runtime(std::ostream &out, const KVLIB_DLIST *list) {
    std::vector<const KOVA_RUNTIME_PORT_CONFLICT_RESULT *> rows;
    for (const auto &r : RuntimeRecords(list))
        if (r.isConflict == 1) rows.push_back(&r);
    std::stable_sort(rows.begin(), rows.end(), [](const auto *a, const auto *b) {
        return std::tie(a->port, a->protocol, a->pid) < std::tie(b->port, b->protocol, b->pid);
    });
    out << "In use by processes:";
    if (rows.empty()) {
        out << " none\n";
        return;
    }
    out << '\n';
    Table t({"PORT", "PROTO", "PID", "STATE", "PROGRAM"});
    t.flexible(4);
    t.align(0, Table::Align::Right);
    t.align(2, Table::Align::Right);
    for (const auto *r : rows)
        t.add({std::to_string(r->port), protocol_names(r->protocol), std::to_string(r->pid),
               socket_state(r->protocol, r->state), r->program != nullptr ? r->program : "-"});
    t.print(out, 80, 2);
}

}  // namespace

Reports build_reports(const std::vector<unsigned int> &ports, unsigned int flags, bool warn_failures) {
    Reports reports;
    SzListPtr list = port_text_list(ports);
    reports.configured.reset(KOVAConfPortConflictResultListAllocAndCheck(list.get(), static_cast<uint16_t>(flags)));
    if (!reports.configured && warn_failures)
        warn("the configured-ports report could not be built (see the system log)");
    reports.runtime.reset(KOVARuntimePortConflictResultListAllocAndCheck(list.get(), static_cast<uint16_t>(flags)));
    if (!reports.runtime && warn_failures)
        warn("the ports in use could not be read: no runtime report (see the system log)");
    return reports;
}

bool any_holder(const Reports &reports) {
    for (const auto &r : ConfRecords(reports.configured.get()))
        if (r.isConflict == 1) return true;
    for (const auto &r : RuntimeRecords(reports.runtime.get()))
        if (r.isConflict == 1) return true;
    return false;
}

void runtime_json(Json &json, const KOVA_RUNTIME_PORT_CONFLICT_RESULT &r) {
    json.begin_object();
    json.key("port").number(r.port);
    json.key("protocol").string(protocol_names(r.protocol));
    json.key("pid").number(r.pid);
    json.key("state").number(r.state);
    json.key("state_name").string(KOVATCPStateToString(r.state));
    json.key("program").text_or_null(r.program);
    json.key("conflict").boolean(r.isConflict == 1);
    json.end_object();
}

void reports_json(Json &json, const Reports &reports) {
    json.key("configured");
    if (!reports.configured) {
        json.null();
    } else {
        json.begin_array();
        for (const auto &r : ConfRecords(reports.configured.get())) {
            json.begin_object();
            json.key("port").number(r.port);
            json.key("protocol").string(protocol_names(r.protocol));
            json.key("service").text_or_null(r.serviceName);
            json.key("conflict").boolean(r.isConflict == 1);
            json.end_object();
        }
        json.end_array();
    }
    json.key("runtime");
    if (!reports.runtime) {
        json.null();
    } else {
        json.begin_array();
        for (const auto &r : RuntimeRecords(reports.runtime.get())) runtime_json(json, r);
        json.end_array();
    }
}

void print_reports(std::ostream &out, const Reports &reports, const std::set<std::string> &skipped) {
    if (reports.configured)
        print_configured(out, reports.configured.get(), skipped);
    else
        out << "Declared by services: unknown (the report failed)\n";
    if (reports.runtime)
        print_runtime(out, reports.runtime.get());
    else
        out << "In use by processes: unknown (the socket tables could not be read)\n";
}

}  // namespace kovasvc
