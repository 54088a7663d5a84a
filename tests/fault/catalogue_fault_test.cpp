// Allocation failures in the operations that build the whole catalogue: the firewall service
// enumeration and its port getters, the configured-ports check, the socket table reader and the
// runtime inventory. (The service-wide check runs under the change matrix, inside every install,
// update and edit.)
#include <algorithm>
#include <map>

#include "../conf/conf_test_util.h"
#include "fault_harness.h"

namespace kova::fault {
namespace {

using kova::test::Lines;
using kova::test::parts;

std::string text(const KVLIB_SZLIST *list) {
    return list == nullptr ? "null" : testing::PrintToString(kova::test::items(list));
}

std::string fw_text(const KOVA_FW_SERVICE &s) {
    return std::string(s.name) + " s" + std::to_string(s.supported) + " pf" + std::to_string(s.portForward) + " " +
           parts(s.title) + " " + parts(s.desc) + " dst" + std::to_string(s.dstProtocol) + ":" + text(s.dstPorts) +
           " src" + std::to_string(s.srcProtocol) + ":" + text(s.srcPorts);
}

// Whether `got` is `want` with entries left out or replaced by ones that `lost` accepts, in order.
bool in_order(const Lines &got, const Lines &want, bool (*lost)(const std::string &)) {
    auto at = want.begin();
    for (const std::string &g : got) {
        const auto found = std::find(at, want.end(), g);
        if (found == want.end() && !lost(g)) return false;
        if (found != want.end()) at = found + 1;
    }
    return true;
}

class CatalogueFaultTest : public FaultTest {};
KOVA_FAULT_MODES(CatalogueFaultTest);

// Rows and sections whose records cannot be made are left out; every record that is listed is
// whole, and the count is the length of the list. Whatever the out-pointer held is replaced on
// success and left alone on failure (out of memory outside any row or section).
TEST_P(CatalogueFaultTest, FirewallServiceEnum) {
    std::map<std::string, std::string> expected;
    KOVA_FW_SERVICE *const kHeld = reinterpret_cast<KOVA_FW_SERVICE *>(0x10);
    KOVA_FW_SERVICE *list = nullptr;
    ASSERT_EQ(KOVAFwServiceEnum(&list), 17);
    for (const KOVA_FW_SERVICE *s = list; s != nullptr; s = s->next) expected[s->name] = fw_text(*s);
    KOVAFwServiceFree(list);
    int rc = 0;
    const auto check = [&](bool injected) {
        if (rc == -1) {
            EXPECT_TRUE(injected && list == kHeld && KVLIBCErrGet() == KOVA_ERR_OUT_OF_MEMORY) << list;
            list = nullptr;
            return false;
        }
        EXPECT_NE(list, kHeld);
        if (list == kHeld) list = nullptr;
        int records = 0;
        for (const KOVA_FW_SERVICE *s = list; s != nullptr; s = s->next, ++records) {
            KOVA_FW_SERVICE as_supported = *s;
            as_supported.supported = 1;  // the support test may answer 0 for want of memory
            EXPECT_TRUE(fw_text(*s) == expected[s->name] ||
                        (injected && s->supported == 0 && fw_text(as_supported) == expected[s->name]))
                << fw_text(*s);
        }
        EXPECT_EQ(records, rc);
        return injected ? rc >= 0 : rc == 17;
    };
    expect_robust("KOVAFwServiceEnum", {[&] { list = kHeld; },
                                        [&] {
                                            KVLIBCErrSetEx(kPoison, "test", 0);
                                            rc = KOVAFwServiceEnum(&list);
                                        },
                                        check, [&] { KOVAFwServiceFree(list); }});
}

// A port getter hands out its whole list or nothing ("ftp" never listed with part of its ports).
TEST_P(CatalogueFaultTest, PortGettersAllOrNothing) {
    for (const auto &[name, getter] : {std::pair<const char *, KOVA_FW_PORTS_GETTER>{"KOVAFwPortsFTP", KOVAFwPortsFTP},
                                       {"KOVAFwPortsSSH", KOVAFwPortsSSH},
                                       {"KOVAFwPortsMFP", KOVAFwPortsMFP}}) {
        KVLIB_SZLIST *list = nullptr;
        ASSERT_EQ(getter(&list), 0) << name;
        const std::string whole = text(list);
        KVLIBCSzListFree(list);
        expect_robust(name, all_or_nothing([&] { list = nullptr; }, [&] { return getter(&list); },
                                           [&] { return text(list); }, whole, "null", [&] { KVLIBCSzListFree(list); }));
    }
}

// Inventory entries that could not be made are left out: a port they held may then be listed as
// held by nobody, and every other record is the full call's, in its order.
TEST_P(CatalogueFaultTest, ConfiguredPortsCheck) {
    KVLIB_SZLIST *ports = KVLIBCSzListAlloc(8);
    for (const char *p : {"445", "21", "5005", "9000", "0"}) ASSERT_EQ(KVLIBCSzListPush(&ports, p), 0);
    auto records = [](const KVLIB_DLIST *list) {
        Lines out;
        for (const KVLIB_DLIST_NODE *n = list->pHead; n != nullptr; n = n->pNext) {
            const auto *r = static_cast<const KOVA_CONF_PORT_CONFLICT_RESULT *>(n->pData);
            out.push_back(std::to_string(r->port) + "/" + std::to_string(r->protocol) + " " +
                          (r->serviceName != nullptr ? r->serviceName : "(null)") + " " +
                          std::to_string(r->isConflict));
        }
        return out;
    };
    KVLIB_DLIST *result = KOVAConfPortConflictResultListAllocAndCheck(ports, KOVA_PROTO_BOTH);
    ASSERT_NE(result, nullptr);
    const Lines expected = records(result);
    KOVAConfPortConflictResultListFree(result);
    const auto check = [&](bool injected) {
        if (result == nullptr) return false;
        const auto nobody = [](const std::string &r) { return r.ends_with(" (null) 0"); };
        EXPECT_TRUE(injected ? in_order(records(result), expected, nobody) : records(result) == expected)
            << testing::PrintToString(records(result));
        return true;
    };
    expect_robust("KOVAConfPortConflictResultListAllocAndCheck",
                  {[&] { result = nullptr; },
                   [&] { result = KOVAConfPortConflictResultListAllocAndCheck(ports, KOVA_PROTO_BOTH); }, check,
                   [&] { KOVAConfPortConflictResultListFree(result); }});
    KVLIBCSzListFree(ports);
}

// The whole inventory: every socket of the tables (none dropped by the table reader), or no list
// at all.
TEST_P(CatalogueFaultTest, SocketListAndRuntimeInventory) {
    KVLIB_DLIST *list = nullptr;
    const auto one = [&](bool) {
        EXPECT_TRUE(list == nullptr || list->nItem == 1);
        return list != nullptr;
    };
    expect_robust("RawSocketInfoListFetch", {.call = [&] { list = RawSocketInfoListFetch(KOVA_PROTO_BOTH); },
                                             .check = one,
                                             .release = [&] { KVLIBCDListFree(list); }});
    // A process holding the table's socket, so that the inventory has a record to lose.
    symlink("socket:[20123]", "/proc/42/fd/3");
    symlink("/usr/bin/daemon", "/proc/42/exe");
    expect_robust("RuntimeServiceListFetch",
                  {.call = [&] { list = RuntimeServiceListFetch(); },
                   .check =
                       [&](bool injected) {
                           if (!one(injected)) return false;
                           const auto *r = static_cast<const KOVA_RUNTIME_PORT_CONFLICT_RESULT *>(list->pHead->pData);
                           EXPECT_EQ(std::to_string(r->pid) + " " + r->program, "42 /usr/bin/daemon");
                           return true;
                       },
                   .release = [&] { KOVARuntimePortConflictResultListFree(list); }});
}

}  // namespace
}  // namespace kova::fault
