// The C++ operations behind the exported readers of src/conf. They return owned records and
// never link into a caller's list; the exported functions do that. Failures are logged with the
// lines of the exported operations and return null.
#pragma once

#include <kovaserviceconf.h>

#include "conf/sc_reader.h"
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

// The service section `name` of `path` built from `keys` (null: no such section); `records` is
// the number of keys read, below 1 counting as a failed read.
SectionPtr section_from(const char *path, const char *name, int records, const ScSection *keys);

// The service section `name` of the file, read once.
SectionPtr read_section(const char *path, const char *name);

// The whole .sc file, read once: its [global] settings and the service sections that parse.
ConfPtr read_conf(const char *path);

}  // namespace kova::conf
