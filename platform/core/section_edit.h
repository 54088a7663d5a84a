// Edits of a sectioned file's text that keep every line they do not concern byte for byte.
#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace kova::platform::ini {

using Entries = std::vector<std::pair<std::string, std::string>>;

// Whether a section name, key or value can be written as one line that reads back the same.
bool valid_section_name(std::string_view name);
bool valid_key(std::string_view key);
bool valid_value(std::string_view value);

// The first section named `name` gets exactly `entries` as its keys: existing key lines are
// rewritten in place, keys not in `entries` dropped, new keys added after the section's last
// key; comments and other lines stay. `rename` (when not empty) becomes the section's name.
// A missing section is appended. Returns the new text.
std::string set_section(std::string_view text, std::string_view name, std::string_view rename, const Entries &entries);

// Sets one key of the first section named `name` (appending the key or the section as needed).
std::string set_value(std::string_view text, std::string_view name, std::string_view key, std::string_view value);

// Removes every section named `name`: its header and its lines up to its last key or other
// line; blank and comment lines that end it (which usually introduce the next section) stay.
// `found` tells whether there was one.
std::string remove_section(std::string_view text, std::string_view name, bool &found);

}  // namespace kova::platform::ini
