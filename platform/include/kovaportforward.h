/* Port-forwarding library (libkovaportforward.so): where its rule file lies. */
#ifndef KOVAPORTFORWARD_H
#define KOVAPORTFORWARD_H

#include "kova_api.h"

#ifdef __cplusplus
extern "C" {
#endif

KOVA_API const char *KOVAPFRuleConfPathGet(void);

#ifdef __cplusplus
}
#endif

#endif /* KOVAPORTFORWARD_H */
