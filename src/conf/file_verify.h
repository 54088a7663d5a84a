// The check before an install: the source file exists and no file of its base name is installed.
#pragma once

#include "foundation/result.h"

namespace kova::conf {

// A failure 0x0700 when the source does not exist, 0xC000 when the target directory holds a
// file of the source's base name, 0x0200 when memory runs out. Never sets the error state.
Result<void> file_verify(const char *szSourcePath, const char *szTargetDir) noexcept;

}  // namespace kova::conf
