/* Network library (libkovanetsdk.so.6): the ports in use in a range. */
#ifndef KOVANETSDK_H
#define KOVANETSDK_H

#include <stdint.h>

#include "kova_api.h"

#ifdef __cplusplus
extern "C" {
#endif

KOVA_API int KOVANetGetPortUsedInRange(int32_t *pPorts, int *pCount, int firstPort, int lastPort, int tcp);

#ifdef __cplusplus
}
#endif

#endif /* KOVANETSDK_H */
