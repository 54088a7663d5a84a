/* FTP library (libkovaftp.so.6): the FTP service's default passive port range. */
#ifndef KOVAFTP_H
#define KOVAFTP_H

#include <stdint.h>

#include "kova_api.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct KOVA_FTP_PASSIVE_PORT {
    int32_t lowPort;
    int32_t highPort;
} KOVA_FTP_PASSIVE_PORT;
KOVA_API int KOVAFTPDefaultPassivePortGet(KOVA_FTP_PASSIVE_PORT *pRange);

#ifdef __cplusplus
}
#endif

#endif /* KOVAFTP_H */
