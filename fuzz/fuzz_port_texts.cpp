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

constexpr uint32_t kTcpInUse[] = {40001, 40005};
constexpr uint32_t kUdpInUse = 40003;
constexpr const char *kRulePorts = "9000-9010";

// Leading digits as a number (none: 0); std::nullopt where the conversion is not settled.
std::optional<uint32_t> number(const std::string &s) {
    size_t n = 0;
    while (n < s.size() && n < 6 && s[n] >= '0' && s[n] <= '9') ++n;
    if (n == 6 || (n == 0 && !s.empty() && (s[0] == '+' || s[0] == '-' || is_space(s[0])))) return std::nullopt;
    return n == 0 ? 0 : static_cast<uint32_t>(std::stoul(s.substr(0, n)));
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
        std::vector<Span> reserved;
        if (!has(skip, "ftp")) reserved.insert(reserved.end(), {{21, 21}, {55536, 55899}});
        if (!has(skip, "webdav_http")) reserved.push_back({5005, 5005});
        if (!has(skip, "webdavs_https")) reserved.push_back({5006, 5006});
        if (!has(skip, "syslog_server")) reserved.push_back({514, 514});
        if (!model_reserved(ports, reserved, out)) return std::nullopt;
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
    check_outcome(want, rc, list, "PortsConflictWithText");
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
    if (expected) check_outcome(*expected, rc, list, "KVLIBIsPortConflict");
    KOVAServiceConfPortsFree(list);
    return 0;
}
