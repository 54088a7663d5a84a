// Converters of the firewall catalogue, shared with the tests. They belong to the
// enumeration module and log under its name.
#pragma once

#include <kovaserviceconf.h>

#include <cstdint>

#include "foundation/raii.h"
#include "foundation/result.h"

namespace kova::fw {

// The firewall catalogue as KOVAFwServiceEnum hands it out: the records and their number.
struct Catalogue {
    FwServicePtr head;
    int count = 0;
};
// Builds the catalogue; fails (error 0x0200, this module) only when memory runs out outside
// any one row or section.
Result<Catalogue> build_catalogue() noexcept;

// "137,138,139,445" (decimal ports separated by commas; runs of commas count as one) into
// a new string list stored through ppList. 0, or -1 with a log line and nothing stored.
int ports_text_to_list(const char *text, KVLIB_SZLIST **ppList);

// A parsed port list into the protocol and the port texts of one direction of a record:
// "%d" for a single port, "%d-%d" for a range, in list order; the protocol is that of the
// last entry through KOVAProtocolMapping. 0, or -1 with nothing stored in ppList.
int port_entries_to_list(const KOVA_SERVICE_CONF_PORT *ports, int32_t *pProtocol, KVLIB_SZLIST **ppList);

}  // namespace kova::fw
