// kova-svc audit: what listens against what is declared.
#include <algorithm>
#include <fstream>
#include <iostream>
#include <map>
#include <set>
#include <sstream>

#include "audit.h"
#include "catalogue.h"
#include "commands.h"
#include "holders.h"
#include "json.h"
#include "ports_text.h"
#include "session.h"
#include "status.h"
#include "table.h"

namespace kovasvc {

LocalAddresses::LocalAddresses() {
    read("tcp", KOVA_PROTO_TCP, "0A");
    read("tcp6", KOVA_PROTO_TCP, "0A");
    read("udp", KOVA_PROTO_UDP, "07");
    read("udp6", KOVA_PROTO_UDP, "07");
}

const bool *LocalAddresses::loopback_only(unsigned int port, unsigned int protocol) const {
    auto it = only_.find({port, protocol});
    return it == only_.end() ? nullptr : &it->second;
}

void LocalAddresses::read(const char *table, unsigned int protocol, const char *state) {
    std::ifstream in(session().path("/proc/net/") + table);
    std::string line;
    std::getline(in, line);  // header
    while (std::getline(in, line)) {
        std::istringstream words(line);
        std::string slot, local, remote, st;
        if (!(words >> slot >> local >> remote >> st) || st != state) continue;
        size_t colon = local.find(':');
        if (colon == std::string::npos) continue;
        unsigned int port = static_cast<unsigned int>(std::stoul(local.substr(colon + 1), nullptr, 16));
        std::string addr = local.substr(0, colon);
        bool loopback =
            (addr.size() == 8 && addr.substr(6) == "7F") || addr == "00000000000000000000000001000000" ||
            (addr.size() == 32 && addr.substr(0, 24) == "0000000000000000FFFF0000" && addr.substr(30) == "7F");
        auto [it, fresh] = only_.emplace(std::make_pair(port, protocol), loopback);
        if (!fresh) it->second = it->second && loopback;
    }
}

std::string program_text(const Holder &h) {
    if (!h.visible) return "(not visible to this user)";
    return h.program.empty() ? "-" : h.program;
}

namespace {

constexpr unsigned int kPorts = 65536;

// Whether every listening socket of a port and protocol is bound to a loopback address, read
// from the same socket tables as the library's inventory.
class Declared {
public:
    void add(const Holder &h, size_t index) {
        for (unsigned int protocol : {KOVA_PROTO_TCP, KOVA_PROTO_UDP})
            if ((h.protocols & protocol) != 0)
                for (unsigned int p = h.run.first; p <= h.run.last && p < kPorts; ++p)
                    by_port(protocol)[p].push_back(index);
    }
    const std::vector<size_t> &at(unsigned int port, unsigned int protocol) { return by_port(protocol)[port]; }

private:
    std::vector<std::vector<size_t>> &by_port(unsigned int protocol) {
        auto &v = protocol == KOVA_PROTO_TCP ? tcp_ : udp_;
        if (v.empty()) v.resize(kPorts);
        return v;
    }
    std::vector<std::vector<size_t>> tcp_, udp_;
};

void find_doubles(Audit &a, Declared &declared) {
    for (unsigned int protocol : {KOVA_PROTO_TCP, KOVA_PROTO_UDP}) {
        std::vector<std::string> last;
        for (unsigned int p = 1; p < kPorts; ++p) {
            std::set<std::string> names;
            for (size_t i : declared.at(p, protocol))
                if (a.declared[i].source == HolderSource::Service) names.insert(a.declared[i].name);
            std::vector<std::string> now(names.begin(), names.end());
            if (now.size() < 2) now.clear();
            if (!now.empty() && now == last && a.doubles.back().run.last + 1 == p)
                a.doubles.back().run.last = p;
            else if (!now.empty())
                a.doubles.push_back({{p, p}, protocol, now});
            last = now;
        }
    }
    std::stable_sort(a.doubles.begin(), a.doubles.end(),
                     [](const Double &x, const Double &y) { return x.run.first < y.run.first; });
}

}  // namespace

Audit run_audit(const Catalogue &cat) {
    Audit a;
    HolderQuery q;
    q.runs = {{1, kPorts - 1}};
    q.sources = KOVA_PORT_CHECK_PORT_FORWARD | KOVA_PORT_CHECK_SERVICES | KOVA_PORT_CHECK_RESERVED;
    q.system_ports = true;
    q.catalogue = &cat;
    a.declared = find_holders(q).holders;
    Declared declared;
    for (size_t i = 0; i < a.declared.size(); ++i) declared.add(a.declared[i], i);

    q.sources = KOVA_PORT_CHECK_IN_USE;
    q.listening_only = true;
    a.listening = find_holders(q);
    for (const auto &l : a.listening.holders) {
        const auto &covering = declared.at(l.run.first, l.protocols);
        if (covering.empty()) a.undeclared.push_back(&l);
        std::set<std::string> services;
        for (size_t i : covering)
            if (a.declared[i].source == HolderSource::Service) services.insert(a.declared[i].name);
        for (const auto &s : services) a.shared.push_back({&l, s});
    }
    if (a.listening.in_use_known) {
        std::set<std::pair<unsigned int, unsigned int>> held;
        for (const auto &l : a.listening.holders) held.insert({l.run.first, l.protocols});
        for (const auto &e : cat.entries()) {
            if (!e.supported || e.shadowed) continue;
            bool heard = false;
            for (const auto &run : e.dst)
                for (unsigned int p = run.first; p <= run.last && !heard; ++p)
                    for (unsigned int protocol : {KOVA_PROTO_TCP, KOVA_PROTO_UDP})
                        if ((e.dst_protocol & protocol) != 0 && held.count({p, protocol}) != 0) heard = true;
            if (!heard) a.silent.push_back(&e);
        }
        auto first_port = [](const CatalogueEntry *e) {
            unsigned int first = e->dst.empty() ? 0u : e->dst[0].first;
            for (const auto &run : e->dst) first = std::min(first, run.first);
            return first;
        };
        std::stable_sort(a.silent.begin(), a.silent.end(), [&](const CatalogueEntry *x, const CatalogueEntry *y) {
            return first_port(x) < first_port(y);
        });
    }
    find_doubles(a, declared);
    return a;
}

namespace {

void print_section(const std::string &title, size_t count) {
    std::cout << '\n' << title << ": " << (count == 0 ? "none" : std::to_string(count)) << '\n';
}

}  // namespace

int run_audit(const Args &args) {
    Catalogue cat = Catalogue::load();
    Audit a = run_audit(cat);
    LocalAddresses addresses;
    if (auto page = args.value("--html")) {
        std::ofstream out(*page);
        write_audit_html(out, a, addresses);
        if (!out.flush()) throw Failure("cannot write " + *page, *page, "check the directory and the free space");
    }
    auto services_ports = [](const CatalogueEntry &e) { return ports_with_protocol(e.dst, e.dst_protocol); };

    if (args.json()) {
        Json json(std::cout);
        json.begin_object().key("summary").begin_object();
        json.key("undeclared").number(static_cast<int64_t>(a.undeclared.size()));
        json.key("silent");
        if (a.listening.in_use_known)
            json.number(static_cast<int64_t>(a.silent.size()));
        else
            json.null();
        json.key("double").number(static_cast<int64_t>(a.doubles.size()));
        json.key("shared").number(static_cast<int64_t>(a.shared.size()));
        json.end_object();
        auto listener = [&](const Holder &l) {
            socket_json(json, l);
            json.key("loopback_only");
            if (const bool *lo = addresses.loopback_only(l.run.first, l.protocols))
                json.boolean(*lo);
            else
                json.null();
        };
        json.key("undeclared").begin_array();
        for (const auto *l : a.undeclared) {
            json.begin_object();
            listener(*l);
            json.end_object();
        }
        json.end_array().key("silent").begin_array();
        for (const auto *e : a.silent) {
            json.begin_object().key("name").string(e->name).key("dst");
            port_list_json(json, e->dst_protocol, sorted_runs(e->dst));
            json.end_object();
        }
        json.end_array().key("double").begin_array();
        for (const auto &d : a.doubles) {
            json.begin_object().key("ports");
            runs_json(json, {d.run});
            json.key("protocols");
            protocols_json(json, d.protocol);
            json.key("services").begin_array();
            for (const auto &s : d.services) json.string(s);
            json.end_array().end_object();
        }
        json.end_array().key("shared").begin_array();
        for (const auto &s : a.shared) {
            json.begin_object().key("service").string(s.service);
            listener(*s.listener);
            json.end_object();
        }
        json.end_array().key("in_use_known").boolean(a.listening.in_use_known);
        warnings_json(json);
        json.end_object().finish();
    } else {
        std::cout << "Undeclared listeners: " << a.undeclared.size() << "; silent declarations: "
                  << (a.listening.in_use_known ? std::to_string(a.silent.size()) : "not checked")
                  << "; double declarations: " << a.doubles.size() << "; shared ports: " << a.shared.size() << '\n';
        auto where = [&](const Holder &l) {
            const bool *lo = addresses.loopback_only(l.run.first, l.protocols);
            return lo == nullptr ? "-" : *lo ? "loopback" : "any";
        };
        print_section("Undeclared listeners", a.undeclared.size());
        if (!a.undeclared.empty()) {
            Table t({"PORT", "PROTO", "ADDRESS", "PID", "PROGRAM"});
            for (const auto *l : a.undeclared)
                t.add({std::to_string(l->run.first), protocol_names(l->protocols), where(*l),
                       l->visible ? std::to_string(l->pid) : "-", program_text(*l)});
            t.print(std::cout);
        }
        if (a.listening.in_use_known) {
            print_section("Silent declarations (no listener)", a.silent.size());
            if (!a.silent.empty()) {
                Table t({"SERVICE", "PORTS"});
                for (const auto *e : a.silent) t.add({e->name, services_ports(*e)});
                t.print(std::cout);
            }
        }
        print_section("Double declarations", a.doubles.size());
        if (!a.doubles.empty()) {
            Table t({"PORTS", "PROTO", "SERVICES"});
            for (const auto &d : a.doubles) {
                std::string names;
                for (const auto &s : d.services) names += (names.empty() ? "" : ", ") + s;
                t.add({run_text(d.run), protocol_names(d.protocol), names});
            }
            t.print(std::cout);
        }
        print_section("Shared ports (declared and held)", a.shared.size());
        if (!a.shared.empty()) {
            Table t({"PORT", "PROTO", "SERVICE", "PID", "PROGRAM"});
            for (const auto &s : a.shared)
                t.add({std::to_string(s.listener->run.first), protocol_names(s.listener->protocols), s.service,
                       s.listener->visible ? std::to_string(s.listener->pid) : "-", program_text(*s.listener)});
            t.print(std::cout);
        }
    }
    return a.undeclared.empty() && a.doubles.empty() ? kExitOk : kExitConflict;
}

}  // namespace kovasvc
