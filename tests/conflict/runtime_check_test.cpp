// The runtime check and its queries over a fabricated process table (the CLI tests run the same
// inventory over the machine's real one).
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
        process("77", "/usr/sbin/rsyncd", {{3, "socket:[4321]"}, {4, "socket:[999]"}, {5, "socket:[4400]"}});
        process("812", "/usr/sbin/rsyncd", {{3, "socket:[4321]"}});
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
    EXPECT_EQ(KOVARuntimePortConflictCheck(ports.get(), 4, none.get()), -1);
    EXPECT_EQ(KOVARuntimePortConflictCheck(nullptr, 1, none.get()), -1);
    EXPECT_EQ(KOVARuntimePortConflictCheck(ports.get(), 1, nullptr), -1);
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
    EXPECT_EQ(KOVARuntimeIsConflictPort(873, 2), 0);
    EXPECT_EQ(KOVARuntimeIsConflictPortRange(10, 5, 3), 0);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(log_normalized(), (Lines{kComparer + "Illegal port range: 10~5"}));

    auto ports = port_list({"873", "5353", "8080"});
    kova::DListPtr results(KOVARuntimePortConflictResultListAllocAndCheck(ports.get(), 3));
    EXPECT_EQ(owned_texts<Rt>(KOVARuntimePortConflictResultListCopy(results.get())), texts<Rt>(results.get()));
    auto conflicts = port_list({"5353"});
    ASSERT_EQ(KOVARuntimeListConflictPorts(results.get(), 3, conflicts.get()), 0);
    EXPECT_EQ(items(conflicts.get()), (Lines{"5353", "873"}));
    EXPECT_EQ(KOVARuntimeVerifyConflictPort(results.get(), 873, 1), 1);
    EXPECT_EQ(KOVARuntimeVerifyConflictPort(results.get(), 873, 2), 0);
    kova::DListPtr filtered(KOVARuntimePortConflictResultListAlloc());
    EXPECT_EQ(RuntimeResultListFilter(results.get(), 873, 1, filtered.get()), 3);
    EXPECT_EQ(RuntimeNotConflictResultAppend(filtered.get(), 873, 2), 0);
    EXPECT_EQ(texts<Rt>(filtered.get()).back(), "873/2 0 0 - 0");

    clear_log();
    EXPECT_EQ(KOVARuntimeVerifyConflictPort(nullptr, 873, 3), -1);
    EXPECT_EQ(KOVARuntimeListConflictPorts(results.get(), 3, nullptr), -1);
    EXPECT_EQ(RuntimeResultListFilter(nullptr, 873, 1, filtered.get()), -1);
    EXPECT_EQ(RuntimeNotConflictResultAppend(nullptr, 873, 1), -1);
    EXPECT_EQ(log_normalized(),
              (Lines{kComparer + "pResultList is undefined", kComparer + "pConflictPortList is undefined",
                     kHelper + "pSourceResultList is undefined", kHelper + "pResultList is undefined"}));
}

}  // namespace
