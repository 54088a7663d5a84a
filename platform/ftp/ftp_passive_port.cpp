// Default passive port range of the FTP service. This library stands alone (it does not link
// the core library), so it reports a bad argument by its result only.
#include <kovaftp.h>

namespace {
constexpr int32_t kPassiveLow = 55536;
constexpr int32_t kPassiveHigh = 55899;
}  // namespace

extern "C" int KOVAFTPDefaultPassivePortGet(KOVA_FTP_PASSIVE_PORT *pRange) {
    if (pRange == nullptr) return -1;
    pRange->lowPort = kPassiveLow;
    pRange->highPort = kPassiveHigh;
    return 0;
}
