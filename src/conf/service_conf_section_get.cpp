// Reading one service section of a .sc file into a KOVA_SERVICE_CONF_SECTION, splitting
// display-string keys ("prefix:section:key") and freeing section lists.
#include <kovaserviceconf.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <string_view>

#include "conf/conf_internal.h"
#include "foundation/guard.h"
#include "foundation/log.h"
#include "foundation/raii.h"

namespace {

// A byte that no notion of white space counts as space.
bool word_byte(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' || c == '-' ||
           c == '.';
}

// A piece of a string key that trimming leaves as it is: empty, or starting and ending with a
// word byte (nearly every piece).
bool plain_piece(std::string_view piece) {
    return piece.empty() || (word_byte(piece.front()) && word_byte(piece.back()));
}

int service_string_get(const char *szStringKey, KOVA_SERVICE_STRING *pString) {
    const char *first = std::strchr(szStringKey, ':');
    if (first == nullptr) {
        kova::copy_field(pString->text, szStringKey);
        return 0;
    }
    // The pieces between the colons: prefix, section and key, or section and key when there is
    // only one colon (the prefix is then the empty text).
    const std::string_view whole(szStringKey);
    const size_t one = static_cast<size_t>(first - szStringKey);
    const size_t two = whole.find(':', one + 1);
    const bool one_colon = two == std::string_view::npos;
    const std::string_view pieces[3] = {
        one_colon ? std::string_view() : whole.substr(0, one),
        one_colon ? whole.substr(0, one) : whole.substr(one + 1, two - one - 1),
        whole.substr((one_colon ? one : two) + 1),
    };
    if (plain_piece(pieces[0]) && plain_piece(pieces[1]) && plain_piece(pieces[2])) {
        kova::copy_field(pString->prefix, pieces[0]);
        kova::copy_field(pString->section, pieces[1]);
        kova::copy_field(pString->key, pieces[2]);
        return 0;
    }
    // Otherwise each piece is trimmed with the platform's notion of white space, in a copy of the
    // text cut at the colons.
    char small[512];
    std::unique_ptr<char[]> large;
    char *text =
        whole.size() < sizeof small ? small : (large = std::make_unique_for_overwrite<char[]>(whole.size() + 1)).get();
    std::memcpy(text, szStringKey, whole.size() + 1);
    char empty[1] = "";
    char *cut[3] = {empty, nullptr, nullptr};
    for (size_t i = one_colon ? 1 : 0; i < 3; ++i) {
        cut[i] = text + (pieces[i].data() - szStringKey);
        cut[i][pieces[i].size()] = '\0';
    }
    for (char *piece : cut)
        if (KVLIBCStrTrimSpace(piece, 0) < 0) return -1;
    kova::copy_field(pString->prefix, cut[0]);
    kova::copy_field(pString->section, cut[1]);
    kova::copy_field(pString->key, cut[2]);
    return 0;
}

// "yes" in any letter case and with surrounding white space; the value is looked at through
// a 32-byte lower-cased copy.
int port_forward_flag(const char *value) {
    if (value == nullptr) return 0;
    // Lower-case letters alone (nearly every value) are what the platform's lowering and
    // trimming leave as they are.
    size_t letters = 0;
    while (letters < 31 && value[letters] >= 'a' && value[letters] <= 'z') ++letters;
    if (value[letters] == '\0') return std::strcmp(value, "yes") == 0 ? 1 : 0;
    char lowered[32];
    std::string head(value, strnlen(value, sizeof lowered - 1));
    if (KVLIBCStrCaseLower(head.data(), 0, lowered, sizeof lowered) == nullptr) return 0;
    if (KVLIBCStrTrimSpace(lowered, 0) < 0) return 0;
    return std::strcmp(lowered, "yes") == 0 ? 1 : 0;
}

void log_port_error(const char *path, const char *name, const char *target) {
    KOVA_LOG("Service get port error, filepath: %s, section name: %s, target: %s, kovaerr=" KOVA_ERRFMT, path, name,
             target, KOVA_ERRARGS);
}

}  // namespace

namespace kova::conf {

bool check_section(const char *path, const char *name, int records, const ScSection *keys, SectionFields &out) {
    if (records < 1) {
        KOVA_LOG("Failed to KVLIBCFileGetSection, file: %s, section name: %s, nHashRecords: %d, kovaerr=" KOVA_ERRFMT,
                 path, name, records, KOVA_ERRARGS);
        return false;
    }
    enum { kTitleKey, kTitle, kDescKey, kDescExtra, kDesc, kPortForward, kSrc, kDst, kKeys };
    static constexpr std::string_view kNames[kKeys] = {"title_key", "title",        "desc_key",  "desc_extra",
                                                       "desc",      "port_forward", "src.ports", "dst.ports"};
    const char *value[kKeys] = {};
    if (keys != nullptr) keys->values(kNames, value);

    if (const char *titleKey = value[kTitleKey]; titleKey != nullptr && *titleKey != '\0')
        service_string_get(titleKey, out.title);
    const char *title = value[kTitle];
    if (title == nullptr) {
        KOVA_LOG("Get key \"title\" fail! (file: %s, section name: %s), kovaerr=" KOVA_ERRFMT, path, name,
                 KOVA_ERRARGS);
        return false;
    }
    copy_field(out.title->text, title);

    if (const char *descKey = value[kDescKey]; descKey != nullptr && *descKey != '\0')
        service_string_get(descKey, out.desc);
    if (const char *extra = value[kDescExtra]; extra != nullptr) copy_field(out.desc->extraText, extra);
    const char *desc = value[kDesc];
    if (desc == nullptr) {
        KOVA_LOG("Get key \"desc\" fail! (file: %s, section name: %s), kovaerr=" KOVA_ERRFMT, path, name, KOVA_ERRARGS);
        return false;
    }
    copy_field(out.desc->text, desc);

    out.portForward = port_forward_flag(value[kPortForward]);

    const char *src = value[kSrc];
    out.has_src = src != nullptr;
    if (src != nullptr) {
        if (Result<void> parsed = ports::parse_port_list(src, out.src); !parsed) {
            set_error(parsed.failure());
            log_port_error(path, name, "srcPort");
            return false;
        }
    }
    const char *dst = value[kDst];
    Result<void> parsed = dst != nullptr ? ports::parse_port_list(dst, out.dst) : Result<void>(KOVA_FAILURE_KEEP);
    if (!parsed) {
        set_error(parsed.failure());
        log_port_error(path, name, "dstPort");
        return false;
    }
    return true;
}

SectionPtr section_from(const char *path, const char *name, int records, const ScSection *keys, SectionFields &fields) {
    SectionPtr section(calloc_record<KOVA_SERVICE_CONF_SECTION>());
    if (!section) {
        KOVA_SET_ERR(KOVA_ERR_OUT_OF_MEMORY);
        KOVA_LOG("Failed to allocate for service, kovaerr=" KOVA_ERRFMT, KOVA_ERRARGS);
        return nullptr;
    }
    fields.title = &section->title;
    fields.desc = &section->desc;
    if (!check_section(path, name, records, keys, fields)) return nullptr;
    copy_field(section->name, name);
    section->portForward = fields.portForward;
    // Out of memory for the entries fails the section as a bad list would.
    if (fields.has_src && (section->srcPort = port_entries(fields.src, 0).release()) == nullptr) {
        log_port_error(path, name, "srcPort");
        return nullptr;
    }
    if ((section->dstPort = port_entries(fields.dst, 1).release()) == nullptr) {
        log_port_error(path, name, "dstPort");
        return nullptr;
    }
    return section;
}

SectionPtr read_section(const char *path, const char *name) {
    SectionFields fields;
    Result<ScFile> file = read_sc_file(path);
    if (!file) {
        set_error(file.failure());
        return section_from(path, name, -1, nullptr, fields);
    }
    const ScSection *keys = file->find(name);
    return section_from(path, name, keys != nullptr ? keys->key_count() : 0, keys, fields);
}

}  // namespace kova::conf

extern "C" {

int KOVAServiceConfSectionGet(const char *szPath, const char *szSection, KOVA_SERVICE_CONF_SECTION **ppSectionList) {
    if (szSection == nullptr || ppSectionList == nullptr || szPath == nullptr) {
        KOVA_SET_ERR(KOVA_ERR_BAD_PARAMETER);
        return -1;
    }
    return KOVA_GUARDED(-1, [&] {
        kova::SectionPtr section = kova::conf::read_section(szPath, szSection);
        if (!section) return -1;
        section->next = *ppSectionList;
        *ppSectionList = section.release();
        return 0;
    });
}

int KOVAServiceConfServiceStringGet(const char *szStringKey, KOVA_SERVICE_STRING *pString) {
    if (szStringKey == nullptr || *szStringKey == '\0' || pString == nullptr) return -1;
    return KOVA_GUARDED(-1, [&] { return service_string_get(szStringKey, pString); });
}

void KOVAServiceConfSectionFree(KOVA_SERVICE_CONF_SECTION *pSectionList) {
    while (pSectionList != nullptr) {
        KOVA_SERVICE_CONF_SECTION *next = pSectionList->next;
        KOVAServiceConfPortsFree(pSectionList->srcPort);
        KOVAServiceConfPortsFree(pSectionList->dstPort);
        std::free(pSectionList);
        pSectionList = next;
    }
}

}  // extern "C"
