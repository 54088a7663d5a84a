// The key-value reads of the port getters and of the reserved ports. While a catalogue is being
// built or a conflict check runs on a thread, each settings file they read is read once for all
// of them; a getter called on its own reads the file for every key, through the platform.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "conf/sc_reader.h"

namespace kova::fw {

// The settings files read so far by one catalogue build or conflict check, for as long as it
// lasts: nothing is kept from one call to the next. A scope opened inside another one adds
// nothing: the outer one answers.
class SettingsScope {
public:
    SettingsScope() noexcept;
    ~SettingsScope();
    SettingsScope(const SettingsScope &) = delete;
    SettingsScope &operator=(const SettingsScope &) = delete;

private:
    friend const conf::KeyValueFile *settings_file(const std::string &path);
    struct File {
        std::string path;
        std::optional<conf::KeyValueFile> text;  // none: the platform reads it (it could not be read here)
    };
    const conf::KeyValueFile *file(const std::string &path) const noexcept;

    mutable std::vector<File> files_;  // a scope held const still keeps what it reads
    const SettingsScope *outer_;
};

// The settings file as the scope of this thread read it; null outside a scope, or when it could
// not be read there (missing, not a regular file, out of memory): the platform is asked then.
const conf::KeyValueFile *settings_file(const std::string &path);

// KVLIBCFileGetKeyValue(path, key, buf, size, 0): the value's length (cut to size - 1 bytes and
// at a NUL byte, terminated), 0 when the key is absent, -1 when the file cannot be read. Inside a
// scope a file that could be read is answered from its one read, with the platform's results.
int read_setting(const std::string &path, const char *key, char *buf, int size);

}  // namespace kova::fw
