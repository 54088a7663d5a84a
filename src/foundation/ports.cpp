#include "foundation/ports.h"

#include <algorithm>
#include <charconv>
#include <climits>

namespace kova::ports {

std::vector<std::string_view> words(std::string_view text, std::string_view delims) {
    std::vector<std::string_view> out;
    each_piece(text, delims, [&](std::string_view w) {
        if (!w.empty()) out.push_back(w);
        return true;
    });
    return out;
}

long lenient_number(std::string_view text) noexcept {
    size_t i = 0;
    while (i < text.size() && is_space(text[i])) ++i;
    bool negative = false;
    if (i < text.size() && (text[i] == '+' || text[i] == '-')) negative = text[i++] == '-';
    // Past this magnitude the result is saturated whatever digits follow.
    constexpr unsigned long kCap = static_cast<unsigned long>(LONG_MAX) + 1;
    unsigned long magnitude = 0;
    for (; i < text.size() && text[i] >= '0' && text[i] <= '9'; ++i) {
        const auto d = static_cast<unsigned long>(text[i] - '0');
        magnitude = magnitude > (kCap - d) / 10 ? kCap : magnitude * 10 + d;
    }
    if (negative) return magnitude == kCap ? LONG_MIN : -static_cast<long>(magnitude);
    return magnitude == kCap ? LONG_MAX : static_cast<long>(magnitude);
}

int lenient_int(std::string_view text) noexcept {
    return static_cast<int>(std::clamp<long>(lenient_number(text), INT_MIN, INT_MAX));
}

std::optional<uint16_t> scan_port(std::string_view text, std::string_view *rest) noexcept {
    size_t i = 0;
    while (i < text.size() && is_space(text[i])) ++i;
    bool negative = false;
    if (i < text.size() && (text[i] == '+' || text[i] == '-')) negative = text[i++] == '-';
    const size_t digits = i;
    bool overflow = false;
    unsigned long value = 0;
    for (; i < text.size() && text[i] >= '0' && text[i] <= '9'; ++i) {
        const auto d = static_cast<unsigned long>(text[i] - '0');
        if (value > (ULONG_MAX - d) / 10) overflow = true;
        value = value * 10 + d;
    }
    if (i == digits) return std::nullopt;
    if (rest != nullptr) *rest = text.substr(i);
    if (overflow) return static_cast<uint16_t>(ULONG_MAX);
    return static_cast<uint16_t>(negative ? 0 - value : value);
}

ScannedSpan scan_port_span(std::string_view text) noexcept {
    ScannedSpan out;
    const std::optional<uint16_t> first = scan_port(text, &text);
    if (!first) return out;
    out.read = 1;
    out.first = *first;
    if (text.empty() || text.front() != '-') return out;
    if (const std::optional<uint16_t> last = scan_port(text.substr(1))) {
        out.read = 2;
        out.last = *last;
    }
    return out;
}

int protocol_words(std::string_view text) noexcept {
    int flags = 0;
    const bool ok = each_piece(text, ",", [&](std::string_view word) {
        word = trim(word);
        auto is = [word](std::string_view name) {
            if (word.size() != name.size()) return false;
            for (size_t i = 0; i < word.size(); ++i) {
                const char c = word[i] >= 'A' && word[i] <= 'Z' ? static_cast<char>(word[i] - 'A' + 'a') : word[i];
                if (c != name[i]) return false;
            }
            return true;
        };
        if (is("tcp")) {
            flags |= 1;
        } else if (is("udp")) {
            flags |= 2;
        } else {
            return false;
        }
        return true;
    });
    return ok ? flags : -1;
}

void append_port(std::string &out, uint32_t port) {
    char buf[16];
    const auto res = std::to_chars(buf, buf + sizeof buf, static_cast<int32_t>(port));
    out.append(buf, res.ptr);
}

void append_span(std::string &out, Span span, char joiner) {
    append_port(out, span.first);
    if (span.first == span.last) return;
    out += joiner;
    append_port(out, span.last);
}

std::vector<Span> merge(std::vector<Span> spans) {
    auto begins_before = [](const Span &a, const Span &b) { return a.first < b.first; };
    if (!std::is_sorted(spans.begin(), spans.end(), begins_before))
        std::stable_sort(spans.begin(), spans.end(), begins_before);
    size_t n = 0;
    for (const Span &s : spans) {
        if (n > 0 && s.first <= static_cast<uint64_t>(spans[n - 1].last) + 1) {
            spans[n - 1].last = std::max(spans[n - 1].last, s.last);
        } else {
            spans[n++] = s;
        }
    }
    spans.resize(n);
    return spans;
}

bool contains(const std::vector<Span> &merged, uint64_t port) noexcept {
    auto it =
        std::upper_bound(merged.begin(), merged.end(), port, [](uint64_t p, const Span &s) { return p < s.first; });
    return it != merged.begin() && port <= std::prev(it)->last;
}

std::vector<Span> intersect(const std::vector<Span> &a, const std::vector<Span> &b) {
    std::vector<Span> out;
    size_t i = 0, j = 0;
    while (i < a.size() && j < b.size()) {
        const uint32_t first = std::max(a[i].first, b[j].first);
        const uint32_t last = std::min(a[i].last, b[j].last);
        if (first <= last) out.push_back({first, last});
        if (a[i].last < b[j].last)
            ++i;
        else
            ++j;
    }
    return out;
}

SpanIndex::SpanIndex(const std::vector<Span> &spans) {
    entries_.reserve(spans.size());
    for (size_t i = 0; i < spans.size(); ++i) entries_.push_back({spans[i], static_cast<uint32_t>(i)});
    std::sort(entries_.begin(), entries_.end(), [](const Entry &a, const Entry &b) {
        return a.span.first != b.span.first ? a.span.first < b.span.first : a.position < b.position;
    });
    while (leaves_ < entries_.size()) leaves_ *= 2;
    maxLast_.assign(2 * leaves_, -1);
    for (size_t i = 0; i < entries_.size(); ++i) maxLast_[leaves_ + i] = entries_[i].span.last;
    for (size_t node = leaves_ - 1; node >= 1; --node)
        maxLast_[node] = std::max(maxLast_[2 * node], maxLast_[2 * node + 1]);
}

// The entries among [lo, hi) below `node`, and before `end`, whose last port is `first` or more.
void SpanIndex::collect(size_t node, size_t lo, size_t hi, size_t end, uint32_t first,
                        std::vector<uint32_t> &out) const {
    if (lo >= end || maxLast_[node] < static_cast<int64_t>(first)) return;
    if (hi - lo == 1) {
        out.push_back(entries_[lo].position);
        return;
    }
    const size_t mid = lo + (hi - lo) / 2;
    collect(2 * node, lo, mid, end, first, out);
    collect(2 * node + 1, mid, hi, end, first, out);
}

void SpanIndex::overlapping(Span span, std::vector<uint32_t> &out) const {
    // The entries that begin at or before the span's end, then those of them that reach its start.
    const auto end = std::upper_bound(entries_.begin(), entries_.end(), span.last,
                                      [](uint32_t p, const Entry &e) { return p < e.span.first; });
    const size_t before = out.size();
    collect(1, 0, leaves_, static_cast<size_t>(end - entries_.begin()), span.first, out);
    std::sort(out.begin() + static_cast<std::ptrdiff_t>(before), out.end());
}

}  // namespace kova::ports
