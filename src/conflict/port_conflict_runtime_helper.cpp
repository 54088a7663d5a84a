// The runtime inventory: one record for every local port of every socket in the kernel's
// socket tables, for every process that holds that socket, with the process's executable.
// Also the filter and the no-conflict record of the runtime check.
//
// The tables are read by socket_table.cpp and the processes walked by process_sockets.cpp; the
// operations here log, set the error state and hand records to the caller's lists.
//
// One inventory costs one pass over the process directories, one pass over each process's
// descriptors, one pass over each socket table and one executable lookup per holding
// process; duplicates are found through hash sets, not by walking the lists built so far.
#include <kovaserviceconf.h>

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
#include "foundation/list_edge.h"
#include "foundation/log.h"
#include "foundation/raii.h"

namespace {

using kova::conflict::SocketSet;
using Family = kova::conflict::RuntimeFamily;
using RuntimeResult = Family::Result;

// This module's log lines, for the shared operations.
constexpr auto module_log = [](const char *fmt, auto... args) { KOVA_LOG(fmt, args...); };

constexpr uint64_t kMix = 0x9E3779B97F4A7C15ull;

// ---- socket tables --------------------------------------------------------------------------

// Appends the sockets of one table file that `seen` does not hold yet, in file order.
int parse_table(const char *path, uint16_t protocol, SocketSet &seen, std::vector<RawSocketInfo> &out) {
    using kova::conflict::TableRead;
    switch (kova::conflict::read_socket_table(path, protocol, seen, out)) {
        case TableRead::kOk:
            return 0;
        case TableRead::kMissing:
            KOVA_LOG("Failed to access File: %s (Not Exist)", path != nullptr ? path : "(null)");
            return -1;
        case TableRead::kNoMemory:
            KOVA_LOG("Failed to alloc pNetRecords, Out of memory.[0x%04X]", KVLIBCErrGet());
            return -1;
        case TableRead::kUnreadable:
            break;
    }
    if (KVLIBCErrGet() == KOVA_ERR_FILE_OPEN)
        KOVA_LOG("Failed to open File: %s\n", path);
    else
        KOVA_LOG("Failed to parse File: %s.[0x%04X]", path, KVLIBCErrGet());
    return -1;
}

// The sockets of every table of the protocols in `protocol`: TCP before UDP, IPv4 before IPv6.
bool fetch_sockets(const kova::Door &door, uint16_t protocol, std::vector<RawSocketInfo> &out) {
    struct Table {
        std::string_view path;
        bool wanted;
        uint16_t protocol;
    };
    const Table tables[] = {
        {"/proc/net/tcp", (protocol & KOVA_PROTO_TCP) != 0, KOVA_PROTO_TCP},
        {"/proc/net/tcp6", (protocol & KOVA_PROTO_TCP) != 0, KOVA_PROTO_TCP},
        {"/proc/net/udp", (protocol & KOVA_PROTO_UDP) != 0, KOVA_PROTO_UDP},
        {"/proc/net/udp6", (protocol & KOVA_PROTO_UDP) != 0, KOVA_PROTO_UDP},
    };
    SocketSet seen;
    for (const Table &table : tables) {
        if (!table.wanted) continue;
        if (parse_table(door.path(table.path).c_str(), table.protocol, seen, out) < 0) {
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

// ---- processes ------------------------------------------------------------------------------

// The table value for one inode: every holder followed by ",", the one found last first.
std::string owners_text(const std::vector<int> &pids) {
    std::string value;
    for (auto it = pids.rbegin(); it != pids.rend(); ++it) value += std::to_string(*it) + ",";
    return value;
}

std::string inode_key(uint64_t inode) {
    return std::to_string(static_cast<unsigned long>(inode));
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
    kova::DListPtr results(kova::conflict::alloc_result_list<Family>());
    if (!results) {
        KOVA_LOG("Failed to alloc pResultList, Out of memory.[0x%04X]", KVLIBCErrGet());
        return nullptr;
    }
    const kova::Door door;
    // The process table is read before the socket tables: a socket opened in between has no
    // holder and gives no entry, rather than an entry for a process that was not looked at.
    const kova::conflict::SocketOwners owners = kova::conflict::collect_owners(door);
    std::vector<RawSocketInfo> sockets;
    if (!fetch_sockets(door, KOVA_PROTO_BOTH, sockets)) {
        KOVA_LOG("Failed to RawSocketInfoListFetch");
        return nullptr;
    }
    std::unordered_set<ResultKey, ResultKeyHash> listed;
    std::unordered_map<uint32_t, std::string> programs;
    std::vector<RuntimeResult> records;
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
            if (fresh) program->second = kova::conflict::program_of(door, record.pid);
            records.push_back(record);
        }
    }
    // The programs' texts stay where they are while the records are copied into the list.
    for (RuntimeResult &record : records) {
        const std::string &program = programs.at(record.pid);
        record.program = program.empty() ? nullptr : const_cast<char *>(program.c_str());
    }
    if (!kova::append_all(results.get(), records)) return nullptr;
    return results.release();
}

}  // namespace

KVLIB_DLIST *kova::conflict::runtime_inventory() noexcept {
    return KOVA_GUARDED(static_cast<KVLIB_DLIST *>(nullptr), [&] { return runtime_service_list_fetch(); });
}

int kova::conflict::runtime_append_no_conflict(KVLIB_DLIST *list, uint16_t port, uint16_t protocol) noexcept {
    return KOVA_GUARDED(-1, [&] { return append_no_conflict<Family>(list, port, protocol, module_log); });
}

extern "C" {

RawSocketInfo *RawSocketInfoAlloc(void) {
    return kova::calloc_record<RawSocketInfo>();
}

void RawSocketInfoFree(RawSocketInfo *pInfo) {
    std::free(pInfo);
}

RawSocketInfo *RawSocketInfoCopy(const RawSocketInfo *pInfo) {
    if (pInfo == nullptr) return nullptr;
    RawSocketInfo *copy = kova::calloc_record<RawSocketInfo>();
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
        kova::conflict::for_each_record<RawSocketInfo>(
            pRawSocketInfoList, [&](const RawSocketInfo &r) { seen.insert(kova::conflict::key_of(r)); });
        std::vector<RawSocketInfo> sockets;
        if (parse_table(szPath, static_cast<uint16_t>(protocol), seen, sockets) < 0) return -1;
        return kova::append_all(pRawSocketInfoList, sockets) ? 0 : -1;
    });
}

KVLIB_DLIST *RawSocketInfoListFetch(uint16_t protocol) {
    if (!kova::ports::is_legal_protocol(protocol)) {
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
        if (!fetch_sockets(kova::Door(), protocol, sockets) || !kova::append_all(list.get(), sockets)) return nullptr;
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
        for (int pid : kova::conflict::list_pids(kova::Door())) {
            const std::string text = std::to_string(pid);
            KVLIB_SZLIST *handle = list.get();
            if (KVLIBCSzListPush(&handle, text.c_str()) < 0)
                KOVA_LOG("Failed to KVLIBCSzListPush %p %s", static_cast<void *>(handle), text.c_str());
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
        for (uint64_t inode : kova::conflict::socket_inodes(kova::Door(), szPid)) {
            const std::string key = inode_key(inode);
            const char *old = KVLIBCSzHashGetValue(*ppInodeToPidsTable, key.c_str());
            const std::string value = std::string(szPid) + "," + (old != nullptr ? old : "");
            KVLIBCSzHashSetValue(ppInodeToPidsTable, key.c_str(), value.c_str());
        }
    });
}

KVLIB_SZHASH *InodeToPidsTableFetch(void) {
    return KOVA_GUARDED(static_cast<KVLIB_SZHASH *>(nullptr), [&]() -> KVLIB_SZHASH * {
        kova::SzHashPtr table(KVLIBCSzHashAlloc(512));
        if (!table) {
            KOVA_LOG("Failed to alloc pInodeToPidsTable, Out of memory.[0x%04X]", KVLIBCErrGet());
            return nullptr;
        }
        const kova::conflict::SocketOwners owners = kova::conflict::collect_owners(kova::Door());
        for (uint64_t inode : owners.order)
            if (!set_value(table, inode_key(inode), owners_text(owners.pids.at(inode)))) return nullptr;
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
        const std::string program = kova::conflict::program_of(kova::Door(), pid);
        return program.empty() ? nullptr : strdup(program.c_str());
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
    return kova::conflict::runtime_inventory();
}

int RuntimeResultListFilter(const KVLIB_DLIST *pSourceResultList, uint16_t port, uint16_t protocol,
                            KVLIB_DLIST *pFilteredResultList) {
    return kova::conflict::filter_result_list<Family>(pSourceResultList, port, protocol, pFilteredResultList,
                                                      module_log);
}

int RuntimeNotConflictResultAppend(KVLIB_DLIST *pResultList, uint16_t port, uint16_t protocol) {
    return kova::conflict::runtime_append_no_conflict(pResultList, port, protocol);
}

}  // extern "C"
