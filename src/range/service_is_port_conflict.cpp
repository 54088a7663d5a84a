// Port conflict checks: whether a service's ports collide with the port-forwarding rules, the
// firewall catalogue, the ports that system settings reserve and the ports in use; and the
// same check for every service section of a .sc file.
#include <kovaserviceconf.h>

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>

#include "foundation/guard.h"
#include "foundation/log.h"
#include "foundation/raii.h"
#include "foundation/root_path.h"
#include "range/port_conflict_text.h"

namespace {

constexpr int kListSize = 1024;
constexpr int kHashSize = 1024;
constexpr int kValueSize = 1024;
constexpr int kFileCheckFlags = KOVA_PORT_CHECK_SERVICES | KOVA_PORT_CHECK_RESERVED | KOVA_PORT_CHECK_IN_USE;
// No more distinct ports than this can be in use, whatever range is asked for.
constexpr int64_t kPortSpace = 65536;

using SkipSet = std::unordered_set<std::string_view>;

// Calls a platform operation that takes the address of a handle (and may replace it), keeping
// the owner in charge of whatever handle comes back.
template <class Owner, class Call>
int with_handle(Owner &owner, Call &&call) {
    auto *raw = owner.release();
    const int result = call(&raw);
    owner.reset(raw);
    return result;
}

// A fresh hash for the next section: the sectioned-file reader adds to what a hash holds, and
// each section must be seen with its own keys only.
bool fresh_hash(kova::SzHashPtr &hash) {
    if (KVLIBCSzHashCount(hash.get()) == 0) return true;
    hash.reset(KVLIBCSzHashAlloc(kHashSize));
    return hash != nullptr;
}

std::string_view service_name(const KOVA_FW_SERVICE &svc) {
    return std::string_view(svc.name, strnlen(svc.name, sizeof svc.name));
}

// Decimal conversion without validation: leading white space and a sign are accepted, the
// digits end at the first other character, no digits give 0; saturated to int.
int to_int(const char *text) {
    const long v = std::strtol(text, nullptr, 10);
    return static_cast<int>(std::clamp<long>(v, INT_MIN, INT_MAX));
}

// A port number as KOVAServiceConfPortsCheck accepts it (digits only, at most 65535).
bool checked_port(const char *text, int &value) {
    if (KOVAServiceConfPortsCheck(text) != 1) return false;
    value = to_int(text);
    return true;
}

// Adds the single port or range [begin, end] to the conflict list in the form the text
// comparison reports: direction 0, both protocols, a single port with end port 0.
int append_conflict(int begin, int end, KOVA_SERVICE_CONF_PORT **ppConflictList) {
    KOVA_SERVICE_CONF_PORT entry{};
    entry.direction = 0;
    entry.protocol = KOVA_PROTO_BOTH;
    entry.beginPort = static_cast<uint32_t>(begin);
    if (begin != end) {
        entry.type = 1;
        entry.endPort = static_cast<uint32_t>(end);
    }
    return KOVAServiceComposePortInfo(&entry, ppConflictList) == 0 ? 1 : -1;
}

// A writable copy of a text, logged like the rest of the comparison when it cannot be made.
kova::CStrPtr copy_text(const char *text) {
    kova::CStrPtr copy(strdup(text));
    if (copy == nullptr) KOVA_LOG("strdup fail for %s" KOVA_ERRFMT, text, KOVA_ERRARGS);
    return copy;
}

// What one call of the check compares with.
struct Request {
    const char *ports;     // the caller's port text
    const char *protocol;  // the caller's protocol text
    KVLIB_SZLIST *skipNames;
    KVLIB_SZLIST *portItems;
    KVLIB_SZLIST *protoWords;
    SkipSet skip;
    KOVA_SERVICE_CONF_PORT **conflicts;
};

bool has_word(const KVLIB_SZLIST *list, std::string_view word) {
    for (int i = 0; i < list->nItem; ++i)
        if (const char *item = KVLIBCSzListGet(list, i); item != nullptr && word == item) return true;
    return false;
}

// ---- source 0x02: port-forwarding rules ---------------------------------------------------

int RuleFileConflict(const Request &req) {
    const char *path = KOVAPFRuleConfPathGet();
    kova::SzHashPtr hash(KVLIBCSzHashAlloc(kHashSize));
    if (hash == nullptr) {
        KOVA_LOG("Failed to alloc memory");
        KOVA_SET_ERR(KOVA_ERR_OUT_OF_MEMORY);
        return -1;
    }
    kova::SzListPtr sections(KVLIBCSzListAlloc(kListSize));
    if (sections == nullptr) {
        KOVA_LOG("Failed to KVLIBCSzListAlloc" KOVA_ERRFMT, KOVA_ERRARGS);
        KOVA_SET_ERR(KOVA_ERR_OUT_OF_MEMORY);
        return -1;
    }
    if (path == nullptr || KVLIBCFileExist(path) != 1) return 0;
    const int n = with_handle(sections, [&](KVLIB_SZLIST **h) { return KVLIBCFileEnumSection(path, h); });
    if (n < 0) {
        KOVA_LOG("Failed to KVLIBCFileEnumSection" KOVA_ERRFMT, KOVA_ERRARGS);
        return -1;
    }

    int found = 0;
    for (int i = 0; i < sections->nItem; ++i) {
        const char *name = KVLIBCSzListGet(sections.get(), i);
        if (name == nullptr) return -1;
        if (!fresh_hash(hash)) {
            KOVA_LOG("Failed to alloc memory");
            KOVA_SET_ERR(KOVA_ERR_OUT_OF_MEMORY);
            return -1;
        }
        if (with_handle(hash, [&](KVLIB_SZHASH **h) { return KVLIBCFileGetSection(path, name, h); }) <= 0) {
            KOVA_LOG("Section not found or failed to get section(%s) from %s", name, path);
            return -1;
        }
        const char *serviceId = KVLIBCSzHashGetValue(hash.get(), "service_id");
        if (serviceId != nullptr && req.skip.count(serviceId) != 0) continue;
        const char *protocolName = KVLIBCSzHashGetValue(hash.get(), "protocol name");
        const char *sourcePorts = KVLIBCSzHashGetValue(hash.get(), "s_port");
        const char *routerPorts = KVLIBCSzHashGetValue(hash.get(), "r_port");
        if (protocolName == nullptr || sourcePorts == nullptr || routerPorts == nullptr) return -1;
        for (const char *other : {sourcePorts, routerPorts}) {
            const int rc = PortsConflictWithText(req.ports, other, req.conflicts);
            if (rc < 0) return -1;
            if (rc > 0) found = 1;
        }
    }
    return found;
}

// ---- source 0x04: services of the firewall catalogue ---------------------------------------

int CatalogueConflict(const Request &req) {
    KOVA_FW_SERVICE *raw = nullptr;
    const int n = KOVAFwServiceEnum(&raw);
    kova::FwServicePtr catalogue(raw);
    if (n < 0) {
        KOVA_LOG("Failed to enumerate services" KOVA_ERRFMT, KOVA_ERRARGS);
        return -1;
    }
    if (n == 0 || catalogue == nullptr) return 0;

    // Parsed once, on a copy: the parser trims and lower-cases its text in place.
    std::string protocol(req.protocol);
    const int flags = KOVAProtocolMapping(KVLIBServiceConfProtocolParse(protocol.data()));

    int found = 0;
    for (const KOVA_FW_SERVICE *svc = catalogue.get(); svc != nullptr; svc = svc->next) {
        if (req.skip.count(service_name(*svc)) != 0) continue;
        if ((svc->dstProtocol & flags) == 0) continue;
        if (svc->dstPorts == nullptr || svc->dstPorts->nItem <= 0) continue;
        for (int i = 0; i < svc->dstPorts->nItem; ++i) {
            const char *item = KVLIBCSzListGet(svc->dstPorts, i);
            if (item == nullptr) return -1;
            const int rc = PortsConflictWithText(req.ports, item, req.conflicts);
            if (rc < 0) return -1;
            if (rc > 0) found = 1;
        }
    }
    return found;
}

// ---- source 0x08: ports reserved by system settings ----------------------------------------

// The reserved ports of every group whose service is not skipped, into a new set.
int GetAllNonSkipServicePort(const SkipSet &skip, kova::PortRangePtr &reserved) {
    reserved.reset(KVLIBPortRangeCreate());
    if (reserved == nullptr) {
        KOVA_LOG("Failed to KVLIBPortRangeCreate()");
        return -1;
    }
    struct Group {
        std::string_view service;
        const char *key;
    };
    static constexpr Group kGroups[] = {
        {"ftp", "ftpport"},
        {"ftp", "ftplowport"},
        {"webdav_http", "WebDavPort"},
        {"webdavs_https", "secure_WebDavPort"},
        {"syslog_server", "syslogport"},
    };
    for (const Group &g : kGroups) {
        if (skip.count(g.service) != 0) continue;
        if (GetServicePort(g.key, reserved.get()) != 0) {
            KOVA_LOG("Failed to GetServicePort(), service = [%s]", g.key);
            KOVA_LOG("Failed to GetAllNonSkipServicePort()");
            reserved.reset();
            return -1;
        }
    }
    return 0;
}

// Intersects the caller's ports with the reserved ports and makes the conflict list the
// sorted, merged union of what it held and that intersection.
int ReservedConflict(const Request &req) {
    kova::PortRangePtr reserved;
    if (GetAllNonSkipServicePort(req.skip, reserved) != 0) return -1;

    kova::PortRangePtr wanted(KVLIBPortRangeCreate());
    if (wanted == nullptr) {
        KOVA_LOG("Failed to KVLIBPortRangeCreate()");
        return -1;
    }
    if (KVLIBPortRangeImport(wanted.get(), req.ports) != 0) {
        KOVA_LOG("Failed to KVLIBPortRangeImport().");
        return -1;
    }
    kova::PortRangePtr common(KVLIBPortRangeCreate());
    if (common == nullptr) {
        KOVA_LOG("Failed to KVLIBPortRangeCreate()");
        return -1;
    }
    if (KVLIBPortRangeOverlap(wanted.get(), reserved.get(), common.get()) != 0) {
        KOVA_LOG("Failed to KVLIBPortRangeOverlap()");
        return -1;
    }

    if (*req.conflicts != nullptr) {
        kova::PortRangePtr earlier(KVLIBPortRangeCreate());
        if (earlier == nullptr) {
            KOVA_LOG("Failed to KVLIBPortRangeCreate()");
            return -1;
        }
        earlier->head = *req.conflicts;  // lent: goes back to the caller if the join fails
        if (KVLIBPortRangeJoin(common.get(), earlier.get()) != 0) {
            earlier->head = nullptr;
            KOVA_LOG("Failed to KVLIBPortRangeJoin()");
            return -1;
        }
        // The merged list replaces the earlier entries, which `earlier` frees.
        *req.conflicts = common->head;
    } else {
        *req.conflicts = common->head;
    }
    const int count = common->count;
    common->head = nullptr;
    common->count = 0;
    return count != 0 ? 1 : 0;
}

// ---- source 0x10: ports in use -------------------------------------------------------------

struct UsedPorts {
    std::unique_ptr<int32_t[], decltype(&std::free)> ports{nullptr, &std::free};
    int count = 0;
};

// The ports of [first, last] in use for TCP (tcp 1) or UDP (tcp 0). A failure to read them
// counts as no port in use. -1 only when the array cannot be allocated.
int UsedPortsFetch(int first, int last, int tcp, UsedPorts &used) {
    const int64_t length = static_cast<int64_t>(last) - first + 1;
    const int capacity = static_cast<int>(std::min(length, kPortSpace));
    used.ports.reset(static_cast<int32_t *>(std::calloc(static_cast<size_t>(capacity), sizeof(int32_t))));
    if (used.ports == nullptr) {
        KOVA_SET_ERR(KOVA_ERR_OUT_OF_MEMORY);
        KOVA_LOG("out of memory!!");
        return -1;
    }
    used.count = capacity;
    if (KOVANetGetPortUsedInRange(used.ports.get(), &used.count, first, last, tcp) < 0) used.count = 0;
    used.count = std::clamp(used.count, 0, capacity);
    return 0;
}

// Clears from the array every port that one of the texts ("445" or "55900-55910") names.
int ServicePortsClear(const KVLIB_SZLIST *ports, int32_t *used, int count) {
    for (int i = 0; i < ports->nItem; ++i) {
        const char *item = KVLIBCSzListGet(ports, i);
        if (item == nullptr) continue;
        kova::CStrPtr copy(strdup(item));
        if (copy == nullptr) {
            KOVA_SET_ERR(KOVA_ERR_OUT_OF_MEMORY);
            KOVA_LOG("strdup fail for %s" KOVA_ERRFMT, item, KOVA_ERRARGS);
            return -1;
        }
        int first = 0;
        int last = 0;
        if (char *dash = std::strchr(copy.get(), '-'); dash != nullptr) {
            *dash = '\0';
            first = to_int(copy.get());
            last = to_int(dash + 1);
        } else {
            first = last = to_int(copy.get());
        }
        for (int k = 0; k < count; ++k)
            if (used[k] >= first && used[k] <= last) used[k] = 0;
    }
    return 0;
}

// First catalogue record of each name, as KOVAFWServiceFind would find it.
using ServiceIndex = std::unordered_map<std::string_view, const KOVA_FW_SERVICE *>;

// Ports in use by the skipped services themselves do not count.
int SkipServicePortsClear(const KVLIB_SZLIST *skipNames, const ServiceIndex &index, const KOVA_FW_SERVICE *catalogue,
                          int32_t *used, int count, int protocolBit) {
    if (catalogue == nullptr || used == nullptr) {
        KOVA_SET_ERR(KOVA_ERR_BAD_PARAMETER);
        KOVA_LOG("Invalid Argument!!" KOVA_ERRFMT, KOVA_ERRARGS);
        return -1;
    }
    for (int i = 0; i < skipNames->nItem; ++i) {
        const char *name = KVLIBCSzListGet(skipNames, i);
        if (name == nullptr) continue;
        auto it = index.find(name);
        if (it == index.end()) continue;
        const KOVA_FW_SERVICE *svc = it->second;
        if ((svc->dstProtocol & protocolBit) == 0 || svc->dstPorts == nullptr) continue;
        if (ServicePortsClear(svc->dstPorts, used, count) != 0) return -1;
    }
    return 0;
}

// Whether some port of [first, last] is in use for the protocol, not counting the skipped
// services' own ports: 1, 0, or -1 on failure.
int RangeInUse(const Request &req, const ServiceIndex &index, const KOVA_FW_SERVICE *catalogue, int first, int last,
               int protocolBit) {
    UsedPorts used;
    if (UsedPortsFetch(first, last, protocolBit == KOVA_PROTO_TCP ? 1 : 0, used) != 0) return -1;
    if (SkipServicePortsClear(req.skipNames, index, catalogue, used.ports.get(), used.count, protocolBit) != 0)
        return -1;
    return std::any_of(used.ports.get(), used.ports.get() + used.count, [](int32_t p) { return p != 0; }) ? 1 : 0;
}

int InUseConflict(const Request &req) {
    KOVA_FW_SERVICE *raw = nullptr;
    const int n = KOVAFwServiceEnum(&raw);
    kova::FwServicePtr catalogue(raw);
    if (n < 0) {
        KOVA_SET_ERR(KOVA_ERR_FW_ENUM);
        KOVA_LOG("Failed to enumerate services" KOVA_ERRFMT, KOVA_ERRARGS);
        return -1;
    }
    ServiceIndex index;
    if (req.skipNames->nItem > 0)
        for (const KOVA_FW_SERVICE *svc = catalogue.get(); svc != nullptr; svc = svc->next)
            index.emplace(service_name(*svc), svc);
    const bool tcp = has_word(req.protoWords, "tcp");
    const bool udp = has_word(req.protoWords, "udp");

    for (int i = 0; i < req.portItems->nItem; ++i) {
        const char *item = KVLIBCSzListGet(req.portItems, i);
        if (item == nullptr) continue;
        int first = 0;
        int last = 0;
        if (const char *colon = std::strchr(item, ':'); colon != nullptr) {
            const int a = to_int(std::string(item, colon).c_str());
            const int b = to_int(colon + 1);
            first = std::min(a, b);
            last = std::max(a, b);
        } else {
            first = last = to_int(item);
        }
        if (first == 0 && last == 0) {
            KOVA_SET_ERR(KOVA_ERR_BAD_PARAMETER);
            KOVA_LOG("Invalid Argument!!" KOVA_ERRFMT, KOVA_ERRARGS);
            return -1;
        }
        for (const auto &[wanted, bit] : {std::pair{tcp, KOVA_PROTO_TCP}, std::pair{udp, KOVA_PROTO_UDP}}) {
            if (!wanted) continue;
            const int rc = RangeInUse(req, index, catalogue.get(), first, last, bit);
            if (rc != 0) return rc;
        }
    }
    return 0;
}

// ---- the check -----------------------------------------------------------------------------

int IsPortConflict(const char *szSkipList, const char *szPorts, const char *szProtocol, int checkFlags,
                   KOVA_SERVICE_CONF_PORT **ppConflictList) {
    if (szSkipList == nullptr || szPorts == nullptr || szProtocol == nullptr || ppConflictList == nullptr ||
        checkFlags < 1 || checkFlags > 31) {
        KOVA_SET_ERR(KOVA_ERR_BAD_PARAMETER);
        KOVA_LOG("Invalid Argument!!");
        return -1;
    }
    kova::SzListPtr lists[3];
    for (auto &list : lists) {
        list.reset(KVLIBCSzListAlloc(kListSize));
        if (list == nullptr) {
            KOVA_LOG("Failed to KVLIBCSzListAlloc" KOVA_ERRFMT, KOVA_ERRARGS);
            KOVA_SET_ERR(KOVA_ERR_OUT_OF_MEMORY);
            return -1;
        }
    }
    auto &[skipNames, portItems, protoWords] = lists;

    auto split = [](kova::SzListPtr &list, const char *text) {
        return with_handle(list, [&](KVLIB_SZLIST **h) { return KVLIBCStrTok(text, " ,", h); }) >= 0;
    };
    if (!split(skipNames, szSkipList) || !split(portItems, szPorts)) {
        KOVA_LOG("Failed to skiped services into list!");
        return -1;
    }
    std::string protocol(szProtocol);
    char lower[kValueSize];
    if (KVLIBCStrCaseLower(protocol.data(), 0, lower, sizeof lower) == nullptr) return -1;
    if (!split(protoWords, lower)) {
        KOVA_LOG("Failed to skiped services into list!");
        return -1;
    }

    Request req{szPorts, szProtocol, skipNames.get(), portItems.get(), protoWords.get(), {}, ppConflictList};
    for (int i = 0; i < skipNames->nItem; ++i)
        if (const char *name = KVLIBCSzListGet(skipNames.get(), i); name != nullptr) req.skip.insert(name);

    // The port 412 is never free for a service, whatever the sources say.
    int result = has_word(portItems.get(), "412") ? 1 : 0;

    // The first three sources run to their end, so that every collision they can name is in
    // the conflict list; the ports in use only answer yes or no.
    if ((checkFlags & KOVA_PORT_CHECK_PORT_FORWARD) != 0) {
        const int rc = RuleFileConflict(req);
        if (rc < 0) return -1;
        if (rc > 0) result = 1;
    }
    if ((checkFlags & KOVA_PORT_CHECK_SERVICES) != 0) {
        const int rc = CatalogueConflict(req);
        if (rc < 0) return -1;
        if (rc > 0) result = 1;
    }
    if ((checkFlags & KOVA_PORT_CHECK_RESERVED) != 0) {
        const int rc = ReservedConflict(req);
        if (rc < 0) return -1;
        if (rc > 0) result = 1;
    }
    if ((checkFlags & KOVA_PORT_CHECK_IN_USE) != 0) {
        const int rc = InUseConflict(req);
        if (rc != 0) return rc;
    }
    return result;
}

int IsConfPortConflict(const char *szPath, KOVA_SERVICE_CONF_PORT **ppConflictList) {
    kova::SzListPtr sections(KVLIBCSzListAlloc(kListSize));
    if (sections == nullptr) {
        KOVA_LOG("Failed to KVLIBCSzListAlloc, kovaerr=" KOVA_ERRFMT, KOVA_ERRARGS);
        return -1;
    }
    kova::SzHashPtr hash(KVLIBCSzHashAlloc(kHashSize));
    if (hash == nullptr) {
        KOVA_LOG("Failed to KVLIBCSzHashAlloc, kovaerr=" KOVA_ERRFMT, KOVA_ERRARGS);
        return -1;
    }
    if (szPath == nullptr) return 0;
    if (with_handle(sections, [&](KVLIB_SZLIST **h) { return KVLIBCFileEnumSection(szPath, h); }) <= 0) return 0;

    for (int i = 0; i < sections->nItem; ++i) {
        const char *name = KVLIBCSzListGet(sections.get(), i);
        if (name == nullptr || std::strcmp(name, "global") == 0) continue;
        if (!fresh_hash(hash)) {
            KOVA_LOG("Failed to KVLIBCSzHashAlloc, kovaerr=" KOVA_ERRFMT, KOVA_ERRARGS);
            return -1;
        }
        const int keys = with_handle(hash, [&](KVLIB_SZHASH **h) { return KVLIBCFileGetSection(szPath, name, h); });
        if (keys <= 0) {
            KOVA_LOG(
                "Failed to KVLIBCFileGetSection, file: %s, section name: %s, nHashRecords: %d, kovaerr=" KOVA_ERRFMT,
                szPath, name, keys, KOVA_ERRARGS);
            return -1;
        }
        const char *value = KVLIBCSzHashGetValue(hash.get(), "dst.ports");
        if (value == nullptr) {
            KOVA_LOG("szTmpString is NULL" KOVA_ERRFMT, KOVA_ERRARGS);
            return -1;
        }
        kova::CStrPtr copy(strdup(value));
        if (copy == nullptr) {
            KOVA_SET_ERR(KOVA_ERR_OUT_OF_MEMORY);
            continue;
        }
        // "ports/protocol": the protocol part is missing when there is no "/".
        char *protocol = copy.get();
        char *ports = KVLIBCStrTokIndex(&protocol, "/");
        if (protocol != nullptr && *protocol != '\0' && KVLIBCStrTrimSpace(protocol, 0) < 0) continue;
        if (KVLIBCStrTrimSpace(ports, 0) < 0) continue;

        const int rc = KVLIBIsPortConflict(name, ports, protocol, kFileCheckFlags, ppConflictList);
        if (rc < 0) {
            KOVA_LOG("KVLIBIsPortConflict FAILED=%d, port=%s, protocol=%s kovaerr=" KOVA_ERRFMT, rc, ports,
                     protocol != nullptr ? protocol : "", KOVA_ERRARGS);
            continue;
        }
        if (rc == 1) {
            KOVA_LOG("szTmpString=%s conflict", value);
            return 1;
        }
    }
    return 0;
}

}  // namespace

// ---- port text comparison ------------------------------------------------------------------

int ConflictPortAppend(int lo, int hi, int port, KOVA_SERVICE_CONF_PORT **ppConflictList) {
    if (lo < 0 || hi < 0 || port < 0) {
        KOVA_SET_ERR(KOVA_ERR_BAD_PARAMETER);
        return -1;
    }
    if (port < lo || port > hi) return 0;
    return append_conflict(port, port, ppConflictList);
}

int PortConflictWithText(int firstPort, int lastPort, const char *szOther, KOVA_SERVICE_CONF_PORT **ppConflictList) {
    if (firstPort < 0 || lastPort < -1 || szOther == nullptr) {
        KOVA_SET_ERR(KOVA_ERR_BAD_PARAMETER);
        return -1;
    }
    const bool single = lastPort == -1;
    if (!single && firstPort > lastPort) {
        KOVA_LOG("begin port %d larger than end port %d!" KOVA_ERRFMT, firstPort, lastPort, KOVA_ERRARGS);
        return -1;
    }
    kova::CStrPtr copy = copy_text(szOther);
    if (copy == nullptr || KVLIBCStrTrimSpace(copy.get(), 0) < 0) return -1;

    int added = 0;
    char *cursor = copy.get();
    for (char *item = KVLIBCStrTokIndex(&cursor, ","); item != nullptr; item = KVLIBCStrTokIndex(&cursor, ",")) {
        if (KVLIBCStrTrimSpace(item, 0) < 0) return -1;
        int rc = 0;
        if (char *dash = std::strchr(item, '-'); dash != nullptr) {
            *dash = '\0';
            const char *right = dash + 1;
            int a = 0;
            int b = 0;
            if (*item == '\0' || *right == '\0') return -1;
            if (!checked_port(item, a) || !checked_port(right, b)) return -1;
            const int lo = std::min(a, b);
            const int hi = std::max(a, b);
            if (single) {
                rc = ConflictPortAppend(lo, hi, firstPort, ppConflictList);
            } else if (hi >= firstPort && lo <= lastPort) {
                rc = append_conflict(std::max(lo, firstPort), std::min(hi, lastPort), ppConflictList);
            }
        } else {
            int q = 0;
            if (!checked_port(item, q)) return -1;
            rc = single ? ConflictPortAppend(q, q, firstPort, ppConflictList)
                        : ConflictPortAppend(firstPort, lastPort, q, ppConflictList);
        }
        if (rc < 0) return -1;
        if (rc > 0) added = 1;
    }
    return added;
}

int PortsConflictWithText(const char *szPorts, const char *szOther, KOVA_SERVICE_CONF_PORT **ppConflictList) {
    if (szPorts == nullptr || szOther == nullptr) {
        KOVA_SET_ERR(KOVA_ERR_BAD_PARAMETER);
        return -1;
    }
    kova::CStrPtr copy = copy_text(szPorts);
    if (copy == nullptr || KVLIBCStrTrimSpace(copy.get(), 0) < 0) return -1;

    int result = 0;
    char *cursor = copy.get();
    for (char *item = KVLIBCStrTokIndex(&cursor, ","); item != nullptr; item = KVLIBCStrTokIndex(&cursor, ",")) {
        if (KVLIBCStrTrimSpace(item, 0) < 0) return -1;
        int rc = 0;
        if (char *colon = std::strchr(item, ':'); colon != nullptr) {
            *colon = '\0';
            const char *right = colon + 1;
            int a = 0;
            int b = 0;
            if (*item == '\0' || *right == '\0') return -1;
            if (!checked_port(item, a) || !checked_port(right, b)) return -1;
            rc = PortConflictWithText(std::min(a, b), std::max(a, b), szOther, ppConflictList);
        } else {
            int p = 0;
            if (!checked_port(item, p)) return -1;
            rc = PortConflictWithText(p, -1, szOther, ppConflictList);
        }
        if (rc < 0) return -1;
        if (rc > 0) result = 1;
    }
    return result;
}

// ---- reserved ports ------------------------------------------------------------------------

int GetServicePort(const char *szKey, KVLIB_PORT_RANGE *pRange) {
    if (szKey == nullptr || pRange == nullptr) {
        KOVA_LOG("Bad parameters.");
        return -1;
    }
    const std::string path = kova::resolve(kova::paths::kInfoConf);
    KOVA_SERVICE_CONF_PORT entry{};
    char low[kValueSize] = "";
    char high[kValueSize] = "";

    const std::string_view key(szKey);
    if (key == "ftplowport" || key == "ftphighport") {
        const int gotLow = KVLIBCFileGetKeyValue(path.c_str(), "ftplowport", low, sizeof low, 0);
        const int gotHigh =
            gotLow == -1 ? -1 : KVLIBCFileGetKeyValue(path.c_str(), "ftphighport", high, sizeof high, 0);
        if (gotLow == -1 || gotHigh == -1) {
            KOVA_LOG("Failed to get [%s] info from [%s].", szKey, path.c_str());
            return -1;
        }
        if (gotHigh <= 0) return 0;
        int first = 0;
        int last = 0;
        if (!checked_port(low, first) || !checked_port(high, last)) return -1;
        entry.type = first != last ? 1 : 0;
        entry.beginPort = static_cast<uint32_t>(first);
        entry.endPort = static_cast<uint32_t>(last);
    } else {
        const int got = KVLIBCFileGetKeyValue(path.c_str(), szKey, low, sizeof low, 0);
        if (got == -1) {
            KOVA_LOG("Failed to get [%s] info from [%s].", szKey, path.c_str());
            return -1;
        }
        if (got <= 0) return 0;
        int port = 0;
        if (!checked_port(low, port)) return -1;
        entry.beginPort = static_cast<uint32_t>(port);
    }
    if (KVLIBPortRangeAdd(pRange, &entry) != 0) {
        KOVA_LOG("Failed to KVLIBPortRangeAdd().");
        return -1;
    }
    return 0;
}

// ---- exported ------------------------------------------------------------------------------

extern "C" {

int KVLIBIsPortConflict(const char *szSkipList, const char *szPorts, const char *szProtocol, int checkFlags,
                        KOVA_SERVICE_CONF_PORT **ppConflictList) {
    return KOVA_GUARDED(-1,
                        [&] { return IsPortConflict(szSkipList, szPorts, szProtocol, checkFlags, ppConflictList); });
}

int KVLIBIsConfPortConflict(const char *szPath, KOVA_SERVICE_CONF_PORT **ppConflictList) {
    return KOVA_GUARDED(-1, [&] { return IsConfPortConflict(szPath, ppConflictList); });
}

}  // extern "C"
