/*
 * guestprep: conventions shared by every public header.
 *
 * - Every exported function is a plain C function; no C++ exception ever
 *   crosses this interface.
 * - Booleans are C99 `bool`.
 * - Strings returned to the caller are newly allocated and released by the
 *   caller with free(), unless the function's comment says the pointer is
 *   into a constant table (those are never freed).
 * - Records the caller passes in (such as GuessInfo) are owned by the
 *   caller and hold no owned pointers.
 * - Texts are UTF-8. User-visible messages come back already localised.
 */
#ifndef GUESTPREP_COMMON_H
#define GUESTPREP_COMMON_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#if defined(GUESTPREP_BUILDING)
#define GUESTPREP_API __attribute__((visibility("default")))
#else
#define GUESTPREP_API
#endif

#ifdef __cplusplus
#define GUESTPREP_EXTERN_C_BEGIN extern "C" {
#define GUESTPREP_EXTERN_C_END }
#else
#define GUESTPREP_EXTERN_C_BEGIN
#define GUESTPREP_EXTERN_C_END
#endif

GUESTPREP_EXTERN_C_BEGIN

/* "build_id=" followed by the build identifier. */
GUESTPREP_API extern const char BRM_EMBED_LABEL[];

GUESTPREP_EXTERN_C_END

#endif /* GUESTPREP_COMMON_H */
