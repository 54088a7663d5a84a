// Port range sets: adding and removing entries compared with a bitset model under the set
// invariant, and the failure lines and edge cases. Import, export, overlap and join texts are the
// port range fuzz harness's model and seeds.
#include <bitset>
#include <random>

#include "foundation/raii.h"
#include "kova_test.h"

namespace kova::test {
namespace {

using Ranges = std::vector<std::pair<uint32_t, uint32_t>>;

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

// Random additions and removals against a bitset model, with ranges, backwards ranges and single
// entries [p, 0].
TEST_F(PortRangeTest, AddAndRemoveMatchAModel) {
    constexpr uint32_t kPorts = 160;
    using Model = std::bitset<kPorts>;
    auto span = [](uint32_t b, uint32_t e) { return (~Model() >> (kPorts - 1 - e + b)) << b; };
    auto model_of = [&](const KVLIB_PORT_RANGE *s) {
        Model m;
        for (auto [b, e] : ranges_of(s)) m |= span(b, e);
        return m;
    };
    std::mt19937 rng(12345);
    for (int round = 0; round < 4000; ++round) {
        SCOPED_TRACE(round);
        Ranges start;
        for (int i = rng() % 6; i > 0; --i) {
            const uint32_t b = rng() % kPorts;
            start.emplace_back(b, std::min<uint32_t>(kPorts - 1, b + rng() % 12));
        }
        PortRangePtr a = make_set(start);
        const Model before = model_of(a.get());
        const uint32_t b = rng() % kPorts, e = std::min<uint32_t>(kPorts - 1, b + rng() % 20), form = rng() % 3;
        KOVA_SERVICE_CONF_PORT x = form == 0 ? entry(b, e) : form == 1 ? entry(e, b) : entry(b, 0, 0);
        const Model ports = form == 2 ? span(b, b) : span(b, e);
        if (rng() % 2 == 0) {
            ASSERT_EQ(KVLIBPortRangeAdd(a.get(), &x), 0);
            EXPECT_EQ(model_of(a.get()), before | ports);
            EXPECT_EQ(x.endPort, form == 0 ? e : b);  // only a single entry is completed
        } else {
            const bool found = (before >> b).any();  // some node ends at or after the first port
            EXPECT_EQ(KVLIBPortRangeRemove(a.get(), &x), found ? 0 : -1);
            EXPECT_EQ(model_of(a.get()), found ? (before & ~ports) : before);
        }
        ASSERT_TRUE(WellFormed(a.get()));
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
}

}  // namespace
}  // namespace kova::test
