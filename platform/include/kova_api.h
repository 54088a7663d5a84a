/*
 * Attributes shared by the companion library headers and the product header: what a shared
 * library exports (everything else is hidden) and printf-style format checking.
 */
#ifndef KOVA_API_H
#define KOVA_API_H

#if defined(__GNUC__)
#define KOVA_API __attribute__((visibility("default")))
#define KOVA_PRINTF(fmt, args) __attribute__((format(printf, fmt, args)))
#else
#define KOVA_API
#define KOVA_PRINTF(fmt, args)
#endif

#endif /* KOVA_API_H */
