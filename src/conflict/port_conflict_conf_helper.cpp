// The configured-ports inventory: the system's own ports from the system information file,
// then every destination port of every firewall catalogue service, one record per port,
// protocol and declaring service. Also the filter and the no-conflict record of the check.
#include <kovaserviceconf.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "conflict/configured_ports.h"
#include "conflict/conflict_twins.h"
#include "foundation/guard.h"
#include "foundation/log.h"
#include "foundation/ports.h"
#include "foundation/raii.h"
#include "kova_root.h"

namespace {

using kova::DListPtr;

using Family = kova::conflict::ConfFamily;
using ConfResult = Family::Result;
using kova::conflict::Declared;

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

// Appends a copy of the record (the list copies the name too).
void append_declared(KVLIB_DLIST *list, uint16_t port, uint16_t protocol, const char *name) {
    ConfResult record{port, protocol, const_cast<char *>(name), 1};
    KVLIBCDListAppend(list, &record);
}

// A new, empty result list; a failure is logged.
DListPtr new_result_list() {
    DListPtr list(kova::conflict::alloc_result_list<Family>());
    if (!list) KOVA_LOG("Failed to alloc pResultList, Out of memory.[0x%04X]", KVLIBCErrGet());
    return list;
}

KVLIB_DLIST *sys_conf_list_fetch() {
    DListPtr list = new_result_list();
    if (!list) return nullptr;
    for (const Declared &d : kova::conflict::system_ports())
        append_declared(list.get(), static_cast<uint16_t>(d.span.first), d.protocol, d.name);
    return list.release();
}

KVLIB_DLIST *pkg_conf_list_fetch() {
    DListPtr list = new_result_list();
    if (!list) return nullptr;
    kova::Result<kova::fw::Catalogue> catalogue = kova::fw::build_catalogue();
    if (!catalogue) {
        kova::set_error(catalogue.failure());
        return nullptr;
    }
    std::vector<Declared> declared;
    kova::conflict::add_catalogue_ports(catalogue->head.get(), declared);
    for (const Declared &d : declared)
        for (uint32_t port = d.span.first; port <= d.span.last; ++port)
            append_declared(list.get(), static_cast<uint16_t>(port), d.protocol, d.name);
    return list.release();
}

void append_copies(KVLIB_DLIST *target, const KVLIB_DLIST *source) {
    kova::conflict::for_each_record<ConfResult>(source, [&](const ConfResult &r) { KVLIBCDListAppend(target, &r); });
}

KVLIB_DLIST *service_conf_list_fetch() {
    DListPtr list = new_result_list();
    if (!list) return nullptr;
    DListPtr system(KOVA_GUARDED(static_cast<KVLIB_DLIST *>(nullptr), [] { return sys_conf_list_fetch(); }));
    if (!system) {
        KOVA_LOG("Failed to SysConfListFetch");
        return nullptr;
    }
    DListPtr catalogue(KOVA_GUARDED(static_cast<KVLIB_DLIST *>(nullptr), [] { return pkg_conf_list_fetch(); }));
    if (!catalogue) {
        KOVA_LOG("Failed to ServiceConfListFetch");
        return nullptr;
    }
    append_copies(list.get(), system.get());
    append_copies(list.get(), catalogue.get());
    return list.release();
}

}  // namespace

namespace kova::conflict {

std::vector<Declared> system_ports() {
    std::vector<Declared> out;
    const std::string info = kova::resolve(kova::paths::kInfoConf);
    char value[1024] = "";
    for (const SystemPort &row : kSystemPorts) {
        if (row.key != nullptr &&
            KVLIBCFileGetKeyValue(info.c_str(), row.key, value, static_cast<int>(sizeof value), 0) < 0) {
            KOVA_LOG("Failed to get %s from %s, errno=0x%X", row.key, info.c_str(), KVLIBCErrGet());
        }
        value[sizeof value - 1] = '\0';
        const uint16_t port = kova::ports::port_or_zero(row.key != nullptr ? value : row.fixedPort);
        out.push_back({{port, port}, row.protocol, row.serviceName});
    }
    return out;
}

void add_catalogue_ports(const KOVA_FW_SERVICE *head, std::vector<Declared> &out) {
    for (const KOVA_FW_SERVICE *service = head; service != nullptr; service = service->next) {
        if (service->dstPorts == nullptr) continue;
        const uint16_t protocol = service->dstProtocol == KOVA_PROTO_TCP ? KOVA_PROTO_TCP : KOVA_PROTO_UDP;
        for (int i = 0; i < service->dstPorts->nItem; ++i) {
            const char *text = KVLIBCSzListGet(service->dstPorts, i);
            if (text == nullptr) continue;
            const kova::ports::ScannedSpan span = kova::ports::scan_port_span(text);
            if (span.read == 1) {
                out.push_back({{span.first, span.first}, protocol, service->name});
            } else if (span.read == 2 && span.first <= span.last) {
                out.push_back({{span.first, span.last}, protocol, service->name});
            } else if (span.read == 2) {
                KOVA_LOG("Illegal port range: %hu~%hu", span.first, span.last);
            } else {
                KOVA_LOG("Failed to fetch port from service: %s", service->name);
            }
        }
    }
}

std::optional<ConfiguredPorts> ConfiguredPorts::build() {
    std::vector<Declared> declared = system_ports();
    kova::Result<kova::fw::Catalogue> catalogue = kova::fw::build_catalogue();
    if (!catalogue) {
        kova::set_error(catalogue.failure());
        KOVA_LOG("Failed to ServiceConfListFetch");
        return std::nullopt;
    }
    add_catalogue_ports(catalogue->head.get(), declared);
    return ConfiguredPorts(std::move(*catalogue), declared);
}

int append_no_conflict(KVLIB_DLIST *list, uint16_t port, uint16_t protocol) {
    return append_no_conflict<Family>(list, port, protocol, module_log);
}

}  // namespace kova::conflict

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
    return KOVA_GUARDED(-1, [&] { return kova::conflict::append_no_conflict(pResultList, port, protocol); });
}

}  // extern "C"
