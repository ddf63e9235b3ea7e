/* What every public header of ksomd shares. */
#ifndef KSOMD_API_H
#define KSOMD_API_H

#include <stddef.h>
#include <stdint.h>

/* Marks an exported routine. The Windows exports come from the module-definition file alone. */
#if defined(_WIN32)
#define KSOMD_API
#else
#define KSOMD_API __attribute__((visibility("default")))
#endif

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
