#include "firewall/settings_reads.h"

#include <kovaserviceconf.h>

#include <algorithm>
#include <new>

namespace kova::fw {

namespace {

thread_local const SettingsScope *t_scope = nullptr;

}  // namespace

// A scope opened inside another one (a catalogue built by a conflict check) reads through it.
SettingsScope::SettingsScope() noexcept : outer_(t_scope) {
    if (outer_ == nullptr) t_scope = this;
}

SettingsScope::~SettingsScope() {
    if (outer_ == nullptr) t_scope = nullptr;
}

// A file that cannot be read here (missing, not a regular file, out of memory) is left to the
// platform, whose reads then fail or succeed with their own results and error state: null.
const conf::KeyValueFile *SettingsScope::file(const std::string &path) const noexcept {
    try {
        for (const File &f : files_)
            if (f.path == path) return f.text ? &*f.text : nullptr;
        File &added = files_.emplace_back(File{path, std::nullopt});
        if (Result<conf::KeyValueFile> read = conf::read_key_value_file(path.c_str()); read)
            added.text = std::move(*read);
        return added.text ? &*added.text : nullptr;
    } catch (const std::bad_alloc &) {
        return nullptr;
    }
}

const conf::KeyValueFile *settings_file(const std::string &path) {
    return t_scope != nullptr ? t_scope->file(path) : nullptr;
}

int read_setting(const std::string &path, const char *key, char *buf, int size) {
    const conf::KeyValueFile *file = settings_file(path);
    if (file == nullptr || key == nullptr || buf == nullptr || size <= 0)
        return KVLIBCFileGetKeyValue(path.c_str(), key, buf, size, 0);
    const std::string_view *value = file->value(key);
    const std::string_view copied =
        value == nullptr
            ? std::string_view()
            : value->substr(0, std::min({value->find('\0'), value->size(), static_cast<size_t>(size) - 1}));
    copied.copy(buf, copied.size());  // an absent key copies nothing (and has no data to copy from)
    buf[copied.size()] = '\0';
    return static_cast<int>(copied.size());
}

}  // namespace kova::fw
