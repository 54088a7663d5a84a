// The service-wide check's sources that compare port texts: the port-forwarding rules (0x02)
// and the services of the firewall catalogue (0x04).
#include <algorithm>
#include <cstring>
#include <numeric>
#include <optional>

#include "conf/sc_reader.h"
#include "firewall/firewall_service_enum.h"
#include "range/conflict_check.h"

namespace kova::check {

CataloguePorts::CataloguePorts(const CheckCatalogue &catalogue) {
    std::vector<Span> spans;
    for (uint32_t s = 0; s < catalogue.services.size(); ++s) {
        const CheckCatalogue::Service &svc = catalogue.services[s];
        for (uint32_t i = 0; i < svc.textCount; ++i) {
            // One item (no comma) that is a checked port or range; a text of several is compared
            // text by text.
            const std::string_view text = catalogue.text(svc, i);
            const bool single = text.find(',') == std::string_view::npos;
            const PortText::Item one = single ? PortText::cut(text, '-') : PortText::Item{};
            const bool regular = single && one.ok;
            const Span span = regular ? one.span : Span{};
            const auto at = static_cast<uint32_t>(items.size());
            items.push_back({s, svc.firstText + i, span, regular});
            (regular ? spanItem : irregular).push_back(at);
            if (regular) spans.push_back(items.back().span);
        }
    }
    index.emplace(spans);
}

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
    const Result<const CheckCatalogue *> catalogue = req.catalogues->get();
    if (!catalogue) {
        CHECK_LOG("Failed to enumerate services" KOVA_ERRFMT, KOVA_FAILURE_ARGS(catalogue.failure()));
        return catalogue.failure();
    }
    if ((*catalogue)->services.empty()) return false;

    // A protocol text that does not parse (the parser logs it) matches no service; the check
    // goes on with the error state the parser leaves.
    int flags = 0;
    if (const Result<int> parsed = ports::protocol_of(req.protocol); parsed) {
        flags = ports::firewall_protocol(*parsed);
    } else {
        set_error(parsed.failure());
    }
    // When every item of the caller is a port or a range, it is compared only with the catalogue's
    // items that share ports with one of them, found by a search (each colliding piece is the
    // common part), and with the items that are not one port or range; otherwise with every item.
    const CataloguePorts &theirs = req.catalogues->ports();
    const std::vector<PortText::Item> &mine = req.portText->items();
    std::optional<ports::SpanIndex> index;
    std::vector<uint32_t> visit;
    if (std::all_of(mine.begin(), mine.end(), [](const PortText::Item &item) { return item.ok; })) {
        std::vector<Span> spans;
        for (const PortText::Item &item : mine) spans.push_back(item.span);
        index.emplace(spans);
        visit = theirs.irregular;
        std::vector<uint32_t> found;
        for (const Span &span : spans) theirs.index->overlapping(span, found);
        for (const uint32_t at : found) visit.push_back(theirs.spanItem[at]);
        std::sort(visit.begin(), visit.end());
        visit.erase(std::unique(visit.begin(), visit.end()), visit.end());
    } else {
        visit.resize(theirs.items.size());
        std::iota(visit.begin(), visit.end(), 0u);
    }
    std::vector<uint32_t> hits;
    bool found = false;
    for (const uint32_t at : visit) {
        const CataloguePorts::Item &item = theirs.items[at];
        const CheckCatalogue::Service &svc = (*catalogue)->services[item.service];
        if (req.skip.count((*catalogue)->name(svc)) != 0) continue;
        if ((svc.dstProtocol & flags) == 0) continue;
        if (index && item.regular) {
            const Span span = item.span;
            hits.clear();
            index->overlapping(span, hits);
            for (uint32_t mineAt : hits)
                list.add(std::max(span.first, mine[mineAt].span.first), std::min(span.last, mine[mineAt].span.last));
            found = found || !hits.empty();
            continue;
        }
        const Result<bool> r =
            compare_texts(*req.portText, PortText((*catalogue)->text((*catalogue)->texts[item.text]), '-'), list);
        if (!r) return r.failure();
        found = found || *r;
    }
    return found;
}

}  // namespace kova::check
