// The sectioned-file writers on hostile files and arguments. The input is split at NUL bytes:
// the first piece is the file (none when empty), every further piece one write, its first byte
// choosing the operation and "\x1f" separating its arguments:
//   v name key value                 KVLIBCFileSetSectionValue
//   s name rename key value key ...  KVLIBCFileSetSection (no rename when empty)
//   a name key value ...             KVLIBCFileAddSection
//   r name                           KVLIBCFileRemoveSection
// After each write the file must mean what the sectioned-file model says (the write applied to
// the sections the model read before, a key given twice counting by its last line), every line
// the write does not concern must still stand in the file byte for byte and in order, the
// readers must agree with the model, and no temporary file may be left beside it. A refused
// write leaves the file as it was; line breaks in a name, key or value must be refused.
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>

#include "fuzz_support.h"

namespace {

using namespace kova::fuzz;

constexpr const char *kDir = "/usr/kova/etc/services.d";
constexpr const char *kFile = "/usr/kova/etc/services.d/w.sc";

std::optional<std::string> read_file(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return std::nullopt;
    return std::string(std::istreambuf_iterator<char>(in), {});
}

// Entries in a directory; beside the file there must be none.
long entries(const std::string &dir) {
    return std::distance(std::filesystem::directory_iterator(dir), std::filesystem::directory_iterator());
}

bool has_break(const std::string &s) {
    return s.find_first_of("\r\n") != std::string::npos;
}

// A name or key that every writer must take: letters, digits, "_-." and inner spaces.
bool plain(const std::string &s) {
    return word_of(s, "_-. ") && s.front() != ' ' && s.back() != ' ';
}

struct Write {
    char op;
    std::string name, rename;
    std::vector<std::pair<std::string, std::string>> entries;
};

Write parse_write(const std::string &piece) {
    const std::vector<std::string> f = split_all(piece.substr(1), '\x1f');
    const char op = std::string_view("vsar").find(piece[0]) != std::string_view::npos ? piece[0] : "vsar"[piece[0] & 3];
    Write w{op, f[0], "", {}};
    size_t at = 1;
    if (w.op == 's' && f.size() > 1) w.rename = f[at++];
    for (; at < f.size(); at += 2) w.entries.emplace_back(f[at], at + 1 < f.size() ? f[at + 1] : "");
    if (w.op == 'v') w.entries.resize(1);
    if (w.op == 'r') w.entries.clear();
    std::map<std::string, std::string> last;  // a key given twice: the hash keeps its last value
    for (const auto &[k, v] : w.entries) last[k] = v;
    if (w.op != 'v') w.entries.assign(last.begin(), last.end());
    return w;
}

int run(const Write &w, const std::string &path) {
    if (w.op == 'v')
        return KVLIBCFileSetSectionValue(path.c_str(), w.name.c_str(), w.entries[0].first.c_str(),
                                         w.entries[0].second.c_str());
    if (w.op == 'r') return KVLIBCFileRemoveSection(path.c_str(), w.name.c_str());
    KVLIB_SZHASH *hash = KVLIBCSzHashAlloc(512);
    for (const auto &[k, v] : w.entries) FUZZ_CHECK(KVLIBCSzHashSetValue(&hash, k.c_str(), v.c_str()) == 0);
    const int rc = w.op == 'a' ? KVLIBCFileAddSection(path.c_str(), w.name.c_str(), hash, 0)
                               : KVLIBCFileSetSection(path.c_str(), w.name.c_str(),
                                                      w.rename.empty() ? nullptr : w.rename.c_str(), hash, 0);
    KVLIBCSzHashFree(hash);
    return rc;
}

// The write applied to the model; `dropped` gets the old lines it may replace or remove, and
// the result is how many lines it may add.
size_t apply(const Write &w, const std::vector<IniLine> &lines, std::vector<IniSection> &model,
             std::set<size_t> &dropped) {
    IniSection *first = nullptr;
    for (IniSection &s : model)
        if (!s.top && s.name == w.name && first == nullptr) first = &s;
    if (w.op == 'r') {
        for (const IniSection &s : model)
            if (!s.top && s.name == w.name) dropped.insert(s.lines.begin(), s.lines.end());
        std::erase_if(model, [&](const IniSection &s) { return !s.top && s.name == w.name; });
        return 0;
    }
    std::map<std::string, std::string> keys;
    for (const auto &[k, v] : w.entries) keys[k] = ini_value(v);
    if (first == nullptr) {
        model.push_back({false, w.rename.empty() ? w.name : w.rename, keys, {}});
        return keys.size() + 3;
    }
    if (w.op == 'v') {
        const std::string &key = w.entries[0].first;
        for (const size_t i : first->lines)
            if (lines[i].kind == Ini::kKey && lines[i].name == key) dropped = {i};
        first->keys[key] = keys[key];
        return 3;
    }
    for (const size_t i : first->lines)
        if (lines[i].kind == Ini::kKey || (lines[i].kind == Ini::kSection && !w.rename.empty())) dropped.insert(i);
    first->keys = keys;
    if (!w.rename.empty()) first->name = w.rename;
    return keys.size() + 3;
}

// The kept old lines stand in the new text in order, byte for byte (a last line may have
// gained its line end), with at most `added` other lines between them; dropped lines may stay.
void check_kept(const std::vector<IniLine> &before, const std::set<size_t> &dropped, const std::string &now,
                size_t added) {
    const std::vector<IniLine> after = ini_lines(now);
    std::multiset<std::string> may_stay;
    for (const size_t i : dropped) may_stay.insert(before[i].text);
    size_t j = 0, extra = 0;
    auto skip = [&] {
        const auto it = may_stay.find(after[j++].text);
        if (it != may_stay.end())
            may_stay.erase(it);
        else
            ++extra;
    };
    for (size_t i = 0; i < before.size(); ++i) {
        if (dropped.count(i) != 0) continue;
        const std::string &want = before[i].text;
        const bool open_end = i + 1 == before.size() && want.back() != '\n';
        while (j < after.size() && !(open_end ? after[j].text.substr(0, want.size()) == want : after[j].text == want))
            skip();
        FUZZ_CHECKF(j < after.size(), "line %zu \"%s\" is gone; now:\n%s", i, want.c_str(), now.c_str());
        ++j;
    }
    while (j < after.size()) skip();
    FUZZ_CHECKF(extra <= added, "%zu lines added, at most %zu expected; now:\n%s", extra, added, now.c_str());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size > 16384) return 0;
    const std::vector<std::string> pieces = split_all(std::string(reinterpret_cast<const char *>(data), size), '\0');
    if (pieces.size() > 9) return 0;
    const std::string path = under_root(kFile);
    write_file(kFile, pieces[0], true);
    std::optional<std::string> text = read_file(path);

    for (size_t p = 1; p < pieces.size(); ++p) {
        if (pieces[p].empty()) continue;
        const Write w = parse_write(pieces[p]);
        bool breaks = w.op != 'r' && (has_break(w.name) || has_break(w.rename)),
             must = plain(w.name) && (text || w.op != 'r') && (w.rename.empty() || plain(w.rename));
        for (const auto &[k, v] : w.entries) {
            breaks = breaks || has_break(k) || has_break(v);
            must = must && plain(k);
        }
        must = must && !breaks;
        const std::vector<IniLine> before = ini_lines(text.value_or(""));
        std::vector<IniSection> model = ini_sections(before);
        std::set<size_t> dropped;
        const size_t added = apply(w, before, model, dropped);

        KVLIBCErrSetEx(0, "fuzz", 0);
        const int rc = run(w, path);
        const std::optional<std::string> now = read_file(path);
        if (rc != 0) {
            FUZZ_CHECKF(!must, "write '%c' [%s] refused (0x%04X)", w.op, w.name.c_str(), KVLIBCErrGet());
            FUZZ_CHECKF(now == text, "refused write '%c' [%s] changed the file", w.op, w.name.c_str());
            FUZZ_CHECK(KVLIBCErrGet() == KOVA_ERR_BAD_PARAMETER || (w.op == 'r' && !text));
            continue;
        }
        FUZZ_CHECKF(!breaks, "write '%c' [%s] with a line break accepted", w.op, w.name.c_str());
        FUZZ_CHECKF(now.has_value(), "write '%c' [%s] left no file", w.op, w.name.c_str());
        const std::vector<IniSection> read = ini_sections(ini_lines(*now));
        FUZZ_CHECKF(
            std::equal(read.begin(), read.end(), model.begin(), model.end(),
                       [](const IniSection &x, const IniSection &y) { return x.name == y.name && x.keys == y.keys; }),
            "write '%c' [%s]: the file means other sections than the model; now:\n%s", w.op, w.name.c_str(),
            now->c_str());
        check_kept(before, dropped, *now, added);
        check_section_reader(path, read);
        FUZZ_CHECKF(entries(under_root(kDir)) == 1 && entries(under_root("/usr/kova/etc")) == 1,
                    "a temporary file is left beside the file or in its parent");
        text = now;
    }
    return 0;
}
