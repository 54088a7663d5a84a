// Removing one service section from its .sc file under backup, with roll-back on failure.
#include <kovaserviceconf.h>

#include <cstring>
#include <string>

#include "change/change_internal.h"
#include "foundation/door.h"
#include "foundation/guard.h"
#include "foundation/log.h"
#include "foundation/raii.h"

namespace {

bool location_ok(uint32_t location) {
    const uint32_t where = location & 0x03;
    return where == KOVA_CONF_LOCATION_SYSTEM || where == KOVA_CONF_LOCATION_PACKAGE;
}

// File and section names: not empty, terminated; the file name a plain name inside services.d.
bool names_ok(const KVLIB_SERVICE_CONF_REQUEST &request) {
    return kova::change::terminated(request.fileName) && kova::change::terminated(request.sectionName) &&
           kova::change::is_plain_file_name(request.fileName) && request.sectionName[0] != '\0';
}

int roll_back(const KVLIB_SERVICE_CONF_REQUEST &request) {
    if (KVLIBServiceConfRestore(&request) != 0) KOVA_LOG("Restore configure fail!" KOVA_ERRFMT, KOVA_ERRARGS);
    return -1;
}

constexpr int kThrew = -2;

// The steps of a removal once the trees are backed up; -1 after rolling back.
int remove_backed_up(const KVLIB_SERVICE_CONF_REQUEST &request) {
    if ((request.scope & 0x01) != 0 && KVLIBFwServRemoveRecWrap(request.sectionName) != 0) {
        KOVA_LOG("Remove service record in firewall rule fail!" KOVA_ERRFMT, KOVA_ERRARGS);
        return roll_back(request);
    }
    if ((request.scope & 0x04) != 0 && SectionRemoveFromFile(&request) != 0) {
        KOVA_LOG("Remove service configure section fail!" KOVA_ERRFMT, KOVA_ERRARGS);
        return roll_back(request);
    }
    if (request.mode == 2 && KVLIBServiceConfServRestart(request.restartMask) != 0) {
        KOVA_LOG("Restart service fail" KOVA_ERRFMT, KOVA_ERRARGS);
        if (KVLIBServiceConfRestore(&request) != 0) KOVA_LOG("Restore configure fail!" KOVA_ERRFMT, KOVA_ERRARGS);
        // Let the components pick up the restored configuration.
        if (KVLIBServiceConfServRestart(request.restartMask) != 0)
            KOVA_LOG("Restart service fail" KOVA_ERRFMT, KOVA_ERRARGS);
        return -1;
    }
    if (KVLIBServiceBackupConfDelete(&request) != 0) KOVA_LOG("Delete tmp configure fail!" KOVA_ERRFMT, KOVA_ERRARGS);
    return 0;
}

int section_remove(const KVLIB_SERVICE_CONF_REQUEST *pRequest) {
    if (pRequest == nullptr) {
        KOVA_SET_ERR(KOVA_ERR_BAD_PARAMETER);
        return -1;
    }
    const KVLIB_SERVICE_CONF_REQUEST &request = *pRequest;
    const bool request_ok = (request.mode == 1 || request.mode == 2) &&
                            (request.mode != 2 || (request.restartMask & 0x0F) != 0) && request.action == 3 &&
                            (request.scope & 0x0F) != 0 && (request.scope & 0x04) != 0 && location_ok(request.location);
    if (!request_ok || !names_ok(request)) {
        KOVA_SET_ERR(KOVA_ERR_BAD_PARAMETER);
        return -1;
    }

    if (KVLIBServiceConfBackup(&request) != 0) {
        KOVA_LOG("Backup configure fail!" KOVA_ERRFMT, KOVA_ERRARGS);
        return -1;
    }
    // From here on every failure rolls back, running out of memory on the way included.
    const int rc = KOVA_GUARDED(kThrew, [&] { return remove_backed_up(request); });
    return rc == kThrew ? roll_back(request) : rc;
}

}  // namespace

int SectionRemoveFromFile(const KVLIB_SERVICE_CONF_REQUEST *pRequest) {
    if (pRequest == nullptr) {
        KOVA_SET_ERR(KOVA_ERR_BAD_PARAMETER);
        return -1;
    }
    const KVLIB_SERVICE_CONF_REQUEST &request = *pRequest;
    if (request.action != 3 || (request.scope & 0x04) == 0 || !location_ok(request.location) || !names_ok(request)) {
        KOVA_SET_ERR(KOVA_ERR_BAD_PARAMETER);
        return -1;
    }

    kova::change::SzHashHandle hash(KVLIBCSzHashAlloc(1024));
    if (!hash) {
        KOVA_LOG("Failed to alloc memory");
        return -1;
    }
    const kova::SzListPtr sections(KVLIBCSzListAlloc(1024));
    if (!sections) {
        KOVA_LOG("Failed to KVLIBCSzListAlloc" KOVA_ERRFMT, KOVA_ERRARGS);
        return -1;
    }

    const std::string path = kova::change::request_services_dir(request.location) + "/" + request.fileName;
    if (KVLIBCFileExist(path.c_str()) == 0) {
        KOVA_LOG("Configure file (%s) does not exist!" KOVA_ERRFMT, path.c_str(), KOVA_ERRARGS);
        return 0;
    }

    const int keys = KVLIBCFileGetSection(path.c_str(), request.sectionName, hash.addr());
    if (keys < 0) {
        KOVA_LOG("Failed to get section(%s) from file(%s)", request.sectionName, path.c_str());
        return -1;
    }
    if (keys == 0) {
        KOVA_LOG("Section (%s) not found!" KOVA_ERRFMT, request.sectionName, KOVA_ERRARGS);
    } else if (KVLIBCFileRemoveSection(path.c_str(), request.sectionName) < 0) {
        KOVA_LOG("Remove section (%s) fail!" KOVA_ERRFMT, request.sectionName, KOVA_ERRARGS);
        return -1;
    }

    KVLIB_SZLIST *list = sections.get();
    if (KVLIBCFileEnumSection(path.c_str(), &list) < 0) {
        KOVA_LOG("Failed to KVLIBCFileEnumSection" KOVA_ERRFMT, KOVA_ERRARGS);
        return -1;
    }
    // A file left without a service section has no reason to stay.
    const char *first = list->nItem == 1 ? KVLIBCSzListGet(list, 0) : nullptr;
    const bool only_global = first != nullptr && std::strcmp(first, "global") == 0;
    if ((list->nItem == 0 || only_global) && kova::sys().unlink(path.c_str()) != 0)
        KOVA_LOG("remove file %s fail!" KOVA_ERRFMT, path.c_str(), KOVA_ERRARGS);
    return 0;
}

extern "C" int KVLIBServiceConfSectionRemove(const KVLIB_SERVICE_CONF_REQUEST *pRequest) {
    return KOVA_GUARDED(-1, [&] { return section_remove(pRequest); });
}
