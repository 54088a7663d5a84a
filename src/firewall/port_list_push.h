// Appending to a string list held by an owner: the platform may move the list when it grows,
// so the owner takes back whatever handle the push leaves.
#pragma once

#include <kovaserviceconf.h>

#include "foundation/raii.h"

namespace kova::fw {

inline int push(SzListPtr &list, const char *text) {
    KVLIB_SZLIST *raw = list.release();
    const int ret = KVLIBCSzListPush(&raw, text);
    list.reset(raw);
    return ret;
}

}  // namespace kova::fw
