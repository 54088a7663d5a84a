// Whole-file reads for the sectioned and key-value file layers.
#pragma once

#include <string>

namespace kova::platform {

// Reads a whole file (any size, any bytes; also files that report no size, such as /proc).
// False with errno set when it cannot be opened or read.
bool read_file(const char *path, std::string &out);

}  // namespace kova::platform
