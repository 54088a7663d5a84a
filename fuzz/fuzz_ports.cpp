// Port texts from outside. The whole input (up to a NUL byte) is a port list such as
// "80,443,8000:8010/tcp": it goes through KOVAServiceConfPortsGet, its protocol words through
// KVLIBServiceConfProtocolParse and its numbers through KOVAServiceConfPortsCheck, each compared
// with a model of the syntax; an accepted list must render and parse back to the same entries.
//
// Its first three lines are also port range texts, imported into the range sets A, B and C.
// Then C gets the overlap of A and B, and A the join of B; each set is exported and the text
// imported again. After every step each set must be sorted, merged (no two nodes overlap or
// touch), counted right, and equal to an interval model of its own. Where the family leaves the
// outcome open (ranges written backwards) only the shape is checked and the model follows the set.
#include <kovaserviceconf.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "fuzz_support.h"

namespace {

using namespace kova::fuzz;

// ---- port lists ----------------------------------------------------------------------------

std::string expected_port_text(const std::vector<Port> &ports) {
    std::string out;
    for (const Port &p : ports) {
        if (!out.empty()) out += ',';
        if (p.type == 1)
            out.append(std::to_string(std::min(p.begin, p.end)))
                .append(":")
                .append(std::to_string(std::max(p.begin, p.end)));
        else
            out += std::to_string(p.begin);
    }
    return out;
}

std::string expected_protocol_text(uint32_t protocol) {
    std::string out;
    if (protocol & KOVA_PROTO_TCP) out += "tcp";
    if (protocol & KOVA_PROTO_UDP) out += out.empty() ? "udp" : ",udp";
    return out;
}

// Renders a parsed list with KVLIBServiceConfPortsToStr (exact texts, exact buffer sizes) and
// parses the rendering again: the same entries, in reverse order, ranges written low to high.
void check_render_round_trip(const KOVA_SERVICE_CONF_PORT *list) {
    const std::vector<Port> original = to_vector(list);
    FUZZ_CHECK(!original.empty());
    const std::string ports = expected_port_text(original);
    const std::string protocol = expected_protocol_text(original.front().protocol);

    // Exactly large enough: both texts written.
    std::vector<char> pbuf(ports.size() + 1, '\x7f');
    std::vector<char> qbuf(protocol.size() + 1, '\x7f');
    int rc = KVLIBServiceConfPortsToStr(list, pbuf.data(), static_cast<int>(pbuf.size()), qbuf.data(),
                                        static_cast<int>(qbuf.size()));
    FUZZ_CHECKF(rc == 0, "render failed with 0x%04X for %s", KVLIBCErrGet(), describe(original).c_str());
    FUZZ_CHECKF(ports == pbuf.data(), "rendered ports \"%s\", expected \"%s\"", pbuf.data(), ports.c_str());
    FUZZ_CHECKF(protocol == qbuf.data(), "rendered protocol \"%s\", expected \"%s\"", qbuf.data(), protocol.c_str());

    // One byte short: refused with 0xBF00, neither buffer written.
    std::vector<char> small(ports.size(), '\x7f');
    std::vector<char> other(protocol.size() + 1, '\x7f');
    if (!small.empty()) {
        rc = KVLIBServiceConfPortsToStr(list, small.data(), static_cast<int>(small.size()), other.data(),
                                        static_cast<int>(other.size()));
        FUZZ_CHECK(rc == -1);
        FUZZ_CHECKF(KVLIBCErrGet() == KOVA_ERR_BUFFER_TOO_SMALL, "error 0x%04X", KVLIBCErrGet());
        FUZZ_CHECK(std::all_of(small.begin(), small.end(), [](char c) { return c == '\x7f'; }));
        FUZZ_CHECK(std::all_of(other.begin(), other.end(), [](char c) { return c == '\x7f'; }));
    }

    // The rendering parses back to the same entries in reverse order, ranges low to high.
    const std::string text = ports + "/" + protocol;
    KOVA_SERVICE_CONF_PORT *again = nullptr;
    rc = KOVAServiceConfPortsGet(text.c_str(), original.front().direction, &again);
    FUZZ_CHECKF(rc == 0 && again != nullptr, "rendering \"%s\" does not parse (0x%04X)", text.c_str(), KVLIBCErrGet());
    std::vector<Port> expected(original.rbegin(), original.rend());
    for (Port &p : expected) {
        if (p.type == 1 && p.begin > p.end) std::swap(p.begin, p.end);
    }
    const std::vector<Port> back = to_vector(again);
    KOVAServiceConfPortsFree(again);
    FUZZ_CHECKF(back == expected, "\"%s\" parsed to %s, expected %s", text.c_str(), describe(back).c_str(),
                describe(expected).c_str());
}

void poison() {
    KVLIBCErrSetEx(kPoison, "fuzz", 0);
}

void check_ports_get(const std::string &text, uint32_t direction) {
    const auto expected = model_ports_get(text, direction);
    KOVA_SERVICE_CONF_PORT *list = nullptr;
    poison();
    const int rc = KOVAServiceConfPortsGet(text.c_str(), direction, &list);
    if (!expected) {
        FUZZ_CHECKF(rc == -1, "\"%s\" accepted, the syntax refuses it", text.c_str());
        FUZZ_CHECK(list == nullptr);
        FUZZ_CHECKF(KVLIBCErrGet() == KOVA_ERR_BAD_PARAMETER, "\"%s\" refused with 0x%04X", text.c_str(),
                    KVLIBCErrGet());
        return;
    }
    FUZZ_CHECKF(rc == 0 && list != nullptr, "\"%s\" refused with 0x%04X", text.c_str(), KVLIBCErrGet());
    const std::vector<Port> got = to_vector(list);
    FUZZ_CHECKF(got == *expected, "\"%s\" gave %s, expected %s", text.c_str(), describe(got).c_str(),
                describe(*expected).c_str());
    check_render_round_trip(list);

    // A second list through the same out-pointer is refused and the first stays as it was.
    KOVA_SERVICE_CONF_PORT *const held = list;
    poison();
    FUZZ_CHECK(KOVAServiceConfPortsGet(text.c_str(), direction, &list) == -1);
    FUZZ_CHECK(list == held && KVLIBCErrGet() == KOVA_ERR_BAD_PARAMETER);
    FUZZ_CHECK(to_vector(list) == *expected);
    KOVAServiceConfPortsFree(list);
}

void check_protocol_parse(const std::string &text) {
    const int expected = model_protocol(text);
    // A writable copy with a guard byte behind its terminator.
    std::vector<char> buf(text.begin(), text.end());
    buf.push_back('\0');
    buf.push_back('\x5a');
    poison();
    const int rc = KVLIBServiceConfProtocolParse(buf.data());
    FUZZ_CHECKF(rc == expected, "protocol \"%s\" gave %d, expected %d", text.c_str(), rc, expected);
    FUZZ_CHECK(buf.back() == '\x5a');
    if (rc < 0) {
        FUZZ_CHECKF(KVLIBCErrGet() == KOVA_ERR_BAD_PARAMETER, "protocol \"%s\" refused with 0x%04X", text.c_str(),
                    KVLIBCErrGet());
    } else if (!text.empty() && text.find(',') == std::string::npos) {
        // A single word is left trimmed and lower-cased in the caller's buffer.
        FUZZ_CHECKF(lower(trim(text)) == buf.data(), "buffer holds \"%s\"", buf.data());
    }
}

void check_port_number(const std::string &text) {
    const int expected = model_port_check(text) ? 1 : 0;
    poison();
    const int rc = KOVAServiceConfPortsCheck(text.c_str());
    FUZZ_CHECKF(rc == expected, "port \"%s\" gave %d, expected %d", text.c_str(), rc, expected);
    if (rc == 0) FUZZ_CHECK(KVLIBCErrGet() == KOVA_ERR_BAD_PARAMETER);
    if (rc == 1) FUZZ_CHECK(KVLIBCErrGet() == kPoison);
}

// ---- port range sets -----------------------------------------------------------------------

using Model = std::vector<Span>;  // sorted, disjoint, not touching

// The text an export gives; also how a model is shown.
std::string model_export(const Model &m) {
    std::string out;
    for (const Span &s : m) {
        if (!out.empty()) out += ',';
        out += std::to_string(static_cast<int32_t>(s.b));
        if (s.b != s.e) out.append(":").append(std::to_string(static_cast<int32_t>(s.e)));
    }
    return out;
}

Model unite(const Model &x, const Model &y) {
    std::vector<Span> all(x);
    all.insert(all.end(), y.begin(), y.end());
    return normalize_spans(all);
}

Model intersect(const Model &x, const Model &y) {
    std::vector<Span> out;
    for (size_t i = 0, j = 0; i < x.size() && j < y.size();) {
        const uint64_t lo = std::max(x[i].b, y[j].b);
        const uint64_t hi = std::min(x[i].e, y[j].e);
        if (lo <= hi) out.push_back({lo, hi});
        if (x[i].e < y[j].e)
            ++i;
        else
            ++j;
    }
    return normalize_spans(out);
}

// The shape every set has after every operation; returns its ranges.
Model check_set(const KVLIB_PORT_RANGE *set, const char *what) {
    Model out;
    int32_t nodes = 0;
    for (const KOVA_SERVICE_CONF_PORT *n = set->head; n != nullptr; n = n->next) {
        ++nodes;
        FUZZ_CHECKF(nodes <= set->count, "%s: more nodes than its count %d", what, set->count);
        FUZZ_CHECKF(n->beginPort <= n->endPort, "%s: node %u-%u backwards", what, n->beginPort, n->endPort);
        FUZZ_CHECKF(n->type == (n->beginPort != n->endPort ? 1u : 0u), "%s: node %u-%u has type %u", what, n->beginPort,
                    n->endPort, n->type);
        FUZZ_CHECKF(n->direction == 0 && n->protocol == 0, "%s: node %u-%u has direction %u protocol %u", what,
                    n->beginPort, n->endPort, n->direction, n->protocol);
        if (!out.empty())
            FUZZ_CHECKF(out.back().e + 1 < n->beginPort, "%s: %s then %u-%u not merged", what,
                        model_export(out).c_str(), n->beginPort, n->endPort);
        out.push_back({n->beginPort, n->endPort});
    }
    FUZZ_CHECKF(nodes == set->count, "%s: %d nodes, count %d", what, nodes, set->count);
    return out;
}

uint32_t to_port(const std::string &text) {
    return static_cast<uint32_t>(std::strtol(text.c_str(), nullptr, 10));
}

// What importing the text adds; `open` is set when an item is written backwards.
Model model_import(const std::string &text, bool &open) {
    std::vector<Span> spans;
    for (const std::string &raw : split_all(text, ',')) {
        const std::string item = trim(raw);
        const size_t colon = item.find(':');
        uint32_t b = to_port(item.substr(0, colon));
        uint32_t e = colon == std::string::npos ? b : to_port(item.substr(colon + 1));
        if (e < b) {
            open = true;
            std::swap(b, e);
        }
        spans.push_back({b, e});
    }
    return normalize_spans(spans);
}

struct Set {
    KVLIB_PORT_RANGE *set = nullptr;
    Model model;
    const char *name;

    explicit Set(const char *n) : set(KVLIBPortRangeCreate()), name(n) { FUZZ_CHECK(set != nullptr); }
    ~Set() { KVLIBPortRangeDestory(set); }
    Set(const Set &) = delete;
    Set &operator=(const Set &) = delete;

    // Checks the shape; compares with the model unless the outcome is open, then adopts the set.
    void verify(bool open, const std::string &op) {
        const Model got = check_set(set, name);
        if (open) {
            model = got;
            return;
        }
        FUZZ_CHECKF(got == model, "%s after \"%s\": %s, expected %s", name, op.c_str(), model_export(got).c_str(),
                    model_export(model).c_str());
    }

    void import(const std::string &text, const std::string &op) {
        bool open = false;
        const Model added = model_import(text, open);
        FUZZ_CHECKF(KVLIBPortRangeImport(set, text.c_str()) == 0, "import \"%s\" failed", text.c_str());
        model = unite(model, added);
        verify(open, op);
    }

    // Export, and import the text into a new set: the same ranges.
    void round_trip() {
        char *text = KVLIBPortRangeExport(set);
        if (model.empty()) {
            FUZZ_CHECKF(text == nullptr, "empty %s exported \"%s\"", name, text);
            return;
        }
        FUZZ_CHECKF(text != nullptr, "%s %s exported nothing", name, model_export(model).c_str());
        const std::string exported(text);
        KVLIBCStrPut(text);
        FUZZ_CHECKF(exported == model_export(model), "%s exported \"%s\", expected \"%s\"", name, exported.c_str(),
                    model_export(model).c_str());
        Set again("re-import");
        FUZZ_CHECK(KVLIBPortRangeImport(again.set, exported.c_str()) == 0);
        const Model back = check_set(again.set, "re-import");
        FUZZ_CHECKF(back == model, "\"%s\" imported as %s, expected %s", exported.c_str(), model_export(back).c_str(),
                    model_export(model).c_str());
    }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size > 4096) return 0;
    const std::string text = c_text(data, size);
    check_ports_get(text, static_cast<uint32_t>(size & 1));
    check_protocol_parse(text);
    check_port_number(text);

    // The same text after the first "/" as a protocol part, and every item as a port number.
    if (const size_t slash = text.find('/'); slash != std::string::npos) check_protocol_parse(text.substr(slash + 1));
    for (const std::string &item : split_all(text.substr(0, text.find('/')), ',')) {
        check_port_number(item);
        if (const size_t colon = item.find(':'); colon != std::string::npos) {
            check_port_number(item.substr(0, colon));
            check_port_number(item.substr(colon + 1));
        }
    }

    // A direction above 1 is refused before anything is allocated.
    KOVA_SERVICE_CONF_PORT *list = nullptr;
    poison();
    FUZZ_CHECK(KOVAServiceConfPortsGet(text.c_str(), 2, &list) == -1 && list == nullptr);
    FUZZ_CHECK(KVLIBCErrGet() == KOVA_ERR_BAD_PARAMETER);

    std::vector<std::string> lines = split_all(text, '\n');
    lines.resize(std::max<size_t>(lines.size(), 3));
    Set a("A");
    Set b("B");
    Set c("C");
    a.import(lines[0], "import line 1");
    b.import(lines[1], "import line 2");
    c.import(lines[2], "import line 3");
    for (Set *x : {&a, &b, &c}) x->round_trip();

    FUZZ_CHECK(KVLIBPortRangeOverlap(a.set, b.set, c.set) == 0);
    c.model = unite(c.model, intersect(a.model, b.model));
    c.verify(false, "overlap A B into C");
    FUZZ_CHECK(KVLIBPortRangeJoin(a.set, b.set) == 0);
    a.model = unite(a.model, b.model);
    a.verify(false, "join B into A");
    b.verify(false, "join B into A");
    for (Set *x : {&a, &b, &c}) x->round_trip();
    return 0;
}
