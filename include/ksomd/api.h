/* What every public header of ksomd shares. */
#ifndef KSOMD_API_H
#define KSOMD_API_H

#include <stddef.h>
#include <stdint.h>

/* Marks an exported routine, in object formats that know visibility. A DLL exports what the
 * module-definition file lists. */
#if defined(__ELF__)
#define KSOMD_API __attribute__((visibility("default")))
#else
#define KSOMD_API
#endif

/* KSOMD_BEGIN and KSOMD_END enclose the declarations of a header. KSOMD_NORETURN marks a routine
 * that never returns. */
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
