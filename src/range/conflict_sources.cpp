// The service-wide check's sources that compare port texts: the port-forwarding rules (0x02)
// and the services of the firewall catalogue (0x04).
#include <algorithm>
#include <cstring>
#include <optional>

#include "conf/sc_reader.h"
#include "firewall/firewall_service_enum.h"
#include "range/conflict_check.h"

namespace kova::check {
Result<bool> rule_file_conflict(const Request &req, ConflictList &list) {
    const char *path = KOVAPFRuleConfPathGet();
    if (path == nullptr || KVLIBCFileExist(path) != 1) return false;
    // The rule file is read once; each section is one rule.
    const Result<conf::ScFile> rules = conf::read_sc_file(path);
    if (!rules) {
        CHECK_LOG("Failed to KVLIBCFileEnumSection" KOVA_ERRFMT, KOVA_FAILURE_ARGS(rules.failure()));
        return rules.failure();
    }
    bool found = false;
    for (const std::string &name : rules->names()) {
        const conf::ScSection *rule = rules->find(name);
        if (rule == nullptr || rule->key_count() <= 0) {
            CHECK_LOG("Section not found or failed to get section(%s) from %s", name.c_str(), path);
            return CHECK_FAILURE_KEEP;
        }
        const char *serviceId = rule->value("service_id");
        if (serviceId != nullptr && req.skip.count(serviceId) != 0) continue;
        const char *protocolName = rule->value("protocol name");
        const char *sourcePorts = rule->value("s_port");
        const char *routerPorts = rule->value("r_port");
        if (protocolName == nullptr || sourcePorts == nullptr || routerPorts == nullptr) return CHECK_FAILURE_KEEP;
        for (const char *other : {sourcePorts, routerPorts}) {
            const Result<bool> r = compare_texts(*req.portText, PortText(other, '-'), list);
            if (!r) return r.failure();
            found = found || *r;
        }
    }
    return found;
}

Result<bool> catalogue_conflict(const Request &req, ConflictList &list) {
    const Result<const fw::Catalogue *> catalogue = req.catalogues->get();
    if (!catalogue) {
        CHECK_LOG("Failed to enumerate services" KOVA_ERRFMT, KOVA_FAILURE_ARGS(catalogue.failure()));
        return catalogue.failure();
    }
    if ((*catalogue)->count == 0 || (*catalogue)->head == nullptr) return false;

    // A protocol text that does not parse (the parser logs it) matches no service; the check
    // goes on with the error state the parser leaves.
    int flags = 0;
    if (const Result<int> parsed = ports::protocol_of(req.protocol); parsed) {
        flags = ports::firewall_protocol(*parsed);
    } else {
        set_error(parsed.failure());
    }
    // When every item of the caller is a port or a range, a service's port is compared with the
    // items it shares ports with, found by a search: each colliding piece is the common part.
    const std::vector<PortText::Item> &mine = req.portText->items();
    std::optional<ports::SpanIndex> index;
    if (std::all_of(mine.begin(), mine.end(), [](const PortText::Item &item) { return item.ok; })) {
        std::vector<Span> spans;
        for (const PortText::Item &item : mine) spans.push_back(item.span);
        index.emplace(spans);
    }
    std::vector<uint32_t> hits;
    bool found = false;
    for (const KOVA_FW_SERVICE *svc = (*catalogue)->head.get(); svc != nullptr; svc = svc->next) {
        if (req.skip.count(std::string_view(svc->name, strnlen(svc->name, sizeof svc->name))) != 0) continue;
        if ((svc->dstProtocol & flags) == 0) continue;
        if (svc->dstPorts == nullptr) continue;
        for (int i = 0; i < svc->dstPorts->nItem; ++i) {
            const char *item = KVLIBCSzListGet(svc->dstPorts, i);
            if (item == nullptr) return CHECK_FAILURE_KEEP;
            const PortText theirs(item, '-');
            if (index && theirs.items().size() == 1 && theirs.items()[0].ok) {
                const Span span = theirs.items()[0].span;
                hits.clear();
                index->overlapping(span, hits);
                for (uint32_t at : hits)
                    list.add(std::max(span.first, mine[at].span.first), std::min(span.last, mine[at].span.last));
                found = found || !hits.empty();
                continue;
            }
            const Result<bool> r = compare_texts(*req.portText, theirs, list);
            if (!r) return r.failure();
            found = found || *r;
        }
    }
    return found;
}

}  // namespace kova::check
