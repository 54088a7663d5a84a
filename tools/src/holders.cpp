#include "holders.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <map>
#include <optional>
#include <tuple>
#include <unordered_map>
#include <unordered_set>

#include "args.h"
#include "catalogue.h"
#include "json.h"
#include "session.h"
#include "status.h"
#include "table.h"

namespace kovasvc {

namespace {

// The overlap of a run with the runs asked for.
std::vector<PortRun> overlaps(const std::vector<PortRun> &asked, const PortRun &run) {
    std::vector<PortRun> out;
    for (const auto &a : asked) {
        unsigned int first = std::max(a.first, run.first), last = std::min(a.last, run.last);
        if (first <= last && first != 0) out.push_back({first, last});
    }
    return merged(out);
}

std::vector<PortRun> text_runs(const std::string &text) {
    std::vector<PortRun> runs;
    for (const auto &item : split_list(text)) {
        PortRun r = item_run(item.c_str());
        if (r.first != 0 || r.last != 0) runs.push_back(r);
    }
    return runs;
}

void add(std::vector<Holder> &out, const HolderQuery &q, const PortRun &declared, const Holder &like) {
    for (const auto &run : overlaps(q.runs, declared)) {
        Holder h = like;
        h.run = run;
        out.push_back(h);
    }
}

void forward_rules(const HolderQuery &q, std::vector<Holder> &out) {
    const char *path = KOVAPFRuleConfPathGet();
    if (path == nullptr || KVLIBCFileExist(path) != 1) return;
    SzListPtr names(KVLIBCSzListAlloc(1024));
    if (!names) return;
    KVLIB_SZLIST *raw = names.get();
    if (KVLIBCFileEnumSection(path, &raw) < 0) return;
    for (const auto &rule : list_items(raw)) {
        KVLIB_SZHASH *keys = KVLIBCSzHashAlloc(1024);
        if (keys == nullptr) continue;
        int n = KVLIBCFileGetSection(path, rule.c_str(), &keys);
        SzHashPtr owner(keys);
        if (n <= 0) continue;
        const char *service = KVLIBCSzHashGetValue(keys, "service_id");
        if (service != nullptr && q.skip.count(service) != 0) continue;
        const char *proto = KVLIBCSzHashGetValue(keys, "protocol name");
        unsigned int flags = 0;
        if (proto != nullptr) {
            std::string p = proto;
            std::transform(p.begin(), p.end(), p.begin(), ::tolower);
            if (p.find("tcp") != std::string::npos) flags |= KOVA_PROTO_TCP;
            if (p.find("udp") != std::string::npos) flags |= KOVA_PROTO_UDP;
        }
        for (const char *key : {"s_port", "r_port"}) {
            const char *value = KVLIBCSzHashGetValue(keys, key);
            if (value == nullptr) continue;
            Holder like;
            like.source = HolderSource::Forward;
            like.protocols = flags != 0 ? flags : q.protocols;
            like.name = service != nullptr ? service : rule;
            like.file = path;
            like.setting = "[" + rule + "] " + key;
            for (const auto &run : text_runs(value)) add(out, q, run, like);
        }
    }
}

void services(const HolderQuery &q, std::vector<Holder> &out) {
    std::optional<Catalogue> own;
    if (q.catalogue == nullptr) own.emplace(Catalogue::load());
    const Catalogue &cat = q.catalogue != nullptr ? *q.catalogue : *own;
    for (const auto &e : cat.entries()) {
        unsigned int shared = e.dst_protocol & q.protocols;
        if (shared == 0 || q.skip.count(e.name) != 0) continue;
        Holder like;
        like.source = HolderSource::Service;
        like.protocols = shared;
        like.name = e.name;
        like.file = e.file;
        like.setting = origin_name(e.origin);
        for (const auto &run : e.dst) add(out, q, run, like);
    }
}

std::string setting(const std::string &path, const char *key) {
    char buf[1024] = "";
    if (KVLIBCFileGetKeyValue(path.c_str(), key, buf, sizeof buf, 0) <= 0) return "";
    return buf;
}

void reserved(const HolderQuery &q, std::vector<Holder> &out) {
    std::string path = session().path("/etc/kovainfo.conf");
    struct Group {
        const char *name, *key;
    };
    const Group groups[] = {{"ftp", "ftpport"},
                            {"ftp", "ftplowport"},
                            {"webdav_http", "WebDavPort"},
                            {"webdavs_https", "secure_WebDavPort"},
                            {"syslog_server", "syslogport"}};
    for (const auto &g : groups) {
        if (q.skip.count(g.name) != 0) continue;
        std::string value = setting(path, g.key), key = g.key;
        if (value.empty()) continue;
        if (key == "ftplowport") {
            std::string high = setting(path, "ftphighport");
            if (high.empty()) continue;
            value += "-" + high;
            key = "ftplowport, ftphighport";
        }
        Holder like;
        like.source = HolderSource::Reserved;
        like.protocols = q.protocols;  // reserved whatever the protocol
        like.name = g.name;
        like.file = path;
        like.setting = key;
        for (const auto &run : text_runs(value)) add(out, q, run, like);
    }
    if (!q.system_ports) return;
    ConfResultsPtr fixed(SysConfListFetch());
    for (const auto &r : DListRecords<KOVA_CONF_PORT_CONFLICT_RESULT>(fixed.get())) {
        if (r.serviceName == nullptr || (r.protocol & q.protocols) == 0 || r.port == 0) continue;
        Holder like;
        like.source = HolderSource::Reserved;
        like.protocols = r.protocol;
        like.name = r.serviceName;
        std::string name = r.serviceName;
        const char *key = name == "kova-syslog" ? "syslogport" : name == "kova-sms" ? "smsport" : nullptr;
        like.setting = key != nullptr ? key : "a fixed port of the system";
        if (key != nullptr) like.file = path;
        add(out, q, {r.port, r.port}, like);
    }
}

bool listening(unsigned int protocol, unsigned int state) {
    return (protocol == KOVA_PROTO_TCP && state == 10) || protocol == KOVA_PROTO_UDP;
}

bool in_runs(const HolderQuery &q, unsigned int port) {
    return std::any_of(q.runs.begin(), q.runs.end(),
                       [&](const PortRun &r) { return r.first <= port && port <= r.last; });
}

// The processes' sockets, then the socket tables, each read once for the command (a socket opened
// in between has no owner here rather than an owner that was not looked at). A socket's owners
// are listed as the library's runtime inventory lists them; ports in use (TCP: listening) with no
// owner this user can see are listed without one.
bool in_use(const HolderQuery &q, std::vector<Holder> &out) {
    SzHashPtr owners(InodeToPidsTableFetch());
    if (!owners) return false;
    DListPtr sockets(RawSocketInfoListFetch(KOVA_PROTO_BOTH));
    if (!sockets) return false;
    // Keys of a port and protocol, and of a process holding a socket in a state.
    auto port_key = [](uint32_t port, uint32_t protocol) { return uint64_t{protocol} << 32 | port; };
    struct Listed {
        uint64_t pid_state, port_protocol;
        bool operator==(const Listed &) const = default;
    };
    auto hash = [](const Listed &k) { return std::hash<uint64_t>{}(k.pid_state * 31 + k.port_protocol); };
    std::unordered_map<uint32_t, std::string> programs;
    std::unordered_set<Listed, decltype(hash)> listed(0, hash);
    std::unordered_set<uint64_t> seen;                           // port and protocol with a visible owner
    std::vector<std::pair<unsigned int, unsigned int>> unowned;  // protocol, port
    for (const auto &s : DListRecords<RawSocketInfo>(sockets.get())) {
        if ((s.protocol & q.protocols) == 0) continue;
        const bool in = in_runs(q, s.port), asked = in && s.port != 0;  // port 0 is never a holder's
        if (listening(s.protocol, s.state) && in) unowned.emplace_back(s.protocol, s.port);
        if (!asked || (q.listening_only && !listening(s.protocol, s.state))) continue;
        SzListPtr pids(InodeToPidsGet(owners.get(), s.inode));
        if (!pids) return false;
        for (int i = 0; i < pids->nItem; ++i) {
            const auto pid = static_cast<uint32_t>(std::strtoul(KVLIBCSzListGet(pids.get(), i), nullptr, 10));
            if (!listed.insert({uint64_t{pid} << 32 | s.state, port_key(s.port, s.protocol)}).second) continue;
            auto [program, fresh] = programs.try_emplace(pid);
            if (fresh) {
                TextPtr command(ProgramCommandFetch(pid));
                if (command) program->second = command.get();
            }
            Holder &h = out.emplace_back();
            h.source = HolderSource::InUse;
            h.run = {s.port, s.port};
            h.protocols = s.protocol;
            h.pid = pid;
            h.program = program->second;
            h.state = socket_state(s.protocol, s.state);
            seen.insert(port_key(s.port, s.protocol));
        }
    }
    // TCP before UDP, each by port.
    std::sort(unowned.begin(), unowned.end());
    unowned.erase(std::unique(unowned.begin(), unowned.end()), unowned.end());
    for (const auto &[protocol, port] : unowned) {
        if (seen.count(port_key(port, protocol)) != 0) continue;
        Holder h;
        h.source = HolderSource::InUse;
        h.run = {port, port};
        h.protocols = protocol;
        h.visible = false;
        h.state = protocol == KOVA_PROTO_TCP ? "LISTEN" : "UNCONN";
        out.push_back(h);
    }
    return true;
}

// Ports in use by the skipped services do not count, as in the check: a service does not
// collide with itself while it runs.
void drop_skipped_in_use(const HolderQuery &q, std::vector<Holder> &holders) {
    if (q.skip.empty()) return;
    HolderQuery mine = q;
    mine.skip.clear();
    std::vector<Holder> declared;
    services(mine, declared);
    std::erase_if(holders, [&](const Holder &h) {
        if (h.source != HolderSource::InUse) return false;
        return std::any_of(declared.begin(), declared.end(), [&](const Holder &d) {
            return q.skip.count(d.name) != 0 && (d.protocols & h.protocols) != 0 && d.run.first <= h.run.first &&
                   h.run.last <= d.run.last;
        });
    });
}

std::string detail(const Holder &h) {
    switch (h.source) {
        case HolderSource::Service:
            return h.file.empty() ? h.setting : h.setting + " " + h.file;
        case HolderSource::Reserved:
        case HolderSource::Forward:
            return h.file.empty() ? h.setting : h.setting + " in " + h.file;
        case HolderSource::InUse:
            if (!h.visible) return "owner not visible to this user (" + h.state + ")";
            return "pid " + std::to_string(h.pid) + " " + (h.program.empty() ? "-" : h.program) + " (" + h.state + ")";
    }
    return "";
}

}  // namespace

const char *source_name(HolderSource source) {
    switch (source) {
        case HolderSource::Forward:
            return "forward";
        case HolderSource::Service:
            return "services";
        case HolderSource::Reserved:
            return "reserved";
        case HolderSource::InUse:
            return "in-use";
    }
    return "";
}

std::string socket_state(unsigned int protocol, unsigned int state) {
    if (protocol == KOVA_PROTO_UDP && state == 7) return "UNCONN";
    std::string name = KOVATCPStateToString(state);
    if (name.rfind("TCP_", 0) == 0) name.erase(0, 4);
    return name;
}

HolderReport find_holders(const HolderQuery &q) {
    HolderReport report;
    auto &h = report.holders;
    if ((q.sources & KOVA_PORT_CHECK_PORT_FORWARD) != 0) forward_rules(q, h);
    if ((q.sources & KOVA_PORT_CHECK_SERVICES) != 0) services(q, h);
    if ((q.sources & KOVA_PORT_CHECK_RESERVED) != 0) reserved(q, h);
    if ((q.sources & KOVA_PORT_CHECK_IN_USE) != 0) {
        if (session().offline()) {
            session().note_offline();
            report.in_use_known = false;
        } else if (in_use(q, h)) {
            drop_skipped_in_use(q, h);
        } else {
            warn("the ports in use could not be read (the socket tables under " + session().path("/proc") +
                 "/net are missing or unreadable)");
            report.in_use_known = false;
        }
    }
    // Sorted by position, so that no holder moves until it goes to its place.
    std::vector<uint32_t> order(h.size());
    for (uint32_t i = 0; i < order.size(); ++i) order[i] = i;
    std::stable_sort(order.begin(), order.end(), [&h](uint32_t i, uint32_t j) {
        const Holder &a = h[i], &b = h[j];
        return std::tie(a.run.first, a.run.last, a.source, a.name, a.pid) <
               std::tie(b.run.first, b.run.last, b.source, b.name, b.pid);
    });
    // One line for the neighbouring ports of one declaration ("5000", "5001": 5000:5001).
    std::vector<Holder> joined;
    joined.reserve(h.size());
    std::map<std::tuple<HolderSource, std::string, std::string, std::string, unsigned int>, size_t> last;
    for (const uint32_t i : order) {
        Holder &x = h[i];
        if (x.source != HolderSource::InUse) {
            auto key = std::make_tuple(x.source, x.name, x.file, x.setting, x.protocols);
            auto it = last.find(key);
            if (it != last.end() && joined[it->second].run.last + 1 >= x.run.first) {
                joined[it->second].run.last = std::max(joined[it->second].run.last, x.run.last);
                continue;
            }
            last[key] = joined.size();
        }
        joined.push_back(std::move(x));
    }
    h = std::move(joined);
    return report;
}

std::vector<Holder> reserved_ports_named(const std::string &name) {
    HolderQuery q;
    q.runs = {{1, 65535}};
    q.skip = {};
    q.system_ports = true;
    std::vector<Holder> all, out;
    reserved(q, all);
    for (auto &h : all)
        if (h.name == name) out.push_back(h);
    return out;
}

void holder_json(Json &json, const Holder &h) {
    auto text_or_null = [&](const std::string &s) {
        if (s.empty())
            json.null();
        else
            json.string(s);
    };
    const bool process = h.source == HolderSource::InUse;
    json.begin_object();
    json.key("source").string(source_name(h.source));
    json.key("name");
    text_or_null(h.name);
    json.key("ports");
    runs_json(json, {h.run});
    json.key("protocols");
    protocols_json(json, h.protocols);
    json.key("file");
    text_or_null(h.file);
    json.key("setting");
    text_or_null(process ? "" : h.setting);
    json.key("pid");
    if (process && h.visible)
        json.number(h.pid);
    else
        json.null();
    json.key("program");
    text_or_null(h.program);
    json.key("state");
    text_or_null(h.state);
    json.key("visible").boolean(h.visible);
    json.end_object();
}

void socket_json(Json &json, const Holder &h) {
    json.key("port").number(h.run.first).key("protocols");
    protocols_json(json, h.protocols);
    json.key("pid");
    if (h.visible)
        json.number(h.pid);
    else
        json.null();
    json.key("program");
    if (h.program.empty())
        json.null();
    else
        json.string(h.program);
    json.key("state").string(h.state).key("visible").boolean(h.visible);
}

void holders_json(Json &json, const HolderReport &report) {
    json.key("holders").begin_array();
    for (const auto &h : report.holders) holder_json(json, h);
    json.end_array();
    json.key("in_use_known").boolean(report.in_use_known);
}

void print_holders(std::ostream &out, const HolderReport &report) {
    if (report.holders.empty()) {
        out << "Held by: nobody" << (report.in_use_known ? "" : " (ports in use not checked)") << '\n';
        return;
    }
    Table t({"PORTS", "PROTO", "SOURCE", "NAME", "DETAIL"});
    t.flexible(4);
    for (const auto &h : report.holders)
        t.add({run_text(h.run), protocol_names(h.protocols), source_name(h.source), h.name.empty() ? "-" : h.name,
               detail(h)});
    t.print(out);
    if (!report.in_use_known) out << "(ports in use not checked)\n";
}

}  // namespace kovasvc
