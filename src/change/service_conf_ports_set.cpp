// Replacing the source or destination port list of an existing service section.
#include <kovaserviceconf.h>

#include <string>

#include "change/change_internal.h"
#include "conf/sc_reader.h"
#include "foundation/guard.h"
#include "foundation/log.h"

namespace {

// This module's log lines, for the shared steps.
constexpr auto module_log = [](const char *fmt, auto... args) { KOVA_LOG(fmt, args...); };

kova::Result<kova::change::Done> ports_set(const KVLIB_SERVICE_CONF_REQUEST *pRequest,
                                           const KOVA_SERVICE_CONF_PORT *pPorts) {
    if (pRequest == nullptr || pPorts == nullptr || !kova::change::ports_in_range(pPorts) ||
        !kova::change::edit_request_ok(*pRequest)) {
        return KOVA_FAILURE(KOVA_ERR_BAD_PARAMETER);
    }
    const KVLIB_SERVICE_CONF_REQUEST &request = *pRequest;

    // The rendering and the conflict check record their own failures.
    kova::change::PortValue ports;
    if (!kova::change::render_port_value(pPorts, ports)) return KOVA_FAILURE_KEEP;
    if (!kova::change::ports_free(request, ports, module_log)) return KOVA_FAILURE_KEEP;

    if ((request.scope & 0x04) != 0) {
        const std::string path = kova::change::request_services_dir(request.location) + "/" + request.fileName;
        if (KVLIBCFileExist(path.c_str()) == 0) {
            KOVA_LOG("Configure file (%s) does not exist!" KOVA_ERRFMT, path.c_str(), KOVA_ERRARGS);
            return KOVA_FAILURE_KEEP;
        }
        // Only sections with keys can be edited in place.
        const kova::Result<kova::conf::ScFile> file = kova::conf::read_sc_file(path.c_str());
        const kova::conf::ScSection *section = file ? file->find(request.sectionName) : nullptr;
        if (section == nullptr || section->key_count() <= 0) {
            KOVA_LOG("Section not found or failed to get section(%s) from %s", request.sectionName, path.c_str());
            return file ? KOVA_FAILURE_KEEP : file.failure();
        }
        const char *key = pPorts->direction != 0 ? "dst.ports" : "src.ports";

        kova::change::RouterCopy router_copy;
        if (!router_copy.take(path, request.fileName, module_log)) return KOVA_FAILURE_KEEP;
        if (KVLIBCFileSetSectionValue(path.c_str(), request.sectionName, key, ports.value.c_str()) < 0)
            return KOVA_FAILURE_KEEP;

        router_copy.update_router(request, path, module_log);
    }

    return kova::change::Done{kova::change::restart_if_asked(request, module_log)};
}

}  // namespace

extern "C" int KVLIBServiceConfPortsSet(const KVLIB_SERVICE_CONF_REQUEST *pRequest,
                                        const KOVA_SERVICE_CONF_PORT *pPorts) {
    return KOVA_GUARDED(-1, [&] { return kova::change::to_c(ports_set(pRequest, pPorts)); });
}
