// Allocation failures in the operations that build the whole catalogue: the firewall service
// enumeration, the service-wide conflict check, the configured-ports check and the socket
// table reader.
#include <kovaserviceconf.h>

#include <map>
#include <string>
#include <vector>

#include "../conf/conf_test_util.h"
#include "fault_harness.h"

namespace kova::fault {
namespace {

using kova::test::parts;
using kova::test::port_texts;

std::string items(const KVLIB_SZLIST *list) {
    std::string out;
    for (int i = 0; list != nullptr && i < list->nItem; ++i) out += std::string(i ? "," : "") + list->ppszItem[i];
    return out;
}

std::string fw_text(const KOVA_FW_SERVICE &s) {
    return std::string(s.name) + " s" + std::to_string(s.supported) + " pf" + std::to_string(s.portForward) + " " +
           parts(s.title) + " " + parts(s.desc) + " dst" + std::to_string(s.dstProtocol) + ":" + items(s.dstPorts) +
           " src" + std::to_string(s.srcProtocol) + ":" + items(s.srcPorts);
}

class CatalogueFaultTest : public FaultTest {};
KOVA_FAULT_MODES(CatalogueFaultTest);

// Rows and sections whose records cannot be made are left out; every record that is listed is
// whole, and the count is the length of the list.
TEST_P(CatalogueFaultTest, FirewallServiceEnum) {
    std::map<std::string, std::string> expected;
    {
        KOVA_FW_SERVICE *ref = nullptr;
        const int count = KOVAFwServiceEnum(&ref);
        ASSERT_EQ(count, 17);
        for (const KOVA_FW_SERVICE *s = ref; s != nullptr; s = s->next) expected[s->name] = fw_text(*s);
        KOVAFwServiceFree(ref);
    }
    // Whatever the out-pointer held is replaced on success and left alone on failure.
    KOVA_FW_SERVICE *const kHeld = reinterpret_cast<KOVA_FW_SERVICE *>(0x10);
    KOVA_FW_SERVICE *list = nullptr;
    int rc = 0;
    expect_robust("KOVAFwServiceEnum",
                  {[&] { list = kHeld; },
                   [&] {
                       KVLIBCErrSetEx(kPoison, "test", 0);
                       rc = KOVAFwServiceEnum(&list);
                   },
                   [&](bool injected) {
                       // Out of memory outside any row or section.
                       if (rc == -1) {
                           EXPECT_TRUE(injected);
                           EXPECT_EQ(list, kHeld);
                           EXPECT_EQ(KVLIBCErrGet(), KOVA_ERR_OUT_OF_MEMORY);
                           list = nullptr;
                           return false;
                       }
                       EXPECT_NE(list, kHeld);
                       if (list == kHeld) list = nullptr;
                       int records = 0;
                       for (const KOVA_FW_SERVICE *s = list; s != nullptr; s = s->next) {
                           ++records;
                           KOVA_FW_SERVICE as_supported = *s;
                           as_supported.supported = 1;
                           // The support test may answer 0 for want of memory.
                           if (injected && s->supported == 0 && fw_text(as_supported) == expected[s->name]) continue;
                           EXPECT_EQ(fw_text(*s), expected[s->name]);
                       }
                       EXPECT_EQ(records, rc);
                       return injected ? rc >= 0 : rc == 17;
                   },
                   [&] { KOVAFwServiceFree(list); }});
}

// A port getter hands out its whole list or nothing ("ftp" never listed with part of its ports).
TEST_P(CatalogueFaultTest, PortGettersAllOrNothing) {
    for (const auto &[name, getter] : {std::pair<const char *, KOVA_FW_PORTS_GETTER>{"KOVAFwPortsFTP", KOVAFwPortsFTP},
                                       {"KOVAFwPortsSSH", KOVAFwPortsSSH},
                                       {"KOVAFwPortsMFP", KOVAFwPortsMFP}}) {
        KVLIB_SZLIST *list = nullptr;
        ASSERT_EQ(getter(&list), 0) << name;
        const std::string whole = items(list);
        KVLIBCSzListFree(list);
        expect_robust(name, all_or_nothing([&] { list = nullptr; }, [&] { return getter(&list); },
                                           [&] { return list == nullptr ? "null" : items(list); }, whole, "null",
                                           [&] { KVLIBCSzListFree(list); }));
    }
}

// Catalogue services and reserved ports (0x0C): "445" is the built-in SMB service, "21" the
// reserved FTP port, "80" the web service of the small root. A catalogue record left out for want
// of memory collides with nothing, so a list of the conflicts may lose entries, but no other.
TEST_P(CatalogueFaultTest, ServiceWidePortConflict) {
    KOVA_SERVICE_CONF_PORT *conflicts = nullptr;
    auto check = [&] {
        return KVLIBIsPortConflict("pkg", "445,21,80,9000", "tcp", KOVA_PORT_CHECK_SERVICES | KOVA_PORT_CHECK_RESERVED,
                                   &conflicts);
    };
    ASSERT_EQ(check(), 1);
    const std::vector<std::string> expected = port_texts(conflicts);
    ASSERT_EQ(expected.size(), 3u);
    KOVAServiceConfPortsFree(conflicts);
    int rc = 0;
    expect_robust("KVLIBIsPortConflict", {.prepare = [&] { conflicts = nullptr; },
                                          .call = [&] { rc = check(); },
                                          .check =
                                              [&](bool injected) {
                                                  const std::vector<std::string> got = port_texts(conflicts);
                                                  if (rc != 1) {
                                                      EXPECT_EQ(rc, -1);
                                                      return false;
                                                  }
                                                  size_t i = 0;
                                                  for (const std::string &g : got) {
                                                      while (i < expected.size() && expected[i] != g) ++i;
                                                      EXPECT_LT(i++, expected.size()) << g << " out of place";
                                                  }
                                                  if (!injected) {
                                                      EXPECT_EQ(got, expected);
                                                  }
                                                  return true;
                                              },
                                          .release = [&] { KOVAServiceConfPortsFree(conflicts); }});
}

TEST_P(CatalogueFaultTest, ConfiguredPortsCheck) {
    KVLIB_SZLIST *ports = KVLIBCSzListAlloc(8);
    for (const char *p : {"445", "21", "5005", "9000", "0"}) ASSERT_EQ(KVLIBCSzListPush(&ports, p), 0);
    std::vector<std::string> expected;
    auto records = [](const KVLIB_DLIST *list) {
        std::vector<std::string> out;
        for (const KVLIB_DLIST_NODE *n = list->pHead; n != nullptr; n = n->pNext) {
            const auto *r = static_cast<const KOVA_CONF_PORT_CONFLICT_RESULT *>(n->pData);
            out.push_back(std::to_string(r->port) + "/" + std::to_string(r->protocol) + " " +
                          (r->serviceName != nullptr ? r->serviceName : "(null)") + " " +
                          std::to_string(r->isConflict));
        }
        return out;
    };
    {
        KVLIB_DLIST *ref = KOVAConfPortConflictResultListAllocAndCheck(ports, KOVA_PROTO_BOTH);
        ASSERT_NE(ref, nullptr);
        expected = records(ref);
        KOVAConfPortConflictResultListFree(ref);
    }
    KVLIB_DLIST *result = nullptr;
    expect_robust("KOVAConfPortConflictResultListAllocAndCheck",
                  {[&] { result = nullptr; },
                   [&] { result = KOVAConfPortConflictResultListAllocAndCheck(ports, KOVA_PROTO_BOTH); },
                   [&](bool injected) {
                       if (result == nullptr) return false;
                       // Inventory entries that could not be made are left out; what is listed is whole.
                       const std::vector<std::string> got = records(result);
                       if (!injected) {
                           EXPECT_EQ(got, expected);
                       }
                       for (const KVLIB_DLIST_NODE *n = result->pHead; n != nullptr; n = n->pNext) {
                           const auto *r = static_cast<const KOVA_CONF_PORT_CONFLICT_RESULT *>(n->pData);
                           EXPECT_TRUE(r->protocol == 1 || r->protocol == 2);
                           EXPECT_TRUE(r->isConflict == 0 || r->isConflict == 1);
                           if (r->isConflict == 0) {
                               EXPECT_EQ(r->serviceName, nullptr);
                           }
                       }
                       return true;
                   },
                   [&] { KOVAConfPortConflictResultListFree(result); }});
    KVLIBCSzListFree(ports);
}

// The whole inventory: every socket of the tables (none dropped by the table reader), or no list
// at all.
TEST_P(CatalogueFaultTest, SocketListAndRuntimeInventory) {
    KVLIB_DLIST *list = nullptr;
    expect_robust("RawSocketInfoListFetch", {.call = [&] { list = RawSocketInfoListFetch(KOVA_PROTO_BOTH); },
                                             .check =
                                                 [&](bool) {
                                                     if (list == nullptr) return false;
                                                     EXPECT_EQ(list->nItem, 1);
                                                     return true;
                                                 },
                                             .release = [&] { KVLIBCDListFree(list); }});
    // A process holding the table's socket, so that the inventory has a record to lose.
    symlink("socket:[20123]", "/proc/42/fd/3");
    symlink("/usr/bin/daemon", "/proc/42/exe");
    expect_robust("RuntimeServiceListFetch",
                  {.call = [&] { list = RuntimeServiceListFetch(); },
                   .check =
                       [&](bool) {
                           if (list == nullptr) return false;
                           EXPECT_EQ(list->nItem, 1);
                           const auto *r = static_cast<const KOVA_RUNTIME_PORT_CONFLICT_RESULT *>(list->pHead->pData);
                           EXPECT_EQ(r->pid, 42u);
                           EXPECT_STREQ(r->program, "/usr/bin/daemon");
                           return true;
                       },
                   .release = [&] { KOVARuntimePortConflictResultListFree(list); }});
}

}  // namespace
}  // namespace kova::fault
