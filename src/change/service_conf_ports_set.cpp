// Replacing the source or destination port list of an existing service section.
#include <kovaserviceconf.h>

#include <string>

#include "change/change_internal.h"
#include "foundation/guard.h"
#include "foundation/log.h"
#include "foundation/raii.h"
#include "foundation/root_path.h"

namespace {

int ports_set(const KVLIB_SERVICE_CONF_REQUEST *pRequest, const KOVA_SERVICE_CONF_PORT *pPorts) {
    if (pRequest == nullptr || pPorts == nullptr || !kova::change::edit_request_ok(*pRequest)) {
        KOVA_SET_ERR(KOVA_ERR_BAD_PARAMETER);
        return -1;
    }
    const KVLIB_SERVICE_CONF_REQUEST &request = *pRequest;

    kova::change::PortValue ports;
    if (!kova::change::render_port_value(pPorts, ports)) return -1;
    {
        KOVA_SERVICE_CONF_PORT *conflict_head = nullptr;
        const int conflict = KVLIBIsPortConflict(request.sectionName, ports.ports.c_str(), ports.protocols.c_str(),
                                                 static_cast<int>(request.scope), &conflict_head);
        const kova::PortsPtr conflicts(conflict_head);
        if (conflict < 0) return -1;
        if (conflict > 0) {
            KOVA_LOG("Port conflict with existing ports! (port: %s)" KOVA_ERRFMT, ports.value.c_str(), KOVA_ERRARGS);
            return -1;
        }
    }

    if ((request.scope & 0x04) != 0) {
        kova::change::SzHashHandle hash(KVLIBCSzHashAlloc(1024));
        if (!hash) {
            KOVA_LOG("Failed to alloc memory");
            return -1;
        }
        const std::string path = kova::change::request_services_dir(request.location) + "/" + request.fileName;
        if (KVLIBCFileExist(path.c_str()) == 0) {
            KOVA_LOG("Configure file (%s) does not exist!" KOVA_ERRFMT, path.c_str(), KOVA_ERRARGS);
            return -1;
        }
        if (KVLIBCFileGetSection(path.c_str(), request.sectionName, hash.addr()) <= 0) {
            KOVA_LOG("Section not found or failed to get section(%s) from %s", request.sectionName, path.c_str());
            return -1;
        }
        const char *key = pPorts->direction != 0 ? "dst.ports" : "src.ports";

        // The file as it was, for the router tool; never written through a planted link.
        const std::string router_copy = kova::resolve(std::string("/tmp/") + request.fileName);
        const kova::change::TempFileGuard copy_guard(router_copy);
        if (kova::change::claim_temp_file(router_copy) != 0 ||
            KVLIBCExec("/bin/cp", "-f", path.c_str(), router_copy.c_str(), nullptr) != 0) {
            KOVA_LOG("FAILED to copy from file=%s to backup path=%s", path.c_str(), router_copy.c_str());
            return -1;
        }
        if (KVLIBCFileSetSectionValue(path.c_str(), request.sectionName, key, ports.value.c_str()) < 0) return -1;

        if ((request.scope & 0x02) != 0) {
            const std::string tool = kova::resolve(kova::paths::kRouterTool);
            if (KVLIBCExec(tool.c_str(), "--update", router_copy.c_str(), path.c_str(), nullptr) != 0)
                KOVA_LOG("%s --udpate %s %s failed!" KOVA_ERRFMT, tool.c_str(), router_copy.c_str(), path.c_str(),
                         KOVA_ERRARGS);
        }
    }

    if (request.mode == 2 && KVLIBServiceConfServRestart(request.restartMask) < 0)
        KOVA_LOG("Restart service fail" KOVA_ERRFMT, KOVA_ERRARGS);
    return 0;
}

}  // namespace

extern "C" int KVLIBServiceConfPortsSet(const KVLIB_SERVICE_CONF_REQUEST *pRequest,
                                        const KOVA_SERVICE_CONF_PORT *pPorts) {
    return KOVA_GUARDED(-1, [&] { return ports_set(pRequest, pPorts); });
}
