/* Integer division and complex arithmetic that the compiler calls under fixed names.
 *
 * All are re-entrant and thread-safe. They use no state but the MXCSR rounding mode and flags (the
 * x87 control and status words for the extended forms). */
#ifndef KSOMD_BUILTINS_H
#define KSOMD_BUILTINS_H

#include <ksomd/api.h>

KSOMD_BEGIN

/* The 128-bit integers of the compiler, under names that strict C and C++ accept. */
__extension__ typedef __int128 ksomd_int128;
__extension__ typedef unsigned __int128 ksomd_uint128;

/* 128-bit quotient, truncated; `__udivmodti4` also stores the remainder unless `remainder` is null.
 * A divisor of zero is the caller's error. */
KSOMD_API ksomd_int128 __divti3(ksomd_int128 a, ksomd_int128 b);
KSOMD_API ksomd_uint128 __udivti3(ksomd_uint128 a, ksomd_uint128 b);
KSOMD_API ksomd_uint128 __udivmodti4(ksomd_uint128 a, ksomd_uint128 b, ksomd_uint128* remainder);

/* Quotient and remainder of integers of `words` 32-bit words each, the least significant first.
 *
 * No operand is touched beyond its words. Dividend and divisor are unchanged afterwards, but the
 * signed form negates a negative divisor in place during the call. `quotient` overlaps no other
 * operand; `remainder` may be `dividend`, which it then replaces. Word alignment suffices.
 * Algorithm D of Knuth, The Art of Computer Programming 4.3.1, in 64-bit digits.
 *
 * The signed form reads two's complement and truncates toward zero; the remainder has the
 * dividend's sign. One quotient is out of range: the lowest number divided by -1 gives the lowest
 * number. Division by zero gives a quotient of all ones, whatever the signs, and the dividend as
 * the remainder. With `words` 0 nothing is touched. */
KSOMD_API void __udivmodei5(uint32_t* quotient, uint32_t* remainder, uint32_t* dividend,
                            uint32_t* divisor, uint32_t words);
KSOMD_API void __divmodei5(uint32_t* quotient, uint32_t* remainder, uint32_t* dividend,
                           uint32_t* divisor, uint32_t words);

/* The compiler's complex numbers, real part first. C++ itself has no such types. */
__extension__ typedef float _Complex ksomd_complex_float;
__extension__ typedef double _Complex ksomd_complex_double;
__extension__ typedef long double _Complex ksomd_complex_extended;

/* (a + bi)(c + di) and (a + bi) / (c + di), with infinities recovered from NaN results as in Annex
 * G of the C standard. In a quotient by an infinity, a dividend counts as infinite if its finite
 * parts add up to an infinity. errno is not changed. */
KSOMD_API ksomd_complex_float __mulsc3(float a, float b, float c, float d);
KSOMD_API ksomd_complex_double __muldc3(double a, double b, double c, double d);
KSOMD_API ksomd_complex_extended __mulxc3(long double a, long double b, long double c,
                                          long double d);
KSOMD_API ksomd_complex_float __divsc3(float a, float b, float c, float d);
KSOMD_API ksomd_complex_double __divdc3(double a, double b, double c, double d);
KSOMD_API ksomd_complex_extended __divxc3(long double a, long double b, long double c,
                                          long double d);

KSOMD_END

#endif
