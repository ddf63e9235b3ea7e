/* What every public header of ksomd shares. */
#ifndef KSOMD_API_H
#define KSOMD_API_H

#include <stddef.h>
#include <stdint.h>

/* Marks an exported routine where the object format knows visibility. What a DLL exports is the
 * module-definition file's business alone. */
#if defined(__ELF__)
#define KSOMD_API __attribute__((visibility("default")))
#else
#define KSOMD_API
#endif

/* What stands around the declarations of a header, and before a routine that never returns. */
#ifdef __cplusplus
#define KSOMD_BEGIN extern "C" {
#define KSOMD_END }
#define KSOMD_NORETURN [[noreturn]]
#else
#define KSOMD_BEGIN
#define KSOMD_END
#define KSOMD_NORETURN _Noreturn
#endif

#endif
