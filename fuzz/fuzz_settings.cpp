// The settings files as hostile input. The input is split at NUL bytes into /etc/kovainfo.conf,
// /etc/ssh/sshd_config, the port-forwarding rule file (each missing when its piece is empty),
// keys to look up (separated by "\x1f"), a port text and a skip list. Checked against models
// of the file syntaxes:
//   - KVLIBCFileGetKeyValue (buffers of 16 and 1024 bytes) and KVLIBCFileCheckKeyValue;
//   - KOVAServiceSSHPortGet: the first "Port" line, 22 without one;
//   - the rule file through the sectioned-file readers;
//   - KVLIBIsPortConflict with the rules (0x02) and the reserved ports of the settings (0x08).
#include <kovaserviceconf.h>

#include <cstdint>
#include <cstdio>
#include <optional>
#include <string>
#include <vector>

#include "fuzz_support.h"

namespace {

using namespace kova::fuzz;

constexpr const char *kInfo = "/etc/kovainfo.conf";
constexpr const char *kSshd = "/etc/ssh/sshd_config";
constexpr const char *kRules = "/etc/portforward/rule.conf";

void put(const char *rel, const std::string &content) {
    std::remove(under_root(rel).c_str());
    if (!content.empty()) write_file(rel, content);
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
    if (value) {
        FUZZ_CHECK(KVLIBCFileCheckKeyValue(path.c_str(), key.c_str(), value->c_str(), 0) == 1);
        FUZZ_CHECK(KVLIBCFileCheckKeyValue(path.c_str(), key.c_str(), (*value + "x").c_str(), 0) == 0);
    }
}

// The SSH port: std::nullopt where a "Port" line is not a plain port number (not settled).
std::optional<int> model_ssh_port(const std::string &sshd) {
    for (const std::string &raw : split_all(sshd, '\n')) {
        std::string line = trim(raw);
        if (line.size() < 4 || lower(line.substr(0, 4)) != "port") continue;
        std::string rest = line.substr(4);
        if (!rest.empty() && !is_space(rest[0]) && rest[0] != '=') continue;  // another keyword
        rest = trim(rest);
        if (!rest.empty() && rest[0] == '=') rest = trim(rest.substr(1));
        if (rest.empty() || rest.size() > 5 || rest.find_first_not_of("0123456789") != std::string::npos)
            return std::nullopt;
        const int port = std::stoi(rest);
        return port >= 1 && port <= 65535 ? std::optional<int>(port) : std::nullopt;
    }
    return 22;
}

// A reserved port from the settings (read into a 1024-byte buffer): nothing when absent or
// empty, false when not a port.
bool reserve(const std::vector<IniLine> &lines, const char *key, std::vector<Span> &out) {
    const std::string v = cut(model_value(lines, key).value_or(""), 1024);
    if (v.empty()) return true;
    if (!model_port_check(v)) return false;
    out.push_back({static_cast<uint32_t>(std::stoul(v)), static_cast<uint32_t>(std::stoul(v))});
    return true;
}

// KVLIBIsPortConflict with the flags 0x02 and 0x0A; std::nullopt where not settled.
std::optional<Outcome> model_check(const std::string &info_text, const std::vector<IniLine> &info,
                                   const std::vector<IniSection> &rules, const std::string &skip_text,
                                   const std::string &ports, bool reserved) {
    Outcome out;
    bool loose = false;
    const std::vector<std::string> skip = words(skip_text, loose), items = words(ports, loose);
    if (has(items, "412")) out.result = 1;
    std::vector<std::string> seen;
    for (const IniSection &rule : rules) {
        if (rule.top || has(seen, rule.name)) continue;
        seen.push_back(rule.name);
        if (rule.keys.empty()) return std::nullopt;  // a section without keys: the read gives 0
        const auto id = rule.keys.find("service_id");
        if (id != rule.keys.end() && has(skip, id->second)) continue;
        const auto s = rule.keys.find("s_port"), r = rule.keys.find("r_port");
        if (rule.keys.count("protocol name") == 0 || s == rule.keys.end() || r == rule.keys.end()) {
            out.result = -1;
            out.error = kAnyError;
            return out;
        }
        if (!model_compare(ports, s->second, out) || !model_compare(ports, r->second, out)) {
            out.result = -1;
            return out;
        }
    }
    if (!reserved) return out;
    const bool ftp = !has(skip, "ftp");
    if (info_text.empty() &&
        (ftp || !has(skip, "webdav_http") || !has(skip, "webdavs_https") || !has(skip, "syslog_server"))) {
        out.result = -1;  // no settings file to read
        out.error = kAnyError;
        return out;
    }
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
    if (!ok) {
        out.result = -1;
        out.error = KOVA_ERR_BAD_PARAMETER;
        return out;
    }
    if (!model_reserved(ports, spans, out)) return std::nullopt;
    return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size > 8192) return 0;
    std::vector<std::string> in = split_all(std::string(reinterpret_cast<const char *>(data), size), '\0');
    in.resize(std::max<size_t>(in.size(), 6));
    const std::string &info = in[0], &sshd = in[1], &rules = in[2], &ports = in[4], &skip = in[5];
    put(kInfo, info);
    put(kSshd, sshd);
    put(kRules, rules);

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

    for (const bool reserved : {false, true}) {
        const std::optional<Outcome> want = model_check(info, info_lines, sections, skip, ports, reserved);
        KOVA_SERVICE_CONF_PORT *list = nullptr;
        KVLIBCErrSetEx(kPoison, "fuzz", 0);
        const int got = KVLIBIsPortConflict(
            skip.c_str(), ports.c_str(), "tcp",
            reserved ? KOVA_PORT_CHECK_PORT_FORWARD | KOVA_PORT_CHECK_RESERVED : KOVA_PORT_CHECK_PORT_FORWARD, &list);
        if (want) check_outcome(*want, got, list, reserved ? "check 0x0A" : "check 0x02");
        KOVAServiceConfPortsFree(list);
    }
    return 0;
}
