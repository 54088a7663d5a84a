// Port conflict checks: whether a service's ports collide with the port-forwarding rules, the
// firewall catalogue, the ports that system settings reserve and the ports in use; and the
// same check for every service section of a .sc file. The sources live in files of their own
// (conflict_sources.cpp, reserved_ports.cpp, ports_in_use.cpp, port_text_compare.cpp).
#include <kovaserviceconf.h>

#include <algorithm>
#include <cstring>
#include <string>

#include "conf/sc_reader.h"
#include "firewall/settings_reads.h"
#include "foundation/guard.h"
#include "range/conflict_check.h"
#include "range/port_range_internal.h"

namespace kova::check {

std::vector<Span> ConflictList::spans() const {
    std::vector<Span> out(added_);
    for (const KOVA_SERVICE_CONF_PORT *n = given_; n != nullptr; n = n->next)
        out.push_back(range::span_of(n->type, n->beginPort, n->endPort));
    return out;
}

void ConflictList::apply(KOVA_SERVICE_CONF_PORT **ppList) const {
    auto node = [](uint32_t type, uint32_t protocol, const Span &s) {
        auto *n = calloc_record<KOVA_SERVICE_CONF_PORT>();
        if (n == nullptr) throw std::bad_alloc();
        n->type = type;
        n->protocol = protocol;
        n->beginPort = s.first;
        n->endPort = type == 1 || protocol == 0 ? s.last : 0;
        return n;
    };
    if (replaced_) {
        PortsPtr head;
        for (auto it = replaced_->rbegin(); it != replaced_->rend(); ++it) {
            KOVA_SERVICE_CONF_PORT *n = node(it->first != it->last ? 1 : 0, 0, *it);
            n->next = head.release();
            head.reset(n);
        }
        KOVAServiceConfPortsFree(*ppList);
        *ppList = head.release();
        return;
    }
    for (const Span &s : added_) {
        KOVA_SERVICE_CONF_PORT *n = node(s.first != s.last ? 1 : 0, KOVA_PROTO_BOTH, s);
        n->next = *ppList;
        *ppList = n;
    }
}

Result<const CheckCatalogue *> CatalogueSource::get() {
    if (kept_ && echo_.can_say()) {
        echo_.say();
        return &*kept_;
    }
    ports_.reset();
    kept_.reset();
    CheckCatalogue &made = kept_.emplace();
    const Result<fw::Catalogue> built = echo_.record([&] { return fw::build_catalogue(&made); });
    if (!built) {
        kept_.reset();
        return built.failure();
    }
    return &made;
}

void CheckCatalogue::take(FwServicePtr record) {
    const auto keep = [this](const char *text, size_t length) {
        const Piece p{static_cast<uint32_t>(pool.size()), static_cast<uint32_t>(length)};
        pool.append(text, length);
        return p;
    };
    const auto firstText = static_cast<uint32_t>(texts.size());
    for (int i = 0; record->dstPorts != nullptr && i < record->dstPorts->nItem; ++i)
        if (const char *text = KVLIBCSzListGet(record->dstPorts, i); text != nullptr)
            texts.push_back(keep(text, std::strlen(text)));
    services.push_back({keep(record->name, strnlen(record->name, sizeof record->name)), record->dstProtocol, firstText,
                        static_cast<uint32_t>(texts.size()) - firstText});
}

const CheckCatalogue::Service *CheckCatalogue::find(std::string_view wanted) const {
    for (const Service &s : services)
        if (name(s) == wanted) return &s;
    return nullptr;
}

const CataloguePorts &CatalogueSource::ports() {
    if (!ports_) ports_.emplace(*kept_);
    return *ports_;
}

bool Request::has_proto_word(std::string_view word) const {
    return std::find(protoWords.begin(), protoWords.end(), word) != protoWords.end();
}

namespace {

constexpr int kFileCheckFlags = KOVA_PORT_CHECK_SERVICES | KOVA_PORT_CHECK_RESERVED | KOVA_PORT_CHECK_IN_USE;
constexpr size_t kLowerSize = 1024;  // the protocol text is lower-cased into a buffer of this size

Result<int> check(const Request &req, int checkFlags, ConflictList &list) {
    // The port 412 is never free for a service, whatever the sources say.
    int result = std::find(req.portItems.begin(), req.portItems.end(), "412") != req.portItems.end() ? 1 : 0;

    // The first three sources run to their end, so that every collision they can name is in
    // the conflict list; the ports in use only answer yes or no.
    struct Source {
        int flag;
        Result<bool> (*run)(const Request &, ConflictList &);
    };
    static constexpr Source kSources[] = {
        {KOVA_PORT_CHECK_PORT_FORWARD, rule_file_conflict},
        {KOVA_PORT_CHECK_SERVICES, catalogue_conflict},
        {KOVA_PORT_CHECK_RESERVED, reserved_conflict},
    };
    for (const Source &s : kSources) {
        if ((checkFlags & s.flag) == 0) continue;
        const Result<bool> r = s.run(req, list);
        if (!r) return r.failure();
        if (*r) result = 1;
    }
    if ((checkFlags & KOVA_PORT_CHECK_IN_USE) != 0) {
        const Result<bool> r = in_use_conflict(req);
        if (!r) return r.failure();
        if (*r) return 1;
    }
    return result;
}

// The exported check, for the file check too.
int port_conflict(const char *szSkipList, const char *szPorts, const char *szProtocol, int checkFlags,
                  KOVA_SERVICE_CONF_PORT **ppConflictList, CatalogueSource &catalogues) {
    if (szSkipList == nullptr || szPorts == nullptr || szProtocol == nullptr || ppConflictList == nullptr ||
        checkFlags < 1 || checkFlags > 31) {
        KOVA_SET_ERR(KOVA_ERR_BAD_PARAMETER);
        KOVA_LOG("Invalid Argument!!");
        return -1;
    }
    Request req;
    req.ports = szPorts;
    req.protocol = szProtocol;
    req.skipNames = ports::words(szSkipList, " ,");
    req.portItems = ports::words(szPorts, " ,");
    req.lowered = std::string(req.protocol.substr(0, kLowerSize - 1));
    for (char &c : req.lowered)
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    req.protoWords = ports::words(req.lowered, " ,");
    req.skip.insert(req.skipNames.begin(), req.skipNames.end());
    req.catalogues = &catalogues;
    if ((checkFlags & (KOVA_PORT_CHECK_PORT_FORWARD | KOVA_PORT_CHECK_SERVICES)) != 0)
        req.portText.emplace(szPorts, ':');

    ConflictList list(*ppConflictList);
    const Result<int> r = check(req, checkFlags, list);
    list.apply(ppConflictList);
    if (!r) {
        set_error(r.failure());
        return -1;
    }
    return *r;
}

int conf_port_conflict(const char *szPath, KOVA_SERVICE_CONF_PORT **ppConflictList) {
    if (szPath == nullptr) return 0;
    const fw::SettingsScope settings;  // the settings files are read once for every section
    CatalogueSource catalogues;
    // The file is read once; its sections are taken as the platform's reader lists them.
    Result<conf::ScFile> file = conf::read_sc_file(szPath);
    if (!file) {
        set_error(file.failure());
        return 0;
    }
    for (const std::string &name : file->names()) {
        if (name == "global") continue;
        const conf::ScSection *section = file->find(name);
        const int keys = section != nullptr ? section->key_count() : 0;
        if (keys <= 0) {
            KOVA_LOG(
                "Failed to KVLIBCFileGetSection, file: %s, section name: %s, nHashRecords: %d, kovaerr=" KOVA_ERRFMT,
                szPath, name.c_str(), keys, KOVA_ERRARGS);
            return -1;
        }
        const char *value = section->value("dst.ports");
        if (value == nullptr) {
            KOVA_LOG("szTmpString is NULL" KOVA_ERRFMT, KOVA_ERRARGS);
            return -1;
        }
        // "ports/protocol": the protocol part is missing when there is no "/".
        const ports::PortListText parts = ports::split_port_list(value);
        const std::string portText(ports::trim(parts.ports));
        const std::string protocol(ports::trim(parts.protocol));
        const int rc = port_conflict(name.c_str(), portText.c_str(), parts.has_protocol ? protocol.c_str() : nullptr,
                                     kFileCheckFlags, ppConflictList, catalogues);
        if (rc < 0) {
            KOVA_LOG("KVLIBIsPortConflict FAILED=%d, port=%s, protocol=%s kovaerr=" KOVA_ERRFMT, rc, portText.c_str(),
                     protocol.c_str(), KOVA_ERRARGS);
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

int is_port_conflict(const char *szSkipList, const char *szPorts, const char *szProtocol, int checkFlags,
                     KOVA_SERVICE_CONF_PORT **ppConflictList) noexcept {
    return KOVA_GUARDED(-1, [&] {
        const fw::SettingsScope settings;  // the catalogue's getters and the reserved ports share their reads
        CatalogueSource catalogues;
        return port_conflict(szSkipList, szPorts, szProtocol, checkFlags, ppConflictList, catalogues);
    });
}

int is_conf_port_conflict(const char *szPath, KOVA_SERVICE_CONF_PORT **ppConflictList) noexcept {
    return KOVA_GUARDED(-1, [&] { return conf_port_conflict(szPath, ppConflictList); });
}

}  // namespace kova::check

extern "C" {

int KVLIBIsPortConflict(const char *szSkipList, const char *szPorts, const char *szProtocol, int checkFlags,
                        KOVA_SERVICE_CONF_PORT **ppConflictList) {
    return kova::check::is_port_conflict(szSkipList, szPorts, szProtocol, checkFlags, ppConflictList);
}

int KVLIBIsConfPortConflict(const char *szPath, KOVA_SERVICE_CONF_PORT **ppConflictList) {
    return kova::check::is_conf_port_conflict(szPath, ppConflictList);
}

}  // extern "C"
