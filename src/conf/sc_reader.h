// The reader of sectioned files (.sc files, the port-forwarding rules): one read of a file gives
// everything the library takes from it, with the results the platform's sectioned-file reads
// (KVLIBCFileEnumSection, KVLIBCFileGetSection) would give:
//
//   - the sections in enumeration order: file order, a name repeated later listed once, each
//     name up to its first NUL byte;
//   - per section, the keys of the first section of that name, each with the value of its last
//     line (without one pair of surrounding quotes), and the number of distinct keys as the
//     platform's section read counts them.
//
// The file's bytes are kept in one buffer; names and values point into it (each terminated
// there), so a read allocates the buffer and two flat arrays, and a ScFile reused for the next
// file allocates nothing more once it is large enough. The line syntax is
// common/section_lexer.h, the one the platform's layer uses.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "foundation/result.h"

namespace kova::conf {

// A file's bytes followed by a NUL, in a buffer that is reused as it is.
struct TextBuffer {
    std::unique_ptr<char[]> data;
    size_t capacity = 0;
    // Room for `size` bytes and a NUL, what the buffer held kept; never zero-filled.
    void reserve(size_t size);
};

// Whether two names are the same; the sizes and first bytes, which tell most names apart, are
// compared before the rest.
inline bool same_name(std::string_view a, std::string_view b) {
    return a.size() == b.size() && (a.empty() || (a.front() == b.front() && a == b));
}

// The names seen so far, by position: searched in place while they are few, through a hash
// once there are many, so that a file of many sections or a section of many keys reads in
// linear time without a hash for every small one. Cleared, it keeps its storage.
class SeenNames {
public:
    static constexpr size_t kNone = static_cast<size_t>(-1);
    void clear() {
        names_.clear();
        // Clearing a map sweeps all its buckets, even when it holds nothing.
        if (!hash_.empty()) hash_.clear();
    }
    void assign(const SeenNames &other) {  // the names of `other`
        names_ = other.names_;
        hash_.clear();
    }
    // The position of `name` when it was seen; else adds it and returns kNone.
    size_t find_or_add(std::string_view name) {
        if (names_.size() >= kLinear) return find_or_add_hashed(name);
        for (size_t i = 0; i < names_.size(); ++i)
            if (same_name(names_[i], name)) return i;
        names_.push_back(name);
        return kNone;
    }

private:
    static constexpr size_t kLinear = 16;
    size_t find_or_add_hashed(std::string_view name);
    std::vector<std::string_view> names_;
    std::unordered_map<std::string_view, size_t> hash_;
};

struct ScKey {
    std::string_view name;  // up to its first NUL byte
    const char *value;      // terminated
};

class ScSection {
public:
    // The name up to its first NUL byte.
    const char *name() const { return name_; }
    // Distinct keys read (the platform's count); below 1 means the section has no key line.
    int key_count() const { return key_count_; }
    // The value of `key`, or null when the section lacks it.
    const char *value(std::string_view key) const;
    // The values of several keys (out[i] that of names[i], null when the section lacks it), found
    // in one pass over the section's keys.
    template <size_t N>
    void values(const std::string_view (&names)[N], const char *(&out)[N]) const {
        for (const char *&value : out) value = nullptr;
        for (uint32_t k = first_; k < end_; ++k) {
            for (size_t i = 0; i < N; ++i) {
                if (same_name(keys_[k].name, names[i])) {
                    out[i] = keys_[k].value;
                    break;
                }
            }
        }
    }
    // Keys and values in the order the keys first appear.
    std::vector<std::pair<std::string, std::string>> entries() const;

private:
    friend class ScParser;
    friend class ScFile;
    std::string_view full_name_;  // NUL bytes included
    const char *name_ = "";
    int key_count_ = 0;
    uint32_t first_ = 0;  // keys in the file's key array
    uint32_t end_ = 0;
    const ScKey *keys_ = nullptr;  // set once the file is parsed
};

class ScFile {
public:
    ScFile() = default;
    ScFile(ScFile &&) = default;  // the buffer and arrays move with their addresses
    ScFile &operator=(ScFile &&) = default;

    // The sections in enumeration order.
    const std::vector<ScSection> &sections() const { return sections_; }
    // Their names, in that order.
    std::vector<std::string> names() const;
    // The section that a read of `name` finds (the first of that name), or null. Looking the
    // names up in enumeration order costs one comparison each.
    const ScSection *find(std::string_view name) const;

private:
    friend class ScParser;
    TextBuffer text_;
    std::vector<ScSection> sections_;
    std::vector<ScKey> keys_;
    mutable size_t next_find_ = 0;
    // The parser's scratch, kept for the next file read into this one.
    SeenNames seen_sections_;
    SeenNames seen_keys_;
    SeenNames seen_full_keys_;
};

// Parses text already in memory.
ScFile parse_sc_text(std::string_view text);

// Where a file is read from: its path, or an entry of an open directory (`dir` >= 0), `path` then
// only naming it; `regular` when the directory's listing said it is a regular file.
struct FileRef {
    const char *path;
    int dir = -1;
    const char *name = nullptr;
    bool regular = false;
};

// Reads and parses the file. Fails with 0x0900 when it is missing, not a regular file (a
// directory, or a device or pipe that could block or never end) or cannot be read.
Result<ScFile> read_sc_file(const char *path);
// The same into `file`, whose storage is reused.
Result<void> read_sc_file(const FileRef &where, ScFile &file);

// A key-value file (the settings files) read once: the value of the first line of each key, as
// the platform's key-value reads find it; sections are not looked at. The keys are found through
// an open-addressed table of positions, so that a file of thousands of keys costs two arrays.
class KeyValueFile {
public:
    // The value (NUL bytes and all), or null when no line has the key.
    const std::string_view *value(std::string_view key) const;

private:
    friend Result<KeyValueFile> read_key_value_file(const char *path);
    struct Entry {
        std::string_view name;
        std::string_view value;
    };
    // The slot of `key`: the one holding it, or the empty one where it would go.
    size_t slot_of(std::string_view key) const;
    TextBuffer text_;
    std::vector<Entry> entries_;   // every key line, in file order
    std::vector<uint32_t> slots_;  // 1 + the position of a key's first line; 0 for an empty slot
};
// Fails with 0x0900 as read_sc_file does.
Result<KeyValueFile> read_key_value_file(const char *path);

}  // namespace kova::conf
