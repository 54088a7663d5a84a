// Port range sets: the interval algebra, its texts, its failure lines, and the invariant after
// every operation.
#include <kovaserviceconf.h>

#include <algorithm>
#include <bitset>
#include <random>
#include <string>
#include <vector>

#include "kova_test.h"
#include "range_support.h"

namespace kova::test {
namespace {

using Set = std::unique_ptr<KVLIB_PORT_RANGE, void (*)(KVLIB_PORT_RANGE *)>;

Set make_set(const Ranges &ranges = {}) {
    Set set(KVLIBPortRangeCreate(), KVLIBPortRangeDestory);
    for (auto [b, e] : ranges) {
        KOVA_SERVICE_CONF_PORT x = entry(b, e);
        EXPECT_EQ(KVLIBPortRangeAdd(set.get(), &x), 0);
    }
    return set;
}

class PortRangeTest : public RootTest {
protected:
    void SetUp() override {
        RootTest::SetUp();
        poison_error();
    }
    // The family reports through the log only.
    void TearDown() override {
        EXPECT_EQ(KVLIBCErrGet(), 0xEEEEu) << "the error state was touched";
        RootTest::TearDown();
    }
};

TEST_F(PortRangeTest, CreateIsEmptyAndDestroyAcceptsNull) {
    Set set = make_set();
    EXPECT_EQ(set->count, 0);
    EXPECT_EQ(set->head, nullptr);
    KVLIBPortRangeDestory(nullptr);
}

TEST_F(PortRangeTest, AddMergesTouchingAndOverlappingRanges) {
    Set a = make_set({{10, 20}, {21, 30}});
    EXPECT_EQ(ranges_of(a.get()), (Ranges{{10, 30}}));
    EXPECT_EQ(a->count, 1);

    Set b = make_set({{10, 20}, {22, 30}});
    EXPECT_EQ(ranges_of(b.get()), (Ranges{{10, 20}, {22, 30}}));

    Set c = make_set({{1, 3}, {7, 9}});
    KOVA_SERVICE_CONF_PORT five = entry(5, 5);
    ASSERT_EQ(KVLIBPortRangeAdd(c.get(), &five), 0);
    EXPECT_EQ(ranges_of(c.get()), (Ranges{{1, 3}, {5, 5}, {7, 9}}));
    EXPECT_TRUE(WellFormed(c.get()));
    KOVA_SERVICE_CONF_PORT all = entry(0, 100);
    ASSERT_EQ(KVLIBPortRangeAdd(c.get(), &all), 0);
    EXPECT_EQ(ranges_of(c.get()), (Ranges{{0, 100}}));
    EXPECT_EQ(c->count, 1);

    Set d = make_set({{1, 3}, {7, 9}});
    KOVA_SERVICE_CONF_PORT gap = entry(4, 6);
    ASSERT_EQ(KVLIBPortRangeAdd(d.get(), &gap), 0);
    EXPECT_EQ(ranges_of(d.get()), (Ranges{{1, 9}}));

    // Touching on the left only, inside one node, in front of everything.
    Set e = make_set({{10, 20}, {40, 50}});
    KOVA_SERVICE_CONF_PORT left = entry(21, 25), inside = entry(42, 44), front = entry(1, 2);
    ASSERT_EQ(KVLIBPortRangeAdd(e.get(), &left), 0);
    ASSERT_EQ(KVLIBPortRangeAdd(e.get(), &inside), 0);
    ASSERT_EQ(KVLIBPortRangeAdd(e.get(), &front), 0);
    EXPECT_EQ(ranges_of(e.get()), (Ranges{{1, 2}, {10, 25}, {40, 50}}));
    EXPECT_TRUE(WellFormed(e.get()));
}

TEST_F(PortRangeTest, AddCompletesSingleEntriesAndIgnoresProtocol) {
    Set set = make_set();
    KOVA_SERVICE_CONF_PORT single{};
    single.type = 0;
    single.beginPort = 80;
    single.endPort = 0;
    single.protocol = 1;
    single.direction = 1;
    ASSERT_EQ(KVLIBPortRangeAdd(set.get(), &single), 0);
    EXPECT_EQ(single.endPort, 80u);  // the caller sees the completed entry
    ASSERT_NE(set->head, nullptr);
    EXPECT_EQ(set->head->beginPort, 80u);
    EXPECT_EQ(set->head->endPort, 80u);
    EXPECT_EQ(set->head->type, 0u);
    EXPECT_EQ(set->head->protocol, 0u);
    EXPECT_EQ(set->head->direction, 0u);
    EXPECT_TRUE(WellFormed(set.get()));

    // A range entry of one port becomes a single node.
    KOVA_SERVICE_CONF_PORT one = entry(443, 443, 1);
    ASSERT_EQ(KVLIBPortRangeAdd(set.get(), &one), 0);
    EXPECT_EQ(set->head->next->type, 0u);
}

TEST_F(PortRangeTest, BackwardsAndExtremeRangesKeepTheInvariant) {
    Set set = make_set();
    KOVA_SERVICE_CONF_PORT back = entry(90, 80);
    ASSERT_EQ(KVLIBPortRangeAdd(set.get(), &back), 0);
    EXPECT_EQ(back.beginPort, 90u);  // only a single entry's end port is written back
    EXPECT_EQ(ranges_of(set.get()), (Ranges{{80, 90}}));

    KOVA_SERVICE_CONF_PORT top = entry(0xFFFFFFF0u, 0xFFFFFFFFu), below = entry(0xFFFFFFE0u, 0xFFFFFFEFu);
    ASSERT_EQ(KVLIBPortRangeAdd(set.get(), &top), 0);
    ASSERT_EQ(KVLIBPortRangeAdd(set.get(), &below), 0);
    EXPECT_EQ(ranges_of(set.get()), (Ranges{{80, 90}, {0xFFFFFFE0u, 0xFFFFFFFFu}}));
    EXPECT_TRUE(WellFormed(set.get()));
    KOVA_SERVICE_CONF_PORT cut = entry(0xFFFFFFFFu, 0xFFFFFFFFu);
    ASSERT_EQ(KVLIBPortRangeRemove(set.get(), &cut), 0);
    EXPECT_EQ(ranges_of(set.get()), (Ranges{{80, 90}, {0xFFFFFFE0u, 0xFFFFFFFEu}}));
    EXPECT_TRUE(WellFormed(set.get()));
}

TEST_F(PortRangeTest, RemoveSplitsAndTrims) {
    Set a = make_set({{10, 20}});
    KOVA_SERVICE_CONF_PORT mid = entry(15, 17);
    ASSERT_EQ(KVLIBPortRangeRemove(a.get(), &mid), 0);
    EXPECT_EQ(ranges_of(a.get()), (Ranges{{10, 14}, {18, 20}}));
    EXPECT_TRUE(WellFormed(a.get()));

    Set b = make_set({{10, 20}, {22, 30}});
    KOVA_SERVICE_CONF_PORT across = entry(20, 25);
    ASSERT_EQ(KVLIBPortRangeRemove(b.get(), &across), 0);
    EXPECT_EQ(ranges_of(b.get()), (Ranges{{10, 19}, {26, 30}}));
    EXPECT_TRUE(WellFormed(b.get()));

    Set c = make_set({{10, 20}});
    KOVA_SERVICE_CONF_PORT tail = entry(20, 25);
    ASSERT_EQ(KVLIBPortRangeRemove(c.get(), &tail), 0);
    EXPECT_EQ(ranges_of(c.get()), (Ranges{{10, 19}}));
    KOVA_SERVICE_CONF_PORT whole = entry(10, 19);
    ASSERT_EQ(KVLIBPortRangeRemove(c.get(), &whole), 0);
    EXPECT_EQ(c->head, nullptr);
    EXPECT_EQ(c->count, 0);

    // Several nodes at once, and single ports given as [p, p].
    Set d = make_set({{1, 5}, {10, 20}, {30, 40}, {50, 60}});
    KOVA_SERVICE_CONF_PORT span = entry(3, 35);
    ASSERT_EQ(KVLIBPortRangeRemove(d.get(), &span), 0);
    EXPECT_EQ(ranges_of(d.get()), (Ranges{{1, 2}, {36, 40}, {50, 60}}));
    KOVA_SERVICE_CONF_PORT single = entry(55, 55, 0);
    ASSERT_EQ(KVLIBPortRangeRemove(d.get(), &single), 0);
    EXPECT_EQ(ranges_of(d.get()), (Ranges{{1, 2}, {36, 40}, {50, 54}, {56, 60}}));
    EXPECT_TRUE(WellFormed(d.get()));

    // The end port is read as given, whatever the type; entries written backwards: a parser's
    // single entry [p, 0] is its port, a range the ports between its ends.
    Set f = make_set({{10, 30}});
    KOVA_SERVICE_CONF_PORT typed = entry(12, 13, 0), parsed = entry(20, 0, 0), back = entry(27, 25, 1);
    ASSERT_EQ(KVLIBPortRangeRemove(f.get(), &typed), 0);
    ASSERT_EQ(KVLIBPortRangeRemove(f.get(), &parsed), 0);
    ASSERT_EQ(KVLIBPortRangeRemove(f.get(), &back), 0);
    EXPECT_EQ(ranges_of(f.get()), (Ranges{{10, 11}, {14, 19}, {21, 24}, {28, 30}}));
    EXPECT_EQ(parsed.endPort, 0u);
    EXPECT_TRUE(WellFormed(f.get()));
    EXPECT_TRUE(log().empty());
}

TEST_F(PortRangeTest, RemoveOutsideTheSet) {
    Set set = make_set({{10, 20}, {30, 40}});
    KOVA_SERVICE_CONF_PORT gap = entry(25, 28);
    EXPECT_EQ(KVLIBPortRangeRemove(set.get(), &gap), 0);
    EXPECT_EQ(ranges_of(set.get()), (Ranges{{10, 20}, {30, 40}}));
    EXPECT_TRUE(log().empty());

    KOVA_SERVICE_CONF_PORT after = entry(50, 60);
    EXPECT_EQ(KVLIBPortRangeRemove(set.get(), &after), -1);
    EXPECT_EQ(ranges_of(set.get()), (Ranges{{10, 20}, {30, 40}}));
    EXPECT_EQ(log_normalized(),
              std::vector<std::string>{"service_port_range_remove.cpp:N Can't find entry to remove in the list"});

    clear_log();
    Set empty = make_set();
    EXPECT_EQ(KVLIBPortRangeRemove(empty.get(), &gap), -1);
    EXPECT_EQ(log_normalized(), std::vector<std::string>{"service_port_range_remove.cpp:N Bad parameters."});
}

TEST_F(PortRangeTest, NullArgumentsAreLoggedByEachModule) {
    Set set = make_set({{1, 2}});
    KOVA_SERVICE_CONF_PORT x = entry(1, 1);
    EXPECT_EQ(KVLIBPortRangeAdd(nullptr, &x), -1);
    EXPECT_EQ(KVLIBPortRangeAdd(set.get(), nullptr), -1);
    EXPECT_EQ(KVLIBPortRangeRemove(nullptr, &x), -1);
    EXPECT_EQ(KVLIBPortRangeRemove(set.get(), nullptr), -1);
    EXPECT_EQ(KVLIBPortRangeImport(set.get(), nullptr), -1);
    EXPECT_EQ(KVLIBPortRangeImport(nullptr, "80"), -1);
    EXPECT_EQ(KVLIBPortRangeExport(nullptr), nullptr);
    EXPECT_EQ(KVLIBPortRangeJoin(nullptr, set.get()), -1);
    EXPECT_EQ(KVLIBPortRangeJoin(set.get(), nullptr), -1);
    EXPECT_EQ(KVLIBPortRangeOverlap(set.get(), set.get(), nullptr), -1);
    EXPECT_EQ(KVLIBPortRangeOverlap(nullptr, set.get(), set.get()), -1);
    EXPECT_EQ(log_normalized(), (std::vector<std::string>{
                                    "service_port_range_add.cpp:N Bad parameters.",
                                    "service_port_range_add.cpp:N Bad parameters.",
                                    "service_port_range_remove.cpp:N Bad parameters.",
                                    "service_port_range_remove.cpp:N Bad parameters.",
                                    "service_port_range_import.cpp:N Bad parameters.",
                                    "service_port_range_import.cpp:N Bad parameters.",
                                    "service_port_range_export.cpp:N Bad parameters.",
                                    "service_port_range_join.cpp:N Bad parameters.",
                                    "service_port_range_join.cpp:N Bad parameters.",
                                    "service_port_range_overlap.cpp:N Bad parameters.",
                                    "service_port_range_overlap.cpp:N Bad parameters.",
                                }));
    EXPECT_EQ(ranges_of(set.get()), (Ranges{{1, 2}}));
}

TEST_F(PortRangeTest, ImportAndExportTexts) {
    struct Case {
        const char *text;
        const char *exported;
    };
    const Case cases[] = {
        {" 80 , 443,8000:8010", "80,443,8000:8010"},
        {"443,80,81", "80:81,443"},
        {"8000:8010/tcp", "8000:8010"},  // the conversion stops at "/"
        {"abc", "0"},
        {"", "0"},  // an empty item is port 0
        {"80,,90", "0,80,90"},
        {"80:", "0:80"},  // "80" to 0: the ports between
        {":80", "0:80"},
        {"90:80", "80:90"},
        {"+21, 22", "21:22"},
        {"70000", "70000"},  // no range check
        {"80 443", "80"},    // one item; the conversion stops at the space
        {"21:23,22,1:1", "1,21:23"},
    };
    for (const Case &c : cases) {
        Set set = make_set();
        ASSERT_EQ(KVLIBPortRangeImport(set.get(), c.text), 0) << c.text;
        EXPECT_TRUE(WellFormed(set.get())) << c.text;
        EXPECT_EQ(exported(set.get()), c.exported) << c.text;
    }
    EXPECT_TRUE(log().empty());
}

TEST_F(PortRangeTest, ImportLeavesTheCallersTextAndAddsToWhatIsThere) {
    Set set = make_set({{100, 200}});
    const std::string text = " 201:300 , 50 ";
    std::string copy = text;
    ASSERT_EQ(KVLIBPortRangeImport(set.get(), copy.c_str()), 0);
    EXPECT_EQ(copy, text);
    EXPECT_EQ(exported(set.get()), "50,100:300");
    EXPECT_TRUE(WellFormed(set.get()));
}

TEST_F(PortRangeTest, ExportRoundTripsAndEmptySetIsSilent) {
    Set empty = make_set();
    EXPECT_EQ(KVLIBPortRangeExport(empty.get()), nullptr);
    EXPECT_TRUE(log().empty());

    Set set = make_set({{21, 21}, {80, 80}, {443, 443}, {8000, 8010}});
    const std::string text = exported(set.get());
    EXPECT_EQ(text, "21,80,443,8000:8010");
    Set back = make_set();
    ASSERT_EQ(KVLIBPortRangeImport(back.get(), text.c_str()), 0);
    EXPECT_EQ(ranges_of(back.get()), ranges_of(set.get()));
}

TEST_F(PortRangeTest, JoinAddsEverySourceRange) {
    Set target = make_set({{1, 10}, {50, 60}});
    Set source = make_set({{5, 20}, {30, 30}, {61, 70}});
    ASSERT_EQ(KVLIBPortRangeJoin(target.get(), source.get()), 0);
    EXPECT_EQ(ranges_of(target.get()), (Ranges{{1, 20}, {30, 30}, {50, 70}}));
    EXPECT_TRUE(WellFormed(target.get()));
    EXPECT_EQ(ranges_of(source.get()), (Ranges{{5, 20}, {30, 30}, {61, 70}}));

    Set empty = make_set();
    ASSERT_EQ(KVLIBPortRangeJoin(target.get(), empty.get()), 0);
    EXPECT_EQ(ranges_of(target.get()), (Ranges{{1, 20}, {30, 30}, {50, 70}}));
}

TEST_F(PortRangeTest, JoinOfALentConflictList) {
    // A conflict list: newest first, single entries with end port 0, protocol 3.
    KOVA_SERVICE_CONF_PORT n3{0, 0, 3, 445, 0, nullptr};
    KOVA_SERVICE_CONF_PORT n2{0, 1, 3, 8005, 8010, &n3};
    KOVA_SERVICE_CONF_PORT n1{0, 0, 3, 21, 0, &n2};
    KOVA_SERVICE_CONF_PORT n0{0, 0, 3, 446, 0, &n1};
    KVLIB_PORT_RANGE lent{0, &n0};
    Set target = make_set({{8011, 8011}});
    ASSERT_EQ(KVLIBPortRangeJoin(target.get(), &lent), 0);
    EXPECT_EQ(ranges_of(target.get()), (Ranges{{21, 21}, {445, 446}, {8005, 8011}}));
    EXPECT_TRUE(WellFormed(target.get()));
    // Adding a single entry completes its end port, as KVLIBPortRangeAdd does.
    EXPECT_EQ(n0.endPort, 446u);
    EXPECT_EQ(n3.endPort, 445u);
}

TEST_F(PortRangeTest, OverlapAddsTheIntersection) {
    Set first = make_set({{1, 100}});
    Set second = make_set({{50, 60}, {90, 200}});
    Set target = make_set();
    ASSERT_EQ(KVLIBPortRangeOverlap(first.get(), second.get(), target.get()), 0);
    EXPECT_EQ(ranges_of(target.get()), (Ranges{{50, 60}, {90, 100}}));

    Set held = make_set({{95, 99}, {300, 300}});
    ASSERT_EQ(KVLIBPortRangeOverlap(first.get(), second.get(), held.get()), 0);
    EXPECT_EQ(ranges_of(held.get()), (Ranges{{50, 60}, {90, 100}, {300, 300}}));
    EXPECT_TRUE(WellFormed(held.get()));

    // Many pieces of one range against many of the other, in both orders.
    Set x = make_set({{1, 10}, {20, 30}, {40, 40}});
    Set y = make_set({{5, 22}, {25, 26}, {28, 45}});
    Set xy = make_set(), yx = make_set();
    ASSERT_EQ(KVLIBPortRangeOverlap(x.get(), y.get(), xy.get()), 0);
    ASSERT_EQ(KVLIBPortRangeOverlap(y.get(), x.get(), yx.get()), 0);
    EXPECT_EQ(ranges_of(xy.get()), (Ranges{{5, 10}, {20, 22}, {25, 26}, {28, 30}, {40, 40}}));
    EXPECT_EQ(ranges_of(yx.get()), ranges_of(xy.get()));
    EXPECT_TRUE(WellFormed(xy.get()));

    Set empty = make_set();
    ASSERT_EQ(KVLIBPortRangeOverlap(first.get(), empty.get(), held.get()), 0);
    EXPECT_EQ(held->count, 3);
    EXPECT_TRUE(log().empty());
}

// Random operations on small sets against a bitset of ports, checking the invariant and the
// contents after every call; join and overlap are also checked against adding the same
// ranges one by one.
TEST_F(PortRangeTest, RandomOperationsMatchAModel) {
    constexpr uint32_t kPorts = 160;
    using Model = std::bitset<kPorts>;
    auto model_of = [](const KVLIB_PORT_RANGE *s) {
        Model m;
        for (auto [b, e] : ranges_of(s))
            for (uint32_t p = b; p <= e; ++p) m.set(p);
        return m;
    };
    auto add_one_by_one = [](KVLIB_PORT_RANGE *target, const Ranges &ranges) {
        for (auto [b, e] : ranges) {
            KOVA_SERVICE_CONF_PORT x = entry(b, e);
            ASSERT_EQ(KVLIBPortRangeAdd(target, &x), 0);
        }
    };
    std::mt19937 rng(12345);
    auto port = [&] { return static_cast<uint32_t>(rng() % kPorts); };
    auto random_set = [&] {
        Set s = make_set();
        for (int i = rng() % 6; i > 0; --i) {
            uint32_t b = port(), e = std::min<uint32_t>(kPorts - 1, b + rng() % 12);
            KOVA_SERVICE_CONF_PORT x = entry(b, e);
            EXPECT_EQ(KVLIBPortRangeAdd(s.get(), &x), 0);
        }
        return s;
    };

    for (int round = 0; round < 3000; ++round) {
        Set a = random_set();
        Model before = model_of(a.get());
        const uint32_t b = port(), e = std::min<uint32_t>(kPorts - 1, b + rng() % 20);
        Model span;
        for (uint32_t p = b; p <= e; ++p) span.set(p);
        switch (rng() % 4) {
            case 0: {
                KOVA_SERVICE_CONF_PORT x = entry(b, e);
                ASSERT_EQ(KVLIBPortRangeAdd(a.get(), &x), 0);
                EXPECT_EQ(model_of(a.get()), before | span);
                break;
            }
            case 1: {
                KOVA_SERVICE_CONF_PORT x = entry(b, e);
                const Ranges held = ranges_of(a.get());
                const bool found = std::any_of(held.begin(), held.end(), [&](auto r) { return r.second >= b; });
                EXPECT_EQ(KVLIBPortRangeRemove(a.get(), &x), found ? 0 : -1);
                EXPECT_EQ(model_of(a.get()), found ? (before & ~span) : before);
                break;
            }
            case 2: {
                Set src = random_set();
                Set expect = make_set(ranges_of(a.get()));
                add_one_by_one(expect.get(), ranges_of(src.get()));
                ASSERT_EQ(KVLIBPortRangeJoin(a.get(), src.get()), 0);
                EXPECT_EQ(ranges_of(a.get()), ranges_of(expect.get()));
                EXPECT_TRUE(WellFormed(src.get()));
                break;
            }
            default: {
                Set other = random_set(), target = random_set();
                Model expect = model_of(target.get()) | (before & model_of(other.get()));
                ASSERT_EQ(KVLIBPortRangeOverlap(a.get(), other.get(), target.get()), 0);
                EXPECT_EQ(model_of(target.get()), expect);
                EXPECT_TRUE(WellFormed(target.get()));
                break;
            }
        }
        ASSERT_TRUE(WellFormed(a.get())) << "round " << round;
        if (a->head == nullptr) continue;
        Set again = make_set();
        ASSERT_EQ(KVLIBPortRangeImport(again.get(), exported(a.get()).c_str()), 0);
        ASSERT_EQ(model_of(again.get()), model_of(a.get()));
    }
}

TEST_F(PortRangeTest, LargeImportsInAnyOrderGiveTheSameSet) {
    std::string sorted, shuffled_text;
    std::vector<std::string> items;
    for (int i = 0; i < 10000; ++i) {
        const int b = i * 6;
        items.push_back(i % 3 == 0 ? std::to_string(b) : std::to_string(b) + ":" + std::to_string(b + 3));
    }
    for (const auto &it : items) sorted += (sorted.empty() ? "" : ",") + it;
    std::mt19937 rng(7);
    std::shuffle(items.begin(), items.end(), rng);
    for (const auto &it : items) shuffled_text += (shuffled_text.empty() ? "" : ",") + it;

    Set a = make_set(), b = make_set();
    ASSERT_EQ(KVLIBPortRangeImport(a.get(), sorted.c_str()), 0);
    ASSERT_EQ(KVLIBPortRangeImport(b.get(), shuffled_text.c_str()), 0);
    EXPECT_EQ(a->count, 10000);
    EXPECT_TRUE(WellFormed(a.get()));
    EXPECT_EQ(ranges_of(a.get()), ranges_of(b.get()));
    EXPECT_EQ(exported(a.get()), sorted);

    // Filling the gaps merges everything into one range.
    Set gaps = make_set();
    std::string gap_text;
    for (int i = 0; i < 10000; ++i)
        gap_text += (i ? "," : "") + std::to_string(i * 6 + 1) + ":" + std::to_string(i * 6 + 5);
    ASSERT_EQ(KVLIBPortRangeImport(gaps.get(), gap_text.c_str()), 0);
    ASSERT_EQ(KVLIBPortRangeJoin(a.get(), gaps.get()), 0);
    EXPECT_EQ(ranges_of(a.get()), (Ranges{{0, 59999}}));
    EXPECT_TRUE(WellFormed(a.get()));
}

}  // namespace
}  // namespace kova::test
