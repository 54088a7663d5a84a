// Replacing a port list of a service section without a conflict check, then reloading the
// firewall.
#include <kovaserviceconf.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "change/change_internal.h"
#include "conf/file_verify.h"
#include "foundation/guard.h"
#include "foundation/log.h"
#include "foundation/raii.h"
#include "kova_root.h"

namespace {

constexpr size_t kPortTextSize = 512;

// A heap text grown with KVLIBCStrCat, released with free().
class CatText {
public:
    CatText() = default;
    CatText(const CatText &) = delete;
    CatText &operator=(const CatText &) = delete;
    ~CatText() { std::free(text_); }
    bool append(const char *piece) { return KVLIBCStrCat(&text_, &capacity_, piece) >= 0; }
    const char *c_str() const { return text_ != nullptr ? text_ : ""; }

private:
    char *text_ = nullptr;
    int capacity_ = 0;
};

// "21:22,80/tcp,udp": the entries in list order, then the protocols of the first entry.
bool port_text(const KOVA_SERVICE_CONF_PORT *pPorts, CatText &text) {
    bool first = true;
    for (const KOVA_SERVICE_CONF_PORT *p = pPorts; p != nullptr; p = p->next) {
        char piece[64];
        if (p->type == 1) {
            std::snprintf(piece, sizeof piece, "%s%d:%d", first ? "" : ",", static_cast<int>(p->beginPort),
                          static_cast<int>(p->endPort));
        } else {
            std::snprintf(piece, sizeof piece, "%s%d", first ? "" : ",", static_cast<int>(p->beginPort));
        }
        if (!text.append(piece)) return false;
        first = false;
    }
    bool first_protocol = true;
    for (const KOVA_PROTO_TYPE_MAPPING &mapping : gProtoTypeMapping) {
        if ((pPorts->protocol & static_cast<uint32_t>(mapping.type)) == 0) continue;
        if (!text.append(first_protocol ? "/" : ",") || !text.append(mapping.szName)) return false;
        first_protocol = false;
    }
    return true;
}

// The file a section port edit writes, once its arguments are tested and it is found; `left`
// is the error state the finding leaves (0xC000 for a file that lies in the directory).
struct Target {
    std::string path;
    kova::Failure left;
};

kova::Result<Target> find_target(unsigned int location, const char *szFileName, const char *szSectionName,
                                 const KOVA_SERVICE_CONF_PORT *pPorts) {
    if (szSectionName == nullptr || pPorts == nullptr || !kova::change::ports_in_range(pPorts) ||
        !kova::change::is_plain_file_name(szFileName) || *szSectionName == '\0' ||
        kova::change::has_line_break(szSectionName)) {
        return KOVA_FAILURE(KOVA_ERR_BAD_PARAMETER);
    }
    const std::string dir = kova::resolve(location == KOVA_CONF_LOCATION_SYSTEM ? kova::paths::kSystemServicesDir
                                                                                : kova::paths::kPackageServicesDir);
    Target target{dir + "/" + szFileName, {}};
    // The file lies in the directory, so an existing file is reported as installed already.
    if (const kova::Result<void> verified = kova::conf::file_verify(target.path.c_str(), dir.c_str()); !verified) {
        const kova::Failure &f = verified.failure();
        if (f.code != KOVA_ERR_ALREADY_INSTALLED) {
            KOVA_LOG("Service conf does not exist, kovaerr=" KOVA_ERRFMT, KOVA_FAILURE_ARGS(f));
            return f;
        }
        target.left = f;
    }
    return target;
}

// Writes the port list into the section and reloads the firewall.
kova::Result<void> write_ports(const Target &target, const char *szSectionName, const KOVA_SERVICE_CONF_PORT *pPorts) {
    CatText text;
    if (!port_text(pPorts, text)) return KOVA_FAILURE_KEEP;
    if (std::strlen(text.c_str()) >= kPortTextSize) return KOVA_FAILURE_KEEP;

    const char *key = pPorts->direction != 0 ? "dst.ports" : "src.ports";
    if (KVLIBCFileSetSectionValue(target.path.c_str(), szSectionName, key, text.c_str()) < 0) return KOVA_FAILURE_KEEP;
    return kova::change::firewall_reload();
}

}  // namespace

extern "C" int KOVAServiceConfSectionPortSet(unsigned int location, const char *szFileName, const char *szSectionName,
                                             const KOVA_SERVICE_CONF_PORT *pPorts) {
    return KOVA_GUARDED(-1, [&] {
        const kova::Result<Target> target = find_target(location, szFileName, szSectionName, pPorts);
        if (!target) {
            kova::set_error(target.failure());
            return -1;
        }
        // An installed file is noted before the write, whose own failures may replace it.
        kova::set_error(target->left);
        return kova::change::to_c(write_ports(*target, szSectionName, pPorts));
    });
}
