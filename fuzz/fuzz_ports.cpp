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
#include <cstdlib>
#include <memory>

#include "fuzz_support.h"

namespace {

using namespace kova::fuzz;

// Renders a parsed list with KVLIBServiceConfPortsToStr (exact texts, exact buffer sizes) and
// parses the rendering again: the same entries, in reverse order, ranges written low to high.
void check_render_round_trip(const KOVA_SERVICE_CONF_PORT *list) {
    std::vector<Port> expected = to_vector(list);
    std::string ports;
    for (Port &p : expected) {
        if (p.type == 1 && p.begin > p.end) std::swap(p.begin, p.end);
        if (!ports.empty()) ports += ',';
        ports += std::to_string(p.begin);
        if (p.type == 1) ports.append(":").append(std::to_string(p.end));
    }
    const uint32_t proto = expected.front().protocol;
    const std::string protocol = proto == KOVA_PROTO_BOTH ? "tcp,udp" : proto == KOVA_PROTO_TCP ? "tcp" : "udp";

    // Exactly sized heap buffers, so that a sanitizer sees a write past their end.
    std::vector<char> pbuf(ports.size() + 1, '\x7f'), qbuf(protocol.size() + 1, '\x7f');
    const auto text_of = [](const std::vector<char> &b) { return std::string(b.begin(), b.end()); };
    const auto render = [&](size_t psize) {
        return KVLIBServiceConfPortsToStr(list, pbuf.data(), static_cast<int>(psize), qbuf.data(),
                                          static_cast<int>(qbuf.size()));
    };
    // One byte short: refused with 0xBF00, neither buffer written.
    FUZZ_CHECKF(render(ports.size()) == -1 && KVLIBCErrGet() == KOVA_ERR_BUFFER_TOO_SMALL &&
                    (text_of(pbuf) + text_of(qbuf)).find_first_not_of('\x7f') == std::string::npos,
                "short buffer: 0x%04X", KVLIBCErrGet());
    // Exactly large enough: both texts written.
    FUZZ_CHECKF(render(pbuf.size()) == 0 && text_of(pbuf) == ports + '\0' && text_of(qbuf) == protocol + '\0',
                "rendered \"%s\" \"%s\", expected \"%s\" \"%s\"", text_of(pbuf).c_str(), text_of(qbuf).c_str(),
                ports.c_str(), protocol.c_str());

    const std::string text = ports + "/" + protocol;
    KOVA_SERVICE_CONF_PORT *again = nullptr;
    FUZZ_CHECKF(KOVAServiceConfPortsGet(text.c_str(), expected.front().direction, &again) == 0, "\"%s\" refused",
                text.c_str());
    const std::vector<Port> back = to_vector(again);
    KOVAServiceConfPortsFree(again);
    std::reverse(expected.begin(), expected.end());
    FUZZ_CHECKF(back == expected, "\"%s\" parsed to %s, expected %s", text.c_str(), describe(back).c_str(),
                describe(expected).c_str());
}

void check_ports_get(const std::string &text, uint32_t direction) {
    const auto expected = model_ports_get(text, direction);
    KOVA_SERVICE_CONF_PORT *list = nullptr;
    poison();
    const int rc = KOVAServiceConfPortsGet(text.c_str(), direction, &list);
    const std::vector<Port> got = to_vector(list);
    FUZZ_CHECKF(expected ? rc == 0 && got == *expected : rc == -1 && list == nullptr, "\"%s\" gave %d %s, model %s",
                text.c_str(), rc, describe(got).c_str(), expected ? describe(*expected).c_str() : "refuses");
    FUZZ_CHECKF(rc == 0 || KVLIBCErrGet() == KOVA_ERR_BAD_PARAMETER, "refused with 0x%04X", KVLIBCErrGet());
    if (rc != 0) return;
    check_render_round_trip(list);

    // A second list through the same out-pointer is refused and the first stays as it was.
    KOVA_SERVICE_CONF_PORT *const held = list;
    poison();
    FUZZ_CHECK(KOVAServiceConfPortsGet(text.c_str(), direction, &list) == -1 && list == held &&
               KVLIBCErrGet() == KOVA_ERR_BAD_PARAMETER && to_vector(list) == *expected);
    KOVAServiceConfPortsFree(list);
}

void check_protocol_parse(const std::string &text) {
    const int expected = model_protocol(text);
    std::vector<char> buf(text.begin(), text.end());  // a writable copy with a guard byte behind its end
    buf.insert(buf.end(), {'\0', '\x5a'});
    poison();
    const int rc = KVLIBServiceConfProtocolParse(buf.data());
    FUZZ_CHECKF(rc == expected && buf.back() == '\x5a', "protocol \"%s\" gave %d, expected %d", text.c_str(), rc,
                expected);
    FUZZ_CHECKF(rc >= 0 || KVLIBCErrGet() == KOVA_ERR_BAD_PARAMETER, "refused with 0x%04X", KVLIBCErrGet());
    // A single word is left trimmed and lower-cased in the caller's buffer.
    if (rc > 0 && !text.empty() && text.find(',') == std::string::npos)
        FUZZ_CHECKF(lower(trim(text)) == buf.data(), "buffer holds \"%s\"", buf.data());
}

void check_port_number(const std::string &text) {
    const int expected = model_port_check(text) ? 1 : 0;
    poison();
    const int rc = KOVAServiceConfPortsCheck(text.c_str());
    FUZZ_CHECKF(rc == expected && KVLIBCErrGet() == (rc == 1 ? kPoison : KOVA_ERR_BAD_PARAMETER),
                "port \"%s\" gave %d (0x%04X), expected %d", text.c_str(), rc, KVLIBCErrGet(), expected);
}

using Model = std::vector<Span>;  // sorted, disjoint, not touching

// The text an export gives; also how a model is shown.
std::string model_export(const Model &m) {
    std::string out;
    for (const Span &s : m)
        out += format("%s%d", out.empty() ? "" : ",", static_cast<int32_t>(s.b)) +
               (s.b != s.e ? format(":%d", static_cast<int32_t>(s.e)) : "");
    return out;
}

Model unite(Model x, const Model &y) {
    x.insert(x.end(), y.begin(), y.end());
    return normalize_spans(x);
}

Model intersect(const Model &x, const Model &y) {
    Model out;
    for (size_t i = 0, j = 0; i < x.size() && j < y.size(); x[i].e < y[j].e ? ++i : ++j) {
        const uint64_t lo = std::max(x[i].b, y[j].b), hi = std::min(x[i].e, y[j].e);
        if (lo <= hi) out.push_back({lo, hi});
    }
    return normalize_spans(out);
}

// The shape every set has after every operation; returns its ranges.
Model check_set(const KVLIB_PORT_RANGE *set, const char *what) {
    Model out;
    int32_t nodes = 0;
    for (const KOVA_SERVICE_CONF_PORT *n = set->head; n != nullptr && ++nodes <= set->count; n = n->next) {
        FUZZ_CHECKF(n->beginPort <= n->endPort && n->type == (n->beginPort != n->endPort ? 1u : 0u) &&
                        n->direction == 0 && n->protocol == 0,
                    "%s: node %u-%u type %u direction %u protocol %u", what, n->beginPort, n->endPort, n->type,
                    n->direction, n->protocol);
        FUZZ_CHECKF(out.empty() || out.back().e + 1 < n->beginPort, "%s: %s then %u-%u not merged", what,
                    model_export(out).c_str(), n->beginPort, n->endPort);
        out.push_back({n->beginPort, n->endPort});
    }
    FUZZ_CHECKF(nodes == set->count, "%s: %d or more nodes, count %d", what, nodes, set->count);
    return out;
}

// What importing the text adds; `open` is set when an item is written backwards.
Model model_import(const std::string &text, bool &open) {
    Model spans;
    for (const std::string &item : split_all(text, ',', true)) {
        const size_t colon = item.find(':');
        const auto b = static_cast<uint32_t>(std::strtol(item.c_str(), nullptr, 10));
        const auto e =
            colon == std::string::npos ? b : static_cast<uint32_t>(std::strtol(&item[colon + 1], nullptr, 10));
        open = open || e < b;
        spans.push_back({std::min(b, e), std::max(b, e)});
    }
    return normalize_spans(spans);
}

struct Set {
    const char *name;
    std::unique_ptr<KVLIB_PORT_RANGE, void (*)(KVLIB_PORT_RANGE *)> set{KVLIBPortRangeCreate(), KVLIBPortRangeDestory};
    Model model;
    explicit Set(const char *n) : name(n) {}

    // Checks the shape; compares with the model unless the outcome is open, then adopts the set.
    void verify(bool open, const std::string &op) {
        FUZZ_CHECK(set != nullptr);
        const Model got = check_set(set.get(), name);
        FUZZ_CHECKF(open || got == model, "%s after \"%s\": %s, expected %s", name, op.c_str(),
                    model_export(got).c_str(), model_export(model).c_str());
        model = got;
    }

    void import(const std::string &text) {
        bool open = false;
        model = unite(model, model_import(text, open));
        FUZZ_CHECKF(KVLIBPortRangeImport(set.get(), text.c_str()) == 0, "import \"%s\" failed", text.c_str());
        verify(open, "import " + text);
    }

    // Export, and import the text into a new set: the same ranges.
    void round_trip() {
        char *text = KVLIBPortRangeExport(set.get());
        const std::string exported = text != nullptr ? text : "(null)";
        if (text != nullptr) KVLIBCStrPut(text);
        FUZZ_CHECKF(model.empty() ? text == nullptr : exported == model_export(model),
                    "%s exported \"%s\", expected \"%s\"", name, exported.c_str(), model_export(model).c_str());
        if (model.empty()) return;
        Set again("re-import");
        again.model = model;
        FUZZ_CHECK(KVLIBPortRangeImport(again.set.get(), exported.c_str()) == 0);
        again.verify(false, "import " + exported);
    }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size > 4096) return 0;
    const std::string text(reinterpret_cast<const char *>(data),
                           size == 0 ? 0 : strnlen(reinterpret_cast<const char *>(data), size));
    check_ports_get(text, static_cast<uint32_t>(size & 1));
    check_protocol_parse(text);
    check_port_number(text);

    // The same text after the first "/" as a protocol part, and every piece between "," and ":" as a port number.
    if (const size_t slash = text.find('/'); slash != std::string::npos) check_protocol_parse(text.substr(slash + 1));
    for (const std::string &item : split_all(text.substr(0, text.find('/')), ','))
        for (const std::string &half : split_all(item, ':')) check_port_number(half);

    // A direction above 1 is refused before anything is allocated.
    KOVA_SERVICE_CONF_PORT *list = nullptr;
    poison();
    FUZZ_CHECK(KOVAServiceConfPortsGet(text.c_str(), 2, &list) == -1 && list == nullptr &&
               KVLIBCErrGet() == KOVA_ERR_BAD_PARAMETER);

    std::vector<std::string> lines = split_all(text, '\n');
    lines.resize(std::max<size_t>(lines.size(), 3));
    Set a("A"), b("B"), c("C");
    a.import(lines[0]);
    b.import(lines[1]);
    c.import(lines[2]);
    for (Set *x : {&a, &b, &c}) x->round_trip();

    FUZZ_CHECK(KVLIBPortRangeOverlap(a.set.get(), b.set.get(), c.set.get()) == 0);
    c.model = unite(c.model, intersect(a.model, b.model));
    c.verify(false, "overlap A B into C");
    FUZZ_CHECK(KVLIBPortRangeJoin(a.set.get(), b.set.get()) == 0);
    a.model = unite(a.model, b.model);
    a.verify(false, "join B into A");
    b.verify(false, "join B into A");
    for (Set *x : {&a, &b, &c}) x->round_trip();
    return 0;
}
