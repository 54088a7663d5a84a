#include "ports_text.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <charconv>
#include <cstdio>
#include <set>

#include "json.h"
#include "status.h"

namespace kovasvc {

namespace {

// Writes a run at `at`, which has room for kRunText bytes; where it ends.
constexpr size_t kRunText = 24;  // two numbers of up to ten digits and a colon
char *write_run(char *at, const PortRun &run) {
    at = std::to_chars(at, at + 10, run.first).ptr;
    if (run.first == run.last) return at;
    *at++ = ':';
    return std::to_chars(at, at + 10, run.last).ptr;
}

void append_run(std::string &out, const PortRun &run) {
    char text[kRunText];
    out.append(text, write_run(text, run));
}

void append_runs(std::string &out, std::span<const PortRun> runs) {
    // A few runs at a time through a buffer on the stack.
    char text[16 * (kRunText + 1)];
    char *at = text;
    for (size_t i = 0; i < runs.size(); ++i) {
        if (at + kRunText + 1 > std::end(text)) {
            out.append(text, at);
            at = text;
        }
        if (i != 0) *at++ = ',';
        at = write_run(at, runs[i]);
    }
    out.append(text, at);
}

bool run_before(const PortRun &a, const PortRun &b) {
    return a.first != b.first ? a.first < b.first : a.last < b.last;
}

}  // namespace

std::string run_text(const PortRun &run) {
    std::string text;
    append_run(text, run);
    return text;
}

std::string runs_text(const std::vector<PortRun> &runs) {
    std::string text;
    append_runs(text, runs);
    return text;
}

std::vector<std::string> protocol_list(unsigned int flags) {
    std::vector<std::string> names;
    std::string joined = protocol_names(flags);
    size_t start = 0;
    while (start < joined.size()) {
        size_t comma = joined.find(',', start);
        if (comma == std::string::npos) comma = joined.size();
        names.push_back(joined.substr(start, comma - start));
        start = comma + 1;
    }
    return names;
}

void protocols_json(Json &json, unsigned int flags) {
    json.begin_array();
    for (const auto &n : protocol_list(flags)) json.string(n);
    json.end_array();
}

void runs_json(Json &json, const std::vector<PortRun> &runs) {
    json.begin_array();
    for (const auto &r : runs) json.begin_object().key("first").number(r.first).key("last").number(r.last).end_object();
    json.end_array();
}

void port_list_json(Json &json, unsigned int flags, const std::vector<PortRun> &runs) {
    json.begin_object().key("protocols");
    protocols_json(json, flags);
    json.key("ports");
    runs_json(json, runs);
    std::string text = runs_text(runs);
    if (flags != 0) text.append(1, '/').append(protocol_names(flags));
    json.key("text").string(text);
    json.end_object();
}

namespace {

std::string names_of(unsigned int flags) {
    std::string names;
    int size = KVLIBServiceProtoMapSizeGet();
    for (int i = 0; i < size; ++i) {
        int type = 0;
        char name[32];
        if (KVLIBServiceProtoIndexGet(i, &type) != 0) continue;
        if ((flags & static_cast<unsigned int>(type)) == 0) continue;
        if (KVLIBServiceProtoStrGet(i, name, sizeof name) != 0) continue;
        if (!names.empty()) names += ',';
        names += name;
    }
    return names;
}

}  // namespace

const std::string &protocol_names(unsigned int flags) {
    static std::array<std::string, 4> common = {names_of(0), names_of(1), names_of(2), names_of(3)};
    if (flags < common.size()) return common[flags];
    thread_local std::string other;
    other = names_of(flags);
    return other;
}

PortRun item_run(const char *item) {
    unsigned int first = 0, last = 0;
    if (item == nullptr) return {};
    int n = std::sscanf(item, "%u-%u", &first, &last);
    if (n == 1) return {first, first};
    if (n == 2) return {std::min(first, last), std::max(first, last)};
    return {};
}

std::vector<std::string> list_items(const KVLIB_SZLIST *items) {
    std::vector<std::string> out;
    if (items == nullptr) return out;
    for (int i = 0; i < items->nItem; ++i) {
        const char *item = KVLIBCSzListGet(items, i);
        if (item != nullptr) out.emplace_back(item);
    }
    return out;
}

std::vector<PortRun> sorted_runs(std::span<const PortRun> runs) {
    std::vector<PortRun> out(runs.begin(), runs.end());
    std::sort(out.begin(), out.end(), run_before);
    return out;
}

void append_ports_with_protocol(std::string &out, std::span<const PortRun> runs, unsigned int flags) {
    if (runs.empty()) {
        out.push_back('-');
        return;
    }
    if (std::is_sorted(runs.begin(), runs.end(), run_before)) {
        append_runs(out, runs);
    } else {
        // Most lists are short: sort them in place on the stack.
        std::array<PortRun, 32> small;
        std::vector<PortRun> large;
        std::span<PortRun> sorted;
        if (runs.size() <= small.size()) {
            sorted = std::span<PortRun>(small.data(), runs.size());
            std::copy(runs.begin(), runs.end(), sorted.begin());
        } else {
            large.assign(runs.begin(), runs.end());
            sorted = large;
        }
        std::sort(sorted.begin(), sorted.end(), run_before);
        append_runs(out, sorted);
    }
    const std::string &names = protocol_names(flags);
    if (!names.empty()) out.append(1, '/').append(names);
}

std::string ports_with_protocol(std::span<const PortRun> runs, unsigned int flags) {
    std::string text;
    append_ports_with_protocol(text, runs, flags);
    return text;
}

std::vector<PortRun> conflict_runs(const KOVA_SERVICE_CONF_PORT *list) {
    std::vector<PortRun> runs;
    for (const auto *p = list; p != nullptr; p = p->next) {
        if (p->type == 1)
            runs.push_back({std::min(p->beginPort, p->endPort), std::max(p->beginPort, p->endPort)});
        else
            runs.push_back({p->beginPort, p->beginPort});
    }
    return runs;
}

std::vector<PortRun> merged(std::vector<PortRun> runs) {
    std::sort(runs.begin(), runs.end(), run_before);
    std::vector<PortRun> out;
    for (const auto &r : runs) {
        if (!out.empty() && r.first <= out.back().last + 1)
            out.back().last = std::max(out.back().last, r.last);
        else
            out.push_back(r);
    }
    return out;
}

std::string library_port_text(const std::string &text) {
    std::string out = text;
    for (size_t i = 1; i + 1 < out.size(); ++i)
        if (out[i] == '-' && std::isdigit(static_cast<unsigned char>(out[i - 1])) &&
            std::isdigit(static_cast<unsigned char>(out[i + 1])))
            out[i] = ':';
    return out;
}

PortSpec parse_port_spec(const std::string &given, const std::string &what) {
    std::string text = library_port_text(given);
    clear_library_error();
    KOVA_SERVICE_CONF_PORT *head = nullptr;
    if (KOVAServiceConfPortsGet(text.c_str(), 1, &head) != 0)
        throw UsageError(what + " '" + given + "' is not a valid port list (ports 1 to 65535, ranges as 8000:8010 or " +
                         "8000-8010, then /tcp, /udp or /tcp,udp)");
    PortsPtr list(head);

    PortSpec spec;
    // The parser links each entry in front of the list: walk it back into text order.
    std::vector<const KOVA_SERVICE_CONF_PORT *> entries;
    for (const auto *p = head; p != nullptr; p = p->next) entries.push_back(p);
    std::reverse(entries.begin(), entries.end());
    for (const auto *p : entries) {
        if (!spec.ports.empty()) spec.ports += ',';
        if (p->type == 1) {
            PortRun run{std::min(p->beginPort, p->endPort), std::max(p->beginPort, p->endPort)};
            spec.ports += std::to_string(run.first) + ":" + std::to_string(run.last);
            spec.runs.push_back(run);
        } else {
            spec.ports += std::to_string(p->beginPort);
            spec.runs.push_back({p->beginPort, p->beginPort});
        }
        spec.flags = p->protocol;
    }
    spec.protocol = protocol_names(spec.flags);
    return spec;
}

std::vector<unsigned int> expand(const std::vector<PortRun> &runs) {
    std::vector<unsigned int> ports;
    std::set<unsigned int> seen;
    for (const auto &r : runs)
        for (unsigned int p = r.first; p <= r.last && p <= 65535; ++p)
            if (p != 0 && seen.insert(p).second) ports.push_back(p);
    return ports;
}

SzListPtr port_text_list(const std::vector<unsigned int> &ports) {
    SzListPtr list(KVLIBCSzListAlloc(512));
    if (!list) throw Failure("cannot allocate a port list");
    KVLIB_SZLIST *raw = list.get();
    for (unsigned int p : ports)
        if (KVLIBCSzListPush(&raw, std::to_string(p).c_str()) < 0) throw Failure("cannot allocate a port list");
    return list;
}

}  // namespace kovasvc
