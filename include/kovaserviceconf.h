/*
 * libkovaserviceconf: the appliance's catalogue of network services and their ports.
 *
 * One header for C (C99) and C++ clients. It declares the library's records, constants,
 * tables and operations, and includes the headers of the companion libraries (core, SDK, FTP,
 * SSH, port forwarding, network) that the library stands on and that clients may call.
 *
 * Conventions: 0 (or a count) is success and -1 failure; verdicts are 1 (conflict) and 0.
 * Records handed out are zero-filled heap blocks freed by the matching free operation.
 */
#ifndef KOVASERVICECONF_H
#define KOVASERVICECONF_H

#include <stddef.h>
#include <stdint.h>

#include <kovacore.h>
#include <kovaftp.h>
#include <kovanetsdk.h>
#include <kovaportforward.h>
#include <kovasdk.h>
#include <kovassh.h>

#ifdef __cplusplus
extern "C" {
#endif

/* ------------------------------------------------------------------------------------------ */
/* Constants                                                                                  */
/* ------------------------------------------------------------------------------------------ */

/* Protocol flags: a bit set. */
#define KOVA_PROTO_TCP 1
#define KOVA_PROTO_UDP 2
#define KOVA_PROTO_BOTH 3

/* Location of a .sc file; enumeration takes them as a bit set (3: both). */
#define KOVA_CONF_LOCATION_SYSTEM 1
#define KOVA_CONF_LOCATION_PACKAGE 2

/* Sources of the service-wide conflict check. */
#define KOVA_PORT_CHECK_PORT_FORWARD 0x02
#define KOVA_PORT_CHECK_SERVICES 0x04
#define KOVA_PORT_CHECK_RESERVED 0x08
#define KOVA_PORT_CHECK_IN_USE 0x10

/* Error codes: kovacore.h (the error state is the core library's). */

/* ------------------------------------------------------------------------------------------ */
/* Records of the library                                                                     */
/* ------------------------------------------------------------------------------------------ */

/* One port or port range, a node of a singly linked list. */
typedef struct KOVA_SERVICE_CONF_PORT {
    uint32_t direction; /* 0 source ("src.ports"), 1 destination ("dst.ports") */
    uint32_t type;      /* 0 single port, 1 range */
    uint32_t protocol;  /* protocol flags */
    uint32_t beginPort;
    uint32_t endPort;
    struct KOVA_SERVICE_CONF_PORT *next;
} KOVA_SERVICE_CONF_PORT;

/* A display string with its localisation key. */
typedef struct KOVA_SERVICE_STRING {
    char prefix[256];
    char section[64];
    char key[128];
    char text[128];
    char extraText[128];
} KOVA_SERVICE_STRING;

/* One service section of a .sc file. */
typedef struct KOVA_SERVICE_CONF_SECTION {
    char name[256];
    KOVA_SERVICE_STRING title;
    KOVA_SERVICE_STRING desc;
    int32_t portForward;
    KOVA_SERVICE_CONF_PORT *srcPort;
    KOVA_SERVICE_CONF_PORT *dstPort;
    struct KOVA_SERVICE_CONF_SECTION *next;
} KOVA_SERVICE_CONF_SECTION;

/* One parsed .sc file. */
typedef struct KOVA_SERVICE_CONF {
    int32_t version;
    char supportKey[128];
    char runKey[128];
    KOVA_SERVICE_CONF_SECTION *sections;
    struct KOVA_SERVICE_CONF *next;
} KOVA_SERVICE_CONF;

/* Ordered set of port ranges that neither overlap nor touch. */
typedef struct KVLIB_PORT_RANGE {
    int32_t count;
    KOVA_SERVICE_CONF_PORT *head;
} KVLIB_PORT_RANGE;

/* Configured port held by a service. */
typedef struct KOVA_CONF_PORT_CONFLICT_RESULT {
    uint16_t port;
    uint16_t protocol;
    char *serviceName;
    int32_t isConflict;
} KOVA_CONF_PORT_CONFLICT_RESULT, *PKOVA_CONF_PORT_CONFLICT_RESULT;

/* Port in use by a process. */
typedef struct KOVA_RUNTIME_PORT_CONFLICT_RESULT {
    uint16_t port;
    uint16_t protocol;
    uint32_t pid;
    uint32_t state;
    char *program;
    int32_t isConflict;
} KOVA_RUNTIME_PORT_CONFLICT_RESULT, *PKOVA_RUNTIME_PORT_CONFLICT_RESULT;

/* One line of a kernel socket table. */
typedef struct RawSocketInfo {
    uint16_t port;
    uint32_t state;
    uint64_t inode;
    uint16_t protocol;
} RawSocketInfo;

/* Change request taken by backup, restore, removal and in-place edits. */
typedef struct KVLIB_SERVICE_CONF_REQUEST {
    uint32_t mode;
    uint32_t restartMask;
    uint32_t action;
    uint32_t scope;
    char fileName[256];
    char sectionName[256];
    uint32_t location;
} KVLIB_SERVICE_CONF_REQUEST;

typedef struct KVLIB_SERVICE_CONF_UPDATE_NOTICE {
    const char *oldConfPath;
    const char *newConfPath;
    uint32_t notifyFirewall;
    uint32_t notifyPortForward;
} KVLIB_SERVICE_CONF_UPDATE_NOTICE;

typedef struct KVLIB_SERVICE_CONF_REMOVE_NOTICE {
    const char *confPath;
    uint32_t notifyFirewall;
    uint32_t notifyPortForward;
} KVLIB_SERVICE_CONF_REMOVE_NOTICE;

/* One firewall service of the catalogue. */
typedef struct KOVA_FW_SERVICE {
    char name[64];
    int32_t supported;
    int32_t portForward;
    KOVA_SERVICE_STRING title;
    KOVA_SERVICE_STRING desc;
    int32_t dstProtocol;
    KVLIB_SZLIST *dstPorts;
    int32_t srcProtocol;
    KVLIB_SZLIST *srcPorts;
    struct KOVA_FW_SERVICE *next;
} KOVA_FW_SERVICE;

typedef int (*KOVA_FW_PORTS_GETTER)(KVLIB_SZLIST **ppList);

typedef struct KOVA_FW_PORT_SPEC {
    int32_t enabled;
    int32_t protocol;
    const char *ports;
    KOVA_FW_PORTS_GETTER getter;
} KOVA_FW_PORT_SPEC;

typedef struct KOVA_FW_SERVICE_ENTRY {
    const char *name;
    const char *supportKey;
    int32_t defaultSupported;
    int32_t portForward;
    KOVA_SERVICE_STRING desc;
    KOVA_SERVICE_STRING title;
    KOVA_FW_PORT_SPEC src;
    KOVA_FW_PORT_SPEC dst;
} KOVA_FW_SERVICE_ENTRY;

typedef struct KOVA_PROTO_TYPE_MAPPING {
    int type;
    const char *szName;
} KOVA_PROTO_TYPE_MAPPING;

/* ------------------------------------------------------------------------------------------ */
/* Tables                                                                                     */
/* ------------------------------------------------------------------------------------------ */

KOVA_API extern const KOVA_PROTO_TYPE_MAPPING gProtoTypeMapping[2];
/* 15 built-in services and a terminator row whose name is null. */
KOVA_API extern const KOVA_FW_SERVICE_ENTRY rgServices[16];

/* ------------------------------------------------------------------------------------------ */
/* Protocol flags and port helpers                                                            */
/* ------------------------------------------------------------------------------------------ */

KOVA_API int IsTCP(uint16_t protocol);
KOVA_API int IsUDP(uint16_t protocol);
KOVA_API int IsBothTCPAndUDP(uint16_t protocol);
KOVA_API int HasTCP(unsigned int protocol);
KOVA_API int HasUDP(unsigned int protocol);
KOVA_API int IsLegalProtocol(unsigned int protocol);
KOVA_API uint16_t ToUPort(const char *szPort);
KOVA_API const char *KOVATCPStateToString(uint32_t state);
KOVA_API int KOVAProtocolMapping(int protocol);
KOVA_API int KVLIBServiceProtoMapSizeGet(void);
KOVA_API int KVLIBServiceProtoIndexGet(int index, int *pType);
KOVA_API int KVLIBServiceProtoStrGet(int index, char *szBuf, int cbBuf);

/* ------------------------------------------------------------------------------------------ */
/* Port lists                                                                                 */
/* ------------------------------------------------------------------------------------------ */

KOVA_API int KOVAServiceConfPortsGet(const char *szPorts, unsigned int direction, KOVA_SERVICE_CONF_PORT **ppPorts);
KOVA_API int KOVAServiceConfPortsCheck(const char *szPort);
KOVA_API int KVLIBServiceConfProtocolParse(char *szProtocol);
KOVA_API void KOVAServiceConfPortsFree(KOVA_SERVICE_CONF_PORT *pPorts);

/* ------------------------------------------------------------------------------------------ */
/* Reading, enumerating, verifying, composing and rendering .sc files                         */
/* ------------------------------------------------------------------------------------------ */

KOVA_API int KOVAServiceConfGet(const char *szPath, KOVA_SERVICE_CONF **ppConfList);
KOVA_API int KOVAServiceConfSectionGet(const char *szPath, const char *szSection,
                                       KOVA_SERVICE_CONF_SECTION **ppSectionList);
KOVA_API int KOVAServiceConfServiceStringGet(const char *szStringKey, KOVA_SERVICE_STRING *pString);
KOVA_API void KOVAServiceConfFree(KOVA_SERVICE_CONF *pConfList);
KOVA_API void KOVAServiceConfSectionFree(KOVA_SERVICE_CONF_SECTION *pSectionList);

KOVA_API int GetInstallPath(const char *szBaseName, int location, char *szPath, int cbPath);
KOVA_API int KOVAServiceConfEnum(KOVA_SERVICE_CONF **ppConfList, int locations);
KOVA_API int KOVAServiceConfFileVerify(const char *szSourcePath, const char *szTargetDir);

KOVA_API int KOVAServiceComposePortInfo(const KOVA_SERVICE_CONF_PORT *pTemplate, KOVA_SERVICE_CONF_PORT **ppPorts);
KOVA_API int KOVAServiceComposeSectionInfo(const KOVA_SERVICE_CONF_SECTION *pTemplate,
                                           KOVA_SERVICE_CONF_SECTION **ppSections);
KOVA_API int KVLIBServiceConfPortsToStr(const KOVA_SERVICE_CONF_PORT *pPorts, char *szPorts, int cbPorts,
                                        char *szProtocol, int cbProtocol);

/* ------------------------------------------------------------------------------------------ */
/* Port range sets and conflict checks                                                        */
/* ------------------------------------------------------------------------------------------ */

KOVA_API KVLIB_PORT_RANGE *KVLIBPortRangeCreate(void);
KOVA_API void KVLIBPortRangeDestory(KVLIB_PORT_RANGE *pRange);
KOVA_API int KVLIBPortRangeAdd(KVLIB_PORT_RANGE *pRange, KOVA_SERVICE_CONF_PORT *pEntry);
KOVA_API int KVLIBPortRangeRemove(KVLIB_PORT_RANGE *pRange, const KOVA_SERVICE_CONF_PORT *pEntry);
KOVA_API int KVLIBPortRangeImport(KVLIB_PORT_RANGE *pRange, const char *szPorts);
KOVA_API char *KVLIBPortRangeExport(const KVLIB_PORT_RANGE *pRange);
KOVA_API int KVLIBPortRangeJoin(KVLIB_PORT_RANGE *pTarget, const KVLIB_PORT_RANGE *pSource);
KOVA_API int KVLIBPortRangeOverlap(const KVLIB_PORT_RANGE *pFirst, const KVLIB_PORT_RANGE *pSecond,
                                   KVLIB_PORT_RANGE *pTarget);

KOVA_API int KVLIBIsPortConflict(const char *szSkipList, const char *szPorts, const char *szProtocol, int checkFlags,
                                 KOVA_SERVICE_CONF_PORT **ppConflictList);
KOVA_API int KVLIBIsConfPortConflict(const char *szPath, KOVA_SERVICE_CONF_PORT **ppConflictList);

/* ------------------------------------------------------------------------------------------ */
/* Structured conflict reports                                                                */
/* ------------------------------------------------------------------------------------------ */

KOVA_API PKOVA_CONF_PORT_CONFLICT_RESULT KOVAConfPortConflictResultAlloc(void);
KOVA_API void KOVAConfPortConflictResultFree(PKOVA_CONF_PORT_CONFLICT_RESULT pResult);
KOVA_API PKOVA_CONF_PORT_CONFLICT_RESULT KOVAConfPortConflictResultCopy(const KOVA_CONF_PORT_CONFLICT_RESULT *pResult);
KOVA_API KVLIB_DLIST *KOVAConfPortConflictResultListAlloc(void);
KOVA_API void KOVAConfPortConflictResultListFree(KVLIB_DLIST *pResultList);
KOVA_API KVLIB_DLIST *KOVAConfPortConflictResultListCopy(const KVLIB_DLIST *pResultList);

KOVA_API PKOVA_RUNTIME_PORT_CONFLICT_RESULT KOVARuntimePortConflictResultAlloc(void);
KOVA_API void KOVARuntimePortConflictResultFree(PKOVA_RUNTIME_PORT_CONFLICT_RESULT pResult);
KOVA_API PKOVA_RUNTIME_PORT_CONFLICT_RESULT
KOVARuntimePortConflictResultCopy(const KOVA_RUNTIME_PORT_CONFLICT_RESULT *pResult);
KOVA_API KVLIB_DLIST *KOVARuntimePortConflictResultListAlloc(void);
KOVA_API void KOVARuntimePortConflictResultListFree(KVLIB_DLIST *pResultList);
KOVA_API KVLIB_DLIST *KOVARuntimePortConflictResultListCopy(const KVLIB_DLIST *pResultList);

KOVA_API KVLIB_DLIST *SysConfListFetch(void);
KOVA_API KVLIB_DLIST *PkgConfListFetch(void);
KOVA_API KVLIB_DLIST *ServiceConfListFetch(void);
KOVA_API int ConfResultListFilter(const KVLIB_DLIST *pSourceResultList, uint16_t port, uint16_t protocol,
                                  KVLIB_DLIST *pFilteredResultList);
KOVA_API int ConfNotConflictResultAppend(KVLIB_DLIST *pResultList, uint16_t port, uint16_t protocol);
KOVA_API int KOVAConfPortConflictCheck(const KVLIB_SZLIST *pPortList, uint16_t protocol, KVLIB_DLIST *pResultList);
KOVA_API KVLIB_DLIST *KOVAConfPortConflictResultListAllocAndCheck(const KVLIB_SZLIST *pPortList, uint16_t protocol);

KOVA_API int KOVAConfListConflictPorts(const KVLIB_DLIST *pResultList, uint16_t protocol,
                                       KVLIB_SZLIST *pConflictPortList);
KOVA_API int KOVAConfVerifyConflictPort(const KVLIB_DLIST *pResultList, uint16_t port, uint16_t protocol);
KOVA_API int KOVAConfIsConflictPorts(const KVLIB_SZLIST *pPortList, uint16_t protocol);
KOVA_API int KOVAConfIsConflictPort(uint16_t port, uint16_t protocol);
KOVA_API int KOVAConfIsConflictPortRange(uint16_t firstPort, uint16_t lastPort, uint16_t protocol);

KOVA_API RawSocketInfo *RawSocketInfoAlloc(void);
KOVA_API void RawSocketInfoFree(RawSocketInfo *pInfo);
KOVA_API RawSocketInfo *RawSocketInfoCopy(const RawSocketInfo *pInfo);
KOVA_API int ContainRawSocketInfo(const KVLIB_DLIST *pRawSocketInfoList, const RawSocketInfo *pInfo);
KOVA_API int ParseToRawSocketInfo(const char *szPath, int protocol, KVLIB_DLIST *pRawSocketInfoList);
KOVA_API KVLIB_DLIST *RawSocketInfoListFetch(uint16_t protocol);
KOVA_API KVLIB_SZLIST *FetchPidList(void);
KOVA_API void FetchInodeFromPid(KVLIB_SZHASH **ppInodeToPidsTable, const char *szPid);
KOVA_API KVLIB_SZHASH *InodeToPidsTableFetch(void);
KOVA_API KVLIB_SZLIST *InodeToPidsGet(const KVLIB_SZHASH *pInodeToPidsTable, uint64_t inode);
KOVA_API char *ProgramCommandFetch(uint32_t pid);
KOVA_API int ContainRuntimeResult(const KVLIB_DLIST *pResultList, const KOVA_RUNTIME_PORT_CONFLICT_RESULT *pResult);
KOVA_API KVLIB_DLIST *RuntimeServiceListFetch(void);

KOVA_API int RuntimeResultListFilter(const KVLIB_DLIST *pSourceResultList, uint16_t port, uint16_t protocol,
                                     KVLIB_DLIST *pFilteredResultList);
KOVA_API int RuntimeNotConflictResultAppend(KVLIB_DLIST *pResultList, uint16_t port, uint16_t protocol);
KOVA_API int KOVARuntimePortConflictCheck(const KVLIB_SZLIST *pPortList, uint16_t protocol, KVLIB_DLIST *pResultList);
KOVA_API KVLIB_DLIST *KOVARuntimePortConflictResultListAllocAndCheck(const KVLIB_SZLIST *pPortList, uint16_t protocol);
KOVA_API int KOVARuntimeListConflictPorts(const KVLIB_DLIST *pResultList, uint16_t protocol,
                                          KVLIB_SZLIST *pConflictPortList);
KOVA_API int KOVARuntimeVerifyConflictPort(const KVLIB_DLIST *pResultList, uint16_t port, uint16_t protocol);
KOVA_API int KOVARuntimeIsConflictPorts(const KVLIB_SZLIST *pPortList, uint16_t protocol);
KOVA_API int KOVARuntimeIsConflictPort(uint16_t port, uint16_t protocol);
KOVA_API int KOVARuntimeIsConflictPortRange(uint16_t firstPort, uint16_t lastPort, uint16_t protocol);

/* ------------------------------------------------------------------------------------------ */
/* Changing the service configuration                                                         */
/* ------------------------------------------------------------------------------------------ */

KOVA_API int KVLIBServiceConfBackup(const KVLIB_SERVICE_CONF_REQUEST *pRequest);
KOVA_API int KVLIBServiceConfRestore(const KVLIB_SERVICE_CONF_REQUEST *pRequest);
KOVA_API int KVLIBServiceBackupConfDelete(const KVLIB_SERVICE_CONF_REQUEST *pRequest);

KOVA_API int KVLIBServiceConfServRestart(unsigned int restartMask);
KOVA_API int KVLIBServiceConfUpdateServNotify(const KVLIB_SERVICE_CONF_UPDATE_NOTICE *pNotice);
KOVA_API int KVLIBServiceConfServNotify(const KVLIB_SERVICE_CONF_UPDATE_NOTICE *pNotice);
KOVA_API int KVLIBServiceConfRemoveServNotify(const KVLIB_SERVICE_CONF_REMOVE_NOTICE *pNotice);
KOVA_API int KOVAFwRuleHupWrap(void);
KOVA_API int KVLIBFwServRemoveRecWrap(const char *szServiceName);

KOVA_API int ServiceConfInstall(const char *szBaseName, const char *szSourcePath, unsigned int location,
                                KOVA_SERVICE_CONF_PORT **ppConflictList);
KOVA_API int KOVAServiceConfInstall(const char *szSourcePath, unsigned int location);
KOVA_API int KOVAServiceConfInstallBaseName(const char *szBaseName, const char *szSourcePath, unsigned int location,
                                            KOVA_SERVICE_CONF_PORT **ppConflictList);
KOVA_API int KOVAServiceConfUpdateBaseNameWithoutNotify(const char *szBaseName, const char *szSourcePath,
                                                        unsigned int location, KOVA_SERVICE_CONF_PORT **ppConflictList,
                                                        KVLIB_SERVICE_CONF_UPDATE_NOTICE *pNotice);
KOVA_API int KOVAServiceConfUpdateBaseName(const char *szBaseName, const char *szSourcePath, unsigned int location,
                                           KOVA_SERVICE_CONF_PORT **ppConflictList);

KOVA_API int KOVAServiceConfRemove(const KVLIB_SERVICE_CONF_REQUEST *pRequest);
KOVA_API int KVLIBServiceConfRemove(const KVLIB_SERVICE_CONF_REQUEST *pRequest);
KOVA_API int KOVAServiceConfRemoveBaseName(const char *szFileName, unsigned int location);
KOVA_API int KVLIBServiceConfRemoveBaseName(const char *szFileName, unsigned int location);

KOVA_API int KVLIBServiceConfSectionSet(const KVLIB_SERVICE_CONF_REQUEST *pRequest,
                                        const KOVA_SERVICE_CONF_SECTION *pSection);
KOVA_API int KVLIBServiceConfPortsSet(const KVLIB_SERVICE_CONF_REQUEST *pRequest, const KOVA_SERVICE_CONF_PORT *pPorts);
KOVA_API int KOVAServiceConfSectionPortSet(unsigned int location, const char *szFileName, const char *szSectionName,
                                           const KOVA_SERVICE_CONF_PORT *pPorts);

KOVA_API int KVLIBServiceConfSectionRemove(const KVLIB_SERVICE_CONF_REQUEST *pRequest);

/* ------------------------------------------------------------------------------------------ */
/* Firewall service catalogue                                                                 */
/* ------------------------------------------------------------------------------------------ */

KOVA_API int KOVAFwIsSupportPortRange(void);
KOVA_API int KOVAFwPortsFTP(KVLIB_SZLIST **ppList);
KOVA_API int KOVAFwPortsNFS(KVLIB_SZLIST **ppList);
KOVA_API int KOVAFwPortsSSH(KVLIB_SZLIST **ppList);
KOVA_API int KOVAFwPortsSurveillanceCamSearch(KVLIB_SZLIST **ppList);
KOVA_API int KOVAFwPortsMFP(KVLIB_SZLIST **ppList);

KOVA_API int KOVAFwServiceEnum(KOVA_FW_SERVICE **ppServiceList);
KOVA_API void KOVAFwServiceFree(KOVA_FW_SERVICE *pServiceList);
KOVA_API KOVA_FW_SERVICE *KOVAFWServiceFind(const KOVA_FW_SERVICE *pServiceList, const char *szName);

#ifdef __cplusplus
}
#endif

#endif /* KOVASERVICECONF_H */
