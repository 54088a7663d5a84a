// The C++ operations behind the exported readers of src/conf. They return owned records and
// never link into a caller's list; the exported functions do that. Failures are logged with the
// lines of the exported operations and return null.
#pragma once

#include <kovaserviceconf.h>

#include "conf/sc_reader.h"
#include "foundation/ports.h"
#include "foundation/raii.h"

namespace kova::conf {

// KVLIBServiceConfPortsToStr once its arguments are tested (a list, buffers of 1 byte or more).
int ports_to_text(const KOVA_SERVICE_CONF_PORT *pPorts, char *szPorts, int cbPorts, char *szProtocol,
                  int cbProtocol) noexcept;

// Whether a port text is digits only and at most 65535 (0x0D00 and a log line when not).
bool port_text_ok(const char *text);

// The protocol flags of a protocol text (trimmed and lower-cased in place); empty: both.
int parse_protocol(char *text);

// A port list text ("80,443,8000:8010/tcp") parsed into entries, in the reverse of their order.
PortsPtr parse_port_list(const char *text, unsigned int direction);
// Parsed entries as a linked list, in the reverse of their order; null when memory runs out.
PortsPtr port_entries(const ports::PortList &list, unsigned int direction);

// A service section checked as the section reader checks it. The display strings go straight
// into the record being built; the port lists stay values.
struct SectionFields {
    KOVA_SERVICE_STRING *title = nullptr;
    KOVA_SERVICE_STRING *desc = nullptr;
    int32_t portForward = 0;
    bool has_src = false;
    ports::PortList src;
    ports::PortList dst;
};

// Checks the service section `name` of `path` (`records` keys read, below 1 counting as a failed
// read) and fills `out`, with the section reader's log lines and error state; false when the
// section does not parse.
bool check_section(const char *path, const char *name, int records, const ScSection *keys, SectionFields &out);

// The section record of a checked section (the section reader's steps after the file read);
// `fields` is scratch, whose storage serves the next section.
SectionPtr section_from(const char *path, const char *name, int records, const ScSection *keys, SectionFields &fields);

// The service section `name` of the file, read once.
SectionPtr read_section(const char *path, const char *name);

// Walks a .sc file as the file reader does, with its log lines: the [global] settings go into
// `global` (its other fields untouched), and every service section with a valid name goes to
// `section`, which builds what it builds from it and says whether the section parsed. The file
// is read into `scratch`. False when the file fails (no service section parsed, among others).
class SectionVisitor {
public:
    virtual bool section(const char *path, const char *name, const ScSection *keys) = 0;

protected:
    ~SectionVisitor() = default;
};
bool walk_conf(const FileRef &where, ScFile &scratch, KOVA_SERVICE_CONF &global, SectionVisitor &section);

// The whole .sc file, read once: its [global] settings and the service sections that parse.
ConfPtr read_conf(const FileRef &where, ScFile &scratch);

// Calls `file(where)` for every entry of the selected services.d directories (the bit set of
// KOVAServiceConfEnum), directories in that order, entries by name; a directory that cannot be
// scanned sets 0x2A00. The number of entries for which `file` returned true, counted as
// KOVAServiceConfEnum counts them.
class FileVisitor {
public:
    virtual bool file(const FileRef &where, int location) = 0;

protected:
    ~FileVisitor() = default;
};
int each_conf_file(int locations, FileVisitor &file);

}  // namespace kova::conf
