#include "fuzz_support.h"

#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>

#ifndef KOVA_FUZZ_TMPDIR
#define KOVA_FUZZ_TMPDIR "/tmp"
#endif

namespace kova::fuzz {

void fail(const char *file, int line, const char *cond, const char *fmt, ...) {
    std::fprintf(stderr, "%s:%d: invariant failed: %s\n  ", file, line, cond);
    va_list ap;
    va_start(ap, fmt);
    std::vfprintf(stderr, fmt, ap);
    va_end(ap);
    std::fprintf(stderr, "\n");
    std::fflush(stderr);
    std::abort();
}

std::string c_text(const uint8_t *data, size_t size) {
    const char *p = reinterpret_cast<const char *>(data);
    return std::string(p, size == 0 ? 0 : strnlen(p, size));
}

std::string cut(std::string_view s, size_t capacity) {
    s = s.substr(0, std::min(s.size(), s.find('\0')));
    return std::string(s.substr(0, std::min(s.size(), capacity - 1)));
}

// ---- the private root ----------------------------------------------------------------------

namespace {
std::string g_root;
void remove_root() {
    std::error_code ec;
    if (!g_root.empty()) std::filesystem::remove_all(g_root, ec);
}
}  // namespace

const std::string &root() {
    if (g_root.empty()) {
        const char *base = std::getenv("KOVA_FUZZ_TMPDIR");
        std::string tmpl = std::string(base != nullptr && *base != '\0' ? base : KOVA_FUZZ_TMPDIR);
        std::filesystem::create_directories(tmpl);
        tmpl += "/fuzzroot.XXXXXX";
        FUZZ_CHECKF(::mkdtemp(tmpl.data()) != nullptr, "cannot create %s", tmpl.c_str());
        g_root = tmpl;
        ::setenv("KOVA_ROOT", g_root.c_str(), 1);
        ::unsetenv("KOVA_LOG_FILE");
        std::atexit(remove_root);
    }
    return g_root;
}

std::string under_root(std::string_view rel) {
    return root() + std::string(rel);
}

void write_file(std::string_view rel, std::string_view content) {
    const std::string path = under_root(rel);
    std::filesystem::create_directories(path.substr(0, path.rfind('/')));
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(content.data(), static_cast<std::streamsize>(content.size()));
    out.close();
    FUZZ_CHECKF(out.good(), "cannot write %s", path.c_str());
}

// ---- the port list syntax as a model -------------------------------------------------------

bool is_space(char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r';
}

std::string trim(std::string_view s) {
    size_t b = 0;
    while (b < s.size() && is_space(s[b])) ++b;
    size_t e = s.size();
    while (e > b && is_space(s[e - 1])) --e;
    return std::string(s.substr(b, e - b));
}

std::string lower(std::string_view s) {
    std::string out(s);
    for (char &c : out)
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    return out;
}

std::vector<std::string> split_all(std::string_view s, char sep) {
    std::vector<std::string> out;
    for (;;) {
        const size_t at = s.find(sep);
        out.emplace_back(s.substr(0, at));
        if (at == std::string_view::npos) return out;
        s.remove_prefix(at + 1);
    }
}

std::vector<Port> to_vector(const KOVA_SERVICE_CONF_PORT *list) {
    std::vector<Port> out;
    for (; list != nullptr; list = list->next)
        out.push_back({list->direction, list->type, list->protocol, list->beginPort, list->endPort});
    return out;
}

std::string describe(const std::vector<Port> &ports) {
    std::string out;
    for (const Port &p : ports) {
        char buf[96];
        std::snprintf(buf, sizeof buf, "[d%u t%u p%u %u-%u]", p.direction, p.type, p.protocol, p.begin, p.end);
        out += buf;
    }
    return out.empty() ? "(none)" : out;
}

bool model_port_check(std::string_view text) {
    if (text.empty()) return false;
    uint32_t value = 0;
    for (char c : text) {
        if (c < '0' || c > '9') return false;
        value = value * 10 + static_cast<uint32_t>(c - '0');
        if (value > 65535) return false;
    }
    return true;
}

int model_protocol(const std::optional<std::string> &text) {
    if (!text || text->empty()) return KOVA_PROTO_BOTH;
    int flags = 0;
    for (const std::string &word : split_all(lower(trim(*text)), ',')) {
        const std::string w = trim(word);
        if (w == "tcp")
            flags |= KOVA_PROTO_TCP;
        else if (w == "udp")
            flags |= KOVA_PROTO_UDP;
        else
            return -1;
    }
    return flags;
}

std::optional<std::vector<Port>> model_ports_get(std::string_view text, uint32_t direction) {
    const size_t slash = text.find('/');
    std::string ports = trim(text.substr(0, slash));
    std::optional<std::string> protocol;
    if (slash != std::string_view::npos) protocol = trim(text.substr(slash + 1));
    const int flags = model_protocol(protocol);
    if (flags <= 0) return std::nullopt;

    std::vector<Port> out;
    for (const std::string &raw : split_all(ports, ',')) {
        const std::string item = trim(raw);
        Port p{direction, 0, static_cast<uint32_t>(flags), 0, 0};
        const size_t colon = item.find(':');
        if (colon != std::string::npos) {
            const std::string first = item.substr(0, colon);
            const std::string last = item.substr(colon + 1);
            if (!model_port_check(first) || !model_port_check(last)) return std::nullopt;
            p.type = 1;
            p.begin = static_cast<uint32_t>(std::stoul(first));
            p.end = static_cast<uint32_t>(std::stoul(last));
        } else {
            if (!model_port_check(item)) return std::nullopt;
            p.begin = static_cast<uint32_t>(std::stoul(item));
        }
        out.push_back(p);
    }
    std::reverse(out.begin(), out.end());
    return out;
}

void check_port_list(const KOVA_SERVICE_CONF_PORT *list, uint32_t direction) {
    FUZZ_CHECK(list != nullptr);
    const uint32_t protocol = list->protocol;
    FUZZ_CHECKF(protocol >= 1 && protocol <= 3, "protocol %u", protocol);
    for (const KOVA_SERVICE_CONF_PORT *p = list; p != nullptr; p = p->next) {
        FUZZ_CHECKF(p->direction == direction, "direction %u, expected %u", p->direction, direction);
        FUZZ_CHECKF(p->protocol == protocol, "mixed protocols %u and %u", p->protocol, protocol);
        FUZZ_CHECKF(p->type == 0 || p->type == 1, "type %u", p->type);
        FUZZ_CHECKF(p->beginPort <= 65535 && p->endPort <= 65535, "ports %u-%u", p->beginPort, p->endPort);
        if (p->type == 0) FUZZ_CHECKF(p->endPort == 0, "single port %u with end %u", p->beginPort, p->endPort);
    }
}

namespace {

std::string expected_port_text(const std::vector<Port> &ports) {
    std::string out;
    for (const Port &p : ports) {
        if (!out.empty()) out += ',';
        if (p.type == 1)
            out += std::to_string(std::min(p.begin, p.end)) + ":" + std::to_string(std::max(p.begin, p.end));
        else
            out += std::to_string(p.begin);
    }
    return out;
}

std::string expected_protocol_text(uint32_t protocol) {
    std::string out;
    if (protocol & KOVA_PROTO_TCP) out += "tcp";
    if (protocol & KOVA_PROTO_UDP) out += out.empty() ? "udp" : ",udp";
    return out;
}

}  // namespace

void check_render_round_trip(const KOVA_SERVICE_CONF_PORT *list) {
    const std::vector<Port> original = to_vector(list);
    FUZZ_CHECK(!original.empty());
    const std::string ports = expected_port_text(original);
    const std::string protocol = expected_protocol_text(original.front().protocol);

    // Exactly large enough: both texts written.
    std::vector<char> pbuf(ports.size() + 1, '\x7f');
    std::vector<char> qbuf(protocol.size() + 1, '\x7f');
    int rc = KVLIBServiceConfPortsToStr(list, pbuf.data(), static_cast<int>(pbuf.size()), qbuf.data(),
                                        static_cast<int>(qbuf.size()));
    FUZZ_CHECKF(rc == 0, "render failed with 0x%04X for %s", KVLIBCErrGet(), describe(original).c_str());
    FUZZ_CHECKF(ports == pbuf.data(), "rendered ports \"%s\", expected \"%s\"", pbuf.data(), ports.c_str());
    FUZZ_CHECKF(protocol == qbuf.data(), "rendered protocol \"%s\", expected \"%s\"", qbuf.data(), protocol.c_str());

    // One byte short: refused with 0xBF00, neither buffer written.
    std::vector<char> small(ports.size(), '\x7f');
    std::vector<char> other(protocol.size() + 1, '\x7f');
    if (!small.empty()) {
        rc = KVLIBServiceConfPortsToStr(list, small.data(), static_cast<int>(small.size()), other.data(),
                                        static_cast<int>(other.size()));
        FUZZ_CHECK(rc == -1);
        FUZZ_CHECKF(KVLIBCErrGet() == KOVA_ERR_BUFFER_TOO_SMALL, "error 0x%04X", KVLIBCErrGet());
        FUZZ_CHECK(std::all_of(small.begin(), small.end(), [](char c) { return c == '\x7f'; }));
        FUZZ_CHECK(std::all_of(other.begin(), other.end(), [](char c) { return c == '\x7f'; }));
    }

    // The rendering parses back to the same entries in reverse order, ranges low to high.
    const std::string text = ports + "/" + protocol;
    KOVA_SERVICE_CONF_PORT *again = nullptr;
    rc = KOVAServiceConfPortsGet(text.c_str(), original.front().direction, &again);
    FUZZ_CHECKF(rc == 0 && again != nullptr, "rendering \"%s\" does not parse (0x%04X)", text.c_str(), KVLIBCErrGet());
    std::vector<Port> expected(original.rbegin(), original.rend());
    for (Port &p : expected) {
        if (p.type == 1 && p.begin > p.end) std::swap(p.begin, p.end);
    }
    const std::vector<Port> back = to_vector(again);
    KOVAServiceConfPortsFree(again);
    FUZZ_CHECKF(back == expected, "\"%s\" parsed to %s, expected %s", text.c_str(), describe(back).c_str(),
                describe(expected).c_str());
}

// ---- the sectioned file syntax as a model ------------------------------------------------

std::string ini_value(std::string_view written) {
    std::string v = trim(written);
    return v.size() >= 2 && v.front() == '"' && v.back() == '"' ? v.substr(1, v.size() - 2) : v;
}

std::vector<IniLine> ini_lines(std::string_view text) {
    std::vector<IniLine> out;
    while (!text.empty()) {
        const size_t nl = text.find('\n');
        IniLine line{std::string(text.substr(0, nl == std::string_view::npos ? text.size() : nl + 1)), Ini::kOther, "",
                     ""};
        text.remove_prefix(line.text.size());
        const std::string t = trim(line.text);
        const size_t eq = line.text.find('=');
        if (t.empty()) {
            line.kind = Ini::kBlank;
        } else if (t[0] == '#' || t[0] == ';') {
            line.kind = Ini::kComment;
        } else if (t.size() >= 2 && t.front() == '[' && t.back() == ']') {
            line.kind = Ini::kSection;
            line.name = trim(t.substr(1, t.size() - 2));
        } else if (eq != std::string::npos) {
            line.kind = Ini::kKey;
            line.name = trim(line.text.substr(0, eq));
            line.value = ini_value(line.text.substr(eq + 1));
        }
        out.push_back(std::move(line));
    }
    return out;
}

std::vector<IniSection> ini_sections(const std::vector<IniLine> &lines) {
    std::vector<IniSection> out(1);
    out[0].top = true;
    for (size_t i = 0; i < lines.size(); ++i) {
        if (lines[i].kind == Ini::kSection) out.push_back({false, lines[i].name, {}, {}});
        out.back().lines.push_back(i);
        if (lines[i].kind == Ini::kKey && !lines[i].name.empty()) out.back().keys[lines[i].name] = lines[i].value;
    }
    return out;
}

void check_section_reader(const std::string &path, const std::vector<IniSection> &model) {
    std::vector<const IniSection *> first;
    for (const IniSection &s : model) {
        bool seen = s.top;
        for (const IniSection *f : first) seen = seen || f->name == s.name;
        if (!seen) first.push_back(&s);
    }
    KVLIB_SZLIST *names = KVLIBCSzListAlloc(128);
    const int count = KVLIBCFileEnumSection(path.c_str(), &names);
    FUZZ_CHECKF(count == static_cast<int>(first.size()) && names->nItem == count, "%d sections listed, model %zu",
                count, first.size());
    for (int i = 0; i < count; ++i) {
        const IniSection &s = *first[static_cast<size_t>(i)];
        FUZZ_CHECKF(s.name == KVLIBCSzListGet(names, i), "section %d is [%s], model [%s]", i, KVLIBCSzListGet(names, i),
                    s.name.c_str());
        KVLIB_SZHASH *hash = KVLIBCSzHashAlloc(512);
        const int keys = KVLIBCFileGetSection(path.c_str(), s.name.c_str(), &hash);
        FUZZ_CHECKF(keys == static_cast<int>(s.keys.size()), "[%s]: %d keys, model %zu", s.name.c_str(), keys,
                    s.keys.size());
        for (const auto &[key, value] : s.keys) {
            const char *got = KVLIBCSzHashGetValue(hash, key.c_str());
            FUZZ_CHECKF(got != nullptr && value == got, "[%s] %s = \"%s\", model \"%s\"", s.name.c_str(), key.c_str(),
                        got ? got : "(none)", value.c_str());
        }
        KVLIBCSzHashFree(hash);
    }
    KVLIBCSzListFree(names);
}

// ---- the port texts of the service-wide check as a model ---------------------------------

namespace {

// One item of a port text: a port, or two joined by `joiner` (the smaller first).
std::optional<Span> item_of(const std::string &item, char joiner, Outcome &out) {
    const size_t at = item.find(joiner);
    const std::string a = item.substr(0, at), b = at == std::string::npos ? a : item.substr(at + 1);
    if (at != std::string::npos && (a.empty() || b.empty())) return std::nullopt;
    if (!model_port_check(a) || !model_port_check(b)) {
        out.error = KOVA_ERR_BAD_PARAMETER;
        return std::nullopt;
    }
    const uint32_t x = static_cast<uint32_t>(std::stoul(a)), y = static_cast<uint32_t>(std::stoul(b));
    return Span{std::min(x, y), std::max(x, y)};
}

std::vector<std::string> items_of(const std::string &text) {
    std::vector<std::string> out = split_all(trim(text), ',');
    for (std::string &item : out) item = trim(item);
    return out;
}

void add(Outcome &out, uint32_t b, uint32_t e) {
    out.list.insert(out.list.begin(), Port{0, b == e ? 0u : 1u, KOVA_PROTO_BOTH, b, b == e ? 0u : e});
}

}  // namespace

bool model_compare(const std::string &ports, const std::string &other, Outcome &out) {
    for (const std::string &item : items_of(ports)) {
        const std::optional<Span> mine = item_of(item, ':', out);
        if (!mine) return false;
        const bool single = item.find(':') == std::string::npos;
        for (const std::string &o : items_of(other)) {
            const std::optional<Span> theirs = item_of(o, '-', out);
            if (!theirs) return false;
            const uint32_t lo = std::max(mine->b, theirs->b), hi = std::min(mine->e, theirs->e);
            if (lo > hi) continue;
            add(out, lo, single || o.find('-') == std::string::npos ? lo : hi);
            out.result = 1;
        }
    }
    return true;
}

std::vector<std::string> words(const std::string &text, bool &empty_words) {
    std::vector<std::string> out;
    if (text.empty()) return out;
    for (const std::string &w : split_all(text, ',')) {
        for (const std::string &v : split_all(w, ' ')) {
            if (!v.empty()) out.push_back(v);
            empty_words = empty_words || v.empty();
        }
    }
    return out;
}

bool has(const std::vector<std::string> &list, const std::string &word) {
    return std::find(list.begin(), list.end(), word) != list.end();
}

std::vector<Span> normalize_spans(std::vector<Span> spans) {
    std::sort(spans.begin(), spans.end(), [](const Span &x, const Span &y) { return x.b < y.b; });
    std::vector<Span> out;
    for (const Span &s : spans) {
        if (!out.empty() && s.b <= out.back().e + 1)
            out.back().e = std::max(out.back().e, s.e);
        else
            out.push_back(s);
    }
    return out;
}

bool model_reserved(const std::string &ports, const std::vector<Span> &reserved, Outcome &out) {
    std::vector<Span> spans;
    for (const Port &p : out.list) spans.push_back({p.begin, p.type == 1 ? p.end : p.begin});
    for (const std::string &item : items_of(ports)) {
        Outcome ignored;
        const std::optional<Span> mine = item_of(item, ':', ignored);
        const size_t colon = item.find(':');
        if (!mine || (colon != std::string::npos && std::stoul(item.substr(0, colon)) > mine->b)) return false;
        for (const Span &r : reserved)
            if (std::max(r.b, mine->b) <= std::min(r.e, mine->e))
                spans.push_back({std::max(r.b, mine->b), std::min(r.e, mine->e)});
    }
    out.list.clear();
    for (const Span &s : normalize_spans(spans))
        out.list.push_back({0, s.b == s.e ? 0u : 1u, 0, static_cast<uint32_t>(s.b), static_cast<uint32_t>(s.e)});
    if (!out.list.empty()) out.result = 1;
    return true;
}

void check_outcome(const Outcome &want, int rc, const KOVA_SERVICE_CONF_PORT *list, const char *what) {
    const std::vector<Port> got = to_vector(list);
    FUZZ_CHECKF(rc == want.result && got == want.list, "%s gave %d %s, model %d %s", what, rc, describe(got).c_str(),
                want.result, describe(want.list).c_str());
    if (rc < 0 && want.error != kAnyError)
        FUZZ_CHECKF(KVLIBCErrGet() == want.error, "%s failed with 0x%04X, model 0x%04X", what, KVLIBCErrGet(),
                    want.error);
}

}  // namespace kova::fuzz
