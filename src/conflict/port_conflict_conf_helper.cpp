// The configured-ports inventory: the system's own ports from the system information file,
// then every destination port of every firewall catalogue service, one record per port,
// protocol and declaring service. Also the filter and the no-conflict record of the check.
#include <kovaserviceconf.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "conflict/conflict_twins.h"
#include "foundation/guard.h"
#include "foundation/log.h"
#include "foundation/raii.h"
#include "kova_root.h"

namespace {

using kova::DListPtr;

using Family = kova::conflict::ConfFamily;
using ConfResult = Family::Result;
using ConfResultPtr = kova::conflict::ResultPtr<Family>;

// This module's log lines, for the shared operations.
constexpr auto module_log = [](const char *fmt, auto... args) { KOVA_LOG(fmt, args...); };

// One row of the system ports: a key of the system information file, or a fixed port text.
struct SystemPort {
    const char *key;
    const char *fixedPort;
    uint16_t protocol;
    const char *serviceName;
};

constexpr SystemPort kSystemPorts[] = {
    {"syslogport", nullptr, KOVA_PROTO_TCP, "kova-syslog"}, {"smsport", nullptr, KOVA_PROTO_TCP, "kova-sms"},
    {nullptr, "5005", KOVA_PROTO_TCP, "kova-webdav"},       {nullptr, "5006", KOVA_PROTO_TCP, "kova-webdav-ssl"},
    {"syslogport", nullptr, KOVA_PROTO_UDP, "kova-syslog"},
};

// Fills the working record and appends a copy; the record owns its name until replaced.
void append_declared(KVLIB_DLIST *list, ConfResult *work, uint16_t port, uint16_t protocol, const char *name) {
    work->port = port;
    work->protocol = protocol;
    work->isConflict = 1;
    std::free(work->serviceName);
    work->serviceName = strdup(name);
    KVLIBCDListAppend(list, work);
    std::free(work->serviceName);
    work->serviceName = nullptr;
}

// The ports of one destination port text of a service: "N" or "N-M".
void append_service_ports(KVLIB_DLIST *list, ConfResult *work, const KOVA_FW_SERVICE &service, const char *text) {
    const uint16_t protocol = service.dstProtocol == KOVA_PROTO_TCP ? KOVA_PROTO_TCP : KOVA_PROTO_UDP;
    unsigned short first = 0;
    unsigned short last = 0;
    const int read = std::sscanf(text, "%hu-%hu", &first, &last);
    if (read == 1) {
        append_declared(list, work, first, protocol, service.name);
    } else if (read == 2 && first <= last) {
        for (uint32_t port = first; port <= last; ++port)
            append_declared(list, work, static_cast<uint16_t>(port), protocol, service.name);
    } else if (read == 2) {
        KOVA_LOG("Illegal port range: %hu~%hu", first, last);
    } else {
        KOVA_LOG("Failed to fetch port from service: %s", service.name);
    }
}

// A new, empty result list; a failure is logged.
DListPtr new_result_list() {
    DListPtr list(KOVAConfPortConflictResultListAlloc());
    if (!list) KOVA_LOG("Failed to alloc pResultList, Out of memory.[0x%04X]", KVLIBCErrGet());
    return list;
}

KVLIB_DLIST *sys_conf_list_fetch() {
    DListPtr list = new_result_list();
    if (!list) return nullptr;
    ConfResultPtr work(KOVAConfPortConflictResultAlloc());
    if (!work) {
        KOVA_LOG("Failed to alloc pResultList, Out of memory.[0x%04X]", KVLIBCErrGet());
        return nullptr;
    }
    const std::string info = kova::resolve(kova::paths::kInfoConf);
    char value[1024] = "";
    for (const SystemPort &row : kSystemPorts) {
        if (row.key != nullptr &&
            KVLIBCFileGetKeyValue(info.c_str(), row.key, value, static_cast<int>(sizeof value), 0) < 0) {
            KOVA_LOG("Failed to get %s from %s, errno=0x%X", row.key, info.c_str(), KVLIBCErrGet());
        }
        value[sizeof value - 1] = '\0';
        const uint16_t port = ToUPort(row.key != nullptr ? value : row.fixedPort);
        append_declared(list.get(), work.get(), port, row.protocol, row.serviceName);
    }
    return list.release();
}

KVLIB_DLIST *pkg_conf_list_fetch() {
    DListPtr list = new_result_list();
    if (!list) return nullptr;
    ConfResultPtr work(KOVAConfPortConflictResultAlloc());
    if (!work) {
        KOVA_LOG("Failed to alloc pResult, Out of memory.[0x%04X]", KVLIBCErrGet());
        return nullptr;
    }
    KOVA_FW_SERVICE *head = nullptr;
    if (KOVAFwServiceEnum(&head) < 0) {
        KOVAFwServiceFree(head);
        return nullptr;
    }
    kova::FwServicePtr services(head);
    for (const KOVA_FW_SERVICE *service = services.get(); service != nullptr; service = service->next) {
        if (service->dstPorts == nullptr) continue;
        for (int i = 0; i < service->dstPorts->nItem; ++i)
            if (const char *text = KVLIBCSzListGet(service->dstPorts, i))
                append_service_ports(list.get(), work.get(), *service, text);
    }
    return list.release();
}

void append_copies(KVLIB_DLIST *target, const KVLIB_DLIST *source) {
    kova::conflict::for_each_record<ConfResult>(source, [&](const ConfResult &r) { KVLIBCDListAppend(target, &r); });
}

KVLIB_DLIST *service_conf_list_fetch() {
    DListPtr list = new_result_list();
    if (!list) return nullptr;
    DListPtr system(SysConfListFetch());
    if (!system) {
        KOVA_LOG("Failed to SysConfListFetch");
        return nullptr;
    }
    DListPtr catalogue(PkgConfListFetch());
    if (!catalogue) {
        KOVA_LOG("Failed to ServiceConfListFetch");
        return nullptr;
    }
    append_copies(list.get(), system.get());
    append_copies(list.get(), catalogue.get());
    return list.release();
}

}  // namespace

extern "C" {

KVLIB_DLIST *SysConfListFetch(void) {
    return KOVA_GUARDED(static_cast<KVLIB_DLIST *>(nullptr), [&] { return sys_conf_list_fetch(); });
}

KVLIB_DLIST *PkgConfListFetch(void) {
    return KOVA_GUARDED(static_cast<KVLIB_DLIST *>(nullptr), [&] { return pkg_conf_list_fetch(); });
}

KVLIB_DLIST *ServiceConfListFetch(void) {
    return KOVA_GUARDED(static_cast<KVLIB_DLIST *>(nullptr), [&] { return service_conf_list_fetch(); });
}

int ConfResultListFilter(const KVLIB_DLIST *pSourceResultList, uint16_t port, uint16_t protocol,
                         KVLIB_DLIST *pFilteredResultList) {
    return kova::conflict::filter_result_list<Family>(pSourceResultList, port, protocol, pFilteredResultList,
                                                      module_log);
}

int ConfNotConflictResultAppend(KVLIB_DLIST *pResultList, uint16_t port, uint16_t protocol) {
    return KOVA_GUARDED(
        -1, [&] { return kova::conflict::append_no_conflict<Family>(pResultList, port, protocol, module_log); });
}

}  // extern "C"
