/* 64-bit integers in memory to floating point, for code that has SSE2 only.
 *
 * `value` is the address of the integer; it needs no alignment. The double forms are correctly
 * rounded in the calling thread's SSE rounding mode and raise inexact when bits are lost. The float
 * forms round that double once more, in the same mode, so they round twice: 2^60 + 2^36 + 1 becomes
 * 2^60. They raise no other flag and keep no state. All are thread-safe. */
#ifndef KSOMD_CONVERSION_H
#define KSOMD_CONVERSION_H

#include <ksomd/api.h>

KSOMD_BEGIN

KSOMD_API double __cvti64todp_sse2(const int64_t* value);
KSOMD_API double __cvtu64todp_sse2(const uint64_t* value);
KSOMD_API float __cvti64tosp_sse2(const int64_t* value);
KSOMD_API float __cvtu64tosp_sse2(const uint64_t* value);

KSOMD_END

#endif
