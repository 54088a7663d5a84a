// Writing a whole service section of a .sc file from a section record.
#include <kovaserviceconf.h>

#include <cerrno>
#include <string>

#include "change/change_internal.h"
#include "conf/sc_reader.h"
#include "foundation/guard.h"
#include "foundation/log.h"

namespace {

using kova::change::field;

// This module's log lines, for the shared steps.
constexpr auto module_log = [](const char *fmt, auto... args) { KOVA_LOG(fmt, args...); };

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
        if (!path_.empty() && !kept_) kova::sys().unlink(path_.c_str());
    }
    void created(std::string path) { path_ = std::move(path); }
    void keep() { kept_ = true; }

private:
    std::string path_;
    bool kept_ = false;
};

// Reads the keys that the section named `name` has now into the hash, in the order they first
// appear, each with its last value: the number of distinct keys (0: no such section).
kova::Result<int> read_old_keys(const std::string &path, const char *name, kova::change::SzHashHandle &hash) {
    const kova::Result<kova::conf::ScFile> file = kova::conf::read_sc_file(path.c_str());
    if (!file) return file.failure();
    const kova::conf::ScSection *section = file->find(name);
    if (section == nullptr) return 0;
    for (const auto &[key, value] : section->entries())
        if (KVLIBCSzHashSetValue(hash.addr(), key.c_str(), value.c_str()) < 0) return KOVA_FAILURE_KEEP;
    return section->key_count();
}

// Fills the hash with the keys of the section record, in their fixed order.
bool fill_section_keys(kova::change::SzHashHandle &hash, const KOVA_SERVICE_CONF_SECTION &section,
                       const std::string &dst_value, const std::string &src_value) {
    const std::string desc_key = string_key(section.desc);
    const std::string title_key = string_key(section.title);
    const struct {
        const char *key;
        std::string value;
        bool wanted;
    } entries[] = {
        {"port_forward", section.portForward == 1 ? "yes" : "no", true},
        {"desc", field(section.desc.text), true},
        {"desc_key", desc_key, !desc_key.empty()},
        {"title", field(section.title.text), true},
        {"title_key", title_key, !title_key.empty()},
        {"dst.ports", dst_value, true},
        {"src.ports", src_value, section.srcPort != nullptr},
    };
    for (const auto &entry : entries) {
        if (entry.wanted && KVLIBCSzHashSetValue(hash.addr(), entry.key, quoted(entry.value).c_str()) < 0) {
            KOVA_LOG("Failed ot set %s into Hash", entry.key);
            return false;
        }
    }
    return true;
}

// The edit. The platform, the rendering and the conflict check record their own failures.
kova::Result<kova::change::Done> section_set(const KVLIB_SERVICE_CONF_REQUEST *pRequest,
                                             const KOVA_SERVICE_CONF_SECTION *pSection) {
    if (pRequest == nullptr || pSection == nullptr || !kova::change::edit_request_ok(*pRequest)) {
        return KOVA_FAILURE(KOVA_ERR_BAD_PARAMETER);
    }
    const std::string name = field(pSection->name);
    if (name.empty() || kova::change::has_line_break(name) || pSection->dstPort == nullptr ||
        !kova::change::ports_in_range(pSection->dstPort) || !kova::change::ports_in_range(pSection->srcPort) ||
        field(pSection->desc.text).empty() || field(pSection->title.text).empty()) {
        return KOVA_FAILURE(KOVA_ERR_BAD_PARAMETER);
    }
    const KVLIB_SERVICE_CONF_REQUEST &request = *pRequest;

    kova::change::PortValue dst;
    if (!kova::change::render_port_value(pSection->dstPort, dst)) {
        KOVA_LOG("Port to Str fail!" KOVA_ERRFMT, KOVA_ERRARGS);
        return KOVA_FAILURE_KEEP;
    }
    kova::change::PortValue src;
    if (pSection->srcPort != nullptr && !kova::change::render_port_value(pSection->srcPort, src))
        return KOVA_FAILURE_KEEP;

    if (!kova::change::ports_free(request, dst, module_log)) return KOVA_FAILURE_KEEP;

    if ((request.scope & 0x04) != 0) {
        kova::change::SzHashHandle hash(KVLIBCSzHashAlloc(1024));
        if (!hash) {
            KOVA_LOG("Failed to alloc memory");
            return KOVA_FAILURE_KEEP;
        }
        const std::string dir = kova::change::request_services_dir(request.location);
        const std::string path = dir + "/" + request.fileName;

        CreatedFile created;
        if (KVLIBCFileExist(path.c_str()) == 0) {
            if (kova::sys().run("/bin/mkdir", "-p", dir.c_str(), nullptr, nullptr) != 0) {
                KOVA_LOG("/bin/mkdir -p %s failed.(errno:%d/%m)", dir.c_str(), errno);
                return KOVA_FAILURE_KEEP;
            }
            if (KVLIBCFileTouch(path.c_str()) < 0) {
                KOVA_LOG("Failed to touch %s", path.c_str());
                return KOVA_FAILURE_KEEP;
            }
            created.created(path);
        }

        const kova::Result<int> found = read_old_keys(path, request.sectionName, hash);
        if (!found) {
            KOVA_LOG("failed to get section(%s) from %s", request.sectionName, path.c_str());
            return found.failure();
        }
        if (!fill_section_keys(hash, *pSection, dst.value, src.value)) return KOVA_FAILURE_KEEP;

        kova::change::RouterCopy router_copy;
        if (!router_copy.take(path, request.fileName, module_log)) return KOVA_FAILURE_KEEP;

        if (request.action == 1) {
            // The platform refuses values with line breaks; such a write fails and the file stays.
            const int written = *found > 0 ? KVLIBCFileSetSection(path.c_str(), name.c_str(), nullptr, hash.get(), 0)
                                           : KVLIBCFileAddSection(path.c_str(), name.c_str(), hash.get(), 0);
            if (written < 0) {
                KOVA_LOG("Failed to write section(%s) into %s" KOVA_ERRFMT, name.c_str(), path.c_str(), KOVA_ERRARGS);
                return KOVA_FAILURE_KEEP;
            }
        }
        created.keep();

        router_copy.update_router(request, path, module_log);
    }

    return kova::change::Done{kova::change::restart_if_asked(request, module_log)};
}

}  // namespace

extern "C" int KVLIBServiceConfSectionSet(const KVLIB_SERVICE_CONF_REQUEST *pRequest,
                                          const KOVA_SERVICE_CONF_SECTION *pSection) {
    return KOVA_GUARDED(-1, [&] { return kova::change::to_c(section_set(pRequest, pSection)); });
}
