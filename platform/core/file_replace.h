// Locked, atomic rewrite of a file: read-modify-write under an exclusive lock on the file, the
// new content written to a temporary file beside the file's directory (never in it), synced and
// renamed over it.
#pragma once

#include <functional>
#include <string>

namespace kova::platform {

// What an edit did with the current content.
enum class EditResult { kWrite, kUnchanged, kFailed };

// Runs `edit(current, replacement)` while holding the lock and installs the replacement when
// the edit asks for it. A missing file is created empty first when `create` is set, else the
// call fails with 0x0900. 0 on success, -1 on failure (error state set).
int rewrite_file(const char *path, bool create,
                 const std::function<EditResult(const std::string &, std::string &)> &edit);

}  // namespace kova::platform
