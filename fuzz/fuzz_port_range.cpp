// Port range sets driven by a small program:
//
//   line 1        text imported into set A
//   line 2        text imported into set B
//   then, one per line:
//     a T B E     add the entry (type T, ports B and E) to A
//     r B E       remove the range B..E from A (R T B E: with type T)
//     i TEXT      import TEXT into A
//     j           join B into A             J   join A into B
//     o TEXT      C = import TEXT; overlap A and B into C; C becomes A
//     s           swap A and B              c   empty A
//     x           export A, import the text into a new set, compare
//
// After every operation both sets must be sorted, merged (no two nodes overlap or touch),
// counted right, and equal to an interval model. Where the family leaves the outcome open
// (ranges written backwards) only the shape is checked and the model follows the set.
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

struct Span {
    uint64_t b, e;
    bool operator==(const Span &) const = default;
};
using Model = std::vector<Span>;  // sorted, disjoint, not touching

std::string show(const Model &m) {
    std::string out;
    for (const Span &s : m) out += "[" + std::to_string(s.b) + "," + std::to_string(s.e) + "]";
    return out.empty() ? "{}" : out;
}

Model normalize(std::vector<Span> spans) {
    std::sort(spans.begin(), spans.end(), [](const Span &x, const Span &y) { return x.b < y.b; });
    Model out;
    for (const Span &s : spans) {
        if (!out.empty() && s.b <= out.back().e + 1)
            out.back().e = std::max(out.back().e, s.e);
        else
            out.push_back(s);
    }
    return out;
}

Model unite(const Model &x, const Model &y) {
    std::vector<Span> all(x);
    all.insert(all.end(), y.begin(), y.end());
    return normalize(all);
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
    return normalize(out);
}

Model subtract(const Model &x, uint64_t b, uint64_t e) {
    Model out;
    for (const Span &s : x) {
        if (s.e < b || s.b > e) {
            out.push_back(s);
            continue;
        }
        if (s.b < b) out.push_back({s.b, b - 1});
        if (s.e > e) out.push_back({e + 1, s.e});
    }
    return out;
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
    return normalize(spans);
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

std::vector<std::string> words(const std::string &line) {
    std::vector<std::string> out;
    size_t pos = 0;
    while (pos < line.size()) {
        while (pos < line.size() && line[pos] == ' ') ++pos;
        const size_t end = line.find(' ', pos);
        if (pos < line.size()) out.push_back(line.substr(pos, end - pos));
        pos = end == std::string::npos ? line.size() : end;
    }
    return out;
}

uint32_t number(const std::vector<std::string> &w, size_t i) {
    return i < w.size() ? static_cast<uint32_t>(std::strtoull(w[i].c_str(), nullptr, 10)) : 0;
}

void add(Set &a, uint32_t type, uint32_t begin, uint32_t end, const std::string &op) {
    KOVA_SERVICE_CONF_PORT entry{};
    entry.direction = 1;
    entry.protocol = 3;
    entry.type = type;
    entry.beginPort = begin;
    entry.endPort = end;
    FUZZ_CHECK(KVLIBPortRangeAdd(a.set, &entry) == 0);
    if (type == 0) {
        FUZZ_CHECKF(entry.endPort == begin, "single entry %u left end %u", begin, entry.endPort);
        end = begin;
    }
    FUZZ_CHECK(entry.type == type && entry.beginPort == begin && entry.direction == 1 && entry.protocol == 3);
    const bool open = end < begin;
    if (!open) a.model = unite(a.model, Model{{begin, end}});
    a.verify(open, op);
}

void remove(Set &a, uint32_t type, uint32_t begin, uint32_t end, const std::string &op) {
    KOVA_SERVICE_CONF_PORT entry{};
    entry.type = type;
    entry.beginPort = begin;
    entry.endPort = end;
    const int rc = KVLIBPortRangeRemove(a.set, &entry);
    FUZZ_CHECK(entry.beginPort == begin && entry.endPort == end);
    if (end < begin) {  // open: any result, the set stays well-formed
        FUZZ_CHECK(rc == 0 || rc == -1);
        a.verify(true, op);
        return;
    }
    const bool found = !a.model.empty() && a.model.back().e >= begin;
    FUZZ_CHECKF(rc == (found ? 0 : -1), "remove %u-%u from %s gave %d", begin, end, show(a.model).c_str(), rc);
    if (found) a.model = subtract(a.model, begin, end);
    a.verify(false, op);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size > 16384) return 0;
    const std::vector<std::string> lines = split_all(c_text(data, size), '\n');
    Set a("A");
    Set b("B");
    a.import(lines[0], "import line 1");
    if (lines.size() > 1) b.import(lines[1], "import line 2");
    a.round_trip();
    b.round_trip();

    Set *x = &a;
    Set *y = &b;
    for (size_t i = 2; i < lines.size() && i < 258; ++i) {
        const std::string &op = lines[i];
        if (op.empty()) continue;
        const std::vector<std::string> w = words(op);
        const std::string rest = op.size() > 2 ? op.substr(2) : "";
        switch (op[0]) {
            case 'a':
                add(*x, number(w, 1), number(w, 2), number(w, 3), op);
                break;
            case 'r':
                remove(*x, number(w, 1) != number(w, 2) ? 1 : 0, number(w, 1), number(w, 2), op);
                break;
            case 'R':
                remove(*x, number(w, 1), number(w, 2), number(w, 3), op);
                break;
            case 'i':
                x->import(rest, op);
                break;
            case 'j':
                FUZZ_CHECK(KVLIBPortRangeJoin(x->set, y->set) == 0);
                x->model = unite(x->model, y->model);
                x->verify(false, op);
                y->verify(false, op);
                break;
            case 'J':
                FUZZ_CHECK(KVLIBPortRangeJoin(y->set, x->set) == 0);
                y->model = unite(y->model, x->model);
                x->verify(false, op);
                y->verify(false, op);
                break;
            case 'o': {
                Set c("C");
                c.import(rest, op);
                FUZZ_CHECK(KVLIBPortRangeOverlap(x->set, y->set, c.set) == 0);
                c.model = unite(c.model, intersect(x->model, y->model));
                c.verify(false, op);
                x->verify(false, op);
                y->verify(false, op);
                std::swap(x->set, c.set);
                std::swap(x->model, c.model);
                break;
            }
            case 's':
                std::swap(x, y);
                break;
            case 'c':
                KVLIBPortRangeDestory(x->set);
                x->set = KVLIBPortRangeCreate();
                FUZZ_CHECK(x->set != nullptr);
                x->model.clear();
                break;
            case 'x':
                x->round_trip();
                break;
            default:
                break;
        }
    }
    a.round_trip();
    b.round_trip();
    return 0;
}
