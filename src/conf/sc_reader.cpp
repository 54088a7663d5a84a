// Reading sectioned files once, into sections and keys.
#include "conf/sc_reader.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <unordered_map>

#include "foundation/door.h"
#include "section_lexer.h"

namespace kova::conf {

namespace {

constexpr size_t kNone = SeenNames::kNone;

// A text as the platform's C-string containers keep it: up to the first NUL byte.
std::string_view c_text(std::string_view s) {
    return s.substr(0, std::min(s.size(), s.find('\0')));
}

}  // namespace

class ScParser {
public:
    // Parses the file's buffer, `size` bytes followed by room for a NUL. A key name without NUL
    // bytes (nearly all are) is looked up once for both the keys and the platform's count.
    static void parse(ScFile &file, size_t size) {
        file.text_.reserve(size);
        char *const text = file.text_.data.get();
        text[size] = '\0';
        file.sections_.clear();
        file.keys_.clear();
        file.next_find_ = 0;
        // Ends a name or value where it lies: the byte after it is not read again.
        auto terminate = [text](std::string_view piece) {
            text[static_cast<size_t>(piece.data() - text) + piece.size()] = '\0';
            return piece.data();
        };
        SeenNames &sections = file.seen_sections_;
        SeenNames &keys = file.seen_keys_;  // C-text names of the current section's keys
        // Their full names (NUL bytes included), kept apart only once one of them holds a NUL byte.
        SeenNames &full_keys = file.seen_full_keys_;
        bool full_apart = false;
        // Nearly every file holds no NUL byte: its names are then their C texts as they are.
        const bool has_nul = std::memchr(text, '\0', size) != nullptr;
        sections.clear();
        keys.clear();
        ScSection *current = nullptr;
        kova::ini::for_each_line(std::string_view(text, size), [&](const kova::ini::Line &line) {
            if (line.kind == kova::ini::Kind::kSection) {
                keys.clear();
                full_apart = false;
                current = nullptr;  // a later section of a name is never read
                if (sections.find_or_add(line.name) != kNone) return true;
                current = &file.sections_.emplace_back();
                current->full_name_ = line.name;
                current->name_ = terminate(line.name);
                current->first_ = current->end_ = static_cast<uint32_t>(file.keys_.size());
            } else if (line.kind == kova::ini::Kind::kKey && current != nullptr && !line.name.empty()) {
                const std::string_view name = has_nul ? c_text(line.name) : line.name;
                if (!full_apart && name.size() != line.name.size()) {
                    full_apart = true;
                    full_keys.assign(keys);  // the full names so far are their C texts
                }
                const size_t at = keys.find_or_add(name);
                if ((full_apart ? full_keys.find_or_add(line.name) : at) == kNone) ++current->key_count_;
                const char *value = terminate(line.value);
                if (at != kNone) {
                    file.keys_[current->first_ + at].value = value;
                } else {
                    file.keys_.push_back({name, value});
                    current->end_ = static_cast<uint32_t>(file.keys_.size());
                }
            }
            return true;
        });
        for (ScSection &section : file.sections_) section.keys_ = file.keys_.data();
    }

    static TextBuffer &buffer(ScFile &file) { return file.text_; }
};

namespace {

// Reads the whole content of a regular file into the buffer; its size, or kNone when it cannot
// be opened or read, or is not a regular file. A file that its directory's listing calls regular
// is not asked again (directories, devices and pipes are refused either way); a file opened
// through its directory costs the kernel one step of path walk instead of them all. The buffer
// of the last file read is large enough for most; it grows by the read otherwise.
size_t read_regular_file(const FileRef &where, TextBuffer &text) {
    System &sys = kova::sys();
    constexpr int kFlags = O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY;
    const FileHandle handle(
        sys, where.dir >= 0 ? sys.openat(where.dir, where.name, kFlags, 0) : sys.open(where.path, kFlags, 0));
    const int fd = handle.get();
    if (fd < 0) return kNone;
    // The size the file has when it is opened, where it is asked: once that much is read, a read
    // that returns less than it asked for has found the end (a regular file reads short only
    // there), and the read that would return nothing is not made.
    size_t known = kNone;
    if (!where.regular) {
        struct stat st;
        if (sys.fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) return kNone;
        known = static_cast<size_t>(st.st_size);
        // One byte beyond that size, so that a file that grew since is read on.
        text.reserve(known + 1);
    }
    size_t size = 0;
    for (;;) {
        if (size + 1 >= text.capacity) text.reserve(size + 4096);
        const size_t room = text.capacity - 1 - size;
        const ssize_t n = sys.read(fd, text.data.get() + size, room);
        if (n > 0) size += static_cast<size_t>(n);
        if (n == 0 || (n > 0 && static_cast<size_t>(n) < room && size >= known)) {
            text.data[size] = '\0';
            return size;
        }
        if (n < 0 && errno != EINTR) return kNone;
    }
}

}  // namespace

size_t SeenNames::find_or_add_hashed(std::string_view name) {
    if (hash_.empty())
        for (size_t i = 0; i < names_.size(); ++i) hash_.emplace(names_[i], i);
    const auto [it, added] = hash_.try_emplace(name, names_.size());
    if (!added) return it->second;
    names_.push_back(name);
    return kNone;
}

void TextBuffer::reserve(size_t size) {
    if (size + 1 <= capacity) return;
    const size_t grown = std::max(size + 1, 2 * capacity);
    std::unique_ptr<char[]> text = std::make_unique_for_overwrite<char[]>(grown);
    if (data) std::memcpy(text.get(), data.get(), capacity);
    data = std::move(text);
    capacity = grown;
}

const char *ScSection::value(std::string_view key) const {
    for (uint32_t i = first_; i < end_; ++i)
        if (keys_[i].name == key) return keys_[i].value;
    return nullptr;
}

std::vector<std::pair<std::string, std::string>> ScSection::entries() const {
    std::vector<std::pair<std::string, std::string>> entries;
    entries.reserve(end_ - first_);
    for (uint32_t i = first_; i < end_; ++i) entries.emplace_back(keys_[i].name, keys_[i].value);
    return entries;
}

std::vector<std::string> ScFile::names() const {
    std::vector<std::string> names;
    names.reserve(sections_.size());
    for (const ScSection &section : sections_) names.emplace_back(section.name());
    return names;
}

const ScSection *ScFile::find(std::string_view name) const {
    size_t at = next_find_;
    if (at >= sections_.size() || sections_[at].full_name_ != name) {
        at = 0;
        while (at < sections_.size() && sections_[at].full_name_ != name) ++at;
        if (at == sections_.size()) return nullptr;
    }
    next_find_ = at + 1;
    return &sections_[at];
}

ScFile parse_sc_text(std::string_view text) {
    ScFile file;
    TextBuffer &buffer = ScParser::buffer(file);
    buffer.reserve(text.size());
    std::memcpy(buffer.data.get(), text.data(), text.size());
    ScParser::parse(file, text.size());
    return file;
}

Result<void> read_sc_file(const FileRef &where, ScFile &file) {
    const size_t size = read_regular_file(where, ScParser::buffer(file));
    if (size == kNone) {
        ScParser::parse(file, 0);
        return KOVA_FAILURE(KOVA_ERR_FILE_OPEN);
    }
    ScParser::parse(file, size);
    return {};
}

Result<ScFile> read_sc_file(const char *path) {
    ScFile file;
    if (Result<void> read = read_sc_file(FileRef{path}, file); !read) return read.failure();
    return file;
}

size_t KeyValueFile::slot_of(std::string_view key) const {
    const size_t mask = slots_.size() - 1;
    for (size_t at = std::hash<std::string_view>{}(key)&mask;; at = (at + 1) & mask)
        if (slots_[at] == 0 || entries_[slots_[at] - 1].name == key) return at;
}

const std::string_view *KeyValueFile::value(std::string_view key) const {
    const uint32_t at = slots_.empty() ? 0 : slots_[slot_of(key)];
    return at == 0 ? nullptr : &entries_[at - 1].value;
}

Result<KeyValueFile> read_key_value_file(const char *path) {
    KeyValueFile file;
    const size_t size = read_regular_file(FileRef{path}, file.text_);
    if (size == kNone) return KOVA_FAILURE(KOVA_ERR_FILE_OPEN);
    // Room for a key on every line, taken at once: the array does not move as it fills (a catalogue
    // build reads the file before its records are made, when freeing old storage could hand the
    // last catalogue's freed memory back to the system, only for the records to fault it in again).
    const std::string_view text(file.text_.data.get(), size);
    file.entries_.reserve(static_cast<size_t>(std::count(text.begin(), text.end(), '\n')) + 1);
    kova::ini::for_each_line(text, [&](const kova::ini::Line &line) {
        if (line.kind == kova::ini::Kind::kKey) file.entries_.push_back({line.name, line.value});
        return true;
    });
    // At most half the slots are taken; the first line of a key is the one read.
    size_t slots = 2;
    while (slots < 2 * file.entries_.size()) slots *= 2;
    file.slots_.assign(slots, 0);
    for (uint32_t i = 0; i < file.entries_.size(); ++i)
        if (uint32_t &slot = file.slots_[file.slot_of(file.entries_[i].name)]; slot == 0) slot = i + 1;
    return file;
}

}  // namespace kova::conf
