// The runtime inventory, the reader of descriptor links, and the runtime check and its queries,
// over a fabricated process table (the CLI tests run the same over the machine's real one).
#include "conflict_test.h"

namespace {

using namespace kova::test;
using Rt = KOVA_RUNTIME_PORT_CONFLICT_RESULT;
const std::string kCheck = "port_conflict_runtime_check.cpp:N ";
const std::string kComparer = "port_conflict_runtime_comparer.cpp:N ";
const std::string kHelper = "port_conflict_runtime_helper.cpp:N ";

class RuntimeCheckTest : public ProcTableTest {
protected:
    // rsyncd (77) and a forked copy (812) listen on 873/TCP; 77 also holds 5353/UDP.
    void SetUp() override {
        ProcTableTest::SetUp();
        tables(sock_line(873, 0x0A, 4321) + sock_line(873, 0x01, 4400), "", sock_line(5353, 0x07, 999),
               sock_line(5353, 0x07, 999, true));
        process("77", "/usr/sbin/rsyncd", 3, {"socket:[4321]", "socket:[999]", "socket:[4400]"});
        process("812", "/usr/sbin/rsyncd", 3, {"socket:[4321]"});
    }
};

TEST_F(RuntimeCheckTest, ReportsHoldersThenNoConflictRecords) {
    auto ports = port_list({"873", "5353", "0", "8080"});
    kova::DListPtr results(KOVARuntimePortConflictResultListAlloc());
    ASSERT_EQ(KOVARuntimePortConflictCheck(ports.get(), 3, results.get()), 0);
    EXPECT_EQ(texts<Rt>(results.get()), (Lines{"873/1 812 10 /usr/sbin/rsyncd 1", "873/1 77 10 /usr/sbin/rsyncd 1",
                                               "873/1 77 1 /usr/sbin/rsyncd 1", "873/2 0 0 - 0", "5353/1 0 0 - 0",
                                               "5353/2 77 7 /usr/sbin/rsyncd 1", "8080/1 0 0 - 0", "8080/2 0 0 - 0"}));
    EXPECT_EQ(log_normalized(), (Lines{kCheck + "Illegal port: 0"}));
    // The caller's list is appended to, never cleared.
    auto again = port_list({"873"});
    ASSERT_EQ(KOVARuntimePortConflictCheck(again.get(), 2, results.get()), 0);
    EXPECT_EQ(texts<Rt>(results.get()).size(), 9u);
    EXPECT_EQ(owned_texts<Rt>(KOVARuntimePortConflictResultListAllocAndCheck(again.get(), 2)),
              (Lines{"873/2 0 0 - 0"}));

    clear_log();
    kova::DListPtr none(KOVARuntimePortConflictResultListAlloc());
    for (int rc :
         {KOVARuntimePortConflictCheck(ports.get(), 4, none.get()),
          KOVARuntimePortConflictCheck(nullptr, 1, none.get()), KOVARuntimePortConflictCheck(ports.get(), 1, nullptr)})
        EXPECT_EQ(rc, -1);
    EXPECT_EQ(KOVARuntimePortConflictResultListAllocAndCheck(ports.get(), 8), nullptr);
    EXPECT_EQ(log_normalized(), (Lines{kCheck + "Illegal protocol: 4", kCheck + "pPortList is undefined",
                                       kCheck + "pResultList is undefined", kCheck + "Illegal protocol: 8",
                                       kCheck + "Failed to KOVARuntimePortConflictCheck"}));
    // Without a complete inventory the check fails and the queries answer "no conflict".
    std::remove(path("/proc/net/udp6").c_str());
    EXPECT_EQ(KOVARuntimePortConflictCheck(again.get(), 1, none.get()), -1);
    EXPECT_EQ(none->pHead, nullptr);
    EXPECT_EQ(log_normalized().back(), kCheck + "Failed to ServiceConfListFetch");
    EXPECT_EQ(KOVARuntimeIsConflictPort(873, 1), 0);
    EXPECT_EQ(log_normalized().back(), kComparer + "Failed to KOVARuntimePortConflictCheck");
}

TEST_F(RuntimeCheckTest, QueriesAnswerAndDumpTheConflictingPorts) {
    testing::internal::CaptureStderr();
    EXPECT_EQ(KOVARuntimeIsConflictPort(873, 1), 1);
    const std::string dumped = testing::internal::GetCapturedStderr();
    EXPECT_EQ(dumped.rfind("pConflictPortList:\n", 0), 0u) << dumped;
    EXPECT_NE(dumped.find("873"), std::string::npos) << dumped;
    testing::internal::CaptureStderr();
    EXPECT_EQ(KOVARuntimeIsConflictPort(873, 2) + KOVARuntimeIsConflictPortRange(10, 5, 3), 0);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(log_normalized(), (Lines{kComparer + "Illegal port range: 10~5"}));

    auto ports = port_list({"873", "5353", "8080"});
    kova::DListPtr results(KOVARuntimePortConflictResultListAllocAndCheck(ports.get(), 3));
    EXPECT_EQ(owned_texts<Rt>(KOVARuntimePortConflictResultListCopy(results.get())), texts<Rt>(results.get()));
    auto conflicts = port_list({"5353"});
    ASSERT_EQ(KOVARuntimeListConflictPorts(results.get(), 3, conflicts.get()), 0);
    EXPECT_EQ(items(conflicts.get()), (Lines{"5353", "873"}));
    kova::DListPtr filtered(KOVARuntimePortConflictResultListAlloc());
    EXPECT_EQ((std::vector<int>{KOVARuntimeVerifyConflictPort(results.get(), 873, 1),
                                KOVARuntimeVerifyConflictPort(results.get(), 873, 2),
                                RuntimeResultListFilter(results.get(), 873, 1, filtered.get()),
                                RuntimeNotConflictResultAppend(filtered.get(), 873, 2)}),
              (std::vector<int>{1, 0, 3, 0}));
    EXPECT_EQ(texts<Rt>(filtered.get()).back(), "873/2 0 0 - 0");

    clear_log();
    for (int rc :
         {KOVARuntimeVerifyConflictPort(nullptr, 873, 3), KOVARuntimeListConflictPorts(results.get(), 3, nullptr),
          RuntimeResultListFilter(nullptr, 873, 1, filtered.get()), RuntimeNotConflictResultAppend(nullptr, 873, 1)})
        EXPECT_EQ(rc, -1);
    EXPECT_EQ(log_normalized(),
              (Lines{kComparer + "pResultList is undefined", kComparer + "pConflictPortList is undefined",
                     kHelper + "pSourceResultList is undefined", kHelper + "pResultList is undefined"}));
}

class RuntimeInventoryTest : public ProcTableTest {
protected:
    // Processes 1000, 77 and 812 (walked in text order: 1000, 77, 812) share socket 4321; 77
    // holds it on two descriptors and holds 999 through the "[0000]:" form of a socket link. Its
    // other links are no socket links (an empty inode, a space before, another "[...]:" form).
    void shared_socket_processes() const {
        process("1000", "/usr/bin/first", 3, {"socket:[4321]"});
        process("77", "/usr/sbin/rsyncd", 3,
                {"socket:[4321]", "socket:[4321]", "[0000]:999", "pipe:[4321]", "/dev/null", "socket:[]", " socket:[1]",
                 "[0001]:5"});
        process("812", "", 0, {"socket:[4321]"});
    }
};

// Which sockets the tables hold, in which order, is the socket table fuzz harness's model.
TEST_F(RuntimeInventoryTest, MissingOrUnreadableTableFailsWithItsLines) {
    tables(sock_line(873, 0x0A, 4321), "", sock_line(5353, 0x07, 999), "");
    std::remove(path("/proc/net/tcp6").c_str());
    shared_socket_processes();
    EXPECT_EQ(RawSocketInfoListFetch(1), nullptr);
    const std::string missing = kHelper + "Failed to access File: " + path("/proc/net/tcp6") + " (Not Exist)";
    EXPECT_EQ(log_normalized(), (Lines{missing, kHelper + "Failed to ParseToRawSocketInfo"}));
    EXPECT_EQ(owned_texts<RawSocketInfo>(RawSocketInfoListFetch(2)), (Lines{"5353/2 7 999"}));
    clear_log();
    EXPECT_EQ(RuntimeServiceListFetch(), nullptr);
    EXPECT_EQ(log_normalized(), (Lines{missing, kHelper + "Failed to ParseToRawSocketInfo",
                                       kHelper + "Failed to RawSocketInfoListFetch"}));

    clear_log();
    mkdir("/proc/net/tcp6");  // there but not readable as a file; the message ends in a line break
    EXPECT_EQ(RawSocketInfoListFetch(1), nullptr);
    EXPECT_EQ(RawSocketInfoListFetch(4), nullptr);
    EXPECT_EQ(log_normalized(), (Lines{kHelper + "Failed to open File: " + path("/proc/net/tcp6"), "",
                                       kHelper + "Failed to ParseToRawSocketInfo", kHelper + "Illegal protocol: 4"}));
}

TEST_F(RuntimeInventoryTest, PidWalkIsTextSortedAndStopsAtTheFirstNonNumber) {
    EXPECT_EQ(owned_items(FetchPidList()), Lines{});  // no proc directory at all
    for (const char *dir : {"77", "812", "1000", "0042", "net", "self"}) mkdir(std::string("/proc/") + dir);
    EXPECT_EQ(owned_items(FetchPidList()), (Lines{"42", "1000", "77", "812"}));
    mkdir("/proc/#first");  // sorts before the digits
    EXPECT_EQ(owned_items(FetchPidList()), Lines{});
}

TEST_F(RuntimeInventoryTest, InodeOwnersListTheLatestProcessFirst) {
    shared_socket_processes();
    mkdir("/proc/555");  // exited: no descriptor directory left
    kova::SzHashPtr table(InodeToPidsTableFetch());
    ASSERT_NE(table, nullptr);
    Lines pairs;
    for (int i = 0; i < KVLIBCSzHashCount(table.get()); ++i)
        pairs.push_back(std::string(KVLIBCSzHashKeyAt(table.get(), i)) + "=" + KVLIBCSzHashValueAt(table.get(), i));
    EXPECT_EQ(pairs, (Lines{"4321=812,77,77,1000,", "999=77,"}));
    EXPECT_EQ(owned_items(InodeToPidsGet(table.get(), 4321)), (Lines{"812", "77", "77", "1000"}));
    EXPECT_EQ(owned_items(InodeToPidsGet(table.get(), 4322)), Lines{});

    FetchInodeFromPid(nullptr, "77");
    EXPECT_EQ(log_normalized(), (Lines{kHelper + "pInodeToPidsTable is undefined"}));
}

TEST_F(RuntimeInventoryTest, InventoryFollowsSocketOrderThenLatestHolderFirst) {
    tables(sock_line(873, 0x0A, 4321) + sock_line(41000, 0x06, 0),  // TIME_WAIT: inode 0, no holder
           "", sock_line(5353, 0x07, 999), sock_line(5353, 0x07, 8888, true));
    shared_socket_processes();
    mkdir("/proc/555");                        // exited
    process("600", "", 1, {"socket:[8888]"});  // executable not a link: unreadable
    write("/proc/600/exe", "not a link");
    poison_error();
    kova::DListPtr inventory(RuntimeServiceListFetch());
    EXPECT_EQ(KVLIBCErrGet(), 0xEEEEu);  // the inventory reports through the log only
    ASSERT_NE(inventory, nullptr);
    // 77 holds 4321 on two descriptors: one entry.
    EXPECT_EQ(texts<Rt>(inventory.get()),
              (Lines{"873/1 812 10 - 1", "873/1 77 10 /usr/sbin/rsyncd 1", "873/1 1000 10 /usr/bin/first 1",
                     "5353/2 77 7 /usr/sbin/rsyncd 1", "5353/2 600 7 - 1"}));
    EXPECT_TRUE(log().empty());
    // The executable is the link target, cut to 1023 bytes.
    const std::string long_target = "/" + std::string(1500, 'x');
    process("9", long_target, 0, {});
    kova::CStrPtr cut(ProgramCommandFetch(9));
    EXPECT_EQ(std::string(cut ? cut.get() : "none"), long_target.substr(0, 1023));
    EXPECT_EQ(ProgramCommandFetch(4242), nullptr);
}

// (What a table adds to a list, in which order, is the socket table fuzz harness's model.)
TEST_F(RuntimeInventoryTest, ContainCompareTheWholeKey) {
    tables(sock_line(40000, 0x01, 5000), "", "", "");
    kova::DListPtr list(RawSocketInfoListFetch(1));
    RawSocketInfo known{40000, 1, 5000, 1}, other{40000, 1, 5001, 1};
    EXPECT_EQ(ContainRawSocketInfo(list.get(), &known), 1);
    EXPECT_EQ(ContainRawSocketInfo(list.get(), &other), 0);
    kova::DListPtr results(KOVARuntimePortConflictResultListAlloc());
    Rt held{873, 1, 77, 10, const_cast<char *>("/usr/sbin/rsyncd"), 1};
    ASSERT_EQ(KVLIBCDListAppend(results.get(), &held), 0);
    Rt probe = held;
    probe.program = nullptr;  // not compared
    EXPECT_EQ(ContainRuntimeResult(results.get(), &probe), 1);
    probe.state = 1;
    EXPECT_EQ(ContainRuntimeResult(results.get(), &probe), 0);
    EXPECT_EQ(ContainRawSocketInfo(nullptr, &known), 0);
    EXPECT_EQ(ContainRuntimeResult(results.get(), nullptr), 0);
    EXPECT_EQ(log_normalized(), (Lines{kHelper + "pRawSocketInfoList is undefined", kHelper + "pResult is undefined"}));
}

}  // namespace
