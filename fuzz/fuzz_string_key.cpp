// Display-string keys ("section:key", "prefix:section:key") through
// KOVAServiceConfServiceStringGet. The record is filled with garbage first: the fields a case
// writes must come out as the model says and terminated, every other byte must stay as it was.
#include <kovaserviceconf.h>

#include <cstdint>
#include <cstring>
#include <string>

#include "fuzz_support.h"

namespace {

using namespace kova::fuzz;

constexpr unsigned char kGarbage = 0xA5;

enum Field { kPrefix, kSection, kKey, kText, kExtra, kFieldCount };

struct Expected {
    int result = 0;
    bool written[kFieldCount] = {};
    std::string value[kFieldCount];
};

Expected model(const std::string &text) {
    Expected e;
    if (text.empty()) {
        e.result = -1;
        return e;
    }
    const size_t first = text.find(':');
    if (first == std::string::npos) {
        e.written[kText] = true;
        e.value[kText] = cut(text, sizeof(KOVA_SERVICE_STRING::text));
        return e;
    }
    const size_t second = text.find(':', first + 1);
    std::string prefix, section, key;
    if (second == std::string::npos) {
        section = text.substr(0, first);
        key = text.substr(first + 1);
    } else {
        prefix = text.substr(0, first);
        section = text.substr(first + 1, second - first - 1);
        key = text.substr(second + 1);
    }
    e.written[kPrefix] = e.written[kSection] = e.written[kKey] = true;
    e.value[kPrefix] = cut(trim(prefix), sizeof(KOVA_SERVICE_STRING::prefix));
    e.value[kSection] = cut(trim(section), sizeof(KOVA_SERVICE_STRING::section));
    e.value[kKey] = cut(trim(key), sizeof(KOVA_SERVICE_STRING::key));
    return e;
}

template <size_t N>
void check_field(const char (&field)[N], bool written, const std::string &value, const char *name,
                 const std::string &text) {
    if (!written) {
        for (size_t i = 0; i < N; ++i)
            FUZZ_CHECKF(static_cast<unsigned char>(field[i]) == kGarbage, "field %s byte %zu changed for \"%s\"", name,
                        i, text.c_str());
        return;
    }
    FUZZ_CHECKF(terminated(field), "field %s not terminated for \"%s\"", name, text.c_str());
    FUZZ_CHECKF(value == field, "field %s is \"%s\", expected \"%s\" for \"%s\"", name, field, value.c_str(),
                text.c_str());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const std::string text = c_text(data, size);
    const Expected e = model(text);

    KOVA_SERVICE_STRING record;
    std::memset(&record, kGarbage, sizeof record);
    const int rc = KOVAServiceConfServiceStringGet(text.c_str(), &record);
    FUZZ_CHECKF(rc == e.result, "\"%s\" gave %d, expected %d", text.c_str(), rc, e.result);
    check_field(record.prefix, e.written[kPrefix], e.value[kPrefix], "prefix", text);
    check_field(record.section, e.written[kSection], e.value[kSection], "section", text);
    check_field(record.key, e.written[kKey], e.value[kKey], "key", text);
    check_field(record.text, e.written[kText], e.value[kText], "text", text);
    check_field(record.extraText, e.written[kExtra], e.value[kExtra], "extraText", text);

    // Null arguments are refused without touching anything.
    FUZZ_CHECK(KOVAServiceConfServiceStringGet(text.c_str(), nullptr) == -1);
    FUZZ_CHECK(KOVAServiceConfServiceStringGet(nullptr, &record) == -1);
    return 0;
}
