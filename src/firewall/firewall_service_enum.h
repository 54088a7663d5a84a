// Converters of the firewall catalogue, shared with the tests. They belong to the
// enumeration module and log under its name.
#pragma once

#include <kovaserviceconf.h>

#include <cstdint>
#include <string>
#include <vector>

#include "foundation/ports.h"
#include "foundation/raii.h"
#include "foundation/result.h"

namespace kova::fw {

// The firewall catalogue as KOVAFwServiceEnum hands it out: the records and their number.
struct Catalogue {
    FwServicePtr head;
    int count = 0;
};

// Takes the catalogue's records one at a time, in the catalogue's order, instead of a list: a
// .sc file's records once the file is read, the table's rows last. A caller that keeps a little
// of each record does not hold the whole catalogue at once.
class RecordSink {
public:
    virtual void take(FwServicePtr record) = 0;  // may throw std::bad_alloc

protected:
    ~RecordSink() = default;
};

// Builds the catalogue; fails (error 0x0200, this module) only when memory runs out. With a
// sink, the records go to it as they are made and the catalogue's head is null.
Result<Catalogue> build_catalogue(RecordSink *sink = nullptr) noexcept;

// "137,138,139,445" (decimal ports separated by commas; runs of commas count as one) into
// a new string list stored through ppList. 0, or -1 with a log line and nothing stored.
int ports_text_to_list(const char *text, KVLIB_SZLIST **ppList);

// A parsed port list into the port texts of one direction of a record and its protocol:
// "%d" for a single port, "%d-%d" for a range, in the reverse of the list's order (the order of
// the reader's linked entries); the protocol as the firewall names it. Null when memory runs
// out, the protocol then untouched.
KVLIB_SZLIST *port_entries_to_list(const ports::PortList &list, int32_t &protocol);

}  // namespace kova::fw
