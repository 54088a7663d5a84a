// Location of the port-forwarding rule file.
#include <kovaportforward.h>

#include <string>

#include "kova_root.h"

// The text belongs to the calling thread and stays valid until its next call.
extern "C" const char *KOVAPFRuleConfPathGet(void) {
    thread_local std::string path;
    try {
        path = kova::resolve(kova::paths::kPortForwardRules);
    } catch (...) {
        path.clear();
    }
    return path.c_str();
}
