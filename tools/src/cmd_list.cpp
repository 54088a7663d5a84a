// kova-svc list: the firewall service catalogue.
#include <algorithm>
#include <cstdint>
#include <cstring>
#include <iostream>
#include <unordered_set>

#include "catalogue.h"
#include "commands.h"
#include "json.h"
#include "session.h"
#include "ports_text.h"
#include "status.h"
#include "table.h"

namespace kovasvc {

namespace {

// A byte in lower case, as tolower() has it in the C locale that the tool runs in.
unsigned char lower(unsigned char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<unsigned char>(c - 'A' + 'a') : c;
}

// Names compared as their lower-case forms, then as they are: below, equal to or above 0.
int name_order(const char *a, const char *b) {
    const auto *x = reinterpret_cast<const unsigned char *>(a);
    const auto *y = reinterpret_cast<const unsigned char *>(b);
    for (;; ++x, ++y) {
        if (lower(*x) != lower(*y)) return lower(*x) < lower(*y) ? -1 : 1;
        if (*x == '\0') break;
    }
    return std::strcmp(a, b);
}

// The first sixteen bytes of a name in lower case, as two numbers that order as they do.
struct NamePrefix {
    uint64_t high = 0, low = 0;
};

NamePrefix name_prefix(const char *name) {
    uint64_t part[2] = {};
    for (size_t i = 0; i < 16; ++i) {
        const unsigned char c = name[i] == '\0' ? 0 : lower(static_cast<unsigned char>(name[i]));
        part[i / 8] = part[i / 8] << 8 | c;
        if (c == 0) {
            for (++i; i < 16; ++i) part[i / 8] <<= 8;
            break;
        }
    }
    return {part[0], part[1]};
}

// A catalogue entry by its position, with the key it is sorted by.
struct Keyed {
    NamePrefix prefix;
    uint32_t index;
};

// Catalogue entries in the order people read them: by name, then as the library lists them.
std::vector<Keyed> by_name(const Catalogue &cat) {
    const auto &entries = cat.entries();
    std::vector<Keyed> keyed;
    keyed.reserve(entries.size());
    for (size_t i = 0; i < entries.size(); ++i)
        keyed.push_back({name_prefix(entries[i].name), static_cast<uint32_t>(i)});
    std::sort(keyed.begin(), keyed.end(), [&](const Keyed &a, const Keyed &b) {
        if (a.prefix.high != b.prefix.high) return a.prefix.high < b.prefix.high;
        if (a.prefix.low != b.prefix.low) return a.prefix.low < b.prefix.low;
        int order = name_order(entries[a.index].name, entries[b.index].name);
        return order != 0 ? order < 0 : a.index < b.index;
    });
    return keyed;
}

}  // namespace

int run_list(const Args &args) {
    if (args.has("--names") && args.json()) throw UsageError("--names and --json do not go together");
    Catalogue cat = Catalogue::load(args.json() ? Catalogue::Detail::kTexts : Catalogue::Detail::kRows);

    if (args.json()) {
        Json json(std::cout);
        json.begin_object().key("services").begin_array();
        for (const auto &e : cat.entries()) service_json(json, e);
        json.end_array();
        warnings_json(json);
        json.end_object().finish();
        return kExitOk;
    }
    if (args.has("--names")) {
        std::string out;
        const char *last = nullptr;
        for (const Keyed &k : by_name(cat)) {
            const CatalogueEntry *e = &cat.entries()[k.index];
            if (last != nullptr && std::strcmp(last, e->name) == 0) continue;
            out.append(e->name).push_back('\n');
            last = e->name;
        }
        std::cout << out;
        return kExitOk;
    }

    Table t({"NAME", "ORIGIN", "SUP", "FWD", "DESTINATION", "SOURCE"});
    t.flexible(4);
    t.flexible(5);
    const auto &entries = cat.entries();
    const std::vector<Keyed> rows = by_name(cat);
    // The rows' port texts, made once: each row's destination and source end where `ends` says.
    std::string ports;
    std::vector<uint32_t> ends;
    ports.reserve(32 * rows.size());  // more than most need: pages that are not written are never touched
    ends.reserve(2 * rows.size());
    bool any_shadowed = false;
    for (const Keyed &k : rows) {
        const CatalogueEntry &e = entries[k.index];
        append_ports_with_protocol(ports, e.dst, e.dst_protocol);
        ends.push_back(static_cast<uint32_t>(ports.size()));
        append_ports_with_protocol(ports, e.src, e.src_protocol);
        ends.push_back(static_cast<uint32_t>(ports.size()));
        any_shadowed = any_shadowed || e.shadowed;
    }
    t.print_rows(std::cout, rows.size(), [&](size_t r, std::span<std::string_view> cells) {
        const CatalogueEntry &e = entries[rows[r].index];
        std::string_view origin = origin_name(e.origin);
        if (e.shadowed)
            origin = e.origin == Origin::BuiltIn ? "built-in*" : e.origin == Origin::System ? "system*" : "package*";
        const size_t dst = r == 0 ? 0 : ends[2 * r - 1];
        cells[0] = e.name;
        cells[1] = origin;
        cells[2] = e.supported ? "yes" : "no";
        cells[3] = e.port_forward ? "yes" : "no";
        cells[4] = std::string_view(ports).substr(dst, ends[2 * r] - dst);
        cells[5] = std::string_view(ports).substr(ends[2 * r], ends[2 * r + 1] - ends[2 * r]);
    });
    if (any_shadowed) std::cout << "* hidden from lookups by an earlier service of the same name\n";
    return kExitOk;
}

}  // namespace kovasvc
