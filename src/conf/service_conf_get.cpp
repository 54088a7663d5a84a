// Reading a whole .sc file into a KOVA_SERVICE_CONF: its [global] settings and every service
// section that parses; freeing lists of such records.
#include <kovaserviceconf.h>

#include <cstdlib>
#include <cstring>
#include <vector>

#include "conf/conf_internal.h"
#include "foundation/guard.h"
#include "foundation/log.h"
#include "foundation/raii.h"

namespace {

using kova::conf::ScSection;

bool valid_section_name(const char *name) {
    for (; *name != '\0'; ++name) {
        const char c = *name;
        const bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' ||
                        c == '.' || c == '_';
        if (!ok) return false;
    }
    return true;
}

void log_bad_section_name(const char *path, const char *name) {
    KOVA_LOG(
        "Section name format error (File: %s, Section Name: [%s])! It can not be empty, and just can composed of a~z, "
        "0~9, `-`, '_', kovaerr=" KOVA_ERRFMT,
        path, name, KOVA_ERRARGS);
}

void read_global(const char *path, const ScSection *global, KOVA_SERVICE_CONF &conf) {
    if (global == nullptr || global->key_count() < 1) {
        KOVA_LOG(
            "Failed to KVLIBCFileGetSection, file: %s, section name: global, nHashRecords: %d, kovaerr=" KOVA_ERRFMT,
            path, 0, KOVA_ERRARGS);
        return;
    }
    const char *version = global->value("version");
    conf.version = version != nullptr ? static_cast<int32_t>(std::strtol(version, nullptr, 10)) : 1;
    if (const char *support = global->value("support_key"); support != nullptr)
        kova::copy_field(conf.supportKey, support);
    if (const char *run = global->value("run_key"); run != nullptr) kova::copy_field(conf.runKey, run);
}

}  // namespace

namespace kova::conf {

bool walk_conf(const FileRef &where, ScFile &file, KOVA_SERVICE_CONF &global, SectionVisitor &visitor) {
    const Result<void> read = read_sc_file(where, file);
    if (!read) set_error(read.failure());
    const std::vector<ScSection> &sections = file.sections();
    const int count = read ? static_cast<int>(sections.size()) : -1;
    if (count < 1) {
        KOVA_LOG("Failed to KVLIBCFileEnumSection %s(ret: %d) or 0 section, kovaerr=" KOVA_ERRFMT, where.path, count,
                 KOVA_ERRARGS);
        return false;
    }
    if (count == 1 && std::strcmp(sections.front().name(), "global") == 0) {
        KOVA_LOG(
            "Configure file format error! (file: %s) Only [global] section, you should add at least one service "
            "section in the file. kovaerr=" KOVA_ERRFMT,
            where.path, KOVA_ERRARGS);
        return false;
    }

    int parsed = 0;
    for (const ScSection &section : sections) {
        const char *name = section.name();
        if (*name == '\0') {
            KOVA_SET_ERR(KOVA_ERR_BAD_PARAMETER);
            log_bad_section_name(where.path, name);
            continue;
        }
        if (!valid_section_name(name)) {
            log_bad_section_name(where.path, name);
            continue;
        }
        // A name cut at a NUL byte finds no section: the platform's read of it fails.
        const ScSection *keys = file.find(name);
        if (std::strcmp(name, "global") == 0) {
            read_global(where.path, keys, global);
            continue;
        }
        if (visitor.section(where.path, name, keys)) ++parsed;
    }
    if (parsed == 0) {
        KOVA_LOG("Get service section fail. (file: %s), kovaerr=" KOVA_ERRFMT, where.path, KOVA_ERRARGS);
        return false;
    }
    return true;
}

ConfPtr read_conf(const FileRef &where, ScFile &scratch) {
    ConfPtr conf(calloc_record<KOVA_SERVICE_CONF>());
    if (!conf) {
        KOVA_SET_ERR(KOVA_ERR_OUT_OF_MEMORY);
        KOVA_LOG("Failed to allocate for service, kovaerr=" KOVA_ERRFMT, KOVA_ERRARGS);
        return nullptr;
    }
    // Each section in front of the ones before.
    struct Sections final : SectionVisitor {
        KOVA_SERVICE_CONF &conf;
        SectionFields fields;  // the port lists' storage, kept from one section to the next
        explicit Sections(KOVA_SERVICE_CONF &c) : conf(c) {}
        bool section(const char *path, const char *name, const ScSection *keys) override {
            SectionPtr parsed = section_from(path, name, keys != nullptr ? keys->key_count() : 0, keys, fields);
            if (!parsed) return false;
            parsed->next = conf.sections;
            conf.sections = parsed.release();
            return true;
        }
    } sections(*conf);
    if (!walk_conf(where, scratch, *conf, sections)) return nullptr;
    return conf;
}

}  // namespace kova::conf

extern "C" {

int KOVAServiceConfGet(const char *szPath, KOVA_SERVICE_CONF **ppConfList) {
    if (szPath == nullptr || ppConfList == nullptr) {
        KOVA_SET_ERR(KOVA_ERR_BAD_PARAMETER);
        return -1;
    }
    return KOVA_GUARDED(-1, [&] {
        kova::conf::ScFile scratch;
        kova::ConfPtr conf = kova::conf::read_conf(kova::conf::FileRef{szPath}, scratch);
        if (!conf) return -1;
        conf->next = *ppConfList;
        *ppConfList = conf.release();
        return 0;
    });
}

void KOVAServiceConfFree(KOVA_SERVICE_CONF *pConfList) {
    while (pConfList != nullptr) {
        KOVA_SERVICE_CONF *next = pConfList->next;
        KOVAServiceConfSectionFree(pConfList->sections);
        std::free(pConfList);
        pConfList = next;
    }
}

}  // extern "C"
