// Port lists from outside: "80,443,8000:8010/tcp" through KOVAServiceConfPortsGet, the
// protocol words through KVLIBServiceConfProtocolParse, single port numbers through
// KOVAServiceConfPortsCheck. Each result is compared with a model of the syntax; an accepted
// list must render and parse back to the same entries.
#include <kovaserviceconf.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "fuzz_support.h"

namespace {

using namespace kova::fuzz;

constexpr unsigned int kPoison = 0x7E57;

void poison() {
    KVLIBCErrSetEx(kPoison, "fuzz", 0);
}

void check_ports_get(const std::string &text, uint32_t direction) {
    const auto expected = model_ports_get(text, direction);
    KOVA_SERVICE_CONF_PORT *list = nullptr;
    poison();
    const int rc = KOVAServiceConfPortsGet(text.c_str(), direction, &list);
    if (!expected) {
        FUZZ_CHECKF(rc == -1, "\"%s\" accepted, the syntax refuses it", text.c_str());
        FUZZ_CHECK(list == nullptr);
        FUZZ_CHECKF(KVLIBCErrGet() == KOVA_ERR_BAD_PARAMETER, "\"%s\" refused with 0x%04X", text.c_str(),
                    KVLIBCErrGet());
        return;
    }
    FUZZ_CHECKF(rc == 0 && list != nullptr, "\"%s\" refused with 0x%04X", text.c_str(), KVLIBCErrGet());
    const std::vector<Port> got = to_vector(list);
    FUZZ_CHECKF(got == *expected, "\"%s\" gave %s, expected %s", text.c_str(), describe(got).c_str(),
                describe(*expected).c_str());
    check_port_list(list, direction);
    check_render_round_trip(list);

    // A second list through the same out-pointer is refused and the first stays as it was.
    KOVA_SERVICE_CONF_PORT *const held = list;
    poison();
    FUZZ_CHECK(KOVAServiceConfPortsGet(text.c_str(), direction, &list) == -1);
    FUZZ_CHECK(list == held && KVLIBCErrGet() == KOVA_ERR_BAD_PARAMETER);
    FUZZ_CHECK(to_vector(list) == *expected);
    KOVAServiceConfPortsFree(list);
}

void check_protocol_parse(const std::string &text) {
    const int expected = model_protocol(text);
    // A writable copy with a guard byte behind its terminator.
    std::vector<char> buf(text.begin(), text.end());
    buf.push_back('\0');
    buf.push_back('\x5a');
    poison();
    const int rc = KVLIBServiceConfProtocolParse(buf.data());
    FUZZ_CHECKF(rc == expected, "protocol \"%s\" gave %d, expected %d", text.c_str(), rc, expected);
    FUZZ_CHECK(buf.back() == '\x5a');
    if (rc < 0) {
        FUZZ_CHECKF(KVLIBCErrGet() == KOVA_ERR_BAD_PARAMETER, "protocol \"%s\" refused with 0x%04X", text.c_str(),
                    KVLIBCErrGet());
    } else if (!text.empty() && text.find(',') == std::string::npos) {
        // A single word is left trimmed and lower-cased in the caller's buffer.
        FUZZ_CHECKF(lower(trim(text)) == buf.data(), "buffer holds \"%s\"", buf.data());
    }
}

void check_port_number(const std::string &text) {
    const int expected = model_port_check(text) ? 1 : 0;
    poison();
    const int rc = KOVAServiceConfPortsCheck(text.c_str());
    FUZZ_CHECKF(rc == expected, "port \"%s\" gave %d, expected %d", text.c_str(), rc, expected);
    if (rc == 0) FUZZ_CHECK(KVLIBCErrGet() == KOVA_ERR_BAD_PARAMETER);
    if (rc == 1) FUZZ_CHECK(KVLIBCErrGet() == kPoison);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size > 4096) return 0;
    const std::string text = c_text(data, size);
    check_ports_get(text, static_cast<uint32_t>(size & 1));
    check_protocol_parse(text);
    check_port_number(text);

    // The same text after the first "/" as a protocol part, and every item as a port number.
    if (const size_t slash = text.find('/'); slash != std::string::npos) check_protocol_parse(text.substr(slash + 1));
    for (const std::string &item : split_all(text.substr(0, text.find('/')), ',')) {
        check_port_number(item);
        if (const size_t colon = item.find(':'); colon != std::string::npos) {
            check_port_number(item.substr(0, colon));
            check_port_number(item.substr(colon + 1));
        }
    }

    // A direction above 1 is refused before anything is allocated.
    KOVA_SERVICE_CONF_PORT *list = nullptr;
    poison();
    FUZZ_CHECK(KOVAServiceConfPortsGet(text.c_str(), 2, &list) == -1 && list == nullptr);
    FUZZ_CHECK(KVLIBCErrGet() == KOVA_ERR_BAD_PARAMETER);
    return 0;
}
