// Port range sets: a randomized comparison with a bitset model under the set invariant, and the
// exact texts, failure lines and edge cases that the model does not reach.
#include <kovaserviceconf.h>

#include <bitset>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "foundation/raii.h"
#include "kova_test.h"

namespace kova::test {
namespace {

using Ranges = std::vector<std::pair<uint32_t, uint32_t>>;
using Lines = std::vector<std::string>;

const auto entry = [](uint32_t b, uint32_t e, uint32_t type = 1) {
    return KOVA_SERVICE_CONF_PORT{0, type, 0, b, e, nullptr};
};

PortRangePtr make_set(const Ranges &ranges = {}) {
    PortRangePtr set(KVLIBPortRangeCreate());
    for (auto [b, e] : ranges) {
        KOVA_SERVICE_CONF_PORT x = entry(b, e);
        EXPECT_EQ(KVLIBPortRangeAdd(set.get(), &x), 0);
    }
    return set;
}

Ranges ranges_of(const KVLIB_PORT_RANGE *set) {
    Ranges out;
    for (auto *n = set->head; n != nullptr; n = n->next) out.emplace_back(n->beginPort, n->endPort);
    return out;
}

std::string exported(const KVLIB_PORT_RANGE *set) {
    KvStrPtr text(KVLIBPortRangeExport(set));
    return text != nullptr ? text.get() : "";
}

// Sorted, neither overlapping nor touching, `count` matching, nodes in the set's own form.
::testing::AssertionResult WellFormed(const KVLIB_PORT_RANGE *set) {
    int32_t nodes = 0;
    for (const KOVA_SERVICE_CONF_PORT *n = set->head, *prev = nullptr; n != nullptr; prev = n, n = n->next, ++nodes) {
        if (n->beginPort > n->endPort || n->type != (n->beginPort != n->endPort ? 1u : 0u) || n->direction != 0 ||
            n->protocol != 0 || (prev != nullptr && uint64_t{prev->endPort} + 1 >= n->beginPort) || nodes > 100000)
            return ::testing::AssertionFailure()
                   << "bad node " << nodes << ": [" << n->beginPort << "," << n->endPort << "] type " << n->type;
    }
    if (nodes != set->count) return ::testing::AssertionFailure() << "count " << set->count << ", nodes " << nodes;
    return ::testing::AssertionSuccess();
}

class PortRangeTest : public RootTest {
protected:
    void SetUp() override {
        RootTest::SetUp();
        poison_error();
    }
    void TearDown() override {  // the family reports through the log only
        EXPECT_EQ(KVLIBCErrGet(), 0xEEEEu) << "the error state was touched";
        RootTest::TearDown();
    }
};

// Random operations against a bitset model, with ranges, backwards ranges and single entries [p, 0].
TEST_F(PortRangeTest, RandomOperationsMatchAModel) {
    constexpr uint32_t kPorts = 160;
    using Model = std::bitset<kPorts>;
    auto span = [](uint32_t b, uint32_t e) { return (~Model() >> (kPorts - 1 - e + b)) << b; };
    auto model_of = [&](const KVLIB_PORT_RANGE *s) {
        Model m;
        for (auto [b, e] : ranges_of(s)) m |= span(b, e);
        return m;
    };
    std::mt19937 rng(12345);
    auto random_ranges = [&](int most) {
        Ranges out;
        for (int i = rng() % (most + 1); i > 0; --i) {
            const uint32_t b = rng() % kPorts;
            out.emplace_back(b, std::min<uint32_t>(kPorts - 1, b + rng() % 12));
        }
        return out;
    };
    for (int round = 0; round < 4000; ++round) {
        SCOPED_TRACE(round);
        PortRangePtr a = make_set(random_ranges(5));
        const Model before = model_of(a.get());
        const uint32_t b = rng() % kPorts, e = std::min<uint32_t>(kPorts - 1, b + rng() % 20), form = rng() % 3;
        KOVA_SERVICE_CONF_PORT x = form == 0 ? entry(b, e) : form == 1 ? entry(e, b) : entry(b, 0, 0);
        const Model ports = form == 2 ? span(b, b) : span(b, e);
        switch (rng() % 4) {
            case 0:
                ASSERT_EQ(KVLIBPortRangeAdd(a.get(), &x), 0);
                EXPECT_EQ(model_of(a.get()), before | ports);
                EXPECT_EQ(x.endPort, form == 0 ? e : b);  // only a single entry is completed
                break;
            case 1: {
                const bool found = (before >> b).any();  // some node ends at or after the first port
                EXPECT_EQ(KVLIBPortRangeRemove(a.get(), &x), found ? 0 : -1);
                EXPECT_EQ(model_of(a.get()), found ? (before & ~ports) : before);
                break;
            }
            case 2: {  // overlap into a third set, then join
                PortRangePtr other = make_set(random_ranges(5)), target = make_set(random_ranges(3));
                const Model theirs = model_of(other.get()), held = model_of(target.get());
                ASSERT_EQ(KVLIBPortRangeOverlap(a.get(), other.get(), target.get()), 0);
                EXPECT_EQ(model_of(target.get()), held | (before & theirs));
                EXPECT_TRUE(WellFormed(target.get()));
                ASSERT_EQ(KVLIBPortRangeJoin(a.get(), other.get()), 0);
                EXPECT_EQ(model_of(a.get()), before | theirs);
                EXPECT_EQ(model_of(other.get()), theirs);  // the source keeps its nodes
                break;
            }
            default: {  // an unsorted text, ranges written either way round
                std::string text = std::to_string(b);
                Model want = before | span(b, b);
                for (auto [rb, re] : random_ranges(8)) {
                    text += "," + (rng() % 2 ? std::to_string(re) + ":" + std::to_string(rb)
                                             : std::to_string(rb) + ":" + std::to_string(re));
                    want |= span(rb, re);
                }
                ASSERT_EQ(KVLIBPortRangeImport(a.get(), text.c_str()), 0) << text;
                EXPECT_EQ(model_of(a.get()), want) << text;
            }
        }
        ASSERT_TRUE(WellFormed(a.get()));
        PortRangePtr again = make_set();  // export, then import: the same set
        ASSERT_EQ(a->head == nullptr ? 0 : KVLIBPortRangeImport(again.get(), exported(a.get()).c_str()), 0);
        ASSERT_EQ(ranges_of(again.get()), ranges_of(a.get()));
    }
}

TEST_F(PortRangeTest, EdgesTextsAndFailureLines) {
    PortRangePtr set = make_set({{0xFFFFFFF0u, 0xFFFFFFFFu}, {0xFFFFFFE0u, 0xFFFFFFEFu}, {10, 20}});
    KOVA_SERVICE_CONF_PORT top = entry(0xFFFFFFFFu, 0xFFFFFFFFu), bad{};
    ASSERT_EQ(KVLIBPortRangeRemove(set.get(), &top), 0);
    EXPECT_EQ(exported(set.get()), "10:20,-32:-2");  // ports are written as "%d" writes them
    EXPECT_TRUE(log().empty());
    EXPECT_EQ(KVLIBPortRangeRemove(set.get(), &top), -1);
    PortRangePtr empty = make_set();
    EXPECT_EQ(KVLIBPortRangeRemove(empty.get(), &top), -1);
    EXPECT_EQ(KVLIBPortRangeExport(empty.get()), nullptr);  // no line
    const std::string remove = "service_port_range_remove.cpp:N ";
    EXPECT_EQ(log_normalized(), (Lines{remove + "Can't find entry to remove in the list", remove + "Bad parameters."}));
    // Null arguments, each logged by its own module.
    clear_log();
    for (int rc :
         {KVLIBPortRangeAdd(nullptr, &bad), KVLIBPortRangeAdd(set.get(), nullptr), KVLIBPortRangeRemove(nullptr, &bad),
          KVLIBPortRangeRemove(set.get(), nullptr), KVLIBPortRangeImport(set.get(), nullptr),
          KVLIBPortRangeImport(nullptr, "80"), KVLIBPortRangeExport(nullptr) == nullptr ? -1 : 0,
          KVLIBPortRangeJoin(nullptr, set.get()), KVLIBPortRangeJoin(set.get(), nullptr),
          KVLIBPortRangeOverlap(set.get(), set.get(), nullptr), KVLIBPortRangeOverlap(nullptr, set.get(), set.get())})
        EXPECT_EQ(rc, -1);
    Lines want;
    for (const char *m :
         {"add", "add", "remove", "remove", "import", "import", "export", "join", "join", "overlap", "overlap"})
        want.push_back(std::string("service_port_range_") + m + ".cpp:N Bad parameters.");
    EXPECT_EQ(log_normalized(), want);
    EXPECT_EQ(exported(set.get()), "10:20,-32:-2");
    KVLIBPortRangeDestory(nullptr);
    clear_log();
    // Each text, then its export. Numbers convert as far as they go ("/", a space, no digits:
    // 0), are not checked and may come either way round.
    // clang-format off
    const char *cases[] = {
        " 80 , 443,8000:8010", "80,443,8000:8010",  "443,80,81", "80:81,443",  "8000:8010/tcp", "8000:8010",
        "abc", "0",  "80,,90", "0,80,90",  "80:", "0:80",  "+21, 22", "21:22",  "70000", "70000",  "80 443", "80",
        "90:80,22,1:1,21:23", "1,21:23,80:90",  "99999999999999999999,-99999999999999999999", "0,-1"};
    // clang-format on
    for (size_t i = 0; i < std::size(cases); i += 2) {
        PortRangePtr imported = make_set();
        ASSERT_EQ(KVLIBPortRangeImport(imported.get(), cases[i]), 0) << cases[i];
        EXPECT_EQ(exported(imported.get()), cases[i + 1]) << cases[i];
    }
    EXPECT_TRUE(log().empty());
}

}  // namespace
}  // namespace kova::test
