// The service-wide check's source 0x08: ports that the system settings reserve for a few system
// services, read from the system information file.
#include "firewall/settings_reads.h"
#include "kova_root.h"
#include "range/conflict_check.h"
#include "range/port_range_internal.h"

namespace kova::check {
namespace {

constexpr int kValueSize = 1024;

// The reserved ports of every group whose service is not skipped.
Result<std::vector<Span>> non_skipped_reserved(const Request &req) {
    struct Group {
        std::string_view service;
        const char *key;
    };
    static constexpr Group kGroups[] = {
        {"ftp", "ftpport"},
        {"ftp", "ftplowport"},
        {"webdav_http", "WebDavPort"},
        {"webdavs_https", "secure_WebDavPort"},
        {"syslog_server", "syslogport"},
    };
    std::vector<Span> spans;
    for (const Group &g : kGroups) {
        if (req.skip.count(g.service) != 0) continue;
        // The settings file is read once per call (the check's settings scope), however many
        // sections of a file check ask.
        if (const Result<void> r = reserved_port(g.key, spans); !r) {
            CHECK_LOG("Failed to GetServicePort(), service = [%s]", g.key);
            CHECK_LOG("Failed to GetAllNonSkipServicePort()");
            return r.failure();
        }
    }
    return ports::merge(std::move(spans));
}

}  // namespace

Result<void> reserved_port(std::string_view key, std::vector<Span> &spans) {
    const std::string path = resolve(paths::kInfoConf);
    const std::string name(key);
    char low[kValueSize] = "";
    char high[kValueSize] = "";
    if (key == "ftplowport" || key == "ftphighport") {
        const int gotLow = fw::read_setting(path, "ftplowport", low, sizeof low);
        const int gotHigh = gotLow == -1 ? -1 : fw::read_setting(path, "ftphighport", high, sizeof high);
        if (gotLow == -1 || gotHigh == -1) {
            CHECK_LOG("Failed to get [%s] info from [%s].", name.c_str(), path.c_str());
            return CHECK_FAILURE_KEEP;
        }
        if (gotHigh <= 0) return {};
        const Result<uint32_t> first = ports::checked_port(low);
        if (!first) return first.failure();
        const Result<uint32_t> last = ports::checked_port(high);
        if (!last) return last.failure();
        spans.push_back(range::span_of(1, *first, *last));
        return {};
    }
    const int got = fw::read_setting(path, name.c_str(), low, sizeof low);
    if (got == -1) {
        CHECK_LOG("Failed to get [%s] info from [%s].", name.c_str(), path.c_str());
        return CHECK_FAILURE_KEEP;
    }
    if (got <= 0) return {};
    const Result<uint32_t> port = ports::checked_port(low);
    if (!port) return port.failure();
    spans.push_back({*port, *port});
    return {};
}

// The caller's ports that are reserved; the conflict list becomes the sorted, merged union of
// what it held and them, and a list that is not empty counts as a collision.
Result<bool> reserved_conflict(const Request &req, ConflictList &list) {
    Result<std::vector<Span>> reserved = non_skipped_reserved(req);
    if (!reserved) return reserved.failure();
    std::vector<Span> common = ports::intersect(ports::merge(range::import_spans(req.ports)), *reserved);
    if (!list.empty()) {
        std::vector<Span> held = list.spans();
        common.insert(common.end(), held.begin(), held.end());
        common = ports::merge(std::move(common));
    }
    const bool found = !common.empty();
    list.replace(std::move(common));
    return found;
}

}  // namespace kova::check
