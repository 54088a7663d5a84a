// kova-svc list: the firewall service catalogue.
#include <algorithm>
#include <cctype>
#include <cstring>
#include <iostream>
#include <set>

#include "catalogue.h"
#include "commands.h"
#include "json.h"
#include "session.h"
#include "ports_text.h"
#include "status.h"
#include "table.h"

namespace kovasvc {

namespace {

std::string lower(const char *text) {
    std::string s = text;
    for (auto &c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return s;
}

// Catalogue entries in the order people read them: by name, then as the library lists them.
std::vector<const CatalogueEntry *> by_name(const Catalogue &cat) {
    std::vector<std::pair<std::string, const CatalogueEntry *>> keyed;
    keyed.reserve(cat.entries().size());
    for (const auto &e : cat.entries()) keyed.emplace_back(lower(e.service->name), &e);
    std::stable_sort(keyed.begin(), keyed.end(), [](const auto &a, const auto &b) {
        if (a.first != b.first) return a.first < b.first;
        return std::strcmp(a.second->service->name, b.second->service->name) < 0;
    });
    std::vector<const CatalogueEntry *> rows;
    rows.reserve(keyed.size());
    for (const auto &k : keyed) rows.push_back(k.second);
    return rows;
}

}  // namespace

int run_list(const Args &args) {
    if (args.has("--names") && args.json()) throw UsageError("--names and --json do not go together");
    Catalogue cat = Catalogue::load();

    if (args.json()) {
        Json json(std::cout);
        json.begin_object().key("services").begin_array();
        for (const auto &e : cat.entries()) service_json(json, e);
        json.end_array();
        warnings_json(json);
        json.end_object().finish();
        return kExitOk;
    }
    if (args.has("--names")) {
        std::set<std::string> printed;
        for (const auto *e : by_name(cat))
            if (printed.insert(e->service->name).second) std::cout << e->service->name << '\n';
        return kExitOk;
    }

    Table t({"NAME", "ORIGIN", "SUP", "FWD", "DESTINATION", "SOURCE"});
    t.flexible(4);
    t.flexible(5);
    bool any_shadowed = false;
    for (const auto *e : by_name(cat)) {
        const KOVA_FW_SERVICE &s = *e->service;
        std::string origin = origin_name(e->source.origin);
        if (e->shadowed) {
            origin += '*';
            any_shadowed = true;
        }
        t.add({s.name, origin, s.supported != 0 ? "yes" : "no", s.portForward != 0 ? "yes" : "no",
               ports_with_protocol(sorted_items(s.dstPorts), static_cast<unsigned int>(s.dstProtocol)),
               ports_with_protocol(sorted_items(s.srcPorts), static_cast<unsigned int>(s.srcProtocol))});
    }
    t.print(std::cout);
    if (any_shadowed) std::cout << "* hidden from lookups by an earlier service of the same name\n";
    return kExitOk;
}

}  // namespace kovasvc
