// Port range sets from outside texts: line 1 is imported into set A, line 2 into set B, line 3
// into set C. Then C gets the overlap of A and B, and A the join of B; each set is exported and
// the text imported again. After every step each set must be sorted, merged (no two nodes
// overlap or touch), counted right, and equal to an interval model of its own. Where the
// family leaves the outcome open (ranges written backwards) only the shape is checked and the
// model follows the set.
#include <kovaserviceconf.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

#include "fuzz_support.h"

namespace {

using namespace kova::fuzz;

using Model = std::vector<Span>;  // sorted, disjoint, not touching

std::string show(const Model &m) {
    std::string out;
    for (const Span &s : m) out += "[" + std::to_string(s.b) + "," + std::to_string(s.e) + "]";
    return out.empty() ? "{}" : out;
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
            FUZZ_CHECKF(out.back().e + 1 < n->beginPort, "%s: %s then %u-%u not merged", what, show(out).c_str(),
                        n->beginPort, n->endPort);
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

std::string model_export(const Model &m) {
    std::string out;
    for (const Span &s : m) {
        if (!out.empty()) out += ',';
        out += std::to_string(static_cast<int32_t>(s.b));
        if (s.b != s.e) out += ":" + std::to_string(static_cast<int32_t>(s.e));
    }
    return out;
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
        FUZZ_CHECKF(got == model, "%s after \"%s\": %s, expected %s", name, op.c_str(), show(got).c_str(),
                    show(model).c_str());
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
        FUZZ_CHECKF(text != nullptr, "%s %s exported nothing", name, show(model).c_str());
        const std::string exported(text);
        KVLIBCStrPut(text);
        FUZZ_CHECKF(exported == model_export(model), "%s exported \"%s\", expected \"%s\"", name, exported.c_str(),
                    model_export(model).c_str());
        Set again("re-import");
        FUZZ_CHECK(KVLIBPortRangeImport(again.set, exported.c_str()) == 0);
        const Model back = check_set(again.set, "re-import");
        FUZZ_CHECKF(back == model, "\"%s\" imported as %s, expected %s", exported.c_str(), show(back).c_str(),
                    show(model).c_str());
    }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size > 16384) return 0;
    std::vector<std::string> lines = split_all(c_text(data, size), '\n');
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
