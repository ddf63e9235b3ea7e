/* A check of the compiler's constant propagation, for programs that are built to contain it. */
#ifndef KSOMD_DIAGNOSTICS_H
#define KSOMD_DIAGNOSTICS_H

#include <ksomd/api.h>

KSOMD_BEGIN

/* What the compiler replaced by a constant. */
enum { KSOMD_FORMAL_PARAMETER = 0, KSOMD_RETURN_VALUE = 1, KSOMD_GLOBAL_VARIABLE = 2 };

/* The type of the compared values. */
enum {
  KSOMD_CHECK_I32 = 0,
  KSOMD_CHECK_SI32 = 1,
  KSOMD_CHECK_F32 = 2,
  KSOMD_CHECK_I64 = 3,
  KSOMD_CHECK_SI64 = 4,
  KSOMD_CHECK_F64 = 5
};

/* Compares the value that the compiler assumed with the one found. Both are bit patterns; 32-bit
 * types use the lower half. Floating-point values compare as such: +0 equals -0, a NaN nothing.
 * Returns if they are equal; else writes a report to standard output and calls abort(). A bad type
 * is reported and aborts too. */
KSOMD_API void _IPO_Check_CP(int32_t kind, uint32_t type, uint64_t first, uint64_t second);

KSOMD_END

#endif
