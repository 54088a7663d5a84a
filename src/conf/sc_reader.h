// The reader of sectioned files (.sc files, the port-forwarding rules): one read of a file gives
// everything the library takes from it, with the results the platform's sectioned-file reads
// (KVLIBCFileEnumSection, KVLIBCFileGetSection) would give:
//
//   - the section names in enumeration order: file order, a name repeated later listed once,
//     each name up to its first NUL byte;
//   - per name, the keys of the first section of that name, in the order they first appear,
//     each with the value of its last line (without one pair of surrounding quotes), and the
//     number of distinct keys as the platform's section read counts them.
//
// The line syntax is common/section_lexer.h, the one the platform's layer uses.
#pragma once

#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "foundation/result.h"

namespace kova::conf {

class ScSection {
public:
    // Distinct keys read (the platform's count); below 1 means the section has no key line.
    int key_count() const { return key_count_; }
    // The value of `key`, or null when the section lacks it.
    const char *value(std::string_view key) const;
    // Keys and values in the order the keys first appear.
    const std::vector<std::pair<std::string, std::string>> &entries() const { return entries_; }

private:
    friend class ScParser;
    int key_count_ = 0;
    std::vector<std::pair<std::string, std::string>> entries_;
    std::unordered_map<std::string, size_t> index_;  // key -> position in entries_
};

class ScFile {
public:
    const std::vector<std::string> &names() const { return names_; }
    // The section that a read of `name` finds (the first of that name), or null.
    const ScSection *find(std::string_view name) const;

private:
    friend class ScParser;
    std::vector<std::string> names_;
    std::unordered_map<std::string, ScSection> sections_;  // by full name (NUL bytes included)
};

// Parses text already in memory.
ScFile parse_sc_text(std::string_view text);

// Reads and parses the file. Fails with 0x0900 when it is missing, not a regular file (a
// directory, or a device or pipe that could block or never end) or cannot be read.
Result<ScFile> read_sc_file(const char *path);

}  // namespace kova::conf
