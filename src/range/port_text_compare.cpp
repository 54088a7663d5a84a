// Comparing the caller's port text ("80,8000:8010") with the port text of another source
// ("445,55900-55910"): every colliding piece becomes a conflict entry.
#include <algorithm>

#include "foundation/guard.h"
#include "range/conflict_check.h"
#include "range/port_conflict_text.h"

namespace kova::check {

PortText::PortText(std::string_view text, char joiner) {
    ports::each_piece(text, ",", [&](std::string_view piece) {
        items_.push_back(cut(piece, joiner));
        return true;
    });
}

PortText::Item PortText::cut(std::string_view piece, char joiner) {
    const ports::Item cut = ports::split_item(ports::trim(piece), joiner);
    Item item;
    item.joined = cut.joined;
    if (cut.joined && (cut.first.empty() || cut.last.empty())) {
        item.ok = false;
        return item;
    }
    uint32_t a = 0;
    uint32_t b = 0;
    if ((item.error = ports::parse_port(cut.first, a)) != ports::PortError::kNone) {
        item.bad = cut.first;
    } else if (cut.joined && (item.error = ports::parse_port(cut.last, b)) != ports::PortError::kNone) {
        item.bad = cut.last;
    }
    item.ok = item.error == ports::PortError::kNone;
    item.span = cut.joined ? Span{std::min(a, b), std::max(a, b)} : Span{a, a};
    return item;
}

Failure PortText::failure(const Item &item) {
    if (item.error == ports::PortError::kNone) return CHECK_FAILURE_KEEP;
    return ports::port_failure(item.bad, item.error);
}

Result<bool> compare_with_text(int first, int last, const PortText &other, ConflictList &list) {
    if (first < 0 || last < -1) return CHECK_FAILURE(KOVA_ERR_BAD_PARAMETER);
    const bool single = last == -1;
    if (!single && first > last) {
        CHECK_LOG("begin port %d larger than end port %d!" KOVA_ERRFMT, first, last, KOVA_ERRARGS);
        return CHECK_FAILURE_KEEP;
    }
    const Span mine{static_cast<uint32_t>(first), static_cast<uint32_t>(single ? first : last)};
    bool added = false;
    for (const PortText::Item &theirs : other.items()) {
        if (!theirs.ok) return PortText::failure(theirs);
        if (single || !theirs.joined) {
            // One port on one side: it is added when the other side holds it.
            const Span &wide = single ? theirs.span : mine;
            const uint32_t port = single ? mine.first : theirs.span.first;
            if (port < wide.first || port > wide.last) continue;
            list.add(port, port);
        } else {
            if (theirs.span.last < mine.first || theirs.span.first > mine.last) continue;
            list.add(std::max(theirs.span.first, mine.first), std::min(theirs.span.last, mine.last));
        }
        added = true;
    }
    return added;
}

Result<bool> compare_texts(const PortText &ports, const PortText &other, ConflictList &list) {
    bool found = false;
    for (const PortText::Item &item : ports.items()) {
        if (!item.ok) return PortText::failure(item);
        const auto first = static_cast<int>(item.span.first);
        const Result<bool> r =
            compare_with_text(first, item.joined ? static_cast<int>(item.span.last) : -1, other, list);
        if (!r) return r.failure();
        found = found || *r;
    }
    return found;
}

}  // namespace kova::check

namespace {

int to_c(const kova::Result<bool> &r, const kova::check::ConflictList &list, KOVA_SERVICE_CONF_PORT **ppList) {
    list.apply(ppList);
    if (r) return *r ? 1 : 0;
    kova::set_error(r.failure());
    return -1;
}

}  // namespace

int PortsConflictWithText(const char *szPorts, const char *szOther, KOVA_SERVICE_CONF_PORT **ppConflictList) {
    if (szPorts == nullptr || szOther == nullptr) {
        kova::set_error(CHECK_FAILURE(KOVA_ERR_BAD_PARAMETER));
        return -1;
    }
    return KOVA_GUARDED(-1, [&] {
        kova::check::ConflictList list(*ppConflictList);
        return to_c(kova::check::compare_texts({szPorts, ':'}, {szOther, '-'}, list), list, ppConflictList);
    });
}

int PortConflictWithText(int firstPort, int lastPort, const char *szOther, KOVA_SERVICE_CONF_PORT **ppConflictList) {
    if (szOther == nullptr) {
        kova::set_error(CHECK_FAILURE(KOVA_ERR_BAD_PARAMETER));
        return -1;
    }
    return KOVA_GUARDED(-1, [&] {
        kova::check::ConflictList list(*ppConflictList);
        return to_c(kova::check::compare_with_text(firstPort, lastPort, {szOther, '-'}, list), list, ppConflictList);
    });
}
