// Port texts of the firewall catalogue ("445", "55900-55910") are built as values and become a
// platform string list only when they are handed out.
#pragma once

#include <kovaserviceconf.h>

#include <string>
#include <vector>

#include "foundation/raii.h"

namespace kova::fw {

using Texts = std::vector<std::string>;

// A new string list holding the texts, or null when it cannot be made whole (no list is then
// left behind).
inline KVLIB_SZLIST *to_list(const Texts &texts) {
    SzListPtr list(KVLIBCSzListAlloc(128));
    if (!list) return nullptr;
    for (const std::string &text : texts) {
        // The platform may move the list when it grows: take back whatever handle it leaves.
        KVLIB_SZLIST *raw = list.release();
        const int ret = KVLIBCSzListPush(&raw, text.c_str());
        list.reset(raw);
        if (ret < 0) return nullptr;
    }
    return list.release();
}

}  // namespace kova::fw
