// The service-wide check's source 0x10: whether some port of the caller's items is in use on the
// machine, not counting the ports of the skipped services themselves.
//
// The ports in use are read once per protocol for the whole port space (also when they cannot be
// read) and each item is answered from them; the skipped services' ports are one merged set per protocol. An item
// then costs a search, whatever the number of items and of skipped ports.
#include <algorithm>
#include <climits>
#include <cstring>
#include <memory>
#include <string>

#include "firewall/firewall_service_enum.h"
#include "range/conflict_check.h"

namespace kova::check {
namespace {

constexpr int kPortSpace = 65536;

// The ports in use for one protocol (TCP: tcp 1, UDP: tcp 0).
class UsedPorts {
public:
    UsedPorts(int tcp, CatalogueSource &kept) : tcp_(tcp), kept_(kept) {}

    // Whether some port of [first, last] is in use and not in `skipped`; fails only when the
    // array for the ports cannot be allocated.
    Result<bool> any_in(int first, int last, const std::vector<Span> &skipped) {
        const bool inside = first >= 0 && last < kPortSpace;
        if (inside && !tried_whole_) {
            // The whole space at once. When it cannot be read, this range's own request would
            // have failed the same way (and left the same error state): it has no port in use.
            tried_whole_ = true;
            whole_ = kept_.used_ports(tcp_);  // read by an earlier section of the same file check
            if (whole_ == nullptr) {
                std::vector<int32_t> read;
                const Result<bool> r = fetch(0, kPortSpace - 1, read);
                if (!r) return r.failure();
                if (*r) whole_ = &kept_.keep_used_ports(tcp_, std::move(read));
            }
            if (whole_ == nullptr) {
                unread_ = ErrorState::current();
                return false;
            }
        }
        if (inside && whole_ == nullptr) {
            // The tables are not read again: each later range would fail as the whole space did.
            unread_.set();
            return false;
        }
        std::vector<int32_t> fetched;
        const std::vector<int32_t> *used = whole_;
        if (!inside) {
            // A range outside the port space, as the network library answers it (it reads no
            // table for it).
            const Result<bool> r = fetch(first, last, fetched);
            if (!r) return r.failure();
            if (!*r) return false;
            used = &fetched;
        }
        auto it = std::lower_bound(used->begin(), used->end(), first);
        for (; it != used->end() && *it <= last; ++it)
            if (*it != 0 && !ports::contains(skipped, static_cast<uint32_t>(*it))) return true;
        return false;
    }

private:
    // The ports of [first, last] in use, ascending; false (no port) when they cannot be read.
    Result<bool> fetch(int first, int last, std::vector<int32_t> &out) const {
        const int64_t length = static_cast<int64_t>(last) - first + 1;
        const int capacity = static_cast<int>(std::min<int64_t>(length, kPortSpace));
        // Not zero-filled: the table reader writes only the ports it finds, so of room for the whole
        // port space only the pages they fill are touched.
        std::unique_ptr<int32_t[], decltype(&std::free)> ports(
            static_cast<int32_t *>(std::malloc(static_cast<size_t>(capacity) * sizeof(int32_t))), &std::free);
        if (ports == nullptr) {
            const Failure f = CHECK_FAILURE(KOVA_ERR_OUT_OF_MEMORY);
            CHECK_LOG("out of memory!!");
            return f;
        }
        int count = capacity;
        if (KOVANetGetPortUsedInRange(ports.get(), &count, first, last, tcp_) < 0) return false;
        count = std::clamp(count, 0, capacity);
        out.assign(ports.get(), ports.get() + count);
        std::sort(out.begin(), out.end());
        return true;
    }

    int tcp_;
    CatalogueSource &kept_;
    bool tried_whole_ = false;
    const std::vector<int32_t> *whole_ = nullptr;  // kept by `kept_`; none when unreadable
    ErrorState unread_;  // the error state that reading the tables left when they could not be read
};

// The ports of the skipped services that use the protocol, as their texts name them ("445" or
// "55900-55910", numbers as strtol reads them; a range written backwards names nothing).
std::vector<Span> skipped_ports(const Request &req, const CheckCatalogue &catalogue, int protocolBit) {
    std::vector<Span> spans;
    for (std::string_view name : req.skipNames) {
        // A name is compared as a C text: up to a NUL byte.
        const CheckCatalogue::Service *svc = catalogue.find(name.substr(0, name.find('\0')));
        if (svc == nullptr || (svc->dstProtocol & protocolBit) == 0) continue;
        for (uint32_t i = 0; i < svc->textCount; ++i) {
            const ports::Item item = ports::split_item(catalogue.text(*svc, i), '-');
            const long first = std::max<long>(ports::lenient_int(item.first), 0);
            const long last = ports::lenient_int(item.joined ? item.last : item.first);
            if (first <= last) spans.push_back({static_cast<uint32_t>(first), static_cast<uint32_t>(last)});
        }
    }
    return ports::merge(std::move(spans));
}

// One protocol's state: its ports in use and the skipped services' ports, made when first needed.
struct Protocol {
    int bit;
    bool wanted;
    UsedPorts used;
    std::optional<std::vector<Span>> skipped;
};

}  // namespace

Result<bool> in_use_conflict(const Request &req) {
    const Result<const CheckCatalogue *> catalogue = req.catalogues->get();
    if (!catalogue) {
        const Failure f = CHECK_FAILURE(KOVA_ERR_FW_ENUM);
        CHECK_LOG("Failed to enumerate services" KOVA_ERRFMT, KOVA_FAILURE_ARGS(f));
        return f;
    }
    Protocol protocols[2] = {{KOVA_PROTO_TCP, req.has_proto_word("tcp"), UsedPorts(1, *req.catalogues), {}},
                             {KOVA_PROTO_UDP, req.has_proto_word("udp"), UsedPorts(0, *req.catalogues), {}}};
    for (std::string_view text : req.portItems) {
        int first = 0;
        int last = 0;
        if (const ports::Item item = ports::split_item(text, ':'); item.joined) {
            const int a = ports::lenient_int(item.first);
            const int b = ports::lenient_int(item.last);
            first = std::min(a, b);
            last = std::max(a, b);
        } else {
            first = last = ports::lenient_int(text);
        }
        if (first == 0 && last == 0) {
            const Failure f = CHECK_FAILURE(KOVA_ERR_BAD_PARAMETER);
            CHECK_LOG("Invalid Argument!!" KOVA_ERRFMT, KOVA_FAILURE_ARGS(f));
            return f;
        }
        for (Protocol &p : protocols) {
            if (!p.wanted) continue;
            if (!p.skipped) {
                if ((*catalogue)->services.empty()) {
                    const Failure f = CHECK_FAILURE(KOVA_ERR_BAD_PARAMETER);
                    CHECK_LOG("Invalid Argument!!" KOVA_ERRFMT, KOVA_FAILURE_ARGS(f));
                    return f;
                }
                p.skipped = skipped_ports(req, **catalogue, p.bit);
            }
            const Result<bool> r = p.used.any_in(first, last, *p.skipped);
            if (!r) return r.failure();
            if (*r) return true;
        }
    }
    return false;
}

}  // namespace kova::check
