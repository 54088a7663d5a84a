// The runtime check and its queries, over a fabricated process table and over the machine's
// real one (the test root's proc linked to /proc) with sockets that the test opens itself.
#include <kovaserviceconf.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <tuple>
#include <vector>

#include "proc_fixture.h"

namespace {

using kova::test::line4;
using kova::test::line6;

// port, protocol, pid, state, program ("(null)" for none), isConflict
using Rt = std::tuple<unsigned, unsigned, unsigned, unsigned, std::string, int>;

std::vector<Rt> records(const KVLIB_DLIST *list) {
    std::vector<Rt> out;
    for (const KVLIB_DLIST_NODE *n = list->pHead; n != nullptr; n = n->pNext) {
        const auto *r = static_cast<const KOVA_RUNTIME_PORT_CONFLICT_RESULT *>(n->pData);
        out.emplace_back(r->port, r->protocol, r->pid, r->state, r->program ? r->program : "(null)", r->isConflict);
    }
    return out;
}

std::vector<std::string> items(const KVLIB_SZLIST *list) {
    std::vector<std::string> out;
    for (int i = 0; i < list->nItem; ++i) out.emplace_back(KVLIBCSzListGet(list, i));
    return out;
}

kova::SzListPtr port_list(std::initializer_list<const char *> ports) {
    kova::SzListPtr list(KVLIBCSzListAlloc(512));
    for (const char *p : ports) {
        KVLIB_SZLIST *handle = list.get();
        KVLIBCSzListPush(&handle, p);
    }
    return list;
}

class RuntimeCheckTest : public kova::test::ProcTableTest {
protected:
    // rsyncd (77) and a forked copy (812) listen on 873/TCP; 77 also holds 5353/UDP.
    void SetUp() override {
        ProcTableTest::SetUp();
        tables(line4(0, 873, 0x0A, 4321) + line4(1, 873, 0x01, 4400), "", line4(0, 5353, 0x07, 999),
               line6(0, 5353, 0x07, 999));
        process("77", "/usr/sbin/rsyncd", {{3, "socket:[4321]"}, {4, "socket:[999]"}, {5, "socket:[4400]"}});
        process("812", "/usr/sbin/rsyncd", {{3, "socket:[4321]"}});
    }
};

TEST_F(RuntimeCheckTest, ReportsHoldersThenNoConflictRecords) {
    auto ports = port_list({"873", "5353", "0", "abc", "8080"});
    kova::DListPtr results(KOVARuntimePortConflictResultListAlloc());
    ASSERT_EQ(KOVARuntimePortConflictCheck(ports.get(), 3, results.get()), 0);
    EXPECT_EQ(records(results.get()), (std::vector<Rt>{{873, 1, 812, 10, "/usr/sbin/rsyncd", 1},
                                                       {873, 1, 77, 10, "/usr/sbin/rsyncd", 1},
                                                       {873, 1, 77, 1, "/usr/sbin/rsyncd", 1},
                                                       {873, 2, 0, 0, "(null)", 0},
                                                       {5353, 1, 0, 0, "(null)", 0},
                                                       {5353, 2, 77, 7, "/usr/sbin/rsyncd", 1},
                                                       {8080, 1, 0, 0, "(null)", 0},
                                                       {8080, 2, 0, 0, "(null)", 0}}));
    EXPECT_EQ(log_normalized(), (std::vector<std::string>{"port_conflict_runtime_check.cpp:N Illegal port: 0",
                                                          "port_conflict_helper.cpp:N Failed on parse port: abc",
                                                          "port_conflict_runtime_check.cpp:N Illegal port: abc"}));

    // The caller's list is appended to, never cleared.
    auto again = port_list({"873"});
    ASSERT_EQ(KOVARuntimePortConflictCheck(again.get(), 2, results.get()), 0);
    EXPECT_EQ(records(results.get()).size(), 9u);
    EXPECT_EQ(records(results.get()).back(), (Rt{873, 2, 0, 0, "(null)", 0}));
}

TEST_F(RuntimeCheckTest, BadArgumentsFailWithTheirOwnLines) {
    auto ports = port_list({"873"});
    kova::DListPtr results(KOVARuntimePortConflictResultListAlloc());
    EXPECT_EQ(KOVARuntimePortConflictCheck(ports.get(), 0, results.get()), -1);
    EXPECT_EQ(KOVARuntimePortConflictCheck(ports.get(), 4, results.get()), -1);
    EXPECT_EQ(KOVARuntimePortConflictCheck(nullptr, 1, results.get()), -1);
    EXPECT_EQ(KOVARuntimePortConflictCheck(ports.get(), 1, nullptr), -1);
    EXPECT_EQ(results->pHead, nullptr);
    EXPECT_EQ(KOVARuntimePortConflictResultListAllocAndCheck(nullptr, 1), nullptr);
    EXPECT_EQ(KOVARuntimePortConflictResultListAllocAndCheck(ports.get(), 8), nullptr);
    EXPECT_EQ(log_normalized(),
              (std::vector<std::string>{"port_conflict_runtime_check.cpp:N Illegal protocol: 0",
                                        "port_conflict_runtime_check.cpp:N Illegal protocol: 4",
                                        "port_conflict_runtime_check.cpp:N pPortList is undefined",
                                        "port_conflict_runtime_check.cpp:N pResultList is undefined",
                                        "port_conflict_runtime_check.cpp:N pPortList is undefined",
                                        "port_conflict_runtime_check.cpp:N Illegal protocol: 8",
                                        "port_conflict_runtime_check.cpp:N Failed to KOVARuntimePortConflictCheck"}));
}

TEST_F(RuntimeCheckTest, AllocAndCheckHandsBackTheFilledList) {
    auto ports = port_list({"873"});
    kova::DListPtr results(KOVARuntimePortConflictResultListAllocAndCheck(ports.get(), 1));
    ASSERT_NE(results, nullptr);
    EXPECT_EQ(records(results.get()).size(), 3u);
    kova::DListPtr copy(KOVARuntimePortConflictResultListCopy(results.get()));
    results.reset();
    ASSERT_NE(copy, nullptr);
    EXPECT_EQ(records(copy.get()).front(), (Rt{873, 1, 812, 10, "/usr/sbin/rsyncd", 1}));
}

TEST_F(RuntimeCheckTest, InventoryFailureAnswersNoConflict) {
    std::remove(path("/proc/net/udp6").c_str());
    auto ports = port_list({"873"});
    kova::DListPtr results(KOVARuntimePortConflictResultListAlloc());
    EXPECT_EQ(KOVARuntimePortConflictCheck(ports.get(), 1, results.get()), -1);
    EXPECT_EQ(log_normalized().back(), "port_conflict_runtime_check.cpp:N Failed to ServiceConfListFetch");
    clear_log();
    EXPECT_EQ(KOVARuntimeIsConflictPort(873, 1), 0);
    EXPECT_EQ(log_normalized().back(), "port_conflict_runtime_comparer.cpp:N Failed to KOVARuntimePortConflictCheck");
}

TEST_F(RuntimeCheckTest, QueriesAnswerAndDumpTheConflictingPorts) {
    testing::internal::CaptureStderr();
    EXPECT_EQ(KOVARuntimeIsConflictPort(873, 1), 1);
    const std::string dumped = testing::internal::GetCapturedStderr();
    EXPECT_EQ(dumped.rfind("pConflictPortList:\n", 0), 0u) << dumped;
    EXPECT_NE(dumped.find("873"), std::string::npos) << dumped;

    testing::internal::CaptureStderr();
    EXPECT_EQ(KOVARuntimeIsConflictPort(873, 2), 0);
    EXPECT_EQ(KOVARuntimeIsConflictPort(0, 3), 0);
    EXPECT_EQ(KOVARuntimeIsConflictPortRange(10, 5, 3), 0);
    EXPECT_EQ(KOVARuntimeIsConflictPortRange(65000, 65535, 3), 0);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");

    testing::internal::CaptureStderr();
    EXPECT_EQ(KOVARuntimeIsConflictPortRange(5350, 5360, 2), 1);
    auto ports = port_list({"80", "5353"});
    EXPECT_EQ(KOVARuntimeIsConflictPorts(ports.get(), 3), 1);
    testing::internal::GetCapturedStderr();
    EXPECT_TRUE(logged("port_conflict_runtime_comparer.cpp:N Illegal port range: 10~5"));
}

TEST_F(RuntimeCheckTest, ConflictPortsAreListedOnceAndVerified) {
    auto ports = port_list({"873", "5353", "8080"});
    kova::DListPtr results(KOVARuntimePortConflictResultListAllocAndCheck(ports.get(), 3));
    ASSERT_NE(results, nullptr);

    auto conflicts = port_list({"5353"});
    ASSERT_EQ(KOVARuntimeListConflictPorts(results.get(), 3, conflicts.get()), 0);
    EXPECT_EQ(items(conflicts.get()), (std::vector<std::string>{"5353", "873"}));
    auto udp_only = port_list({});
    ASSERT_EQ(KOVARuntimeListConflictPorts(results.get(), 2, udp_only.get()), 0);
    EXPECT_EQ(items(udp_only.get()), (std::vector<std::string>{"5353"}));

    EXPECT_EQ(KOVARuntimeVerifyConflictPort(results.get(), 873, 1), 1);
    EXPECT_EQ(KOVARuntimeVerifyConflictPort(results.get(), 873, 2), 0);
    EXPECT_EQ(KOVARuntimeVerifyConflictPort(results.get(), 8080, 3), 0);
    EXPECT_EQ(KOVARuntimeVerifyConflictPort(results.get(), 8081, 3), -2);
    EXPECT_EQ(KOVARuntimeVerifyConflictPort(results.get(), 873, 0), -2);
    kova::DListPtr empty(KOVARuntimePortConflictResultListAlloc());
    EXPECT_EQ(KOVARuntimeVerifyConflictPort(empty.get(), 873, 3), -2);

    EXPECT_EQ(KOVARuntimeVerifyConflictPort(nullptr, 873, 3), -1);
    EXPECT_EQ(KOVARuntimeListConflictPorts(nullptr, 3, conflicts.get()), -1);
    EXPECT_EQ(KOVARuntimeListConflictPorts(results.get(), 3, nullptr), -1);
    EXPECT_EQ(log_normalized(),
              (std::vector<std::string>{"port_conflict_runtime_comparer.cpp:N pResultList is undefined",
                                        "port_conflict_runtime_comparer.cpp:N pResultList is undefined",
                                        "port_conflict_runtime_comparer.cpp:N pConflictPortList is undefined"}));
}

TEST_F(RuntimeCheckTest, FilterAndNoConflictAppend) {
    kova::DListPtr inventory(RuntimeServiceListFetch());
    ASSERT_NE(inventory, nullptr);
    kova::DListPtr filtered(KOVARuntimePortConflictResultListAlloc());
    EXPECT_EQ(RuntimeResultListFilter(inventory.get(), 873, 1, filtered.get()), 3);
    EXPECT_EQ(RuntimeResultListFilter(inventory.get(), 873, 2, filtered.get()), 0);
    EXPECT_EQ(RuntimeNotConflictResultAppend(filtered.get(), 873, 2), 0);
    EXPECT_EQ(records(filtered.get()).back(), (Rt{873, 2, 0, 0, "(null)", 0}));
    EXPECT_EQ(RuntimeResultListFilter(nullptr, 873, 1, filtered.get()), -1);
    EXPECT_EQ(RuntimeResultListFilter(inventory.get(), 873, 1, nullptr), -1);
    EXPECT_EQ(RuntimeNotConflictResultAppend(nullptr, 873, 1), -1);
    EXPECT_EQ(log_normalized(),
              (std::vector<std::string>{"port_conflict_runtime_helper.cpp:N pSourceResultList is undefined",
                                        "port_conflict_runtime_helper.cpp:N pFilteredResultList is undefined",
                                        "port_conflict_runtime_helper.cpp:N pResultList is undefined"}));
}

// ---- the machine's own process table ----------------------------------------------------------

class RealProcessTableTest : public kova::test::RootTest {
protected:
    void SetUp() override {
        RootTest::SetUp();
        symlink("/proc", "/proc");
        for (const char *table : {"/proc/net/tcp", "/proc/net/tcp6", "/proc/net/udp", "/proc/net/udp6"})
            if (access(table, R_OK) != 0) GTEST_SKIP() << table << " is not readable here";
    }
};

// A TCP socket listening on 127.0.0.1 on a port of the kernel's choice, on which no UDP socket
// is bound either; -1 when none could be found.
int listen_on_free_port(uint16_t &port) {
    for (int attempt = 0; attempt < 20; ++attempt) {
        int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in addr{};
        addr.sin_family = AF_INET;
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t len = sizeof addr;
        if (fd < 0 || bind(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0 || listen(fd, 4) != 0 ||
            getsockname(fd, reinterpret_cast<sockaddr *>(&addr), &len) != 0) {
            if (fd >= 0) close(fd);
            return -1;
        }
        // Binding the wildcard address fails when any UDP socket uses the port.
        int udp = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        sockaddr_in any = addr;
        any.sin_addr.s_addr = htonl(INADDR_ANY);
        const bool udp_free = udp >= 0 && bind(udp, reinterpret_cast<sockaddr *>(&any), sizeof any) == 0;
        if (udp >= 0) close(udp);
        if (udp_free) {
            port = ntohs(addr.sin_port);
            return fd;
        }
        close(fd);
    }
    return -1;
}

std::string own_executable() {
    char target[1024];
    const ssize_t n = readlink("/proc/self/exe", target, sizeof target - 1);
    return n > 0 ? std::string(target, static_cast<size_t>(n)) : std::string();
}

TEST_F(RealProcessTableTest, OwnListeningSocketIsReportedWithPidStateAndExecutable) {
    uint16_t port = 0;
    const int fd = listen_on_free_port(port);
    ASSERT_GE(fd, 0);
    const std::string text = std::to_string(port);
    auto ports = port_list({text.c_str()});
    kova::DListPtr results(KOVARuntimePortConflictResultListAlloc());
    ASSERT_EQ(KOVARuntimePortConflictCheck(ports.get(), 3, results.get()), 0);
    const auto got = records(results.get());
    close(fd);
    ASSERT_EQ(got.size(), 2u);
    EXPECT_EQ(got[0], (Rt{port, 1, static_cast<unsigned>(getpid()), 10, own_executable(), 1}));
    EXPECT_EQ(got[1], (Rt{port, 2, 0, 0, "(null)", 0}));
    EXPECT_STREQ(KOVATCPStateToString(std::get<3>(got[0])), "TCP_LISTEN");
}

TEST_F(RealProcessTableTest, ForkSharedSocketListsTheLaterPidOfTheWalkFirst) {
    uint16_t port = 0;
    const int fd = listen_on_free_port(port);
    ASSERT_GE(fd, 0);
    int ready[2];
    ASSERT_EQ(pipe(ready), 0);
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        close(ready[0]);
        if (::write(ready[1], "x", 1) != 1) _exit(1);
        pause();
        _exit(0);
    }
    close(ready[1]);
    char byte;
    ASSERT_EQ(::read(ready[0], &byte, 1), 1);
    close(ready[0]);

    testing::internal::CaptureStderr();
    const int conflict = KOVARuntimeIsConflictPort(port, 1);
    const std::string dumped = testing::internal::GetCapturedStderr();
    auto ports = port_list({std::to_string(port).c_str()});
    kova::DListPtr results(KOVARuntimePortConflictResultListAlloc());
    const int rc = KOVARuntimePortConflictCheck(ports.get(), 1, results.get());
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    close(fd);

    EXPECT_EQ(conflict, 1);
    EXPECT_EQ(dumped.rfind("pConflictPortList:\n", 0), 0u);
    ASSERT_EQ(rc, 0);
    const std::string parent_text = std::to_string(getpid());
    const std::string child_text = std::to_string(child);
    // The walk of /proc is in text order; the holder found last is listed first.
    const unsigned first = static_cast<unsigned>(parent_text < child_text ? child : getpid());
    const unsigned second = static_cast<unsigned>(parent_text < child_text ? getpid() : child);
    const std::string exe = own_executable();
    EXPECT_EQ(records(results.get()), (std::vector<Rt>{{port, 1, first, 10, exe, 1}, {port, 1, second, 10, exe, 1}}));
}

}  // namespace
