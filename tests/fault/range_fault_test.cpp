// Allocation failures in the port range family. A failed operation returns -1 (Create and Export:
// null), leaves every set well-formed and as it was, and never sets the error state itself.
#include <kovaserviceconf.h>

#include <string>

#include "fault_harness.h"

namespace kova::fault {
namespace {

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
    EXPECT_TRUE(set != nullptr && KVLIBPortRangeImport(set, text) == 0) << text;
    return set;
}

class RangeFaultTest : public FaultTest {};
KOVA_FAULT_MODES(RangeFaultTest);

// Each operation on a target set prepared from a text: the target (and what the operation
// returned) on success, and on failure the target as it was; the source sets never change.
TEST_P(RangeFaultTest, EveryOperation) {
    KVLIB_PORT_RANGE *first = make_set("1:100,200:300,1000"), *second = make_set("50:60,90:250,999:1001");
    const std::string sources = set_text(first) + set_text(second);
    KVLIB_PORT_RANGE *set = nullptr;
    char *exported = nullptr;
    KOVA_SERVICE_CONF_PORT add{1, 1, 3, 4, 8, nullptr}, remove{0, 1, 0, 15, 25, nullptr};
    const struct {
        const char *name, *initial;
        std::function<int()> op;
        std::string expected, untouched;
    } cases[] = {
        {"KVLIBPortRangeCreate", "7",
         [&] {
             KVLIB_PORT_RANGE *made = KVLIBPortRangeCreate();
             if (made == nullptr) return -1;
             KVLIBPortRangeDestory(set);
             set = made;
             return 0;
         },
         "", "[7,7]"},
        {"KVLIBPortRangeImport", "1:5,30",
         [&] { return KVLIBPortRangeImport(set, " 80 ,443, 8000:8010,21,6, 7:9 ,65536:70000"); },
         "[1,9][21,21][30,30][80,80][443,443][8000,8010][65536,70000]", "[1,5][30,30]"},
        {"KVLIBPortRangeAdd", "1:3,7:9,20", [&] { return KVLIBPortRangeAdd(set, &add); }, "[1,9][20,20]",
         "[1,3][7,9][20,20]"},
        {"KVLIBPortRangeRemove", "10:20,22:30,40", [&] { return KVLIBPortRangeRemove(set, &remove); },
         "[10,14][26,30][40,40]", "[10,20][22,30][40,40]"},
        {"KVLIBPortRangeOverlap", "95:99,5000", [&] { return KVLIBPortRangeOverlap(first, second, set); },
         "[50,60][90,100][200,250][1000,1000][5000,5000]", "[95,99][5000,5000]"},
        {"KVLIBPortRangeJoin", "400,1002", [&] { return KVLIBPortRangeJoin(set, second); },
         "[50,60][90,250][400,400][999,1002]", "[400,400][1002,1002]"},
        {"KVLIBPortRangeExport", "21,80:81,443,8000:8010,4294967295",
         [&] { return (exported = KVLIBPortRangeExport(set)) != nullptr ? 0 : -1; },
         "[21,21][80,81][443,443][8000,8010][4294967295,4294967295] 21,80:81,443,8000:8010,-1",
         "[21,21][80,81][443,443][8000,8010][4294967295,4294967295]"},
    };
    for (const auto &c : cases) {
        expect_robust(c.name, all_or_nothing(
                                  [&] {
                                      set = make_set(c.initial);
                                      exported = nullptr;
                                  },
                                  c.op,
                                  [&] {
                                      EXPECT_EQ(set_text(first) + set_text(second), sources);
                                      return set_text(set) + (exported != nullptr ? std::string(" ") + exported : "");
                                  },
                                  c.expected, c.untouched,
                                  [&] {
                                      KVLIBPortRangeDestory(set);
                                      KVLIBCStrPut(exported);
                                  },
                                  false));
    }
    KVLIBPortRangeDestory(first);
    KVLIBPortRangeDestory(second);
}

}  // namespace
}  // namespace kova::fault
