// The runtime inventory over a fabricated process table: socket tables, the process walk,
// descriptor links, executables, and the orders and duplicates of the result.
#include <kovaserviceconf.h>

#include <cstdio>
#include <string>
#include <tuple>
#include <vector>

#include "conflict/runtime_inventory.h"
#include "proc_fixture.h"

namespace {

using kova::test::Fd;
using kova::test::line4;
using kova::test::line6;

// port, state, inode, protocol
using Raw = std::tuple<unsigned, unsigned, unsigned long, unsigned>;
// port, protocol, pid, state, program ("(null)" for none), isConflict
using Rt = std::tuple<unsigned, unsigned, unsigned, unsigned, std::string, int>;

std::vector<Raw> raws(const KVLIB_DLIST *list) {
    std::vector<Raw> out;
    for (const KVLIB_DLIST_NODE *n = list->pHead; n != nullptr; n = n->pNext) {
        const auto *r = static_cast<const RawSocketInfo *>(n->pData);
        out.emplace_back(r->port, r->state, r->inode, r->protocol);
    }
    return out;
}

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

class RuntimeInventoryTest : public kova::test::ProcTableTest {
protected:
    // Processes 1000, 77 and 812 (text order of the walk: 1000, 77, 812) share socket 4321;
    // 77 holds it twice and also holds 999 through the "[0000]:" form of a socket link.
    void shared_socket_processes() const {
        process("1000", "/usr/bin/first", {{3, "socket:[4321]"}});
        process("77", "/usr/sbin/rsyncd",
                {{3, "socket:[4321]"},
                 {4, "socket:[4321]"},
                 {5, "[0000]:999"},
                 {6, "pipe:[4321]"},
                 {7, "/dev/null"},
                 {8, "socket:[abc]"},
                 {9, "anon_inode:[eventfd]"}});
        process("812", "", {{0, "socket:[4321]"}});
    }
};

TEST_F(RuntimeInventoryTest, SocketTablesInOrderWithoutHeadersMalformedLinesOrDuplicates) {
    tables(
        line4(0, 873, 0x0A, 4321) + "this is not a socket\n" + line4(1, 873, 0x0A, 4321) + line4(2, 40000, 0x01, 5000),
        line6(0, 22, 0x0A, 6000) + line6(1, 873, 0x0A, 4321) +
            "   2: 00000000000000000000000001000000:0050 00000000000000000000000000000000:0000 0A",
        line4(0, 5353, 0x07, 7000) + line4(1, 873, 0x0A, 4321), "");
    kova::DListPtr both(RawSocketInfoListFetch(3));
    ASSERT_NE(both, nullptr);
    // The same socket in tcp and tcp6 is one record; in the UDP table it is another protocol.
    EXPECT_EQ(raws(both.get()),
              (std::vector<Raw>{
                  {873, 10, 4321, 1}, {40000, 1, 5000, 1}, {22, 10, 6000, 1}, {5353, 7, 7000, 2}, {873, 10, 4321, 2}}));
    kova::DListPtr tcp(RawSocketInfoListFetch(1));
    ASSERT_NE(tcp, nullptr);
    EXPECT_EQ(raws(tcp.get()).size(), 3u);
    kova::DListPtr udp(RawSocketInfoListFetch(2));
    ASSERT_NE(udp, nullptr);
    EXPECT_EQ(raws(udp.get()), (std::vector<Raw>{{5353, 7, 7000, 2}, {873, 10, 4321, 2}}));
    EXPECT_TRUE(log().empty());
}

TEST_F(RuntimeInventoryTest, IllegalProtocolGivesNoList) {
    tables("", "", "", "");
    EXPECT_EQ(RawSocketInfoListFetch(0), nullptr);
    EXPECT_EQ(RawSocketInfoListFetch(4), nullptr);
    EXPECT_EQ(log_normalized(), (std::vector<std::string>{"port_conflict_runtime_helper.cpp:N Illegal protocol: 0",
                                                          "port_conflict_runtime_helper.cpp:N Illegal protocol: 4"}));
}

TEST_F(RuntimeInventoryTest, MissingTcp6FailsTheTcpSideAndTheWholeInventory) {
    write("/proc/net/tcp", kova::test::kTcpHeader + line4(0, 873, 0x0A, 4321));
    write("/proc/net/udp", kova::test::kUdpHeader + line4(0, 5353, 0x07, 999));
    write("/proc/net/udp6", kova::test::kUdpHeader);
    shared_socket_processes();

    EXPECT_EQ(RawSocketInfoListFetch(1), nullptr);
    const std::string missing =
        "port_conflict_runtime_helper.cpp:N Failed to access File: " + path("/proc/net/tcp6") + " (Not Exist)";
    EXPECT_EQ(log_normalized(),
              (std::vector<std::string>{missing, "port_conflict_runtime_helper.cpp:N Failed to ParseToRawSocketInfo"}));

    kova::DListPtr udp(RawSocketInfoListFetch(2));
    ASSERT_NE(udp, nullptr);
    EXPECT_EQ(raws(udp.get()), (std::vector<Raw>{{5353, 7, 999, 2}}));

    clear_log();
    EXPECT_EQ(RuntimeServiceListFetch(), nullptr);
    EXPECT_EQ(log_normalized(),
              (std::vector<std::string>{missing, "port_conflict_runtime_helper.cpp:N Failed to ParseToRawSocketInfo",
                                        "port_conflict_runtime_helper.cpp:N Failed to RawSocketInfoListFetch"}));
}

TEST_F(RuntimeInventoryTest, UnreadableTableFailsWithTheOpenLine) {
    tables(line4(0, 873, 0x0A, 4321), "", "", "");
    std::remove(path("/proc/net/udp").c_str());
    mkdir("/proc/net/udp");
    EXPECT_EQ(RawSocketInfoListFetch(2), nullptr);
    // The message ends with a line break of its own.
    EXPECT_EQ(log_normalized(), (std::vector<std::string>{
                                    "port_conflict_runtime_helper.cpp:N Failed to open File: " + path("/proc/net/udp"),
                                    "", "port_conflict_runtime_helper.cpp:N Failed to ParseToRawSocketInfo"}));
}

TEST_F(RuntimeInventoryTest, PidWalkIsTextSortedAndStopsAtTheFirstNonNumber) {
    kova::SzListPtr none(FetchPidList());
    ASSERT_NE(none, nullptr);  // no proc directory at all: an empty list
    EXPECT_EQ(none->nItem, 0);

    for (const char *dir : {"77", "812", "1000", "0042", "net", "self", "sys"}) mkdir(std::string("/proc/") + dir);
    kova::SzListPtr pids(FetchPidList());
    ASSERT_NE(pids, nullptr);
    EXPECT_EQ(items(pids.get()), (std::vector<std::string>{"42", "1000", "77", "812"}));

    mkdir("/proc/#first");  // sorts before the digits
    kova::SzListPtr stopped(FetchPidList());
    ASSERT_NE(stopped, nullptr);
    EXPECT_EQ(stopped->nItem, 0);
}

TEST_F(RuntimeInventoryTest, InodeToPidsTableListsTheLatestProcessFirst) {
    shared_socket_processes();
    mkdir("/proc/555");  // exited: no descriptor directory left
    kova::SzHashPtr table(InodeToPidsTableFetch());
    ASSERT_NE(table, nullptr);
    ASSERT_EQ(KVLIBCSzHashCount(table.get()), 2);
    EXPECT_STREQ(KVLIBCSzHashKeyAt(table.get(), 0), "4321");
    EXPECT_STREQ(KVLIBCSzHashValueAt(table.get(), 0), "812,77,77,1000,");
    EXPECT_STREQ(KVLIBCSzHashKeyAt(table.get(), 1), "999");
    EXPECT_STREQ(KVLIBCSzHashValueAt(table.get(), 1), "77,");

    kova::SzListPtr holders(InodeToPidsGet(table.get(), 4321));
    ASSERT_NE(holders, nullptr);
    EXPECT_EQ(items(holders.get()), (std::vector<std::string>{"812", "77", "77", "1000"}));
    kova::SzListPtr nobody(InodeToPidsGet(table.get(), 4322));
    ASSERT_NE(nobody, nullptr);
    EXPECT_EQ(nobody->nItem, 0);
    EXPECT_TRUE(log().empty());
}

TEST_F(RuntimeInventoryTest, FetchInodeFromPidPutsEachProcessInFront) {
    shared_socket_processes();
    kova::SzHashPtr table(KVLIBCSzHashAlloc(512));
    KVLIB_SZHASH *handle = table.get();
    FetchInodeFromPid(&handle, "77");
    FetchInodeFromPid(&handle, "812");
    FetchInodeFromPid(&handle, "4242");  // no such process
    (void)table.release();
    table.reset(handle);
    EXPECT_STREQ(KVLIBCSzHashGetValue(table.get(), "4321"), "812,77,77,");
    EXPECT_STREQ(KVLIBCSzHashGetValue(table.get(), "999"), "77,");
    EXPECT_EQ(KVLIBCSzHashCount(table.get()), 2);

    KVLIB_SZHASH *empty = nullptr;
    FetchInodeFromPid(&empty, "77");
    FetchInodeFromPid(nullptr, "77");
    EXPECT_EQ(empty, nullptr);
    EXPECT_EQ(log_normalized(),
              (std::vector<std::string>{"port_conflict_runtime_helper.cpp:N pInodeToPidsTable is undefined",
                                        "port_conflict_runtime_helper.cpp:N pInodeToPidsTable is undefined"}));
}

TEST_F(RuntimeInventoryTest, InventoryFollowsSocketOrderThenHolderOrder) {
    tables(line4(0, 873, 0x0A, 4321) + line4(1, 41000, 0x06, 0),  // TIME_WAIT: inode 0, no holder
           "", line4(0, 5353, 0x07, 999), line6(0, 5353, 0x07, 8888));
    shared_socket_processes();
    mkdir("/proc/555");                          // exited
    process("600", "", {{1, "socket:[8888]"}});  // executable not a link: unreadable
    write("/proc/600/exe", "not a link");
    poison_error();
    kova::DListPtr inventory(RuntimeServiceListFetch());
    EXPECT_EQ(KVLIBCErrGet(), 0xEEEEu);  // the inventory reports through the log only
    ASSERT_NE(inventory, nullptr);
    EXPECT_EQ(records(inventory.get()), (std::vector<Rt>{{873, 1, 812, 10, "(null)", 1},
                                                         {873, 1, 77, 10, "/usr/sbin/rsyncd", 1},
                                                         {873, 1, 1000, 10, "/usr/bin/first", 1},
                                                         {5353, 2, 77, 7, "/usr/sbin/rsyncd", 1},
                                                         {5353, 2, 600, 7, "(null)", 1}}));
    EXPECT_TRUE(log().empty());
}

TEST_F(RuntimeInventoryTest, ProgramIsTheExecutableLinkTarget) {
    shared_socket_processes();
    kova::CStrPtr program(ProgramCommandFetch(77));
    ASSERT_NE(program, nullptr);
    EXPECT_STREQ(program.get(), "/usr/sbin/rsyncd");
    EXPECT_EQ(ProgramCommandFetch(812), nullptr);
    EXPECT_EQ(ProgramCommandFetch(4242), nullptr);
    const std::string long_target(1500, 'x');
    process("9", "/" + long_target, {});
    kova::CStrPtr cut(ProgramCommandFetch(9));
    ASSERT_NE(cut, nullptr);
    EXPECT_EQ(std::string(cut.get()), "/" + long_target.substr(0, 1022));
}

TEST_F(RuntimeInventoryTest, ParseAppendsOnlySocketsTheListLacks) {
    tables(line4(0, 873, 0x0A, 4321) + line4(1, 40000, 0x01, 5000), "", "", "");
    kova::DListPtr list(KVLIBCDListAlloc(
        [](const void *p) -> void * { return RawSocketInfoCopy(static_cast<const RawSocketInfo *>(p)); },
        [](void *p) { RawSocketInfoFree(static_cast<RawSocketInfo *>(p)); }));
    RawSocketInfo known{40000, 1, 5000, 1};
    ASSERT_EQ(KVLIBCDListAppend(list.get(), &known), 0);
    EXPECT_EQ(ParseToRawSocketInfo(path("/proc/net/tcp").c_str(), 1, list.get()), 0);
    EXPECT_EQ(raws(list.get()), (std::vector<Raw>{{40000, 1, 5000, 1}, {873, 10, 4321, 1}}));

    EXPECT_EQ(ContainRawSocketInfo(list.get(), &known), 1);
    RawSocketInfo other = known;
    other.inode = 5001;
    EXPECT_EQ(ContainRawSocketInfo(list.get(), &other), 0);
    EXPECT_EQ(ContainRawSocketInfo(nullptr, &known), 0);
    EXPECT_EQ(ContainRawSocketInfo(list.get(), nullptr), 0);

    EXPECT_EQ(ParseToRawSocketInfo(path("/proc/net/none").c_str(), 1, list.get()), -1);
    EXPECT_EQ(raws(list.get()).size(), 2u);
    EXPECT_EQ(log_normalized(),
              (std::vector<std::string>{"port_conflict_runtime_helper.cpp:N pRawSocketInfoList is undefined",
                                        "port_conflict_runtime_helper.cpp:N pInfo is undefined",
                                        "port_conflict_runtime_helper.cpp:N Failed to access File: " +
                                            path("/proc/net/none") + " (Not Exist)"}));
}

TEST_F(RuntimeInventoryTest, ContainRuntimeResultIgnoresTheProgram) {
    kova::DListPtr list(KOVARuntimePortConflictResultListAlloc());
    KOVA_RUNTIME_PORT_CONFLICT_RESULT held{873, 1, 77, 10, const_cast<char *>("/usr/sbin/rsyncd"), 1};
    ASSERT_EQ(KVLIBCDListAppend(list.get(), &held), 0);
    KOVA_RUNTIME_PORT_CONFLICT_RESULT probe = held;
    probe.program = nullptr;
    EXPECT_EQ(ContainRuntimeResult(list.get(), &probe), 1);
    probe.state = 1;
    EXPECT_EQ(ContainRuntimeResult(list.get(), &probe), 0);
    probe = held;
    probe.isConflict = 0;
    EXPECT_EQ(ContainRuntimeResult(list.get(), &probe), 0);
    EXPECT_EQ(ContainRuntimeResult(nullptr, &held), 0);
    EXPECT_EQ(ContainRuntimeResult(list.get(), nullptr), 0);
    EXPECT_EQ(log_normalized(), (std::vector<std::string>{"port_conflict_runtime_helper.cpp:N pResultList is undefined",
                                                          "port_conflict_runtime_helper.cpp:N pResult is undefined"}));
}

TEST(SocketLineScan, ReadsPortStateAndInodeOfKernelLines) {
    RawSocketInfo info{};
    info.protocol = 2;
    ASSERT_TRUE(kova::conflict::scan_socket_line(line4(3, 0xABCD, 0x0A, 123456789).c_str(), info));
    EXPECT_EQ(info.port, 0xABCD);
    EXPECT_EQ(info.state, 10u);
    EXPECT_EQ(info.inode, 123456789u);
    EXPECT_EQ(info.protocol, 2);  // left alone
    ASSERT_TRUE(kova::conflict::scan_socket_line(line6(0, 0x1f90, 0x01, 42).c_str(), info));
    EXPECT_EQ(info.port, 0x1F90);
    EXPECT_EQ(info.inode, 42u);

    RawSocketInfo untouched{1, 2, 3, 4};
    for (const char *bad :
         {kova::test::kTcpHeader, "", "   0: 0100007F:0371 00000000:0000 0A",
          "   0: 0100007F:0371 00000000:0000 0A 00000000:00000000 00:00000000 00000000     0", "x: 0100007F:0371"}) {
        EXPECT_FALSE(kova::conflict::scan_socket_line(bad, untouched)) << bad;
    }
    EXPECT_FALSE(kova::conflict::scan_socket_line(nullptr, untouched));
    EXPECT_EQ(untouched.port, 1);
    EXPECT_EQ(untouched.inode, 3u);
}

// What the table format of the kernel's socket lines yields, read by scanf alone.
bool scanf_reference(const std::string &line, RawSocketInfo &info) {
    unsigned short port = 0;
    unsigned int state = 0;
    unsigned long inode = 0;
    if (std::sscanf(line.c_str(), "%*d: %*64[0-9A-Fa-f]:%hx %*64[0-9A-Fa-f]:%*X %X %*X:%*X %*X:%*X %*X %*d %*d %lu ",
                    &port, &state, &inode) < 3)
        return false;
    info.port = port;
    info.state = state;
    info.inode = inode;
    return true;
}

// Every line one edit away from a kernel line (a character replaced, inserted or removed, or
// the line cut) is read exactly as the scanf format reads it.
TEST(SocketLineScan, AgreesWithTheScanfFormatOnEditedLines) {
    const std::vector<std::string> bases = {
        line4(0, 0x0371, 0x0A, 4321), line6(12, 0xFFFF, 0x01, 18446744073709551615ul),
        "  1: 0100007F:0035 00000000:0000 07 00000000:00000000 00:00000000 00000000  4294967294        0 98765 2 "
        "0000000000000000 0",
        "   7: 00000000000000000000000000000000:A1B2 00000000000000000000000000000000:0000 0A 00000000:00000000 "
        "00:00000000 00000000  1000        0 1234567890123456789 1 0000000000000000 100 0 0 10 0"};
    const std::string edits = " :xX-+09aFG\t\n";
    int cases = 0;
    auto agree = [&](const std::string &line) {
        RawSocketInfo ours{7, 7, 7, 7};
        RawSocketInfo ref{7, 7, 7, 7};
        const bool ok = kova::conflict::scan_socket_line(line.c_str(), ours);
        ASSERT_EQ(ok, scanf_reference(line, ref)) << "[" << line << "]";
        if (ok) {
            EXPECT_EQ(ours.port, ref.port) << "[" << line << "]";
            EXPECT_EQ(ours.state, ref.state) << "[" << line << "]";
            EXPECT_EQ(ours.inode, ref.inode) << "[" << line << "]";
        }
        ++cases;
    };
    for (const std::string &base : bases) {
        agree(base);
        for (size_t i = 0; i < base.size(); ++i) {
            agree(base.substr(0, i));
            agree(base.substr(0, i) + base.substr(i + 1));
            for (char c : edits) {
                agree(base.substr(0, i) + c + base.substr(i + 1));
                agree(base.substr(0, i) + c + base.substr(i));
            }
        }
    }
    EXPECT_GT(cases, 10000);
}

TEST(SocketLinkScan, AcceptsOnlySocketLinks) {
    uint64_t inode = 0;
    EXPECT_TRUE(kova::conflict::scan_socket_link("socket:[4321]", inode));
    EXPECT_EQ(inode, 4321u);
    EXPECT_TRUE(kova::conflict::scan_socket_link("[0000]:77", inode));
    EXPECT_EQ(inode, 77u);
    for (const char *other :
         {"pipe:[4321]", "/dev/null", "socket:[]", "socket:", "anon_inode:[eventfd]", "", " socket:[1]", "[0001]:5"})
        EXPECT_FALSE(kova::conflict::scan_socket_link(other, inode)) << other;
    EXPECT_EQ(inode, 77u);
}

}  // namespace
