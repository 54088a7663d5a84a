// kova-svc free: ports that nothing declares, reserves or uses.
#include <iostream>
#include <optional>
#include <vector>

#include "commands.h"
#include "json.h"
#include "session.h"
#include "ports_text.h"
#include "status.h"

namespace kovasvc {

namespace {

constexpr unsigned int kLastPort = 65535;
constexpr size_t kDefaultAnswers = 5;
constexpr int kMaxRounds = 32;
constexpr int kAllSources =
    KOVA_PORT_CHECK_PORT_FORWARD | KOVA_PORT_CHECK_SERVICES | KOVA_PORT_CHECK_RESERVED | KOVA_PORT_CHECK_IN_USE;

// The ports taken for any of the protocols asked for, built once from the library's
// inventories; runs of free ports are then found with a running count.
class BusyPorts {
public:
    explicit BusyPorts(unsigned int flags) : flags_(flags), busy_(kLastPort + 1, false) { busy_[0] = true; }

    void mark(unsigned int port) {
        if (port <= kLastPort) busy_[port] = true;
    }
    void mark(const PortRun &run) {
        for (unsigned int p = run.first; p <= run.last && p <= kLastPort; ++p) busy_[p] = true;
    }
    bool busy(unsigned int port) const { return busy_[port]; }
    bool wanted(unsigned int protocol) const { return (protocol & flags_) != 0; }

private:
    unsigned int flags_;
    std::vector<bool> busy_;
};

// Declared by services, named by port-forwarding rules, reserved by settings: one check of the
// whole port space lists them all as colliding runs.
void mark_configured(BusyPorts &busy, const std::string &protocol) {
    ConflictList colliding;
    clear_library_error();
    int flags = KOVA_PORT_CHECK_PORT_FORWARD | KOVA_PORT_CHECK_SERVICES | KOVA_PORT_CHECK_RESERVED;
    if (KVLIBIsPortConflict("", "1:65535", protocol.c_str(), flags, colliding.out()) < 0)
        fail_with_library_error("cannot list the declared and reserved ports");
    for (const auto &run : conflict_runs(colliding.head())) busy.mark(run);

    // The system's own fixed ports are in the configured-ports inventory.
    ConfResultsPtr inventory(ServiceConfListFetch());
    if (!inventory) throw Failure("cannot build the configured-ports inventory (see the system log)");
    for (const auto &r : DListRecords<KOVA_CONF_PORT_CONFLICT_RESULT>(inventory.get()))
        if (busy.wanted(r.protocol)) busy.mark(r.port);
}

// Ports in use; false when the socket tables cannot be read.
bool mark_in_use(BusyPorts &busy) {
    RuntimeResultsPtr inventory(RuntimeServiceListFetch());
    if (!inventory) return false;
    for (const auto &r : DListRecords<KOVA_RUNTIME_PORT_CONFLICT_RESULT>(inventory.get()))
        if (busy.wanted(r.protocol)) busy.mark(r.port);
    return true;
}

// The first `answers` free ports from `near` upwards, then downwards.
std::vector<unsigned int> first_free(const BusyPorts &busy, unsigned int near, size_t answers) {
    std::vector<unsigned int> ports;
    for (unsigned int p = near; p <= kLastPort && ports.size() < answers; ++p)
        if (!busy.busy(p)) ports.push_back(p);
    for (unsigned int p = near - 1; p >= 1 && ports.size() < answers; --p)
        if (!busy.busy(p)) ports.push_back(p);
    return ports;
}

// The first run of `count` free ports starting at or above `near`, else the closest below.
std::optional<unsigned int> first_run(const BusyPorts &busy, unsigned int near, unsigned int count) {
    unsigned int length = 0;  // free ports in a row ending at p
    for (unsigned int p = near; p <= kLastPort; ++p) {
        length = busy.busy(p) ? 0 : length + 1;
        if (length == count) return p - count + 1;
    }
    // Below: the free ports in a row from each port upwards, counted in one pass from the top.
    std::vector<unsigned int> ahead(kLastPort + 2, 0);
    for (unsigned int p = kLastPort; p >= 1; --p) ahead[p] = busy.busy(p) ? 0 : ahead[p + 1] + 1;
    for (unsigned int first = near - 1; first >= 1; --first)
        if (ahead[first] >= count) return first;
    return std::nullopt;
}

std::string port_list_text(const std::vector<unsigned int> &ports) {
    std::string text;
    for (unsigned int p : ports) {
        if (!text.empty()) text.push_back(',');
        text.append(std::to_string(p));
    }
    return text;
}

// Asks the library's check about an answer; marks what it refuses and says whether it passed.
bool passes_check(BusyPorts &busy, const std::string &ports, const std::string &protocol) {
    ConflictList colliding;
    clear_library_error();
    int sources = session().offline() ? kAllSources & ~KOVA_PORT_CHECK_IN_USE : kAllSources;
    int verdict = KVLIBIsPortConflict("", ports.c_str(), protocol.c_str(), sources, colliding.out());
    if (verdict < 0) fail_with_library_error("the conflict check of " + ports + "/" + protocol + " failed");
    for (const auto &run : conflict_runs(colliding.head())) busy.mark(run);
    return verdict == 0;
}

unsigned int protocol_option(const Args &args) {
    auto value = args.value("--proto");
    if (!value) return KOVA_PROTO_BOTH;
    if (*value == "tcp") return KOVA_PROTO_TCP;
    if (*value == "udp") return KOVA_PROTO_UDP;
    throw UsageError("--proto must be tcp or udp, not '" + *value + "'");
}

}  // namespace

int run_free(const Args &args) {
    unsigned int near = 1024;
    if (auto v = args.value("--near")) near = static_cast<unsigned int>(parse_number(*v, 1, kLastPort, "--near"));
    std::optional<unsigned int> count;
    if (auto v = args.value("--count")) count = static_cast<unsigned int>(parse_number(*v, 1, kLastPort, "--count"));
    unsigned int flags = protocol_option(args);
    std::string protocol = protocol_names(flags);

    BusyPorts busy(flags);
    mark_configured(busy, protocol);
    bool in_use_checked = false;
    if (session().offline())
        session().note_offline();
    else if (!(in_use_checked = mark_in_use(busy)))
        warn("the ports in use could not be read; suggesting from the configuration only");

    std::vector<unsigned int> ports;
    for (int round = 0;; ++round) {
        if (round == kMaxRounds) throw Failure("the conflict check keeps refusing the suggested ports");
        ports.clear();
        if (count) {
            auto first = first_run(busy, near, *count);
            if (!first) throw Failure("no run of " + std::to_string(*count) + " free " + protocol + " ports is left");
            for (unsigned int p = *first; p < *first + *count; ++p) ports.push_back(p);
            std::string text = *count == 1 ? std::to_string(*first)
                                           : std::to_string(*first) + ":" + std::to_string(*first + *count - 1);
            if (passes_check(busy, text, protocol)) break;
            busy.mark(*first);  // refused without a named port: step past it
        } else {
            ports = first_free(busy, near, kDefaultAnswers);
            if (ports.empty()) throw Failure("no free " + protocol + " port is left");
            if (passes_check(busy, port_list_text(ports), protocol)) break;
            // Refused, perhaps without naming every port: ask about each one alone.
            bool all_pass = true;
            for (unsigned int p : ports) {
                if (!passes_check(busy, std::to_string(p), protocol)) {
                    busy.mark(p);
                    all_pass = false;
                }
            }
            if (all_pass) break;
        }
    }

    if (args.json()) {
        Json json(std::cout);
        json.begin_object();
        json.key("near").number(near);
        json.key("protocols");
        protocols_json(json, flags);
        json.key("count");
        if (count)
            json.number(*count);
        else
            json.null();
        std::vector<PortRun> runs;
        for (unsigned int p : ports) runs.push_back({p, p});
        json.key("ports");
        runs_json(json, merged(runs));
        json.key("in_use_known").boolean(in_use_checked);
        warnings_json(json);
        json.end_object().finish();
    } else {
        for (unsigned int p : ports) std::cout << p << '\n';
    }
    return kExitOk;
}

}  // namespace kovasvc
