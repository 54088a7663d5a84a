// The service-wide check's sources that compare port texts: the port-forwarding rules (0x02)
// and the services of the firewall catalogue (0x04).
#include <cstring>

#include "firewall/firewall_service_enum.h"
#include "range/conflict_check.h"

namespace kova::check {
namespace {

constexpr int kListSize = 1024;
constexpr int kHashSize = 1024;

// Calls a platform operation that takes the address of a handle (and may replace it), keeping
// the owner in charge of whatever handle comes back.
template <class Owner, class Call>
int with_handle(Owner &owner, Call &&call) {
    auto *raw = owner.release();
    const int result = call(&raw);
    owner.reset(raw);
    return result;
}

}  // namespace

Result<bool> rule_file_conflict(const Request &req, ConflictList &list) {
    const char *path = KOVAPFRuleConfPathGet();
    SzHashPtr hash(KVLIBCSzHashAlloc(kHashSize));
    if (hash == nullptr) {
        CHECK_LOG("Failed to alloc memory");
        return CHECK_FAILURE(KOVA_ERR_OUT_OF_MEMORY);
    }
    SzListPtr sections(KVLIBCSzListAlloc(kListSize));
    if (sections == nullptr) {
        CHECK_LOG("Failed to KVLIBCSzListAlloc" KOVA_ERRFMT, KOVA_ERRARGS);
        return CHECK_FAILURE(KOVA_ERR_OUT_OF_MEMORY);
    }
    if (path == nullptr || KVLIBCFileExist(path) != 1) return false;
    if (with_handle(sections, [&](KVLIB_SZLIST **h) { return KVLIBCFileEnumSection(path, h); }) < 0) {
        CHECK_LOG("Failed to KVLIBCFileEnumSection" KOVA_ERRFMT, KOVA_ERRARGS);
        return CHECK_FAILURE_KEEP;
    }
    bool found = false;
    for (int i = 0; i < sections->nItem; ++i) {
        const char *name = KVLIBCSzListGet(sections.get(), i);
        if (name == nullptr) return CHECK_FAILURE_KEEP;
        // The sectioned-file reader adds to what a hash holds: each rule gets a fresh one.
        if (KVLIBCSzHashCount(hash.get()) != 0) {
            hash.reset(KVLIBCSzHashAlloc(kHashSize));
            if (hash == nullptr) {
                CHECK_LOG("Failed to alloc memory");
                return CHECK_FAILURE(KOVA_ERR_OUT_OF_MEMORY);
            }
        }
        if (with_handle(hash, [&](KVLIB_SZHASH **h) { return KVLIBCFileGetSection(path, name, h); }) <= 0) {
            CHECK_LOG("Section not found or failed to get section(%s) from %s", name, path);
            return CHECK_FAILURE_KEEP;
        }
        const char *serviceId = KVLIBCSzHashGetValue(hash.get(), "service_id");
        if (serviceId != nullptr && req.skip.count(serviceId) != 0) continue;
        const char *protocolName = KVLIBCSzHashGetValue(hash.get(), "protocol name");
        const char *sourcePorts = KVLIBCSzHashGetValue(hash.get(), "s_port");
        const char *routerPorts = KVLIBCSzHashGetValue(hash.get(), "r_port");
        if (protocolName == nullptr || sourcePorts == nullptr || routerPorts == nullptr) return CHECK_FAILURE_KEEP;
        for (const char *other : {sourcePorts, routerPorts}) {
            const Result<bool> r = compare_texts(req.ports, other, list);
            if (!r) return r.failure();
            found = found || *r;
        }
    }
    return found;
}

Result<bool> catalogue_conflict(const Request &req, ConflictList &list) {
    Result<fw::Catalogue> catalogue = fw::build_catalogue();
    if (!catalogue) {
        CHECK_LOG("Failed to enumerate services" KOVA_ERRFMT, KOVA_FAILURE_ARGS(catalogue.failure()));
        return catalogue.failure();
    }
    if (catalogue->count == 0 || catalogue->head == nullptr) return false;

    // A protocol text that does not parse (the parser logs it) matches no service; the check
    // goes on with the error state the parser leaves.
    int flags = 0;
    if (const Result<int> parsed = ports::protocol_of(req.protocol); parsed) {
        flags = KOVAProtocolMapping(*parsed);
    } else {
        set_error(parsed.failure());
    }
    bool found = false;
    for (const KOVA_FW_SERVICE *svc = catalogue->head.get(); svc != nullptr; svc = svc->next) {
        if (req.skip.count(std::string_view(svc->name, strnlen(svc->name, sizeof svc->name))) != 0) continue;
        if ((svc->dstProtocol & flags) == 0) continue;
        if (svc->dstPorts == nullptr) continue;
        for (int i = 0; i < svc->dstPorts->nItem; ++i) {
            const char *item = KVLIBCSzListGet(svc->dstPorts, i);
            if (item == nullptr) return CHECK_FAILURE_KEEP;
            const Result<bool> r = compare_texts(req.ports, item, list);
            if (!r) return r.failure();
            found = found || *r;
        }
    }
    return found;
}

}  // namespace kova::check
