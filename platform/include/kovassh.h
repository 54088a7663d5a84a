/* SSH library (libkovassh.so.6): the SSH service's port. */
#ifndef KOVASSH_H
#define KOVASSH_H

#include <stdint.h>

#include "kova_api.h"

#ifdef __cplusplus
extern "C" {
#endif

KOVA_API int KOVAServiceSSHPortGet(int32_t *pPort);

#ifdef __cplusplus
}
#endif

#endif /* KOVASSH_H */
