// The runtime inventory over a fabricated process table, and the reader of descriptor links.
#include "conflict_test.h"

namespace {

using namespace kova::test;
using Rt = KOVA_RUNTIME_PORT_CONFLICT_RESULT;
const std::string kHelper = "port_conflict_runtime_helper.cpp:N ";

class RuntimeInventoryTest : public ProcTableTest {
protected:
    // Processes 1000, 77 and 812 (walked in text order: 1000, 77, 812) share socket 4321; 77
    // holds it on two descriptors and holds 999 through the "[0000]:" form of a socket link. Its
    // other links are no socket links (an empty inode, a space before, another "[...]:" form).
    void shared_socket_processes() const {
        process("1000", "/usr/bin/first", {{3, "socket:[4321]"}});
        process("77", "/usr/sbin/rsyncd",
                {{3, "socket:[4321]"},
                 {4, "socket:[4321]"},
                 {5, "[0000]:999"},
                 {6, "pipe:[4321]"},
                 {7, "/dev/null"},
                 {8, "socket:[]"},
                 {9, " socket:[1]"},
                 {10, "[0001]:5"}});
        process("812", "", {{0, "socket:[4321]"}});
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
    ASSERT_EQ(KVLIBCSzHashCount(table.get()), 2);
    EXPECT_STREQ(KVLIBCSzHashKeyAt(table.get(), 0), "4321");
    EXPECT_STREQ(KVLIBCSzHashValueAt(table.get(), 0), "812,77,77,1000,");
    EXPECT_STREQ(KVLIBCSzHashKeyAt(table.get(), 1), "999");
    EXPECT_STREQ(KVLIBCSzHashValueAt(table.get(), 1), "77,");
    EXPECT_EQ(owned_items(InodeToPidsGet(table.get(), 4321)), (Lines{"812", "77", "77", "1000"}));
    EXPECT_EQ(owned_items(InodeToPidsGet(table.get(), 4322)), Lines{});

    KVLIB_SZHASH *handle = KVLIBCSzHashAlloc(512);
    FetchInodeFromPid(&handle, "77");
    FetchInodeFromPid(&handle, "812");
    FetchInodeFromPid(&handle, "4242");  // no such process
    table.reset(handle);
    EXPECT_STREQ(KVLIBCSzHashGetValue(table.get(), "4321"), "812,77,77,");
    EXPECT_STREQ(KVLIBCSzHashGetValue(table.get(), "999"), "77,");
    FetchInodeFromPid(nullptr, "77");
    EXPECT_EQ(log_normalized(), (Lines{kHelper + "pInodeToPidsTable is undefined"}));
}

TEST_F(RuntimeInventoryTest, InventoryFollowsSocketOrderThenLatestHolderFirst) {
    tables(sock_line(873, 0x0A, 4321) + sock_line(41000, 0x06, 0),  // TIME_WAIT: inode 0, no holder
           "", sock_line(5353, 0x07, 999), sock_line(5353, 0x07, 8888, true));
    shared_socket_processes();
    mkdir("/proc/555");                          // exited
    process("600", "", {{1, "socket:[8888]"}});  // executable not a link: unreadable
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
    process("9", long_target, {});
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
