// The settings files and the port texts of the service-wide check as hostile input. The input
// is split at NUL bytes into /etc/kovainfo.conf, /etc/ssh/sshd_config, the port-forwarding rule
// file (each missing when its piece is empty), keys to look up (separated by "\x1f"), the
// caller's port text, a skip list, a protocol text, a byte of check flags and another source's
// port text. Checked against models of the file syntaxes and of the port texts:
//   - KVLIBCFileGetKeyValue (buffers of 16 and 1024 bytes) and KVLIBCFileCheckKeyValue;
//   - KOVAServiceSSHPortGet: the first "Port" line, 22 without one;
//   - the rule file through the sectioned-file readers;
//   - PortsConflictWithText: the caller's ranges (written with ":") against the other text's
//     (written with "-"), each colliding piece put in front of the list;
//   - KVLIBIsPortConflict with the rules (0x02), the reserved ports of the settings (0x08) and
//     the ports in use in fixed socket tables (0x10), as the flag byte chooses (0x0A when it
//     chooses none); the catalogue source 0x04 is the built-in table's business. With flag 0x80
//     the conflict lists start with an entry, which new entries go in front of.
#include <filesystem>

#include "fuzz_support.h"
#include "range/port_conflict_text.h"

namespace {

using namespace kova::fuzz;

constexpr unsigned int kAnyError = ~0u;  // the model does not settle the code
constexpr const char *kInfo = "/etc/kovainfo.conf";
constexpr const char *kSshd = "/etc/ssh/sshd_config";
constexpr const char *kRules = "/etc/portforward/rule.conf";
// The sockets in use in the socket tables the harness writes (TCP, TCP over IPv6, UDP).
constexpr std::pair<uint32_t, const char *> kInUse[] = {{40001, "tcp"}, {40005, "tcp"}, {40003, "udp"}};

// What a check gives: the result, the conflict list (head first), the error code of a failure.
struct Outcome {
    int result = 0;
    std::vector<Port> list;
    unsigned int error = kPoison;
};

// One item of a port text: a port, or two joined by `joiner` (the smaller first).
std::optional<Span> item_of(const std::string &item, char joiner, Outcome &out) {
    const size_t at = item.find(joiner);
    const std::string a = item.substr(0, at), b = at == std::string::npos ? a : item.substr(at + 1);
    const bool bad = !model_port_check(a) || !model_port_check(b);
    if (bad && (at == std::string::npos || (!a.empty() && !b.empty()))) out.error = KOVA_ERR_BAD_PARAMETER;
    if (bad) return std::nullopt;  // an empty side is refused without an error code
    return Span{std::min(std::stoul(a), std::stoul(b)), std::max(std::stoul(a), std::stoul(b))};
}

// PortsConflictWithText: the caller's ports ("80,8000:8010") against another source's text
// ("80,55900-55910"), each colliding piece put in front of the list; false when it fails.
bool model_compare(const std::string &ports, const std::string &other, Outcome &out) {
    for (const std::string &item : split_all(ports, ',', true)) {
        const std::optional<Span> mine = item_of(item, ':', out);
        if (!mine) return false;
        const bool single = item.find(':') == std::string::npos;
        for (const std::string &o : split_all(other, ',', true)) {
            const std::optional<Span> theirs = item_of(o, '-', out);
            if (!theirs) return false;
            const uint32_t lo = std::max(mine->b, theirs->b), hi = std::min(mine->e, theirs->e);
            if (lo > hi) continue;
            const uint32_t e = single || o.find('-') == std::string::npos ? lo : hi;
            out.list.insert(out.list.begin(), Port{0, lo == e ? 0u : 1u, KOVA_PROTO_BOTH, lo, lo == e ? 0u : e});
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
    for (const std::string &w : split_all(text, ','))
        for (const std::string &v : split_all(w, ' ')) {
            if (!v.empty()) out.push_back(v);
            empty_words = empty_words || v.empty();
        }
    return out;
}

bool has(const std::vector<std::string> &list, const std::string &word) {
    return std::find(list.begin(), list.end(), word) != list.end();
}

// The reserved-ports source: the list becomes the merged union of what it held and the
// reserved ports among the caller's; false where the outcome is not settled.
bool model_reserved(const std::string &ports, const std::vector<Span> &reserved, Outcome &out) {
    std::vector<Span> spans;
    for (const Port &p : out.list) spans.push_back({p.begin, p.type == 1 ? p.end : p.begin});
    for (const std::string &item : split_all(ports, ',', true)) {
        Outcome ignored;
        const std::optional<Span> mine = item_of(item, ':', ignored);
        const size_t colon = item.find(':');
        if (!mine || (colon != std::string::npos && std::stoul(item.substr(0, colon)) > mine->b)) return false;
        for (const Span &r : reserved)
            if (std::max(r.b, mine->b) <= std::min(r.e, mine->e))
                spans.push_back({std::max(r.b, mine->b), std::min(r.e, mine->e)});
    }
    out.list.clear();
    for (const Span &s : normalize_spans(spans))
        out.list.push_back({0, s.b == s.e ? 0u : 1u, 0, static_cast<uint32_t>(s.b), static_cast<uint32_t>(s.e)});
    if (!out.list.empty()) out.result = 1;
    return true;
}

// Runs `call` on a conflict list that is empty or, with flag byte 0x80, holds one entry; where the
// model settles the outcome, the result, the list and (on failure) the error code are the model's.
template <class Call>
void check_outcome(uint8_t byte, const std::optional<Outcome> &want, const char *what, Call call) {
    KOVA_SERVICE_CONF_PORT *list = nullptr;
    if ((byte & 0x80) != 0) FUZZ_CHECK(KOVAServiceConfPortsGet("7/tcp", 0, &list) == 0);
    poison();
    const int rc = call(&list);
    const unsigned int error = KVLIBCErrGet();
    const std::vector<Port> got = to_vector(list);
    KOVAServiceConfPortsFree(list);
    if (!want) return;
    FUZZ_CHECKF(
        rc == want->result && got == want->list && (rc >= 0 || want->error == kAnyError || error == want->error),
        "%s gave %d %s (0x%04X), model %d %s (0x%04X)", what, rc, describe(got).c_str(), error, want->result,
        describe(want->list).c_str(), want->error);
}

// A key-value file: the first key line of that key counts.
std::optional<std::string> model_value(const std::vector<IniLine> &lines, const std::string &key) {
    for (const IniLine &l : lines)
        if (l.kind == Ini::kKey && l.name == key) return l.value;
    return std::nullopt;
}

void check_key(const std::string &info, const std::vector<IniLine> &lines, const std::string &key) {
    const std::string path = under_root(kInfo);
    const std::optional<std::string> value = model_value(lines, key);
    for (const int size : {16, 1024}) {
        std::vector<char> buf(static_cast<size_t>(size), '\x7f');
        const int rc = KVLIBCFileGetKeyValue(path.c_str(), key.c_str(), buf.data(), size, 0);
        const std::string want = cut(value.value_or(""), static_cast<size_t>(size));
        const int expected = info.empty() ? -1 : static_cast<int>(want.size());
        FUZZ_CHECKF(rc == expected && (rc < 0 || want == buf.data()), "%s (%d bytes): %d \"%s\", model %d \"%s\"",
                    key.c_str(), size, rc, rc < 0 ? "" : buf.data(), expected, want.c_str());
    }
    FUZZ_CHECKF(!value || (KVLIBCFileCheckKeyValue(path.c_str(), key.c_str(), value->c_str(), 0) == 1 &&
                           KVLIBCFileCheckKeyValue(path.c_str(), key.c_str(), (*value + "x").c_str(), 0) == 0),
                "%s = \"%s\" not confirmed", key.c_str(), value.value_or("").c_str());
}

// The SSH port: std::nullopt where a "Port" line is not a plain port number (not settled).
std::optional<int> model_ssh_port(const std::string &sshd) {
    for (const std::string &line : split_all(sshd, '\n', true)) {
        if (line.size() < 4 || lower(line.substr(0, 4)) != "port") continue;
        std::string rest = line.substr(4);
        if (!rest.empty() && !is_space(rest[0]) && rest[0] != '=') continue;  // another keyword
        rest = trim(rest);
        if (!rest.empty() && rest[0] == '=') rest = trim(rest.substr(1));
        if (rest.size() > 5 || !model_port_check(rest) || std::stoi(rest) == 0) return std::nullopt;
        return std::stoi(rest);
    }
    return 22;
}

// A reserved port from the settings (read into a 1024-byte buffer): nothing when absent or
// empty, false when not a port.
bool reserve(const std::vector<IniLine> &lines, const char *key, std::vector<Span> &out) {
    const std::string v = cut(model_value(lines, key).value_or(""), 1024);
    if (v.empty()) return true;
    if (model_port_check(v)) out.push_back({std::stoul(v), std::stoul(v)});
    return model_port_check(v);
}

// Leading digits as a number (none: 0); std::nullopt where the conversion is not settled.
std::optional<uint32_t> number(const std::string &s) {
    size_t n = 0;
    while (n < s.size() && n < 6 && s[n] >= '0' && s[n] <= '9') ++n;
    if (n == 6 || (n == 0 && !s.empty() && (s[0] == '+' || s[0] == '-' || is_space(s[0])))) return std::nullopt;
    return n == 0 ? 0 : static_cast<uint32_t>(std::stoul(s.substr(0, n)));
}

// The ports in use: the caller's items against the fixed socket tables; false where not settled.
bool model_in_use(const std::vector<std::string> &items, bool loose, const std::string &protocol, Outcome &out) {
    bool ignored = false;
    const std::vector<std::string> protocols = words(lower(protocol), ignored);
    if (loose || protocol.size() >= 1024) return false;  // empty items; a protocol text cut
    for (const std::string &item : items) {
        const size_t colon = item.find(':');
        const std::optional<uint32_t> a = number(item.substr(0, colon));
        const std::optional<uint32_t> b = colon == std::string::npos ? a : number(item.substr(colon + 1));
        if (!a || !b) return false;
        if (*a == 0 && *b == 0) return (out = Outcome{-1, out.list, KOVA_ERR_BAD_PARAMETER}, true);
        const uint32_t lo = std::min(*a, *b), hi = std::max(*a, *b);
        if (hi > 65535) return false;  // up to the network library
        for (const auto &u : kInUse)
            if (lo <= u.first && u.first <= hi && has(protocols, u.second)) return (out.result = 1, true);
    }
    return true;
}

// KVLIBIsPortConflict with `flags`, from the list `out` holds; std::nullopt where not settled.
std::optional<Outcome> model_check(const std::string &info_text, const std::vector<IniLine> &info,
                                   const std::vector<IniSection> &rules, const std::string &skip_text,
                                   const std::string &ports, const std::string &protocol, int flags, Outcome out) {
    bool loose = false, ignored = false;
    const std::vector<std::string> skip = words(skip_text, ignored), items = words(ports, loose);
    if (has(items, "412")) out.result = 1;
    std::vector<std::string> seen;
    for (const IniSection &rule : rules) {
        if ((flags & KOVA_PORT_CHECK_PORT_FORWARD) == 0 || rule.top || has(seen, rule.name)) continue;
        seen.push_back(rule.name);
        if (rule.keys.empty()) return std::nullopt;  // a section without keys: the read gives 0
        const auto id = rule.keys.find("service_id");
        if (id != rule.keys.end() && has(skip, id->second)) continue;
        const auto s = rule.keys.find("s_port"), r = rule.keys.find("r_port");
        if (rule.keys.count("protocol name") == 0 || s == rule.keys.end() || r == rule.keys.end())
            return Outcome{-1, out.list, kAnyError};
        if (!model_compare(ports, s->second, out) || !model_compare(ports, r->second, out))
            return Outcome{-1, out.list, out.error};
    }
    if ((flags & KOVA_PORT_CHECK_RESERVED) != 0) {
        const bool ftp = !has(skip, "ftp");
        if (info_text.empty() &&
            (ftp || !has(skip, "webdav_http") || !has(skip, "webdavs_https") || !has(skip, "syslog_server")))
            return Outcome{-1, out.list, kAnyError};  // no settings file to read
        std::vector<Span> spans;
        bool ok = !ftp || reserve(info, "ftpport", spans);
        if (ok && ftp && !model_value(info, "ftphighport").value_or("").empty()) {
            std::vector<Span> low, high;
            ok = reserve(info, "ftplowport", low) && !low.empty() && reserve(info, "ftphighport", high);
            if (ok && low[0].b > high[0].b) return std::nullopt;  // a backwards range: not settled
            if (ok) spans.push_back({low[0].b, high[0].b});
        }
        ok = ok && (has(skip, "webdav_http") || reserve(info, "WebDavPort", spans));
        ok = ok && (has(skip, "webdavs_https") || reserve(info, "secure_WebDavPort", spans));
        ok = ok && (has(skip, "syslog_server") || reserve(info, "syslogport", spans));
        if (!ok) return Outcome{-1, out.list, KOVA_ERR_BAD_PARAMETER};
        if (!model_reserved(ports, spans, out)) return std::nullopt;
    }
    if ((flags & KOVA_PORT_CHECK_IN_USE) != 0 && !model_in_use(items, loose, protocol, out)) return std::nullopt;
    return out;
}

std::string socket_line(uint32_t port, const char *state) {
    return format("   0: 00000000:%04X 00000000:0000 %s 00000000:00000000 00:00000000 00000000     0        0 %u\n",
                  port, state, port);
}

void setup() {
    std::filesystem::create_directories(under_root("/usr/kova/etc/services.d"));
    std::filesystem::create_directories(under_root("/usr/local/etc/services.d"));
    const std::string header = "  sl  local_address rem_address   st\n";
    write_file("/proc/net/tcp", header + socket_line(kInUse[0].first, "0A") + socket_line(40002, "01"));
    write_file("/proc/net/tcp6", header + socket_line(kInUse[1].first, "0A"));
    write_file("/proc/net/udp", header + socket_line(kInUse[2].first, "07"));
    write_file("/proc/net/udp6", header);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size > 8192) return 0;
    [[maybe_unused]] static const bool ready = (setup(), true);
    std::vector<std::string> in = split_all(std::string(reinterpret_cast<const char *>(data), size), '\0');
    in.resize(std::max<size_t>(in.size(), 9));
    const std::string &info = in[0], &sshd = in[1], &rules = in[2], &ports = in[4], &skip = in[5];
    const std::string &protocol = in[6], &other = in[8];
    const uint8_t byte = in[7].empty() ? 0 : static_cast<uint8_t>(in[7][0]);
    write_file(kInfo, info, true);
    write_file(kSshd, sshd, true);
    write_file(kRules, rules, true);

    const std::vector<IniLine> info_lines = ini_lines(info);
    for (const char *key : {"ftpport", "ftplowport", "ftphighport", "WebDavPort", "secure_WebDavPort", "syslogport"})
        check_key(info, info_lines, key);
    for (const std::string &key : split_all(in[3], '\x1f'))
        if (!key.empty()) check_key(info, info_lines, key);

    int32_t port = -1;
    const int rc = KOVAServiceSSHPortGet(&port);
    if (const std::optional<int> want = model_ssh_port(sshd))
        FUZZ_CHECKF(rc == 0 && port == *want, "SSH port %d (%d), model %d", port, rc, *want);

    const std::vector<IniSection> sections = ini_sections(ini_lines(rules));
    if (!rules.empty()) check_section_reader(under_root(kRules), sections);

    const Outcome start{0, (byte & 0x80) != 0 ? *model_ports_get("7/tcp", 0) : std::vector<Port>{}, kPoison};
    Outcome want = start;
    if (!model_compare(ports, other, want)) want.result = -1;
    check_outcome(byte, want, "PortsConflictWithText", [&](KOVA_SERVICE_CONF_PORT **list) {
        return PortsConflictWithText(ports.c_str(), other.c_str(), list);
    });
    const int flags = (byte & 0x1B) != 0 ? byte & 0x1B : KOVA_PORT_CHECK_PORT_FORWARD | KOVA_PORT_CHECK_RESERVED;
    check_outcome(byte, model_check(info, info_lines, sections, skip, ports, protocol, flags, start),
                  "KVLIBIsPortConflict", [&](KOVA_SERVICE_CONF_PORT **list) {
                      return KVLIBIsPortConflict(skip.c_str(), ports.c_str(), protocol.c_str(), flags, list);
                  });
    return 0;
}
