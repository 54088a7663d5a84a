// The runtime inventory: one record for every local port of every socket in the kernel's
// socket tables, for every process that holds that socket, with the process's executable.
// Also the filter and the no-conflict record of the runtime check.
//
// One inventory costs one pass over the process directories, one pass over each process's
// descriptors, one pass over each socket table and one executable lookup per holding
// process; duplicates are found through hash sets, not by walking the lists built so far.
#include <kovaserviceconf.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "conflict/conflict_twins.h"
#include "conflict/runtime_inventory.h"
#include "foundation/door.h"
#include "foundation/guard.h"
#include "foundation/log.h"
#include "foundation/raii.h"
#include "foundation/root_path.h"

namespace kova::conflict {

namespace {

// A reader for the lines exactly as the kernel writes them: fields of plain digits separated
// by single characters and runs of spaces. It takes a line only when every field is short
// enough that no conversion can overflow, so that what it reads is what the scanf format
// reads; anything else (signs, "0x", tabs, long fields, truncation) is left to sscanf.
class KernelLine {
public:
    explicit KernelLine(const char *p) : p_(p) {}

    // sl: local-address:port remote-address:port st tx:rx tr:when retrnsmt uid timeout inode
    bool read(unsigned short &port, unsigned int &state, unsigned long &inode) {
        unsigned long local_port = 0;
        unsigned long st = 0;
        unsigned long ino = 0;
        unsigned long skipped = 0;
        spaces(0);
        if (!digits(10, 32, skipped) || !take(':') || !spaces(1)) return false;
        if (!digits(16, 64, skipped) || !take(':') || !digits(16, 4, local_port) || !spaces(1)) return false;
        if (!digits(16, 64, skipped) || !take(':') || !digits(16, 8, skipped) || !spaces(1)) return false;
        if (!digits(16, 8, st) || !spaces(1)) return false;
        if (!digits(16, 8, skipped) || !take(':') || !digits(16, 8, skipped) || !spaces(1)) return false;
        if (!digits(16, 8, skipped) || !take(':') || !digits(16, 16, skipped) || !spaces(1)) return false;
        if (!digits(16, 8, skipped) || !spaces(1) || !digits(10, 19, skipped) || !spaces(1)) return false;
        if (!digits(10, 19, skipped) || !spaces(1) || !digits(10, 19, ino)) return false;
        if (*p_ != '\0' && *p_ != ' ' && *p_ != '\n') return false;
        port = static_cast<unsigned short>(local_port);
        state = static_cast<unsigned int>(st);
        inode = ino;
        return true;
    }

private:
    static int digit(char c, int base) {
        if (c >= '0' && c <= '9') return c - '0';
        if (base == 16 && c >= 'a' && c <= 'f') return c - 'a' + 10;
        if (base == 16 && c >= 'A' && c <= 'F') return c - 'A' + 10;
        return -1;
    }

    // A run of 1..max digits of the base, followed by something that is not one. The fields
    // that are kept are at most 19 decimal or 8 hexadecimal digits long and cannot overflow;
    // the value of a longer, skipped field (an address) wraps and is not used.
    bool digits(int base, int max, unsigned long &value) {
        value = 0;
        int n = 0;
        for (int d; (d = digit(*p_, base)) >= 0; ++p_, ++n) {
            if (n == max) return false;
            value = value * static_cast<unsigned long>(base) + static_cast<unsigned long>(d);
        }
        return n >= 1;
    }

    bool spaces(int min) {
        int n = 0;
        for (; *p_ == ' '; ++p_) ++n;
        return n >= min;
    }

    bool take(char c) {
        if (*p_ != c) return false;
        ++p_;
        return true;
    }

    const char *p_;
};

}  // namespace

bool scan_socket_line(const char *line, RawSocketInfo &info) {
    unsigned short port = 0;
    unsigned int state = 0;
    unsigned long inode = 0;
    if (line == nullptr) return false;
    if (!KernelLine(line).read(port, state, inode) &&
        std::sscanf(line, "%*d: %*64[0-9A-Fa-f]:%hx %*64[0-9A-Fa-f]:%*X %X %*X:%*X %*X:%*X %*X %*d %*d %lu ", &port,
                    &state, &inode) < 3)
        return false;
    info.port = port;
    info.state = state;
    info.inode = inode;
    return true;
}

bool scan_socket_link(const char *target, uint64_t &inode) {
    static constexpr std::string_view kSocket = "socket:[";
    static constexpr std::string_view kAnon = "[0000]:";
    unsigned long value = 0;
    const std::string_view text(target);
    const char *digits = nullptr;
    if (text.starts_with(kSocket))
        digits = target + kSocket.size();
    else if (text.starts_with(kAnon))
        digits = target + kAnon.size();
    if (digits == nullptr || std::sscanf(digits, "%lu", &value) != 1) return false;
    inode = value;
    return true;
}

}  // namespace kova::conflict

namespace {

using kova::conflict::scan_socket_line;
using kova::conflict::scan_socket_link;
using Family = kova::conflict::RuntimeFamily;
using RuntimeResult = Family::Result;

// This module's log lines, for the shared operations.
constexpr auto module_log = [](const char *fmt, auto... args) { KOVA_LOG(fmt, args...); };

constexpr uint64_t kMix = 0x9E3779B97F4A7C15ull;

// ---- socket tables --------------------------------------------------------------------------

struct SocketKey {
    uint16_t port;
    uint16_t protocol;
    uint32_t state;
    uint64_t inode;
    bool operator==(const SocketKey &) const = default;
};

struct SocketKeyHash {
    size_t operator()(const SocketKey &k) const noexcept {
        uint64_t h = k.inode * kMix;
        h ^= ((static_cast<uint64_t>(k.port) << 48) | (static_cast<uint64_t>(k.protocol) << 32) | k.state) + kMix +
             (h << 6) + (h >> 2);
        return static_cast<size_t>(h);
    }
};

using SocketSet = std::unordered_set<SocketKey, SocketKeyHash>;

SocketKey key_of(const RawSocketInfo &info) {
    return {info.port, info.protocol, info.state, info.inode};
}

// Appends the sockets of one table file that `seen` does not hold yet, in file order.
int parse_table(const char *path, int protocol, SocketSet &seen, std::vector<RawSocketInfo> &out) {
    if (path == nullptr || !KVLIBCFileExist(path)) {
        KOVA_LOG("Failed to access File: %s (Not Exist)", path != nullptr ? path : "(null)");
        return -1;
    }
    kova::SzListPtr lines(KVLIBCSzListAlloc(512));
    if (!lines) {
        KOVA_LOG("Failed to alloc pNetRecords, Out of memory.[0x%04X]", KVLIBCErrGet());
        return -1;
    }
    KVLIB_SZLIST *handle = lines.get();
    const int read = KVLIBCFileReadLines(path, &handle);
    if (handle != lines.get()) {
        (void)lines.release();
        lines.reset(handle);
    }
    if (read < 0) {
        if (KVLIBCErrGet() == KOVA_ERR_FILE_OPEN)
            KOVA_LOG("Failed to open File: %s\n", path);
        else
            KOVA_LOG("Failed to parse File: %s.[0x%04X]", path, KVLIBCErrGet());
        return -1;
    }
    RawSocketInfo info{};
    info.protocol = static_cast<uint16_t>(protocol);
    for (int i = 0; i < lines->nItem; ++i) {
        if (!scan_socket_line(KVLIBCSzListGet(lines.get(), i), info)) continue;
        if (seen.insert(key_of(info)).second) out.push_back(info);
    }
    return 0;
}

// The sockets of every table of the protocols in `protocol`: TCP before UDP, IPv4 before IPv6.
bool fetch_sockets(uint16_t protocol, std::vector<RawSocketInfo> &out) {
    struct Table {
        std::string_view path;
        bool wanted;
        int protocol;
    };
    const Table tables[] = {
        {"/proc/net/tcp", HasTCP(protocol) != 0, KOVA_PROTO_TCP},
        {"/proc/net/tcp6", HasTCP(protocol) != 0, KOVA_PROTO_TCP},
        {"/proc/net/udp", HasUDP(protocol) != 0, KOVA_PROTO_UDP},
        {"/proc/net/udp6", HasUDP(protocol) != 0, KOVA_PROTO_UDP},
    };
    SocketSet seen;
    for (const Table &table : tables) {
        if (!table.wanted) continue;
        if (parse_table(kova::resolve(table.path).c_str(), table.protocol, seen, out) < 0) {
            KOVA_LOG("Failed to ParseToRawSocketInfo");
            return false;
        }
    }
    return true;
}

void *copy_socket(const void *p) {
    return RawSocketInfoCopy(static_cast<const RawSocketInfo *>(p));
}

void free_socket(void *p) {
    RawSocketInfoFree(static_cast<RawSocketInfo *>(p));
}

// ---- processes and their descriptors --------------------------------------------------------

// The process numbers under /proc, in the sorted order of its names, up to the first name that
// is not a number (process directories sort before the named entries).
std::vector<int> list_pids(const std::string &proc) {
    std::vector<int> pids;
    std::vector<std::string> names;
    if (kova::sys().list_dir(proc.c_str(), names) != 0) return pids;
    for (const std::string &name : names) {
        if (name[0] == '.') continue;
        int pid = 0;
        if (std::sscanf(name.c_str(), "%d", &pid) != 1) break;
        pids.push_back(pid);
    }
    return pids;
}

// Reads a link's target, at most 1023 bytes; false when it yields nothing.
bool read_link(const char *path, char (&target)[1024]) {
    const ssize_t n = kova::sys().readlink(path, target, sizeof target - 1);
    if (n <= 0) return false;
    target[n] = '\0';
    return true;
}

// Calls on_inode(inode) for every descriptor of process `pid` that is a socket, in the sorted
// order of the descriptor names.
template <class F>
void for_each_socket_fd(const std::string &proc, const char *pid, F &&on_inode) {
    const std::string dir = proc + "/" + pid + "/fd";
    std::vector<std::string> fds;
    if (kova::sys().list_dir(dir.c_str(), fds) != 0) return;
    char target[1024];
    uint64_t inode = 0;
    std::string path;
    for (const std::string &fd : fds) {
        if (fd[0] == '.') continue;
        path.assign(dir).append("/").append(fd);
        if (read_link(path.c_str(), target) && scan_socket_link(target, inode)) on_inode(inode);
    }
}

// For every socket inode, the processes that hold it, in the order found (a process holding
// it on two descriptors twice), and the inodes in the order first found.
struct SocketOwners {
    std::unordered_map<uint64_t, std::vector<int>> pids;
    std::vector<uint64_t> order;

    void add(uint64_t inode, int pid) {
        auto [it, fresh] = pids.try_emplace(inode);
        if (fresh) order.push_back(inode);
        it->second.push_back(pid);
    }
};

SocketOwners collect_owners() {
    const std::string proc = kova::resolve(kova::paths::kProcDir);
    SocketOwners owners;
    char text[16];
    for (int pid : list_pids(proc)) {
        std::snprintf(text, sizeof text, "%d", pid);
        for_each_socket_fd(proc, text, [&](uint64_t inode) { owners.add(inode, pid); });
    }
    return owners;
}

// The table value for one inode: every holder followed by ",", the one found last first.
std::string owners_text(const std::vector<int> &pids) {
    std::string value;
    char text[16];
    for (auto it = pids.rbegin(); it != pids.rend(); ++it) {
        std::snprintf(text, sizeof text, "%d,", *it);
        value += text;
    }
    return value;
}

std::string inode_key(uint64_t inode) {
    char key[24];
    std::snprintf(key, sizeof key, "%lu", static_cast<unsigned long>(inode));
    return key;
}

bool set_value(kova::SzHashPtr &table, const std::string &key, const std::string &value) {
    KVLIB_SZHASH *handle = table.get();
    const int rc = KVLIBCSzHashSetValue(&handle, key.c_str(), value.c_str());
    if (handle != table.get()) {
        (void)table.release();
        table.reset(handle);
    }
    return rc >= 0;
}

// ---- the inventory --------------------------------------------------------------------------

struct ResultKey {
    uint64_t pidState;
    uint32_t portProtocol;
    bool operator==(const ResultKey &) const = default;
};

struct ResultKeyHash {
    size_t operator()(const ResultKey &k) const noexcept {
        uint64_t h = k.pidState * kMix;
        h ^= k.portProtocol + kMix + (h << 6) + (h >> 2);
        return static_cast<size_t>(h);
    }
};

KVLIB_DLIST *runtime_service_list_fetch() {
    kova::DListPtr results(KOVARuntimePortConflictResultListAlloc());
    if (!results) {
        KOVA_LOG("Failed to alloc pResultList, Out of memory.[0x%04X]", KVLIBCErrGet());
        return nullptr;
    }
    // The process table is read before the socket tables: a socket opened in between has no
    // holder and gives no entry, rather than an entry for a process that was not looked at.
    const SocketOwners owners = collect_owners();
    std::vector<RawSocketInfo> sockets;
    if (!fetch_sockets(KOVA_PROTO_BOTH, sockets)) {
        KOVA_LOG("Failed to RawSocketInfoListFetch");
        return nullptr;
    }
    std::unordered_set<ResultKey, ResultKeyHash> listed;
    std::unordered_map<uint32_t, kova::CStrPtr> programs;
    for (const RawSocketInfo &socket : sockets) {
        const auto holders = owners.pids.find(socket.inode);
        if (holders == owners.pids.end()) continue;
        for (auto it = holders->second.rbegin(); it != holders->second.rend(); ++it) {
            RuntimeResult record{};
            record.isConflict = 1;
            record.port = socket.port;
            record.protocol = socket.protocol;
            record.state = socket.state;
            record.pid = static_cast<uint32_t>(*it);
            const ResultKey key{(static_cast<uint64_t>(record.pid) << 32) | record.state,
                                kova::conflict::port_key(record.port, record.protocol)};
            if (!listed.insert(key).second) continue;
            auto [program, fresh] = programs.try_emplace(record.pid);
            if (fresh) program->second.reset(ProgramCommandFetch(record.pid));
            record.program = program->second.get();
            if (KVLIBCDListAppend(results.get(), &record) < 0) listed.erase(key);
        }
    }
    return results.release();
}

}  // namespace

extern "C" {

RawSocketInfo *RawSocketInfoAlloc(void) {
    return kova::calloc_record<RawSocketInfo>();
}

void RawSocketInfoFree(RawSocketInfo *pInfo) {
    std::free(pInfo);
}

RawSocketInfo *RawSocketInfoCopy(const RawSocketInfo *pInfo) {
    if (pInfo == nullptr) return nullptr;
    RawSocketInfo *copy = RawSocketInfoAlloc();
    if (copy == nullptr) {
        KOVA_LOG("Failed to allocate RawSocketInfo");
        return nullptr;
    }
    *copy = *pInfo;
    return copy;
}

int ContainRawSocketInfo(const KVLIB_DLIST *pRawSocketInfoList, const RawSocketInfo *pInfo) {
    if (pRawSocketInfoList == nullptr) {
        KOVA_LOG("pRawSocketInfoList is undefined");
        return 0;
    }
    if (pInfo == nullptr) {
        KOVA_LOG("pInfo is undefined");
        return 0;
    }
    int found = 0;
    kova::conflict::for_each_record<RawSocketInfo>(pRawSocketInfoList, [&](const RawSocketInfo &r) {
        if (r.port == pInfo->port && r.state == pInfo->state && r.protocol == pInfo->protocol &&
            r.inode == pInfo->inode)
            found = 1;
    });
    return found;
}

int ParseToRawSocketInfo(const char *szPath, int protocol, KVLIB_DLIST *pRawSocketInfoList) {
    return KOVA_GUARDED(-1, [&] {
        if (pRawSocketInfoList == nullptr) {
            KOVA_LOG("pRawSocketInfoList is undefined");
            return -1;
        }
        SocketSet seen;
        kova::conflict::for_each_record<RawSocketInfo>(pRawSocketInfoList,
                                                       [&](const RawSocketInfo &r) { seen.insert(key_of(r)); });
        std::vector<RawSocketInfo> sockets;
        if (parse_table(szPath, protocol, seen, sockets) < 0) return -1;
        for (const RawSocketInfo &info : sockets) KVLIBCDListAppend(pRawSocketInfoList, &info);
        return 0;
    });
}

KVLIB_DLIST *RawSocketInfoListFetch(uint16_t protocol) {
    if (!IsLegalProtocol(protocol)) {
        KOVA_LOG("Illegal protocol: %u", static_cast<unsigned int>(protocol));
        return nullptr;
    }
    return KOVA_GUARDED(static_cast<KVLIB_DLIST *>(nullptr), [&]() -> KVLIB_DLIST * {
        kova::DListPtr list(KVLIBCDListAlloc(copy_socket, free_socket));
        if (!list) {
            KOVA_LOG("Failed to alloc pRawSocketInfoList, Out of memory.[0x%04X]", KVLIBCErrGet());
            return nullptr;
        }
        std::vector<RawSocketInfo> sockets;
        if (!fetch_sockets(protocol, sockets)) return nullptr;
        for (const RawSocketInfo &info : sockets) KVLIBCDListAppend(list.get(), &info);
        return list.release();
    });
}

KVLIB_SZLIST *FetchPidList(void) {
    return KOVA_GUARDED(static_cast<KVLIB_SZLIST *>(nullptr), [&]() -> KVLIB_SZLIST * {
        kova::SzListPtr list(KVLIBCSzListAlloc(512));
        if (!list) {
            KOVA_LOG("Failed to alloc pslPidList, Out of memory.[0x%04X]", KVLIBCErrGet());
            return nullptr;
        }
        char text[16];
        for (int pid : list_pids(kova::resolve(kova::paths::kProcDir))) {
            std::snprintf(text, sizeof text, "%d", pid);
            KVLIB_SZLIST *handle = list.get();
            if (KVLIBCSzListPush(&handle, text) < 0)
                KOVA_LOG("Failed to KVLIBCSzListPush %p %s", static_cast<void *>(handle), text);
        }
        return list.release();
    });
}

void FetchInodeFromPid(KVLIB_SZHASH **ppInodeToPidsTable, const char *szPid) {
    if (ppInodeToPidsTable == nullptr || *ppInodeToPidsTable == nullptr) {
        KOVA_LOG("pInodeToPidsTable is undefined");
        return;
    }
    if (szPid == nullptr) return;
    kova::guarded_void([&] {
        for_each_socket_fd(kova::resolve(kova::paths::kProcDir), szPid, [&](uint64_t inode) {
            const std::string key = inode_key(inode);
            const char *old = KVLIBCSzHashGetValue(*ppInodeToPidsTable, key.c_str());
            const std::string value = std::string(szPid) + "," + (old != nullptr ? old : "");
            KVLIBCSzHashSetValue(ppInodeToPidsTable, key.c_str(), value.c_str());
        });
    });
}

KVLIB_SZHASH *InodeToPidsTableFetch(void) {
    return KOVA_GUARDED(static_cast<KVLIB_SZHASH *>(nullptr), [&]() -> KVLIB_SZHASH * {
        kova::SzHashPtr table(KVLIBCSzHashAlloc(512));
        if (!table) {
            KOVA_LOG("Failed to alloc pInodeToPidsTable, Out of memory.[0x%04X]", KVLIBCErrGet());
            return nullptr;
        }
        const SocketOwners owners = collect_owners();
        for (uint64_t inode : owners.order) set_value(table, inode_key(inode), owners_text(owners.pids.at(inode)));
        return table.release();
    });
}

KVLIB_SZLIST *InodeToPidsGet(const KVLIB_SZHASH *pInodeToPidsTable, uint64_t inode) {
    if (pInodeToPidsTable == nullptr) {
        KOVA_LOG("pInodeToPidsTable is undefined");
        return nullptr;
    }
    return KOVA_GUARDED(static_cast<KVLIB_SZLIST *>(nullptr), [&]() -> KVLIB_SZLIST * {
        kova::SzListPtr list(KVLIBCSzListAlloc(512));
        if (!list) {
            KOVA_LOG("Failed to alloc pPidList, Out of memory.[0x%04X]", KVLIBCErrGet());
            return nullptr;
        }
        const char *value = KVLIBCSzHashGetValue(pInodeToPidsTable, inode_key(inode).c_str());
        if (value == nullptr) return list.release();
        KVLIB_SZLIST *handle = list.get();
        const int pieces = KVLIBCStrSep(value, ",", &handle);
        if (handle != list.get()) {
            (void)list.release();
            list.reset(handle);
        }
        if (pieces < 1) {
            KOVA_LOG("Failed to separate string: [%s].", value);
            return nullptr;
        }
        KVLIBCSzListPop(list.get());
        return list.release();
    });
}

char *ProgramCommandFetch(uint32_t pid) {
    return KOVA_GUARDED(static_cast<char *>(nullptr), [&]() -> char * {
        char rel[32];
        std::snprintf(rel, sizeof rel, "/proc/%u/exe", static_cast<unsigned int>(pid));
        char target[1024];
        if (!read_link(kova::resolve(rel).c_str(), target)) return nullptr;
        return strdup(target);
    });
}

int ContainRuntimeResult(const KVLIB_DLIST *pResultList, const KOVA_RUNTIME_PORT_CONFLICT_RESULT *pResult) {
    if (pResultList == nullptr) {
        KOVA_LOG("pResultList is undefined");
        return 0;
    }
    if (pResult == nullptr) {
        KOVA_LOG("pResult is undefined");
        return 0;
    }
    int found = 0;
    kova::conflict::for_each_record<RuntimeResult>(pResultList, [&](const RuntimeResult &r) {
        if (r.isConflict == pResult->isConflict && r.port == pResult->port && r.protocol == pResult->protocol &&
            r.pid == pResult->pid && r.state == pResult->state)
            found = 1;
    });
    return found;
}

KVLIB_DLIST *RuntimeServiceListFetch(void) {
    return KOVA_GUARDED(static_cast<KVLIB_DLIST *>(nullptr), [&] { return runtime_service_list_fetch(); });
}

int RuntimeResultListFilter(const KVLIB_DLIST *pSourceResultList, uint16_t port, uint16_t protocol,
                            KVLIB_DLIST *pFilteredResultList) {
    return kova::conflict::filter_result_list<Family>(pSourceResultList, port, protocol, pFilteredResultList,
                                                      module_log);
}

int RuntimeNotConflictResultAppend(KVLIB_DLIST *pResultList, uint16_t port, uint16_t protocol) {
    return KOVA_GUARDED(
        -1, [&] { return kova::conflict::append_no_conflict<Family>(pResultList, port, protocol, module_log); });
}

}  // extern "C"
