// The port text comparison with the C signatures of its module (service_is_port_conflict),
// shared with the tests: the caller's port text ("80,8000:8010") against another source's port
// text ("80,55900-55910"), each colliding piece added to the conflict list.
#pragma once

#include <kovaserviceconf.h>

// 1 if any item of `szPorts` collides, 0 if none, -1 on failure (entries added before the
// failure stay in the list).
int PortsConflictWithText(const char *szPorts, const char *szOther, KOVA_SERVICE_CONF_PORT **ppConflictList);

// The port `firstPort` (lastPort -1) or the range [firstPort, lastPort] against every item of
// `szOther`: 1 if it added an entry, 0 if none, -1 on failure.
int PortConflictWithText(int firstPort, int lastPort, const char *szOther, KOVA_SERVICE_CONF_PORT **ppConflictList);
