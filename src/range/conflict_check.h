// The service-wide and file conflict checks, split by job over several files that all report as
// one module, service_is_port_conflict: their log lines and error states name it.
//
// The checks work on values. What they add to the caller's conflict list is kept in a
// ConflictList until the exported shell links it into the caller's list.
#pragma once

#include <kovaserviceconf.h>

#include <optional>
#include <string>
#include <string_view>
#include <unordered_set>
#include <utility>
#include <vector>

#include "firewall/firewall_service_enum.h"
#include "foundation/echo.h"
#include "foundation/log.h"
#include "foundation/ports.h"
#include "foundation/raii.h"
#include "foundation/result.h"

namespace kova::check {

inline constexpr char kModule[] = "service_is_port_conflict.cpp";

#define CHECK_LOG(fmt, ...) ::kova::log_line(::kova::check::kModule, __LINE__, fmt __VA_OPT__(, ) __VA_ARGS__)
#define CHECK_FAILURE(code) (::kova::Failure{(code), ::kova::check::kModule, __LINE__})
#define CHECK_FAILURE_KEEP (::kova::Failure{0, ::kova::check::kModule, __LINE__})

using ports::Span;

// The caller's conflict list and what the sources add to it.
class ConflictList {
public:
    explicit ConflictList(const KOVA_SERVICE_CONF_PORT *given) : given_(given) {}

    // An entry as the text comparison adds it: direction 0, both protocols, a single port
    // (end port 0) or a range.
    void add(uint32_t first, uint32_t last) { added_.push_back({first, last}); }
    bool empty() const { return given_ == nullptr && added_.empty(); }
    // Every entry as a range set reads it when it is joined (a range written backwards turned).
    std::vector<Span> spans() const;
    // The whole list becomes these sorted, merged spans, in the node form of a range set.
    void replace(std::vector<Span> merged) { replaced_ = std::move(merged); }

    // At the ABI edge: links the new entries in front of the caller's list, newest first, or
    // replaces the list. Throws std::bad_alloc; the entries linked before stay.
    void apply(KOVA_SERVICE_CONF_PORT **ppList) const;

private:
    const KOVA_SERVICE_CONF_PORT *given_;
    std::vector<Span> added_;  // oldest first
    std::optional<std::vector<Span>> replaced_;
};

// ---- the port text comparison --------------------------------------------------------------

// A port text cut into items once ("80,8000:8010" with joiner ':', "445,55900-55910" with '-'):
// each item a span of checked ports, or the fault that stops a comparison when it reaches the
// item (and is reported only then).
class PortText {
public:
    struct Item {
        Span span;
        bool joined = false;  // written as a range
        bool ok = true;
        std::string_view bad;                              // the port text refused
        ports::PortError error = ports::PortError::kNone;  // kNone when not ok: a range side is empty
    };
    PortText(std::string_view text, char joiner);
    // One piece of such a text (between commas) as an item.
    static Item cut(std::string_view piece, char joiner);
    const std::vector<Item> &items() const { return items_; }
    // The failure of an item that is not ok, logged as the port check logs it.
    static Failure failure(const Item &item);

private:
    std::vector<Item> items_;
};

// Compares every item of the caller's text with the other text and adds each colliding piece:
// true if any item collides.
Result<bool> compare_texts(const PortText &ports, const PortText &other, ConflictList &list);
// One port (last -1) or range of the caller against every item of the other text: true if an
// entry was added.
Result<bool> compare_with_text(int first, int last, const PortText &other, ConflictList &list);

// What the checks keep of the firewall catalogue: of each record, in catalogue order, its name,
// its destination protocol and its destination port texts. The records are dropped as they are
// made, so a check does not hold the whole catalogue (1.6 KB a record, mostly display texts).
struct CheckCatalogue final : fw::RecordSink {
    struct Piece {  // a text in `pool`
        uint32_t at;
        uint32_t length;
    };
    struct Service {
        Piece name;
        int32_t dstProtocol;
        uint32_t firstText;  // its destination port texts in `texts` (none without a list)
        uint32_t textCount;
    };
    std::vector<Service> services;
    std::vector<Piece> texts;
    std::string pool;

    void take(FwServicePtr record) override;
    // The first service of the name, as a lookup in the catalogue finds it; null if none.
    const Service *find(std::string_view name) const;
    // Views into the pool: valid once the build is over.
    std::string_view text(Piece p) const { return std::string_view(pool).substr(p.at, p.length); }
    std::string_view name(const Service &s) const { return text(s.name); }
    std::string_view text(const Service &s, uint32_t i) const { return text(texts[s.firstText + i]); }
};

// The destination port items of a catalogue's records, cut once per call, in catalogue and item
// order: the items that are one checked port or range as that span, with an index over them, so
// that a text is compared only with the items it may collide with; the others are compared text
// by text.
struct CataloguePorts {
    struct Item {
        uint32_t service;  // in CheckCatalogue::services
        uint32_t text;     // in CheckCatalogue::texts
        Span span;         // for a regular item
        bool regular;
    };
    explicit CataloguePorts(const CheckCatalogue &catalogue);

    std::vector<Item> items;
    std::vector<uint32_t> irregular;  // positions of the items compared text by text
    std::vector<uint32_t> spanItem;   // the position of each span of the index
    std::optional<ports::SpanIndex> index;
};

// The firewall catalogue for the sources of one call (and for every section of a file check),
// built once: each later request says again what the build said and leaves the error state it
// left, as building it again would (or builds it again where its echo cannot stand for that).
//
// It also keeps, for the rest of the call, what the in-use source read without a failure (and so
// without a log line or a change of the error state): the ports in use over the whole port space
// per protocol (1 TCP, 0 UDP). (The settings files are read once per call by the check's
// settings scope.)
class CatalogueSource {
public:
    Result<const CheckCatalogue *> get();
    // The port items of the catalogue get() gave last, cut when first asked for.
    const CataloguePorts &ports();

    const std::vector<int32_t> *used_ports(int tcp) const { return used_[tcp != 0] ? &*used_[tcp != 0] : nullptr; }
    const std::vector<int32_t> &keep_used_ports(int tcp, std::vector<int32_t> ports) {
        return used_[tcp != 0].emplace(std::move(ports));
    }

private:
    std::optional<CheckCatalogue> kept_;
    std::optional<CataloguePorts> ports_;
    Echo echo_;
    std::optional<std::vector<int32_t>> used_[2];
};

// One call of the service-wide check, its texts cut into words.
struct Request {
    std::string_view ports;            // the caller's port text
    std::optional<PortText> portText;  // the same cut into items, for the sources that compare texts
    std::string_view protocol;         // the caller's protocol text
    std::vector<std::string_view> skipNames;
    std::vector<std::string_view> portItems;
    std::string lowered;  // the protocol text lower-cased, cut as the check's buffer cuts it
    std::vector<std::string_view> protoWords;
    std::unordered_set<std::string_view> skip;
    CatalogueSource *catalogues = nullptr;

    bool has_proto_word(std::string_view word) const;
};

// ---- the sources, in the order the check runs them ------------------------------------------
// Each returns whether it found a collision.

Result<bool> rule_file_conflict(const Request &req, ConflictList &list);
Result<bool> catalogue_conflict(const Request &req, ConflictList &list);
Result<bool> reserved_conflict(const Request &req, ConflictList &list);
Result<bool> in_use_conflict(const Request &req);

// The exported checks KVLIBIsPortConflict and KVLIBIsConfPortConflict, for the library's own
// callers: the same results, list entries, error state and log lines.
int is_port_conflict(const char *szSkipList, const char *szPorts, const char *szProtocol, int checkFlags,
                     KOVA_SERVICE_CONF_PORT **ppConflictList) noexcept;
int is_conf_port_conflict(const char *szPath, KOVA_SERVICE_CONF_PORT **ppConflictList) noexcept;

// The reserved port (or, for "ftplowport" and "ftphighport", the FTP passive range) that the key
// names in the system information file, added to `spans`; nothing when the key has no value.
Result<void> reserved_port(std::string_view key, std::vector<Span> &spans);

}  // namespace kova::check
