#include "catalogue.h"

#include <dirent.h>
#include <fcntl.h>
#include <langinfo.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <optional>

#include "owners.h"
#include "section_lexer.h"
#include "status.h"

namespace kovasvc {

namespace {

constexpr size_t kNameField = sizeof(KOVA_FW_SERVICE{}.name);
constexpr size_t kPathMax = 4096;  // the library forms paths in 4096-byte buffers
constexpr std::string_view kSystemServicesDir = "/usr/kova/etc/services.d";
constexpr std::string_view kSupportDefaults = "/etc.defaults/kovainfo.conf";

template <size_t N>
std::string_view field(const char (&text)[N]) {
    return {text, strnlen(text, N)};
}

// The whole of a regular file; false when it cannot be read.
bool read_regular_file(const std::string &path, std::string &text) {
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
    if (fd < 0) return false;
    struct stat st;
    bool ok = ::fstat(fd, &st) == 0 && S_ISREG(st.st_mode);
    if (ok) text.resize(static_cast<size_t>(st.st_size) + 1);
    size_t size = 0;
    while (ok) {
        if (size == text.size()) text.resize(size + 4096);
        ssize_t n = ::read(fd, text.data() + size, text.size() - size);
        if (n == 0) break;
        if (n > 0)
            size += static_cast<size_t>(n);
        else if (errno != EINTR)
            ok = false;
    }
    ::close(fd);
    text.resize(size);
    return ok;
}

// Texts mapped to values in an open-addressed table sized once for the texts it will hold: the
// catalogue's names and support keys.
template <class Value>
class TextMap {
public:
    explicit TextMap(size_t count) : slots_(std::bit_ceil(count + count / 2 + 1)) {}

    // The value of `text`, given `value` when it is not there yet; and whether it was not.
    std::pair<Value *, bool> try_emplace(std::string_view text, Value value) {
        Slot &s = slots_[slot(text)];
        const bool fresh = s.text == nullptr;
        if (fresh) s = {text.data() != nullptr ? text.data() : "", static_cast<uint32_t>(text.size()), value};
        return {&s.value, fresh};
    }

    const Value *find(std::string_view text) const {
        const Slot &s = slots_[slot(text)];
        return s.text != nullptr ? &s.value : nullptr;
    }

private:
    struct Slot {
        const char *text = nullptr;  // null: free
        uint32_t size = 0;
        Value value{};
    };

    size_t slot(std::string_view text) const {
        const size_t mask = slots_.size() - 1;
        const size_t hash = std::hash<std::string_view>{}(text);
        size_t i = hash & mask;
        while (slots_[i].text != nullptr && std::string_view(slots_[i].text, slots_[i].size) != text)
            i = (i + 1) & mask;
        return i;
    }

    std::vector<Slot> slots_;
};

// The support test of the catalogue: whether a key's value in the system information defaults
// file is "yes", as KVLIBCFileCheckKeyValue answers it (the first line of the key counts; a file
// that cannot be read says no), with the file read once.
class SupportKeys {
public:
    explicit SupportKeys(std::string path) : path_(std::move(path)) {}

    bool yes(std::string_view key) {
        if (!values_) {
            if (!read_regular_file(path_, text_)) text_.clear();
            values_.emplace(static_cast<size_t>(std::count(text_.begin(), text_.end(), '\n')) + 1);
            kova::ini::for_each_line(text_, [&](const kova::ini::Line &line) {
                if (line.kind == kova::ini::Kind::kKey) values_->try_emplace(line.name, line.value == "yes");
                return true;
            });
        }
        const bool *value = values_->find(key);
        return value != nullptr && *value;
    }

private:
    std::string path_;
    std::string text_;
    std::optional<TextMap<bool>> values_;  // once the file is read
};

// The system information defaults file under the root that the library resolves.
std::string support_defaults_path() {
    std::string dir = services_dir(KOVA_CONF_LOCATION_SYSTEM);
    if (!dir.ends_with(kSystemServicesDir)) return std::string(kSupportDefaults);
    return dir.erase(dir.size() - kSystemServicesDir.size()).append(kSupportDefaults);
}

// The entries of a services.d directory as the library reads them: "." and ".." left out,
// sorted as alphasort() sorts them (by bytes in a locale without collation rules, which is how
// strcoll orders there), their names kept one after the other.
struct Dir {
    unsigned int location;
    std::string path;
    std::string names;             // each ended by a NUL
    std::vector<uint32_t> starts;  // where each name starts, in sorted order
};

size_t list_dir(Dir &d) {
    std::unique_ptr<DIR, Release<closedir>> dir(d.path.empty() ? nullptr : opendir(d.path.c_str()));
    if (!dir) return 0;
    for (;;) {
        errno = 0;
        const dirent *entry = readdir(dir.get());
        if (entry == nullptr) break;
        if (std::strcmp(entry->d_name, ".") == 0 || std::strcmp(entry->d_name, "..") == 0) continue;
        d.starts.push_back(static_cast<uint32_t>(d.names.size()));
        d.names.append(entry->d_name).push_back('\0');
    }
    // A listing that fails part way counts as none, as scandir() has it.
    if (errno != 0) {
        d.starts.clear();
        return 0;
    }
    const char *names = d.names.data();
    if (reinterpret_cast<uintptr_t>(nl_langinfo(_NL_COLLATE_NRULES)) != 0) {
        std::sort(d.starts.begin(), d.starts.end(),
                  [names](uint32_t a, uint32_t b) { return std::strcoll(names + a, names + b) < 0; });
        return d.starts.size();
    }
    // By bytes: the first eight of each name as a number that orders as they do, the rest
    // compared only where those are equal.
    struct Keyed {
        uint64_t prefix;
        uint32_t start;
    };
    std::vector<Keyed> keyed;
    keyed.reserve(d.starts.size());
    for (uint32_t start : d.starts) {
        uint64_t prefix = 0;
        bool ended = false;  // no byte is read past the name's NUL
        for (size_t i = 0; i < 8; ++i) {
            const unsigned char c = ended ? 0 : static_cast<unsigned char>(names[start + i]);
            ended = c == 0;
            prefix = prefix << 8 | c;
        }
        keyed.push_back({prefix, start});
    }
    std::sort(keyed.begin(), keyed.end(), [names](const Keyed &a, const Keyed &b) {
        return a.prefix != b.prefix ? a.prefix < b.prefix : std::strcmp(names + a.start, names + b.start) < 0;
    });
    for (size_t i = 0; i < keyed.size(); ++i) d.starts[i] = keyed[i].start;
    return d.starts.size();
}

// The ports of one direction of a built-in row, as the library converts them; false when the
// row is left out (a text with anything but digits and commas, a getter that fails or gives
// no ports).
bool builtin_ports(const KOVA_FW_PORT_SPEC &spec, std::vector<PortRun> &runs) {
    if (spec.ports != nullptr) {
        std::string_view text = spec.ports;
        if (text.empty()) return false;
        std::string item;
        for (size_t start = 0; start <= text.size();) {
            size_t comma = std::min(text.find(',', start), text.size());
            item.assign(text.substr(start, comma - start));
            start = comma + 1;
            if (item.empty()) continue;
            if (item.find_first_not_of("0123456789") != std::string::npos) return false;
            runs.push_back(item_run(item.c_str()));
        }
        return true;
    }
    if (spec.getter == nullptr) return false;
    KVLIB_SZLIST *raw = nullptr;
    int ret = spec.getter(&raw);
    SzListPtr list(ret < 0 ? nullptr : raw);
    if (ret < 0 || (ret == 0 && (raw == nullptr || raw->nItem == 0))) return false;
    for (int i = 0; raw != nullptr && i < raw->nItem; ++i)
        if (const char *item = KVLIBCSzListGet(raw, i); item != nullptr) runs.push_back(item_run(item));
    return true;
}

}  // namespace

// Makes the entries, their port runs and their texts.
class Catalogue::Builder {
public:
    Builder(Catalogue &cat, Detail detail)
        : cat_(cat),
          texts_(detail == Detail::kTexts),
          files_(detail != Detail::kRows),
          support_(support_defaults_path()) {}

    void builtin_rows() {
        for (const KOVA_FW_SERVICE_ENTRY *row = rgServices; row->name != nullptr; ++row) {
            CatalogueEntry e;
            e.origin = Origin::BuiltIn;
            e.supported = row->supportKey == nullptr ? row->defaultSupported != 0 : support_.yes(row->supportKey);
            e.port_forward = row->portForward != 0;
            if (files_ && row->supportKey != nullptr) e.support_key = row->supportKey;
            if (!builtin_direction(row->src, e.src_protocol, e.src) ||
                !builtin_direction(row->dst, e.dst_protocol, e.dst))
                continue;
            e.name = keep_name(row->name);
            // A table string: its key; its texts stay empty.
            e.title = keep({}, {}, row->title);
            e.desc = keep({}, {}, row->desc);
            builtin_.push_back(e);
        }
    }

    void sc_files() {
        std::vector<Dir> dirs;
        size_t files = 0;
        for (unsigned int location : {KOVA_CONF_LOCATION_SYSTEM, KOVA_CONF_LOCATION_PACKAGE}) {
            Dir &d = dirs.emplace_back(Dir{location, services_dir(location), {}, {}});
            files += list_dir(d);
        }
        // One to a few services a file: room for more than there will be, which costs only
        // addresses (the pages that are not written are never touched), so that the records
        // are not copied as they grow.
        cat_.entries_.reserve(files * 4 + std::size(rgServices));

        std::vector<const KOVA_SERVICE_CONF_SECTION *> sections;
        std::string path;
        for (const Dir &d : dirs) {
            for (uint32_t at : d.starts) {
                path.assign(d.path).append("/").append(d.names.c_str() + at);
                if (path.size() > kPathMax - 1) path.erase(kPathMax - 1);
                KOVA_SERVICE_CONF *head = nullptr;
                if (KOVAServiceConfGet(path.c_str(), &head) != 0) continue;
                ConfsPtr conf(head);
                // The reader links each section in front: walk them back into file order.
                sections.clear();
                for (const auto *s = conf->sections; s != nullptr; s = s->next) sections.push_back(s);
                std::reverse(sections.begin(), sections.end());
                sc_file(*conf, sections, d.location, path);
            }
        }
    }

    void finish() {
        auto &entries = cat_.entries_;
        entries.insert(entries.end(), builtin_.rbegin(), builtin_.rend());
        // The names seen, as positions in an open-addressed table (1 + the entry; 0: free).
        std::vector<uint32_t> seen(std::bit_ceil(entries.size() + entries.size() / 2 + 1));
        const size_t mask = seen.size() - 1;
        for (uint32_t i = 0; i < entries.size(); ++i) {
            const std::string_view name = entries[i].name;
            size_t at = std::hash<std::string_view>{}(name)&mask;
            while (seen[at] != 0 && entries[seen[at] - 1].name != name) at = (at + 1) & mask;
            entries[i].shadowed = seen[at] != 0;
            if (seen[at] == 0) seen[at] = i + 1;
        }
    }

private:
    bool builtin_direction(const KOVA_FW_PORT_SPEC &spec, unsigned int &protocol, std::span<const PortRun> &runs) {
        if (spec.enabled == 0) return true;
        protocol = static_cast<unsigned int>(spec.protocol);
        std::vector<PortRun> found;
        if (!builtin_ports(spec, found)) return false;
        PortRun *at = room_for_runs(found.size());
        std::copy(found.begin(), found.end(), at);
        runs = {at, found.size()};
        return true;
    }

    void sc_file(const KOVA_SERVICE_CONF &conf, const std::vector<const KOVA_SERVICE_CONF_SECTION *> &sections,
                 unsigned int location, const std::string &path) {
        std::string_view file, key;
        bool supported = conf.supportKey[0] == '\0' || support_.yes(field(conf.supportKey));
        for (const KOVA_SERVICE_CONF_SECTION *s : sections) {
            if (s->dstPort == nullptr) continue;  // the catalogue has no service without destination ports
            if (file.empty() && files_) {
                file = keep(path);
                key = keep(field(conf.supportKey));
            }
            CatalogueEntry &e = cat_.entries_.emplace_back();
            e.name = keep_name(field(s->name));
            e.origin = location == KOVA_CONF_LOCATION_SYSTEM ? Origin::System : Origin::Package;
            e.supported = supported;
            e.port_forward = s->portForward != 0;
            if (texts_) {
                e.title = keep(field(s->title.text), {}, s->title);
                e.desc = keep(field(s->desc.text), field(s->desc.extraText), s->desc);
            }
            e.file = file;
            e.support_key = key;
            e.dst = sc_ports(s->dstPort, e.dst_protocol);
            e.src = sc_ports(s->srcPort, e.src_protocol);
        }
    }

    // A reader's port list as the record's items: in list order, a single port or a range each,
    // the protocol that of the last entry as the firewall names it.
    std::span<const PortRun> sc_ports(const KOVA_SERVICE_CONF_PORT *list, unsigned int &protocol) {
        size_t count = 0;
        const KOVA_SERVICE_CONF_PORT *last = nullptr;
        for (const auto *p = list; p != nullptr; p = p->next) {
            count += p->type == 0 || p->type == 1 ? 1 : 0;
            last = p;
        }
        if (last != nullptr)
            protocol = static_cast<unsigned int>(KOVAProtocolMapping(static_cast<int>(last->protocol)));
        PortRun *runs = room_for_runs(count);
        size_t n = 0;
        for (const auto *p = list; p != nullptr; p = p->next) {
            if (p->type == 0)
                runs[n++] = {p->beginPort, p->beginPort};
            else if (p->type == 1)
                runs[n++] = {std::min(p->beginPort, p->endPort), std::max(p->beginPort, p->endPort)};
        }
        return {runs, count};
    }

    PortRun *room_for_runs(size_t count) {
        return reinterpret_cast<PortRun *>(room(count * sizeof(PortRun), alignof(PortRun)));
    }

    // Room for `size` bytes, aligned to `align`, that live as long as the catalogue.
    char *room(size_t size, size_t align = 1) {
        constexpr size_t kBlock = 64 * 1024;
        size_t skip = (align - reinterpret_cast<uintptr_t>(next_) % align) % align;
        if (size + skip > room_) {
            size_t block = std::max(kBlock, size);
            cat_.text_.push_back(std::make_unique_for_overwrite<char[]>(block));
            next_ = cat_.text_.back().get();
            room_ = block;
            skip = 0;
        }
        char *at = next_ + skip;
        next_ = at + size;
        room_ -= skip + size;
        return at;
    }

    std::string_view keep(std::string_view text) {
        if (text.empty()) return {};
        char *copy = room(text.size());
        std::memcpy(copy, text.data(), text.size());
        return {copy, text.size()};
    }

    // The name as the record holds it: cut to 63 characters.
    const char *keep_name(std::string_view name) {
        name = name.substr(0, kNameField - 1);
        char *copy = room(name.size() + 1);
        std::memcpy(copy, name.data(), name.size());
        copy[name.size()] = '\0';
        return copy;
    }

    DisplayText keep(std::string_view text, std::string_view extra_text, const KOVA_SERVICE_STRING &s) {
        DisplayText d;
        if (!texts_) return d;
        const std::string_view parts[] = {text, extra_text, field(s.prefix), field(s.section), field(s.key)};
        unsigned char sizes[std::size(parts)];
        size_t size = 0;
        for (size_t i = 0; i < std::size(parts); ++i) {
            sizes[i] = static_cast<unsigned char>(std::min<size_t>(parts[i].size(), 255));
            size += sizes[i];
        }
        if (size == 0) return d;
        char *at = room(sizeof sizes + size);
        d.parts_ = reinterpret_cast<const unsigned char *>(at);
        at = std::copy_n(reinterpret_cast<const char *>(sizes), sizeof sizes, at);
        for (size_t i = 0; i < std::size(parts); ++i) at = std::copy_n(parts[i].data(), sizes[i], at);
        return d;
    }

    Catalogue &cat_;
    const bool texts_;  // titles and descriptions are kept
    const bool files_;  // files and support keys are kept
    SupportKeys support_;
    std::vector<CatalogueEntry> builtin_;
    char *next_ = nullptr;
    size_t room_ = 0;
};

std::string_view DisplayText::part(size_t i) const {
    size_t offset = std::size(kNone);
    for (size_t k = 0; k < i; ++k) offset += parts_[k];
    return {reinterpret_cast<const char *>(parts_) + offset, parts_[i]};
}

std::string services_dir(unsigned int location) {
    // The library forms an installed path as the directory, "/" and the name.
    char path[4096];
    if (GetInstallPath("x", static_cast<int>(location), path, sizeof path) != 0) return "";
    std::string p = path;
    return p.size() >= 2 ? p.substr(0, p.size() - 2) : "";
}

Catalogue Catalogue::load(Detail detail) {
    Catalogue cat;
    try {
        Builder build(cat, detail);
        // The library runs the built-in rows' port getters before it reads the .sc files.
        build.builtin_rows();
        build.sc_files();
        build.finish();
    } catch (const std::bad_alloc &) {
        throw Failure("cannot build the firewall service catalogue: out of memory");
    }
    return cat;
}

const CatalogueEntry *Catalogue::find(std::string_view name) const {
    for (const auto &e : entries_)
        if (name == e.name) return &e;
    return nullptr;
}

}  // namespace kovasvc
