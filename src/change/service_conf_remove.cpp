// Removing an installed .sc file and sending the "port_config/remove" event with its content.
#include <kovaserviceconf.h>

#include <string>

#include "change/change_internal.h"
#include "foundation/door.h"
#include "foundation/guard.h"
#include "foundation/log.h"
#include "foundation/raii.h"
#include "kova_root.h"

namespace {

bool removal_request_ok(const KVLIB_SERVICE_CONF_REQUEST &request) {
    if (request.mode != 1 && request.mode != 2) return false;
    if (request.mode == 2 && (request.restartMask & 0x0F) == 0) return false;
    if (request.action != 3) return false;
    if ((request.scope & 0x0F) == 0 || (request.scope & 0x04) == 0) return false;
    const uint32_t where = request.location & 0x03;
    return where == KOVA_CONF_LOCATION_SYSTEM || where == KOVA_CONF_LOCATION_PACKAGE;
}

kova::Result<void> remove_conf(const KVLIB_SERVICE_CONF_REQUEST *pRequest) {
    if (pRequest == nullptr || !removal_request_ok(*pRequest)) return KOVA_FAILURE(KOVA_ERR_BAD_PARAMETER);
    // The file name must name a file inside services.d and nothing else.
    if (!kova::change::terminated(pRequest->fileName) || !kova::change::is_plain_file_name(pRequest->fileName)) {
        return KOVA_FAILURE(KOVA_ERR_BAD_PARAMETER);
    }
    const KVLIB_SERVICE_CONF_REQUEST request = *pRequest;
    const std::string path = kova::change::request_services_dir(request.location) + "/" + request.fileName;
    if (KVLIBCFileExist(path.c_str()) == 0) return KOVA_FAILURE(KOVA_ERR_FILE_NOT_FOUND);

    const std::string copy = kova::resolve(std::string("/tmp/servicetool.remove.") + request.fileName + "." +
                                           std::to_string(kova::sys().getpid()));
    kova::change::TempFileGuard copy_guard(copy);
    // The copy only feeds the notification: a copy that cannot be made (its name cannot be
    // claimed, or cp fails) leaves the notice without content, as long as cp could be run.
    // Nothing is ever copied through whatever was planted at that name.
    const bool claimed = kova::change::claim_temp_file(copy) == 0;
    if (claimed && kova::sys().run("/bin/cp", "-f", path.c_str(), copy.c_str(), nullptr) < 0) {
        KOVA_LOG("Failed to do command [cp]");
        return KOVA_FAILURE_KEEP;
    }
    if (kova::sys().unlink(path.c_str()) != 0) {
        KOVA_LOG("remove file %s fail!" KOVA_ERRFMT, path.c_str(), KOVA_ERRARGS);
        return KOVA_FAILURE_KEEP;
    }

    KVLIB_SERVICE_CONF_REMOVE_NOTICE notice{};
    if ((request.scope & 0x03) != 0 && claimed) notice.confPath = copy.c_str();
    if ((request.scope & 0x02) != 0) {
        notice.notifyFirewall = 1;
        notice.notifyPortForward = 1;
    }
    if (kova::Result<void> notified = kova::change::remove_notify(notice); !notified) {
        KOVA_LOG("FAILED to notify");
        return notified;
    }
    return {};
}

kova::Result<void> remove_base_name(const char *szFileName, unsigned int location) {
    KVLIB_SERVICE_CONF_REQUEST request{};
    request.mode = 2;
    request.restartMask = 1;
    request.action = 3;
    request.scope = 7;
    kova::copy_field(request.fileName, szFileName);
    request.location = location;
    // Out of memory inside the removal is its failure, reported like any other.
    const kova::Result<void> removed = KOVA_GUARDED_RESULT(kova::Result<void>, [&] { return remove_conf(&request); });
    if (!removed) {
        KOVA_LOG("remove configure file fail! file=%s, error=" KOVA_ERRFMT, request.fileName,
                 KOVA_PENDING_ARGS(removed.failure()));
    }
    return removed;
}

}  // namespace

extern "C" {

int KOVAServiceConfRemove(const KVLIB_SERVICE_CONF_REQUEST *pRequest) {
    return KOVA_GUARDED(-1, [&] { return kova::change::to_c(remove_conf(pRequest)); });
}

int KVLIBServiceConfRemove(const KVLIB_SERVICE_CONF_REQUEST *pRequest) {
    return KOVA_GUARDED(-1, [&] { return kova::change::to_c(remove_conf(pRequest)); });
}

int KOVAServiceConfRemoveBaseName(const char *szFileName, unsigned int location) {
    return KOVA_GUARDED(-1, [&] { return kova::change::to_c(remove_base_name(szFileName, location)); });
}

int KVLIBServiceConfRemoveBaseName(const char *szFileName, unsigned int location) {
    return KOVA_GUARDED(-1, [&] { return kova::change::to_c(remove_base_name(szFileName, location)); });
}

}  // extern "C"
