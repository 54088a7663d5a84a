// Comparing the caller's port text ("80,8000:8010") with the port text of another source
// ("445,55900-55910"): every colliding piece becomes a conflict entry.
#include <algorithm>

#include "foundation/guard.h"
#include "range/conflict_check.h"
#include "range/port_conflict_text.h"

namespace kova::check {

namespace {

// The two ports of a range item, both checked; the smaller first.
Result<Span> checked_range(const ports::Item &item) {
    if (item.first.empty() || item.last.empty()) return CHECK_FAILURE_KEEP;
    const Result<uint32_t> a = ports::checked_port(item.first);
    if (!a) return a.failure();
    const Result<uint32_t> b = ports::checked_port(item.last);
    if (!b) return b.failure();
    return Span{std::min(*a, *b), std::max(*a, *b)};
}

}  // namespace

Result<bool> compare_with_text(int first, int last, std::string_view other, ConflictList &list) {
    if (first < 0 || last < -1) return CHECK_FAILURE(KOVA_ERR_BAD_PARAMETER);
    const bool single = last == -1;
    if (!single && first > last) {
        CHECK_LOG("begin port %d larger than end port %d!" KOVA_ERRFMT, first, last, KOVA_ERRARGS);
        return CHECK_FAILURE_KEEP;
    }
    const auto b = static_cast<uint32_t>(first);
    const auto e = single ? b : static_cast<uint32_t>(last);
    bool added = false;
    Failure failed{};
    const bool ok = ports::each_piece(ports::trim(other), ",", [&](std::string_view piece) {
        const ports::Item item = ports::split_item(ports::trim(piece), '-');
        Span theirs{};
        if (item.joined) {
            const Result<Span> r = checked_range(item);
            if (!r) return failed = r.failure(), false;
            theirs = *r;
        } else {
            const Result<uint32_t> q = ports::checked_port(item.first);
            if (!q) return failed = q.failure(), false;
            theirs = {*q, *q};
        }
        if (single || !item.joined) {
            // One port on one side: it is added when the other side holds it.
            const Span &wide = single ? theirs : Span{b, e};
            const uint32_t port = single ? b : theirs.first;
            if (port < wide.first || port > wide.last) return true;
            list.add(port, port);
        } else {
            if (theirs.last < b || theirs.first > e) return true;
            list.add(std::max(theirs.first, b), std::min(theirs.last, e));
        }
        added = true;
        return true;
    });
    if (!ok) return failed;
    return added;
}

Result<bool> compare_texts(std::string_view ports, std::string_view other, ConflictList &list) {
    bool found = false;
    Failure failed{};
    const bool ok = ports::each_piece(ports::trim(ports), ",", [&](std::string_view piece) {
        const ports::Item item = ports::split_item(ports::trim(piece), ':');
        Result<bool> r = false;
        if (item.joined) {
            const Result<Span> span = checked_range(item);
            if (!span) return failed = span.failure(), false;
            r = compare_with_text(static_cast<int>(span->first), static_cast<int>(span->last), other, list);
        } else {
            const Result<uint32_t> port = ports::checked_port(item.first);
            if (!port) return failed = port.failure(), false;
            r = compare_with_text(static_cast<int>(*port), -1, other, list);
        }
        if (!r) return failed = r.failure(), false;
        found = found || *r;
        return true;
    });
    if (!ok) return failed;
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
        return to_c(kova::check::compare_texts(szPorts, szOther, list), list, ppConflictList);
    });
}

int PortConflictWithText(int firstPort, int lastPort, const char *szOther, KOVA_SERVICE_CONF_PORT **ppConflictList) {
    if (szOther == nullptr) {
        kova::set_error(CHECK_FAILURE(KOVA_ERR_BAD_PARAMETER));
        return -1;
    }
    return KOVA_GUARDED(-1, [&] {
        kova::check::ConflictList list(*ppConflictList);
        return to_c(kova::check::compare_with_text(firstPort, lastPort, szOther, list), list, ppConflictList);
    });
}
