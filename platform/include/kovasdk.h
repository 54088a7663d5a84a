/* System SDK library (libkovasdk.so.6): plug-in notification and service state. */
#ifndef KOVASDK_H
#define KOVASDK_H

#include "kova_api.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct KVLIB_PLUGIN KVLIB_PLUGIN;
KOVA_API int KVLIBPluginSDKInit(const char *szCategory, const char *szEvent, KVLIB_PLUGIN **ppPlugin);
KOVA_API int KVLIBPluginSetArg(KVLIB_PLUGIN *pPlugin, const char *szName, const char *szValue);
KOVA_API int KVLIBPluginAction(int action, KVLIB_PLUGIN *pPlugin);
KOVA_API void KVLIBPluginExit(KVLIB_PLUGIN *pPlugin);
KOVA_API int KVLIBServiceIsRunning(const char *szService);
KOVA_API int KVLIBServiceReload(const char *szService);

#ifdef __cplusplus
}
#endif

#endif /* KOVASDK_H */
