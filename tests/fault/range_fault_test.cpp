// Allocation failures in the port range family. A failed operation returns -1 (Export: null),
// leaves every set well-formed, and never touches the error state.
#include <kovaserviceconf.h>

#include <string>

#include "fault_harness.h"

namespace kova::fault {
namespace {

constexpr unsigned int kPoison = 0x7E57;

// The family itself never sets the error state; the platform's text operations it calls set
// 0x0200 when they run out of memory.
void expect_error_untouched() {
    EXPECT_TRUE(KVLIBCErrGet() == kPoison || KVLIBCErrGet() == KOVA_ERR_OUT_OF_MEMORY)
        << "error state " << KVLIBCErrGet() << " set by " << KVLIBCErrorGetFile();
}

// "[b,e][b,e]..." after checking the shape (sorted, merged, counted).
std::string set_text(const KVLIB_PORT_RANGE *set) {
    std::string out;
    int nodes = 0;
    long long last_end = -2;
    for (const KOVA_SERVICE_CONF_PORT *n = set->head; n != nullptr; n = n->next, ++nodes) {
        EXPECT_LE(n->beginPort, n->endPort);
        EXPECT_LT(last_end + 1, static_cast<long long>(n->beginPort)) << "nodes not merged";
        EXPECT_EQ(n->type, n->beginPort != n->endPort ? 1u : 0u);
        last_end = n->endPort;
        out += "[" + std::to_string(n->beginPort) + "," + std::to_string(n->endPort) + "]";
    }
    EXPECT_EQ(nodes, set->count);
    return out;
}

KVLIB_PORT_RANGE *make_set(const char *text) {
    KVLIB_PORT_RANGE *set = KVLIBPortRangeCreate();
    EXPECT_NE(set, nullptr);
    if (set != nullptr && text != nullptr) {
        EXPECT_EQ(KVLIBPortRangeImport(set, text), 0);
    }
    return set;
}

// A case over one target set prepared from `initial`; `op` runs armed and returns 0 or -1.
// Success must give `expected`; failure must leave the target as `allowed`.
Case set_case(KVLIB_PORT_RANGE *&target, int &rc, const char *initial, std::function<int()> op, std::string expected,
              std::string allowed) {
    return {[&target, initial] {
                target = make_set(initial);
                KVLIBCErrSetEx(kPoison, "test", 0);
            },
            [&rc, op] { rc = op(); },
            [&target, &rc, expected, allowed](bool) {
                const std::string now = set_text(target);
                expect_error_untouched();
                if (rc == 0) {
                    EXPECT_EQ(now, expected);
                    return true;
                }
                EXPECT_EQ(rc, -1);
                EXPECT_EQ(now, allowed);
                return false;
            },
            [] {}, [&target] { KVLIBPortRangeDestory(target); }};
}

class RangeFaultTest : public FaultTest {};
KOVA_FAULT_MODES(RangeFaultTest);

TEST_P(RangeFaultTest, Create) {
    KVLIB_PORT_RANGE *set = nullptr;
    expect_robust("KVLIBPortRangeCreate", {[] {}, [&] { set = KVLIBPortRangeCreate(); },
                                           [&](bool) {
                                               if (set == nullptr) return false;
                                               EXPECT_EQ(set->count, 0);
                                               EXPECT_EQ(set->head, nullptr);
                                               return true;
                                           },
                                           [&] { KVLIBPortRangeDestory(set); }, [] {}});
}

// Each operation on a target set prepared from a text: its result on success, and the sets a
// failure may leave.
TEST_P(RangeFaultTest, SetOperations) {
    KVLIB_PORT_RANGE *first = make_set("1:100,200:300,1000"), *second = make_set("50:60,90:250,999:1001");
    const std::string first_text = set_text(first), second_text = set_text(second);
    KVLIB_PORT_RANGE *set = nullptr;
    int rc = 0;
    KOVA_SERVICE_CONF_PORT add{}, remove{0, 1, 0, 15, 25, nullptr};
    const struct {
        const char *name, *initial;
        std::function<int()> op;
        std::string expected, allowed;
    } cases[] = {
        {"KVLIBPortRangeImport", "1:5,30",
         [&] { return KVLIBPortRangeImport(set, " 80 ,443, 8000:8010,21,6, 7:9 ,65536:70000"); },
         "[1,9][21,21][30,30][80,80][443,443][8000,8010][65536,70000]", "[1,5][30,30]"},
        {"KVLIBPortRangeAdd", "1:3,7:9,20",
         [&] {
             add = KOVA_SERVICE_CONF_PORT{1, 1, 3, 4, 8, nullptr};
             return KVLIBPortRangeAdd(set, &add);
         },
         "[1,9][20,20]", "[1,3][7,9][20,20]"},
        {"KVLIBPortRangeRemove", "10:20,22:30,40", [&] { return KVLIBPortRangeRemove(set, &remove); },
         "[10,14][26,30][40,40]", "[10,20][22,30][40,40]"},
        {"KVLIBPortRangeOverlap", "95:99,5000", [&] { return KVLIBPortRangeOverlap(first, second, set); },
         "[50,60][90,100][200,250][1000,1000][5000,5000]", "[95,99][5000,5000]"},
        {"KVLIBPortRangeJoin", "400,1002", [&] { return KVLIBPortRangeJoin(set, second); },
         "[50,60][90,250][400,400][999,1002]", "[400,400][1002,1002]"},
    };
    for (const auto &c : cases) {
        Case run = set_case(set, rc, c.initial, c.op, c.expected, c.allowed);
        run.check = [&, check = run.check](bool injected) {
            EXPECT_EQ(set_text(first) + set_text(second), first_text + second_text);  // the sources stay
            return check(injected);
        };
        expect_robust(c.name, run);
    }
    KVLIBPortRangeDestory(first);
    KVLIBPortRangeDestory(second);
}

TEST_P(RangeFaultTest, Export) {
    KVLIB_PORT_RANGE *set = make_set("21,80:81,443,8000:8010,4294967295");
    char *text = nullptr;
    expect_robust("KVLIBPortRangeExport",
                  {[] { KVLIBCErrSetEx(kPoison, "test", 0); }, [&] { text = KVLIBPortRangeExport(set); },
                   [&](bool) {
                       expect_error_untouched();
                       if (text == nullptr) return false;
                       EXPECT_STREQ(text, "21,80:81,443,8000:8010,-1");
                       return true;
                   },
                   [&] { KVLIBCStrPut(text); }, [] {}});
    KVLIBPortRangeDestory(set);
}

}  // namespace
}  // namespace kova::fault
