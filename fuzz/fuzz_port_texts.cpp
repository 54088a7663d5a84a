// The port texts of the service-wide check. The input is split at NUL bytes into the caller's
// port text, another source's port text, the protocol text, the skip list and a byte of check
// flags. First PortsConflictWithText compares the two texts (the caller's ranges written with
// ":", the other's with "-"); then KVLIBIsPortConflict checks the caller's text against a
// port-forwarding rule whose "s_port" is the other text, reserved ports in the settings and
// ports in use (the catalogue source 0x04 is left out: it is the built-in table's business).
// Both are compared with a model of the texts: the result, the entries of the conflict list in
// order, and the error code of a failure.
#include <kovaserviceconf.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "fuzz_support.h"
#include "range/port_conflict_text.h"

namespace {

using namespace kova::fuzz;

constexpr unsigned int kPoison = 0x7E57;
constexpr uint32_t kTcpInUse[] = {40001, 40005};
constexpr uint32_t kUdpInUse = 40003;
constexpr const char *kRulePorts = "9000-9010";

struct Span {
    uint32_t b, e;
};

// What a check gives: the result, the list (head first) and the error code of a failure.
struct Outcome {
    int result = 0;
    std::vector<Port> list;
    unsigned int error = kPoison;
};

// One item of a port text: a port, or two joined by `joiner` (the smaller first).
std::optional<Span> item_of(const std::string &item, char joiner, Outcome &out) {
    const size_t at = item.find(joiner);
    const std::string a = item.substr(0, at), b = at == std::string::npos ? a : item.substr(at + 1);
    if (at != std::string::npos && (a.empty() || b.empty())) return std::nullopt;
    if (!model_port_check(a) || !model_port_check(b)) {
        out.error = KOVA_ERR_BAD_PARAMETER;
        return std::nullopt;
    }
    const uint32_t x = static_cast<uint32_t>(std::stoul(a)), y = static_cast<uint32_t>(std::stoul(b));
    return Span{std::min(x, y), std::max(x, y)};
}

std::vector<std::string> items_of(const std::string &text) {
    std::vector<std::string> out = split_all(trim(text), ',');
    for (std::string &item : out) item = trim(item);
    return out;
}

void add(Outcome &out, uint32_t b, uint32_t e) {
    out.list.insert(out.list.begin(), Port{0, b == e ? 0u : 1u, KOVA_PROTO_BOTH, b, b == e ? 0u : e});
}

// PortsConflictWithText: false when it fails.
bool model_compare(const std::string &ports, const std::string &other, Outcome &out) {
    for (const std::string &item : items_of(ports)) {
        const std::optional<Span> mine = item_of(item, ':', out);
        if (!mine) return false;
        const bool single = item.find(':') == std::string::npos;
        for (const std::string &o : items_of(other)) {
            const std::optional<Span> theirs = item_of(o, '-', out);
            if (!theirs) return false;
            const uint32_t lo = std::max(mine->b, theirs->b), hi = std::min(mine->e, theirs->e);
            if (lo > hi) continue;
            add(out, lo, single || o.find('-') == std::string::npos ? lo : hi);
            out.result = 1;
        }
    }
    return true;
}

// The words of a text split at spaces and commas; `empty_words` tells whether two separators
// meet (the splitter may keep or drop the empty word between them).
std::vector<std::string> words(const std::string &text, bool &empty_words) {
    std::vector<std::string> out;
    if (text.empty()) return out;
    for (const std::string &w : split_all(text, ',')) {
        for (const std::string &v : split_all(w, ' ')) {
            if (!v.empty()) out.push_back(v);
            empty_words = empty_words || v.empty();
        }
    }
    return out;
}

bool has(const std::vector<std::string> &list, const std::string &word) {
    return std::find(list.begin(), list.end(), word) != list.end();
}

// Leading digits as a number (none: 0); std::nullopt where the conversion is not settled.
std::optional<uint32_t> number(const std::string &s) {
    size_t n = 0;
    while (n < s.size() && n < 6 && s[n] >= '0' && s[n] <= '9') ++n;
    if (n == 6 || (n == 0 && !s.empty() && (s[0] == '+' || s[0] == '-' || is_space(s[0])))) return std::nullopt;
    return n == 0 ? 0 : static_cast<uint32_t>(std::stoul(s.substr(0, n)));
}

std::vector<Span> normalize(std::vector<Span> spans) {
    std::sort(spans.begin(), spans.end(), [](const Span &x, const Span &y) { return x.b < y.b; });
    std::vector<Span> out;
    for (const Span &s : spans) {
        if (!out.empty() && s.b <= out.back().e + 1)
            out.back().e = std::max(out.back().e, s.e);
        else
            out.push_back(s);
    }
    return out;
}

// KVLIBIsPortConflict with flags 0x01, 0x02, 0x08 and 0x10; std::nullopt where the outcome is
// not settled.
std::optional<Outcome> model_check(const std::string &skip_text, const std::string &ports, const std::string &protocol,
                                   int flags, const std::string &rule_ports, Outcome out) {
    bool loose = false, ignored = false;
    const std::vector<std::string> skip = words(skip_text, ignored), items = words(ports, loose);
    const std::vector<std::string> protocols = words(lower(protocol), ignored);
    if (has(items, "412")) out.result = 1;
    if ((flags & KOVA_PORT_CHECK_PORT_FORWARD) != 0 && !has(skip, "svc")) {
        for (const std::string &theirs : {rule_ports, std::string(kRulePorts)}) {
            if (!model_compare(ports, theirs, out)) {
                out.result = -1;
                return out;
            }
        }
    }
    if ((flags & KOVA_PORT_CHECK_RESERVED) != 0) {
        std::vector<Span> spans, reserved;
        for (const Port &p : out.list) spans.push_back({p.begin, p.type == 1 ? p.end : p.begin});
        if (!has(skip, "ftp")) reserved.insert(reserved.end(), {{21, 21}, {55536, 55899}});
        if (!has(skip, "webdav_http")) reserved.push_back({5005, 5005});
        if (!has(skip, "webdavs_https")) reserved.push_back({5006, 5006});
        if (!has(skip, "syslog_server")) reserved.push_back({514, 514});
        for (const std::string &item : items_of(ports)) {
            Outcome ignored;
            const std::optional<Span> mine = item_of(item, ':', ignored);
            const size_t colon = item.find(':');
            if (!mine || (colon != std::string::npos && std::stoul(item.substr(0, colon)) > mine->b))
                return std::nullopt;
            for (const Span &r : reserved)
                if (std::max(r.b, mine->b) <= std::min(r.e, mine->e))
                    spans.push_back({std::max(r.b, mine->b), std::min(r.e, mine->e)});
        }
        out.list.clear();
        for (const Span &s : normalize(spans)) out.list.push_back({0, s.b == s.e ? 0u : 1u, 0, s.b, s.e});
        if (!out.list.empty()) out.result = 1;
    }
    if ((flags & KOVA_PORT_CHECK_IN_USE) != 0) {
        if (loose || protocol.size() >= 1024) return std::nullopt;  // empty items; a protocol text cut
        for (const std::string &item : items) {
            const size_t colon = item.find(':');
            const std::optional<uint32_t> a = number(item.substr(0, colon));
            const std::optional<uint32_t> b = colon == std::string::npos ? a : number(item.substr(colon + 1));
            if (!a || !b) return std::nullopt;
            if (*a == 0 && *b == 0) {
                out.error = KOVA_ERR_BAD_PARAMETER;
                out.result = -1;
                return out;
            }
            const uint32_t lo = std::min(*a, *b), hi = std::max(*a, *b);
            if (hi > 65535) return std::nullopt;  // up to the network library
            bool used = has(protocols, "tcp") && std::any_of(std::begin(kTcpInUse), std::end(kTcpInUse),
                                                             [&](uint32_t p) { return lo <= p && p <= hi; });
            used = used || (has(protocols, "udp") && lo <= kUdpInUse && kUdpInUse <= hi);
            if (used) {
                out.result = 1;
                return out;
            }
        }
    }
    return out;
}

std::string socket_line(uint32_t port, const char *state) {
    char buf[160];
    std::snprintf(buf, sizeof buf,
                  "   0: 00000000:%04X 00000000:0000 %s 00000000:00000000 00:00000000 00000000     0        0 %u\n",
                  port, state, port);
    return buf;
}

void setup() {
    write_file("/etc/kovainfo.conf",
               "ftpport=21\nftplowport=55536\nftphighport=55899\nWebDavPort=5005\nsecure_WebDavPort=5006\n"
               "syslogport=514\n");
    std::filesystem::create_directories(under_root("/usr/kova/etc/services.d"));
    std::filesystem::create_directories(under_root("/usr/local/etc/services.d"));
    const std::string header = "  sl  local_address rem_address   st\n";
    write_file("/proc/net/tcp", header + socket_line(kTcpInUse[0], "0A") + socket_line(40002, "01"));
    write_file("/proc/net/tcp6", header + socket_line(kTcpInUse[1], "0A"));
    write_file("/proc/net/udp", header + socket_line(kUdpInUse, "07"));
    write_file("/proc/net/udp6", header);
}

void check(const Outcome &want, int rc, const KOVA_SERVICE_CONF_PORT *list, const char *what) {
    const std::vector<Port> got = to_vector(list);
    FUZZ_CHECKF(rc == want.result && got == want.list, "%s gave %d %s, model %d %s", what, rc, describe(got).c_str(),
                want.result, describe(want.list).c_str());
    if (rc < 0)
        FUZZ_CHECKF(KVLIBCErrGet() == want.error, "%s failed with 0x%04X, model 0x%04X", what, KVLIBCErrGet(),
                    want.error);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size > 2048) return 0;
    static const bool ready = (setup(), true);
    (void)ready;
    std::vector<std::string> in = split_all(std::string(reinterpret_cast<const char *>(data), size), '\0');
    in.resize(std::max<size_t>(in.size(), 5));
    const std::string &ports = in[0], &other = in[1], &protocol = in[2], &skip = in[3];
    const uint8_t byte = in[4].empty() ? 0 : static_cast<uint8_t>(in[4][0]);

    // A list that holds an entry already (or none): new entries go in front of it.
    KOVA_SERVICE_CONF_PORT *list = nullptr;
    if ((byte & 0x80) != 0) FUZZ_CHECK(KOVAServiceConfPortsGet("7/tcp", 0, &list) == 0);
    const Outcome start{0, to_vector(list), kPoison};

    Outcome want = start;
    if (!model_compare(ports, other, want)) want.result = -1;
    KVLIBCErrSetEx(kPoison, "fuzz", 0);
    int rc = PortsConflictWithText(ports.c_str(), other.c_str(), &list);
    check(want, rc, list, "PortsConflictWithText");
    KOVAServiceConfPortsFree(list);

    // The whole check, with the other text as the "s_port" of a rule of the service "svc".
    const std::string rule_ports = other.substr(0, other.find_first_of("\r\n"));
    write_file("/etc/portforward/rule.conf", "[rule]\nservice_id = svc\nprotocol name = tcp\ns_port = " + rule_ports +
                                                 "\nr_port = " + kRulePorts + "\n");
    const int flags = (byte & 0x1B) != 0 ? byte & 0x1B : 1;
    list = nullptr;
    if ((byte & 0x80) != 0) FUZZ_CHECK(KOVAServiceConfPortsGet("7/tcp", 0, &list) == 0);
    const std::optional<Outcome> expected = model_check(skip, ports, protocol, flags, ini_value(rule_ports), start);
    KVLIBCErrSetEx(kPoison, "fuzz", 0);
    rc = KVLIBIsPortConflict(skip.c_str(), ports.c_str(), protocol.c_str(), flags, &list);
    if (expected) check(*expected, rc, list, "KVLIBIsPortConflict");
    KOVAServiceConfPortsFree(list);
    return 0;
}
