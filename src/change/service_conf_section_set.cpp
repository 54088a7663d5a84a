// Writing a whole service section of a .sc file from a section record.
#include <kovaserviceconf.h>

#include <unistd.h>

#include <cerrno>
#include <string>

#include "change/change_internal.h"
#include "foundation/guard.h"
#include "foundation/log.h"
#include "foundation/raii.h"
#include "foundation/root_path.h"

namespace {

using kova::change::field;

std::string quoted(const std::string &text) {
    return "\"" + text + "\"";
}

// The localisation key of a display string, or the empty text when it has none.
std::string string_key(const KOVA_SERVICE_STRING &str) {
    const std::string section = field(str.section);
    const std::string key = field(str.key);
    if (section.empty() || key.empty()) return {};
    const std::string prefix = field(str.prefix);
    return prefix.empty() ? section + ":" + key : prefix + ":" + section + ":" + key;
}

// A file that the call creates is removed again unless the call succeeds.
class CreatedFile {
public:
    CreatedFile() = default;
    CreatedFile(const CreatedFile &) = delete;
    CreatedFile &operator=(const CreatedFile &) = delete;
    ~CreatedFile() {
        if (!path_.empty() && !kept_) ::unlink(path_.c_str());
    }
    void created(std::string path) { path_ = std::move(path); }
    void keep() { kept_ = true; }

private:
    std::string path_;
    bool kept_ = false;
};

// Fills the hash with the keys of the section record, in their fixed order.
bool fill_section_keys(kova::change::SzHashHandle &hash, const KOVA_SERVICE_CONF_SECTION &section,
                       const std::string &dst_value, const std::string &src_value) {
    auto set = [&](const char *key, const std::string &value) {
        return KVLIBCSzHashSetValue(hash.addr(), key, quoted(value).c_str()) >= 0;
    };
    if (!set("port_forward", section.portForward == 1 ? "yes" : "no")) {
        KOVA_LOG("Failed ot set port_forward into Hash");
        return false;
    }
    if (!set("desc", field(section.desc.text))) {
        KOVA_LOG("Failed ot set desc into Hash");
        return false;
    }
    if (const std::string key = string_key(section.desc); !key.empty() && !set("desc_key", key)) {
        KOVA_LOG("Failed ot set desc_key into Hash");
        return false;
    }
    if (!set("title", field(section.title.text))) {
        KOVA_LOG("Failed ot set title into Hash");
        return false;
    }
    if (const std::string key = string_key(section.title); !key.empty() && !set("title_key", key)) {
        KOVA_LOG("Failed ot set title_key into Hash");
        return false;
    }
    if (!set("dst.ports", dst_value)) {
        KOVA_LOG("Failed ot set dst.ports into Hash");
        return false;
    }
    if (section.srcPort != nullptr && !set("src.ports", src_value)) {
        KOVA_LOG("Failed ot set src.ports into Hash");
        return false;
    }
    return true;
}

int section_set(const KVLIB_SERVICE_CONF_REQUEST *pRequest, const KOVA_SERVICE_CONF_SECTION *pSection) {
    if (pRequest == nullptr || pSection == nullptr || !kova::change::edit_request_ok(*pRequest)) {
        KOVA_SET_ERR(KOVA_ERR_BAD_PARAMETER);
        return -1;
    }
    const std::string name = field(pSection->name);
    if (name.empty() || kova::change::has_line_break(name) || pSection->dstPort == nullptr ||
        field(pSection->desc.text).empty() || field(pSection->title.text).empty()) {
        KOVA_SET_ERR(KOVA_ERR_BAD_PARAMETER);
        return -1;
    }
    const KVLIB_SERVICE_CONF_REQUEST &request = *pRequest;

    kova::change::PortValue dst;
    if (!kova::change::render_port_value(pSection->dstPort, dst)) {
        KOVA_LOG("Port to Str fail!" KOVA_ERRFMT, KOVA_ERRARGS);
        return -1;
    }
    kova::change::PortValue src;
    if (pSection->srcPort != nullptr && !kova::change::render_port_value(pSection->srcPort, src)) return -1;

    {
        KOVA_SERVICE_CONF_PORT *conflict_head = nullptr;
        const int conflict = KVLIBIsPortConflict(request.sectionName, dst.ports.c_str(), dst.protocols.c_str(),
                                                 static_cast<int>(request.scope), &conflict_head);
        const kova::PortsPtr conflicts(conflict_head);
        if (conflict < 0) return -1;
        if (conflict > 0) {
            KOVA_LOG("Port conflict with existing ports! (port: %s)" KOVA_ERRFMT, dst.value.c_str(), KOVA_ERRARGS);
            return -1;
        }
    }

    if ((request.scope & 0x04) != 0) {
        kova::change::SzHashHandle hash(KVLIBCSzHashAlloc(1024));
        if (!hash) {
            KOVA_LOG("Failed to alloc memory");
            return -1;
        }
        const std::string dir = kova::change::request_services_dir(request.location);
        const std::string path = dir + "/" + request.fileName;

        CreatedFile created;
        if (KVLIBCFileExist(path.c_str()) == 0) {
            if (KVLIBCExec("/bin/mkdir", "-p", dir.c_str(), nullptr, nullptr) != 0) {
                KOVA_LOG("/bin/mkdir -p %s failed.(errno:%d/%m)", dir.c_str(), errno);
                return -1;
            }
            if (KVLIBCFileTouch(path.c_str()) < 0) {
                KOVA_LOG("Failed to touch %s", path.c_str());
                return -1;
            }
            created.created(path);
        }

        const int found = KVLIBCFileGetSection(path.c_str(), request.sectionName, hash.addr());
        if (found < 0) {
            KOVA_LOG("failed to get section(%s) from %s", request.sectionName, path.c_str());
            return -1;
        }
        if (!fill_section_keys(hash, *pSection, dst.value, src.value)) return -1;

        // The file as it was, for the router tool; never written through a planted link.
        const std::string router_copy = kova::resolve(std::string("/tmp/") + request.fileName);
        const kova::change::TempFileGuard copy_guard(router_copy);
        if (kova::change::claim_temp_file(router_copy) != 0 ||
            KVLIBCExec("/bin/cp", "-f", path.c_str(), router_copy.c_str(), nullptr) != 0) {
            KOVA_LOG("FAILED to copy from file=%s to backup path=%s", path.c_str(), router_copy.c_str());
            return -1;
        }

        if (request.action == 1) {
            // The platform refuses values with line breaks; such a write fails and the file stays.
            const int written = found > 0 ? KVLIBCFileSetSection(path.c_str(), name.c_str(), nullptr, hash.get(), 0)
                                          : KVLIBCFileAddSection(path.c_str(), name.c_str(), hash.get(), 0);
            if (written < 0) {
                KOVA_LOG("Failed to write section(%s) into %s" KOVA_ERRFMT, name.c_str(), path.c_str(), KOVA_ERRARGS);
                return -1;
            }
        }
        created.keep();

        if ((request.scope & 0x02) != 0) {
            const std::string tool = kova::resolve(kova::paths::kRouterTool);
            if (KVLIBCExec(tool.c_str(), "--update", router_copy.c_str(), path.c_str(), nullptr) != 0)
                KOVA_LOG("%s --udpate %s %s failed!" KOVA_ERRFMT, tool.c_str(), router_copy.c_str(), path.c_str(),
                         KOVA_ERRARGS);
        }
    }

    if (request.mode == 2 && KVLIBServiceConfServRestart(request.restartMask) < 0)
        KOVA_LOG("Restart service fail" KOVA_ERRFMT, KOVA_ERRARGS);
    return 0;
}

}  // namespace

extern "C" int KVLIBServiceConfSectionSet(const KVLIB_SERVICE_CONF_REQUEST *pRequest,
                                          const KOVA_SERVICE_CONF_SECTION *pSection) {
    return KOVA_GUARDED(-1, [&] { return section_set(pRequest, pSection); });
}
