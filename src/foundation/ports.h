// Port values and the one tokenizer of port texts.
//
// Every port text the library reads is made of the same pieces: items separated by a
// character ("80,443"), an item that is a port or two ports joined by ":" or "-"
// ("8000:8010", "55900-55910"), an optional "/protocol" part ("80/tcp,udp"), and white space
// around each piece. The functions here cut such texts into views without copying and convert
// port numbers, strictly (digits only, at most 65535) or leniently (as strtol reads them).
// Nothing here logs or touches the error state: callers report failures in their own words.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "foundation/result.h"

namespace kova::ports {

inline constexpr uint32_t kMaxPort = 65535;

// A closed span of port numbers.
struct Span {
    uint32_t first = 0;
    uint32_t last = 0;
    bool operator==(const Span &) const = default;
};

// The C locale's white space.
constexpr bool is_space(char c) noexcept {
    return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r';
}

// Without the white space at both ends.
inline std::string_view trim(std::string_view text) noexcept {
    size_t b = 0;
    while (b < text.size() && is_space(text[b])) ++b;
    size_t e = text.size();
    while (e > b && is_space(text[e - 1])) --e;
    return text.substr(b, e - b);
}

// Calls f(piece) for every piece between the characters of `delims`, empty pieces included,
// in text order ("a,,b" gives "a", "", "b"; "" gives one empty piece). f returns false to stop;
// the result is false when it stopped.
template <class F>
bool each_piece(std::string_view text, std::string_view delims, F &&f) {
    for (;;) {
        // One search for the piece's end: find_first_of looks each character up in the set.
        const size_t end = delims.size() == 1 ? text.find(delims.front()) : text.find_first_of(delims);
        if (!f(text.substr(0, end))) return false;
        if (end == std::string_view::npos) return true;
        text.remove_prefix(end + 1);
    }
}

// The non-empty runs between the characters of `delims` ("a,,b" gives "a", "b").
std::vector<std::string_view> words(std::string_view text, std::string_view delims);

// An item cut at its first `joiner`: "8000:8010" gives "8000" and "8010" with joined set;
// "80" gives "80" alone.
struct Item {
    std::string_view first;
    std::string_view last;
    bool joined = false;
};
inline Item split_item(std::string_view item, char joiner) noexcept {
    const size_t at = item.find(joiner);
    if (at == std::string_view::npos) return {item, {}, false};
    return {item.substr(0, at), item.substr(at + 1), true};
}

// A port list text cut at its first "/": the ports part and the protocol part (absent when
// the text holds no "/").
struct PortListText {
    std::string_view ports;
    std::string_view protocol;
    bool has_protocol = false;
};
inline PortListText split_port_list(std::string_view text) noexcept {
    const Item cut = split_item(text, '/');
    return {cut.first, cut.last, cut.joined};
}

// A port number: one or more decimal digits and nothing else, at most 65535.
enum class PortError { kNone, kEmpty, kNotDigits, kTooLarge };
inline PortError parse_port(std::string_view text, uint32_t &value) noexcept {
    if (text.empty()) return PortError::kEmpty;
    uint32_t v = 0;
    for (const char c : text) {
        if (c < '0' || c > '9') return PortError::kNotDigits;
        if (v <= kMaxPort) v = v * 10 + static_cast<uint32_t>(c - '0');  // stops before it could wrap
    }
    if (v > kMaxPort) return PortError::kTooLarge;
    value = v;
    return PortError::kNone;
}

// A number as strtol reads it in base 10: leading white space and one sign accepted, digits up
// to the first other character, no digits give 0; saturated to the range of long.
long lenient_number(std::string_view text) noexcept;
int lenient_int(std::string_view text) noexcept;  // the same, saturated to int

// A port as scanf's "%hu" reads it from the front of `text`: white space skipped, one sign, then
// decimal digits, the value that strtoul gives (a negative number wrapped, an overflow the
// largest value) kept in 16 bits. Nothing when no digit follows; `rest` is then untouched,
// otherwise it is the text after the digits.
std::optional<uint16_t> scan_port(std::string_view text, std::string_view *rest = nullptr) noexcept;
// A port or a span as scanf's "%hu-%hu" reads it: how many numbers were read (0, 1 or 2; a "-"
// that does not follow the first number at once ends the reading) and their values.
struct ScannedSpan {
    int read = 0;
    uint16_t first = 0;
    uint16_t last = 0;
};
ScannedSpan scan_port_span(std::string_view text) noexcept;

// Protocol words separated by ",", each trimmed, in any letter case: the union of 1 for "tcp"
// and 2 for "udp", or -1 at the first other word (an empty word included). The texts that nearly
// every list writes are answered at once, the others word by word (protocol_words).
int protocol_words(std::string_view words) noexcept;
inline int protocol_flags(std::string_view words) noexcept {
    if (words == "tcp") return 1;
    if (words == "udp") return 2;
    if (words == "tcp,udp") return 3;
    return protocol_words(words);
}

// Rendering, "%d" style (a port above INT32_MAX prints as a negative number).
void append_port(std::string &out, uint32_t port);
void append_span(std::string &out, Span span, char joiner);  // "p" when first == last

// Sorted, merged spans: no two overlap or touch. `merge` takes any spans (each first <= last).
std::vector<Span> merge(std::vector<Span> spans);
// Whether a sorted, merged run of spans holds the port.
bool contains(const std::vector<Span> &merged, uint64_t port) noexcept;
// The common ports of two sorted, merged runs, as pieces in ascending order.
std::vector<Span> intersect(const std::vector<Span> &a, const std::vector<Span> &b);

// Protocol flags 1 (TCP), 2 (UDP) or 3 (both) in the low 16 bits.
constexpr bool is_legal_protocol(unsigned int protocol) noexcept {
    const unsigned int low = protocol & 0xFFFFu;
    return low >= 1 && low <= 3;
}

// The firewall protocol value of parsed protocol flags (KOVAProtocolMapping): 1, 2 or 3 for the
// same value, 0 for any other.
constexpr int firewall_protocol(int protocol) noexcept {
    return protocol >= 1 && protocol <= 3 ? protocol : 0;
}

// A port text as ToUPort reads it (scan_port): 0, with the line "Failed on parse port: %s" of
// module port_conflict_helper, when no number leads.
uint16_t port_or_zero(const char *text) noexcept;

// Spans searchable by the ports they share with a span: sorted by first port under a tree of
// the largest last port, so that a search costs a descent plus a step per span found.
class SpanIndex {
public:
    explicit SpanIndex(const std::vector<Span> &spans);
    // Appends the positions (in the vector given) of the spans that share a port with `span`,
    // in ascending order.
    void overlapping(Span span, std::vector<uint32_t> &out) const;

private:
    struct Entry {
        Span span;
        uint32_t position = 0;
    };
    void collect(size_t node, size_t lo, size_t hi, size_t end, uint32_t first, std::vector<uint32_t> &out) const;

    std::vector<Entry> entries_;
    std::vector<int64_t> maxLast_;  // heap order; a leaf past the entries holds -1
    size_t leaves_ = 1;
};

// ---- port lists of .sc files ("80,443,8000:8010/tcp"), module service_conf_ports_get ----
// These report as the port list operations do: their log lines name that module, and their
// failures carry error 0x0D00 for the caller's shell to record.

// One item of a port list as written: a port, or a range "begin:end" (not reordered).
struct PortEntry {
    uint32_t begin = 0;
    uint32_t end = 0;  // 0 for a single port
    bool range = false;
};
struct PortList {
    uint32_t protocol = 0;           // 1 TCP, 2 UDP, 3 both
    std::vector<PortEntry> entries;  // in text order
};

// A port number text as KOVAServiceConfPortsCheck takes it; an empty text fails without a log line.
Result<uint32_t> checked_port(std::string_view text);
// The failure (and log line) of a port number text that parse_port refused with `error`.
Failure port_failure(std::string_view text, PortError error);
// Protocol words as KVLIBServiceConfProtocolParse reads them: an empty text means both.
Result<int> protocol_of(std::string_view text);
// A whole port list text, as KOVAServiceConfPortsGet reads it.
Result<PortList> parse_port_list(std::string_view text);
// The same into `list`, whose storage is reused.
Result<void> parse_port_list(std::string_view text, PortList &list);

}  // namespace kova::ports
