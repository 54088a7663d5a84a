// The runtime inventory's pieces below the exported operations: reading the kernel's socket
// tables and walking the processes' descriptors. They return values and never log, link into a
// caller's list or set the error state; port_conflict_runtime_helper.cpp does that.
#pragma once

#include <kovaserviceconf.h>

#include <cstdint>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "foundation/door.h"

namespace kova::conflict {

// ---- socket tables (socket_table.cpp) --------------------------------------------------------

// The local port, state and inode of one line of /proc/net/{tcp,tcp6,udp,udp6}, read as the
// scanf format "%*d: %*64[0-9A-Fa-f]:%hx %*64[0-9A-Fa-f]:%*X %X %*X:%*X %*X:%*X %*X %*d %*d %lu "
// reads them. False, and `info` untouched, when the line does not yield all three (a header,
// a malformed or a truncated line). The protocol field is left alone.
bool scan_socket_line(const char *line, RawSocketInfo &info);

// The socket inode of a descriptor link target: "socket:[N]", or "[0000]:N" as some kernels
// write it. False for anything else (files, pipes, other anonymous inodes).
bool scan_socket_link(const char *target, uint64_t &inode);

struct SocketKey {
    uint16_t port;
    uint16_t protocol;
    uint32_t state;
    uint64_t inode;
    bool operator==(const SocketKey &) const = default;
};

struct SocketKeyHash {
    size_t operator()(const SocketKey &k) const noexcept;
};

using SocketSet = std::unordered_set<SocketKey, SocketKeyHash>;

inline SocketKey key_of(const RawSocketInfo &info) {
    return {info.port, info.protocol, info.state, info.inode};
}

enum class TableRead {
    kOk,
    kMissing,     // the file does not exist
    kUnreadable,  // the platform's reader failed; the error state says why
    kNoMemory,    // the line list could not be allocated
};

// Appends the sockets of one table file that `seen` does not hold yet, in file order.
TableRead read_socket_table(const char *path, uint16_t protocol, SocketSet &seen, std::vector<RawSocketInfo> &out);

// ---- processes and their descriptors (process_sockets.cpp) ------------------------------------

// The process numbers under the root's /proc, in the sorted order of its names, up to the first
// name that is not a number (process directories sort before the named entries).
std::vector<int> list_pids(const Door &door);

// The socket inodes that process `pid` holds, one per descriptor, in descriptor name order.
std::vector<uint64_t> socket_inodes(const Door &door, const std::string &pid);

// For every socket inode, the processes that hold it, in the order found (a process holding
// it on two descriptors twice), and the inodes in the order first found.
struct SocketOwners {
    std::unordered_map<uint64_t, std::vector<int>> pids;
    std::vector<uint64_t> order;
    void add(uint64_t inode, int pid);
};

SocketOwners collect_owners(const Door &door);

// The target of the process's executable link ("" when it cannot be read).
std::string program_of(const Door &door, uint32_t pid);

}  // namespace kova::conflict
