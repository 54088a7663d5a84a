// The configured and the runtime conflict reports are built the same way: the same records but
// for one text field, the same check, filter and queries. The two families are described here
// once (their functions and the names their messages use), and each operation is written once
// as a template over a family.
//
// The templates log through a logger that the calling module passes in, a lambda over KOVA_LOG
// written in that module, so that every line names the module that runs the operation:
//   constexpr auto module_log = [](const char *fmt, auto... args) { KOVA_LOG(fmt, args...); };
#pragma once

#include <kovaserviceconf.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "conflict/conflict_list.h"
#include "foundation/ports.h"
#include "foundation/raii.h"

namespace kova::conflict {

// The operations that the families' modules export, as C++ functions for the code inside; each
// logs and fails as its exported shell does, under its own module's name.
int conf_port_check(const KVLIB_SZLIST *ports, uint16_t protocol, KVLIB_DLIST *results) noexcept;
int conf_list_conflict_ports(const KVLIB_DLIST *results, uint16_t protocol, KVLIB_SZLIST *ports) noexcept;
int conf_is_conflict_ports(const KVLIB_SZLIST *ports, uint16_t protocol) noexcept;
int runtime_port_check(const KVLIB_SZLIST *ports, uint16_t protocol, KVLIB_DLIST *results) noexcept;
int runtime_list_conflict_ports(const KVLIB_DLIST *results, uint16_t protocol, KVLIB_SZLIST *ports) noexcept;
int runtime_is_conflict_ports(const KVLIB_SZLIST *ports, uint16_t protocol) noexcept;
KVLIB_DLIST *runtime_inventory() noexcept;
// The result lists' copy callbacks (modules port_conflict_conf_alloc, port_conflict_runtime_alloc).
void *conf_result_copy(const void *result) noexcept;
void *runtime_result_copy(const void *result) noexcept;
int runtime_append_no_conflict(KVLIB_DLIST *list, uint16_t port, uint16_t protocol) noexcept;

// Ports configured by the system settings and the firewall catalogue.
struct ConfFamily {
    using Result = KOVA_CONF_PORT_CONFLICT_RESULT;
    static constexpr char *Result::*kText = &Result::serviceName;
    static constexpr auto result_copy = &conf_result_copy;
    static constexpr auto check = &conf_port_check;
    static constexpr auto list_conflict_ports = &conf_list_conflict_ports;
    static constexpr auto is_conflict_ports = &conf_is_conflict_ports;
    static constexpr const char *kRecordType = "PKOVA_CONF_PORT_CONFLICT_RESULT";
    static constexpr const char *kListAlloc = "KOVAConfPortConflictResultListAlloc";
    static constexpr const char *kCheck = "KOVAConfPortConflictCheck";
    static constexpr const char *kListConflictPorts = "KOVAConfListConflictPorts";
    static constexpr const char *kNullCheckResults = "ppResultList is undefined";
    // What the port queries do with the conflicting ports they found: nothing more here.
    static void report_conflicts(const KVLIB_SZLIST *) {}
};

// Ports held by running processes.
struct RuntimeFamily {
    using Result = KOVA_RUNTIME_PORT_CONFLICT_RESULT;
    static constexpr char *Result::*kText = &Result::program;
    static constexpr auto result_copy = &runtime_result_copy;
    static constexpr auto inventory = &runtime_inventory;
    static constexpr auto append_none = &runtime_append_no_conflict;
    static constexpr auto check = &runtime_port_check;
    static constexpr auto list_conflict_ports = &runtime_list_conflict_ports;
    static constexpr auto is_conflict_ports = &runtime_is_conflict_ports;
    static constexpr const char *kRecordType = "PKOVA_RUNTIME_PORT_CONFLICT_RESULT";
    static constexpr const char *kListAlloc = "KOVARuntimePortConflictResultListAlloc";
    static constexpr const char *kCheck = "KOVARuntimePortConflictCheck";
    static constexpr const char *kListConflictPorts = "KOVARuntimeListConflictPorts";
    static constexpr const char *kNullCheckResults = "pResultList is undefined";
    // The runtime queries show the conflicting ports on the standard error stream.
    static void report_conflicts(const KVLIB_SZLIST *ports) {
        std::fputs("pConflictPortList:\n", stderr);
        KVLIBCISzListDump(ports);
    }
};

// --- Records and result lists ---------------------------------------------------------------

template <class F>
void free_result(typename F::Result *result) {
    if (result == nullptr) return;
    std::free(result->*F::kText);
    std::free(result);
}

template <class F>
struct ResultDeleter {
    void operator()(typename F::Result *result) const { free_result<F>(result); }
};
template <class F>
using ResultPtr = std::unique_ptr<typename F::Result, ResultDeleter<F>>;

template <class F, class Log>
typename F::Result *copy_result(const typename F::Result *result, Log log) {
    if (result == nullptr) return nullptr;
    auto *copy = calloc_record<typename F::Result>();
    if (copy == nullptr) {
        log("Failed to allocate %s", F::kRecordType);
        return nullptr;
    }
    *copy = *result;
    const char *text = result->*F::kText;
    copy->*F::kText = nullptr;
    if (text != nullptr && (copy->*F::kText = strdup(text)) == nullptr) {
        std::free(copy);  // a copy without its text would pass for a record without one
        return nullptr;
    }
    return copy;
}

// A result list whose callbacks are the family's copy and free operations.
template <class F>
KVLIB_DLIST *alloc_result_list() {
    using R = typename F::Result;
    return KVLIBCDListAlloc(F::result_copy, [](void *p) { free_result<F>(static_cast<R *>(p)); });
}

template <class F, class Log>
KVLIB_DLIST *copy_result_list(const KVLIB_DLIST *list, Log log) {
    using R = typename F::Result;
    if (list == nullptr) return nullptr;
    KVLIB_DLIST *copy = alloc_result_list<F>();
    if (copy == nullptr) {
        log("Failed to allocate %s", F::kListAlloc);
        return nullptr;
    }
    for_each_record<R>(list, [&](const R &r) { KVLIBCDListAppend(copy, &r); });
    return copy;
}

// --- Filter and no-conflict record ----------------------------------------------------------

template <class F, class Log>
int filter_result_list(const KVLIB_DLIST *source, uint16_t port, uint16_t protocol, KVLIB_DLIST *filtered, Log log) {
    if (source == nullptr) {
        log("pSourceResultList is undefined");
        return -1;
    }
    if (filtered == nullptr) {
        log("pFilteredResultList is undefined");
        return -1;
    }
    return filter_records<typename F::Result>(source, port, protocol, filtered);
}

// Appends a record with the port and protocol and nothing else (isConflict 0).
template <class F, class Log>
int append_no_conflict(KVLIB_DLIST *list, uint16_t port, uint16_t protocol, Log log) {
    if (list == nullptr) {
        log("pResultList is undefined");
        return -1;
    }
    ResultPtr<F> work(calloc_record<typename F::Result>());
    if (!work) {
        log("Failed to alloc pResult, Out of memory.[0x%04X]", KVLIBCErrGet());
        return -1;
    }
    work->port = port;
    work->protocol = protocol;
    work->isConflict = 0;
    return KVLIBCDListAppend(list, work.get()) < 0 ? -1 : 0;
}

// --- The check ------------------------------------------------------------------------------

// Whether the check's arguments are usable; the first fault is logged.
template <class F, class Log>
bool check_arguments(const KVLIB_SZLIST *ports, uint16_t protocol, const KVLIB_DLIST *results, Log log) {
    if (!kova::ports::is_legal_protocol(protocol)) {
        log("Illegal protocol: %u", static_cast<unsigned int>(protocol));
        return false;
    }
    if (ports == nullptr) {
        log("pPortList is undefined");
        return false;
    }
    if (results == nullptr) {
        log(F::kNullCheckResults);
        return false;
    }
    return true;
}

template <class F, class Log>
int port_conflict_check(const KVLIB_SZLIST *ports, uint16_t protocol, KVLIB_DLIST *results, Log log) {
    if (!check_arguments<F>(ports, protocol, results, log)) return -1;
    DListPtr inventory(F::inventory());
    if (!inventory) {
        log("Failed to ServiceConfListFetch");
        return -1;
    }
    const auto outcome = check_ports<typename F::Result>(
        ports, protocol, inventory.get(), results, [&](const char *text) { log("Illegal port: %s", text); },
        [](KVLIB_DLIST *list, uint16_t port, uint16_t single) { return F::append_none(list, port, single); });
    if (outcome == CheckOutcome::kAppendFailed) {
        log("Failed to append no conflict result");
        return -1;
    }
    return 0;
}

template <class F, class Log>
KVLIB_DLIST *alloc_and_check(const KVLIB_SZLIST *ports, uint16_t protocol, Log log) {
    if (ports == nullptr) {
        log("pPortList is undefined");
        return nullptr;
    }
    DListPtr list(alloc_result_list<F>());
    if (!list) {
        log("Failed to alloc %s, Out of memory.[0x%04X]", F::kListAlloc, KVLIBCErrGet());
        return nullptr;
    }
    if (F::check(ports, protocol, list.get()) < 0) {
        log("Failed to %s", F::kCheck);
        return nullptr;
    }
    return list.release();
}

// --- The queries ----------------------------------------------------------------------------

template <class F, class Log>
int list_conflict_ports(const KVLIB_DLIST *results, uint16_t protocol, KVLIB_SZLIST *ports, Log log) {
    if (results == nullptr) {
        log("pResultList is undefined");
        return -1;
    }
    if (ports == nullptr) {
        log("pConflictPortList is undefined");
        return -1;
    }
    collect_conflict_ports<typename F::Result>(results, protocol, ports);
    return 0;
}

template <class F, class Log>
int verify_conflict_port(const KVLIB_DLIST *results, uint16_t port, uint16_t protocol, Log log) {
    if (results == nullptr) {
        log("pResultList is undefined");
        return -1;
    }
    return verify_port<typename F::Result>(results, port, protocol);
}

template <class F, class Log>
int is_conflict_ports(const KVLIB_SZLIST *ports, uint16_t protocol, Log log) {
    DListPtr results(alloc_result_list<F>());
    if (!results) {
        log("Failed to alloc *ppsdCheckResultCollection, Out of memory.[0x%04X]", KVLIBCErrGet());
        return 0;
    }
    SzListPtr conflicts(KVLIBCSzListAlloc(512));
    if (!conflicts) {
        log("Failed to alloc *ppsdCheckResultCollection, Out of memory.[0x%04X]", KVLIBCErrGet());
        return 0;
    }
    if (F::check(ports, protocol, results.get()) < 0) {
        log("Failed to %s", F::kCheck);
        return 0;
    }
    if (F::list_conflict_ports(results.get(), protocol, conflicts.get()) < 0) {
        log("Failed to %s", F::kListConflictPorts);
        return 0;
    }
    if (conflicts->nItem <= 0) return 0;
    F::report_conflicts(conflicts.get());
    return 1;
}

// The ports first..last through the family's port-list query; 0 for an inverted range.
template <class F, class Log>
int is_conflict_port_range(uint16_t first, uint16_t last, uint16_t protocol, Log log) {
    SzListPtr ports(KVLIBCSzListAlloc(512));
    if (!ports) {
        log("Failed to alloc *ppsdCheckResultCollection, Out of memory.[0x%04X]", KVLIBCErrGet());
        return 0;
    }
    if (first > last) {
        log("Illegal port range: %hu~%hu", first, last);
        return 0;
    }
    push_port_range(ports.get(), first, last);
    return F::is_conflict_ports(ports.get(), protocol);
}

}  // namespace kova::conflict
