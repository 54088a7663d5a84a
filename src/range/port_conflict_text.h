// Internal to module service_is_port_conflict, shared with its tests: comparing the caller's
// port text ("80,8000:8010") with another source's port text ("80,55900-55910"), and reading
// one reserved port from the system information file.
#pragma once

#include <kovaserviceconf.h>

// Compares every item of `szPorts` with `szOther` and adds each colliding piece to the
// conflict list. 1 if any item collides, 0 if none, -1 on failure (entries added before the
// failure stay in the list).
int PortsConflictWithText(const char *szPorts, const char *szOther, KOVA_SERVICE_CONF_PORT **ppConflictList);

// Compares the port `firstPort` (lastPort -1) or the range [firstPort, lastPort] with every
// item of `szOther`. 1 if it added an entry, 0 if none, -1 on failure.
int PortConflictWithText(int firstPort, int lastPort, const char *szOther, KOVA_SERVICE_CONF_PORT **ppConflictList);

// Adds `port` as a single entry when lo <= port <= hi: 1 when added, 0 when outside, -1 on failure.
int ConflictPortAppend(int lo, int hi, int port, KOVA_SERVICE_CONF_PORT **ppConflictList);

// Adds the port (or, for "ftplowport" and "ftphighport", the FTP passive range) that the key
// reserves in the system information file. 0 (also when the key has no value), -1 on failure.
int GetServicePort(const char *szKey, KVLIB_PORT_RANGE *pRange);
