/*
 * Companion core library (libkovacore.so.6): error state, string lists, string hashes, record
 * lists, string utilities, sectioned and key-value files, command execution.
 */
#ifndef KOVACORE_H
#define KOVACORE_H

#include "kova_api.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Codes kept in the error state. */
#define KOVA_ERR_NONE 0x0000
#define KOVA_ERR_OUT_OF_MEMORY 0x0200
#define KOVA_ERR_INVALID_SOURCE 0x0600
#define KOVA_ERR_FILE_NOT_FOUND 0x0700
#define KOVA_ERR_FILE_OPEN 0x0900
#define KOVA_ERR_BAD_PARAMETER 0x0D00
#define KOVA_ERR_SCAN_DIR 0x2A00
#define KOVA_ERR_COPY 0x3B00
#define KOVA_ERR_MKDIR 0x3C00
#define KOVA_ERR_FW_ENUM 0x9900
#define KOVA_ERR_BUFFER_TOO_SMALL 0xBF00
#define KOVA_ERR_ALREADY_INSTALLED 0xC000

/* String list. The record never moves once allocated: pushing grows the item array only. */
typedef struct KVLIB_SZLIST {
    int nItem;       /* number of items */
    int nCapacity;   /* slots allocated in ppszItem */
    char **ppszItem; /* items, owned by the list */
} KVLIB_SZLIST;

/* String hash: text keys to text values, both owned; keeps insertion order. */
typedef struct KVLIB_SZHASH KVLIB_SZHASH;

/* Record list: items are copied in by fnCopy and released by fnFree. */
typedef void *(*KVLIB_DLIST_COPY_FN)(const void *);
typedef void (*KVLIB_DLIST_FREE_FN)(void *);

typedef struct KVLIB_DLIST_NODE {
    void *pData;
    struct KVLIB_DLIST_NODE *pNext;
    struct KVLIB_DLIST_NODE *pPrev;
} KVLIB_DLIST_NODE;

typedef struct KVLIB_DLIST {
    KVLIB_DLIST_NODE *pHead;
    KVLIB_DLIST_NODE *pTail;
    int nItem;
    KVLIB_DLIST_COPY_FN fnCopy;
    KVLIB_DLIST_FREE_FN fnFree;
} KVLIB_DLIST;

/* Error state (per thread). */
KOVA_API void KVLIBCErrSetEx(unsigned int code, const char *szFile, int line);
KOVA_API unsigned int KVLIBCErrGet(void);
KOVA_API const char *KVLIBCErrorGetFile(void);
KOVA_API int KVLIBCErrorGetLine(void);

/* String list. */
KOVA_API KVLIB_SZLIST *KVLIBCSzListAlloc(int capacity);
KOVA_API void KVLIBCSzListFree(KVLIB_SZLIST *pList);
KOVA_API const char *KVLIBCSzListGet(const KVLIB_SZLIST *pList, int index);
KOVA_API int KVLIBCSzListPush(KVLIB_SZLIST **ppList, const char *szItem);
KOVA_API int KVLIBCSzListPop(KVLIB_SZLIST *pList);
KOVA_API int KVLIBCSzListFind(const KVLIB_SZLIST *pList, const char *szItem);
KOVA_API void KVLIBCISzListDump(const KVLIB_SZLIST *pList);

/* String hash. */
KOVA_API KVLIB_SZHASH *KVLIBCSzHashAlloc(int capacity);
KOVA_API void KVLIBCSzHashFree(KVLIB_SZHASH *pHash);
KOVA_API const char *KVLIBCSzHashGetValue(const KVLIB_SZHASH *pHash, const char *szKey);
KOVA_API int KVLIBCSzHashSetValue(KVLIB_SZHASH **ppHash, const char *szKey, const char *szValue);
KOVA_API int KVLIBCSzHashCount(const KVLIB_SZHASH *pHash);
/* The index-th key and value in insertion order; null past the end. */
KOVA_API const char *KVLIBCSzHashKeyAt(const KVLIB_SZHASH *pHash, int index);
KOVA_API const char *KVLIBCSzHashValueAt(const KVLIB_SZHASH *pHash, int index);

/* Record list. */
KOVA_API KVLIB_DLIST *KVLIBCDListAlloc(KVLIB_DLIST_COPY_FN fnCopy, KVLIB_DLIST_FREE_FN fnFree);
KOVA_API int KVLIBCDListAppend(KVLIB_DLIST *pList, const void *pItem);
KOVA_API void KVLIBCDListFree(KVLIB_DLIST *pList);

/* String utilities. */
KOVA_API int KVLIBCStrTrimSpace(char *sz, int flags);
KOVA_API char *KVLIBCStrCaseLower(char *szSrc, int flags, char *szDst, int cbDst);
KOVA_API char *KVLIBCStrTokIndex(char **ppszCursor, const char *szDelim);
KOVA_API int KVLIBCStrTok(const char *sz, const char *szDelim, KVLIB_SZLIST **ppList);
KOVA_API int KVLIBCStrSep(const char *sz, const char *szDelim, KVLIB_SZLIST **ppList);
KOVA_API int KVLIBCStrCat(char **ppsz, int *pcbCapacity, const char *szAppend);
KOVA_API char *KVLIBCStrGet(const char *szFormat, ...) KOVA_PRINTF(1, 2);
KOVA_API void KVLIBCStrPut(char *sz);

/* Sectioned files (.sc, port-forwarding rules) and key-value files. */
KOVA_API int KVLIBCFileEnumSection(const char *szPath, KVLIB_SZLIST **ppList);
KOVA_API int KVLIBCFileGetSection(const char *szPath, const char *szSection, KVLIB_SZHASH **ppHash);
/* szNewSection: null keeps the section's name. */
KOVA_API int KVLIBCFileSetSection(const char *szPath, const char *szSection, const char *szNewSection,
                                  const KVLIB_SZHASH *pHash, int flags);
KOVA_API int KVLIBCFileAddSection(const char *szPath, const char *szSection, const KVLIB_SZHASH *pHash, int flags);
KOVA_API int KVLIBCFileSetSectionValue(const char *szPath, const char *szSection, const char *szKey,
                                       const char *szValue);
KOVA_API int KVLIBCFileRemoveSection(const char *szPath, const char *szSection);
KOVA_API int KVLIBCFileGetKeyValue(const char *szPath, const char *szKey, char *szBuf, int cbBuf, int flags);
KOVA_API int KVLIBCFileCheckKeyValue(const char *szPath, const char *szKey, const char *szExpected, int flags);
KOVA_API int KVLIBCFileExist(const char *szPath);
KOVA_API int KVLIBCFileTouch(const char *szPath);
KOVA_API int KVLIBCFileReadLines(const char *szPath, KVLIB_SZLIST **ppList);

/* Command execution, without a shell. */
KOVA_API int KVLIBCExec(const char *szProgram, const char *szArg1, const char *szArg2, const char *szArg3,
                        const char *szArg4);
KOVA_API int KVLIBCExecl(const char *szProgram, int options, ...);

#ifdef __cplusplus
}
#endif

#endif /* KOVACORE_H */
