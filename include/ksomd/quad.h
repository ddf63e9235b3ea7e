/* Quad precision: IEEE 754 binary128 arithmetic, conversions and comparisons, real and complex.
 *
 * Quad values never travel in registers. A routine with a quad result takes as its first argument
 * the address of the 16 bytes that receive it. Each quad operand is passed by address. Addresses
 * need no alignment, and a result may have the same address as an operand (`__addq(&a, &a, &a)`).
 * No pointer is checked.
 *
 * Every result is correctly rounded. Where an operation rounds, it does so in the calling thread's
 * SSE rounding mode (MXCSR bits 13-14). The x87 control word, flush-to-zero and denormals-are-zero
 * have no effect. IEEE exceptions set the MXCSR flags invalid, divide-by-zero, overflow, underflow
 * and inexact. An exception that is unmasked traps, as it would in an operation on doubles. Flags
 * are never cleared; the denormal-operand flag is never raised. Tininess is judged after rounding.
 * An invalid operation without a NaN operand gives the default NaN, high word 0xFFFF800000000000.
 *
 * NaN operands of arithmetic: a signaling one raises invalid. The result is one of the NaN operands
 * with its quiet bit set, and its sign and payload kept. Of two NaNs a quiet one is preferred to a
 * signaling one, then the one with the larger magnitude (the 127 bits below the sign), then the
 * negative one.
 *
 * All routines are re-entrant and thread-safe. */
#ifndef KSOMD_QUAD_H
#define KSOMD_QUAD_H

#include <ksomd/api.h>

KSOMD_BEGIN

/* high: sign (bit 63), exponent with bias 16383 (bits 62-48), fraction bits 111-64 (bits 47-0);
 * bit 47 set in a NaN makes it quiet. */
typedef struct quad128 {
  uint64_t low;  /* fraction bits 63-0 */
  uint64_t high; /* sign, exponent and fraction bits 111-64 */
} __attribute__((packed)) quad128;

/* A complex quad: 32 bytes, no alignment requirement. */
typedef struct cquad128 {
  quad128 re; /* real part */
  quad128 im; /* imaginary part */
} __attribute__((packed)) cquad128;

/* x87 extended precision as it lies in memory: 10 bytes, integer bit explicit, bias 16383. */
typedef struct extended80 {
  uint64_t significand;   /* integer bit, then 63 fraction bits */
  uint16_t sign_exponent; /* sign in bit 15, biased exponent below */
} __attribute__((packed)) extended80;

/* ---- arithmetic -------------------------------------------------------------------------------
 *
 * r = a + b, a - b, a * b, a / b. Zero times infinity, 0 / 0, infinity / infinity and infinities
 * that cancel are invalid; a finite non-zero number divided by zero raises divide-by-zero. A sum or
 * difference that cancels exactly is +0, or -0 when rounding toward negative infinity.
 *
 * The library also exports each processor variant of the product and the quotient, as
 * `__mulq.L`, `__mulq.A`, `__divq.L` and `__divq.A`: the same arguments and results. */
KSOMD_API void __addq(quad128* r, const quad128* a, const quad128* b);
KSOMD_API void __subq(quad128* r, const quad128* a, const quad128* b);
KSOMD_API void __mulq(quad128* r, const quad128* a, const quad128* b);
KSOMD_API void __divq(quad128* r, const quad128* a, const quad128* b);

/* r = -a: the sign bit inverted, whatever a is. No flag. */
KSOMD_API void __negq(quad128* r, const quad128* a);

/* ---- comparisons ------------------------------------------------------------------------------
 *
 * 1 if the relation holds, otherwise 0. +0 equals -0; a NaN is unequal to everything and neither
 * less nor greater. `__eqq` and `__neq` raise no flag; the others raise invalid for any NaN. */
KSOMD_API int32_t __eqq(const quad128* a, const quad128* b);
KSOMD_API int32_t __neq(const quad128* a, const quad128* b);
KSOMD_API int32_t __ltq(const quad128* a, const quad128* b);
KSOMD_API int32_t __leq(const quad128* a, const quad128* b);
KSOMD_API int32_t __gtq(const quad128* a, const quad128* b);
KSOMD_API int32_t __geq(const quad128* a, const quad128* b);

/* -1 if a < b, 1 if a > b, 0 if they are equal or (with invalid raised) either is a NaN. */
KSOMD_API int32_t __compareq(const quad128* a, const quad128* b);
KSOMD_API int32_t compareq(const quad128* a, const quad128* b);

/* ---- conversions to quad ----------------------------------------------------------------------
 *
 * All are exact and raise no flag. NaNs keep sign and payload, and signaling ones stay signaling.
 * The integer bit of an 80-bit operand is dropped; its sign, its exponent and the 63 bits below the
 * integer bit are copied. The conversions from integers return r. */
KSOMD_API void __dtoq(quad128* r, double x);
KSOMD_API void __ftoq(quad128* r, float x);
KSOMD_API void __ltoq(quad128* r, const extended80* x);
KSOMD_API quad128* __itoq(quad128* r, int32_t x);
KSOMD_API quad128* __utoq(quad128* r, uint32_t x);
KSOMD_API quad128* __jtoq(quad128* r, int64_t x);
KSOMD_API quad128* __ktoq(quad128* r, uint64_t x);

/* ---- conversions from quad --------------------------------------------------------------------
 *
 * To double, float and 80 bits: rounded in the MXCSR mode with the IEEE flags. A NaN keeps its sign
 * and the leading bits of its fraction and becomes quiet; a signaling one raises invalid. An
 * inexact 80-bit result raises underflow too if its exponent field ends up 0. `__qtol` returns r
 * and writes 10 bytes. */
KSOMD_API double __qtod(const quad128* a);
KSOMD_API float __qtof(const quad128* a);
KSOMD_API extended80* __qtol(extended80* r, const quad128* a);

/* How `__qtoi` and `__qtoj` round. For any other value `__qtoi` rounds away from zero, `__qtoj`
 * toward zero. */
enum {
  KSOMD_ROUND_TOWARD_ZERO = 0,
  KSOMD_ROUND_NEAREST_EVEN = 1,
  KSOMD_ROUND_DOWN = 2,
  KSOMD_ROUND_UP = 3
};

/* To signed integers. Out of range, infinite or NaN: the most negative value and invalid. Otherwise
 * inexact if the operand was no integer. */
KSOMD_API int32_t __qtoi(const quad128* a, int32_t mode);
KSOMD_API int64_t __qtoj(const quad128* a, int32_t mode);

/* To unsigned integers, toward zero. Operands above -1 and below 1 give 0; at most -1, too large,
 * infinite or NaN: 0x80000000 or 0x8000000000000000 and invalid. Otherwise inexact if the operand
 * was no integer. */
KSOMD_API uint32_t __qtou(const quad128* a);
KSOMD_API uint64_t __qtok(const quad128* a);

/* ---- complex ----------------------------------------------------------------------------------
 *
 * The two parts of each operand are passed by address, and the result may overlay them. Each step
 * is a quad operation, rounded and with its flags:
 *
 *   product    (a.re b.re - a.im b.im) + (a.re b.im + a.im b.re) i, without recovery of infinities
 *   quotient   w = 1 / (b.re b.re + b.im b.im),
 *              (a.re b.re + a.im b.im) w + (a.im b.re - a.re b.im) w i; nothing is scaled, so a
 *              divisor of magnitude beyond 2^8192 or below 2^-8191 overflows or underflows */
KSOMD_API void __caddq(cquad128* r, const quad128* a_re, const quad128* a_im, const quad128* b_re,
                       const quad128* b_im);
KSOMD_API void __csubq(cquad128* r, const quad128* a_re, const quad128* a_im, const quad128* b_re,
                       const quad128* b_im);
KSOMD_API void __cmulq(cquad128* r, const quad128* a_re, const quad128* a_im, const quad128* b_re,
                       const quad128* b_im);
KSOMD_API void __cdivq(cquad128* r, const quad128* a_re, const quad128* a_im, const quad128* b_re,
                       const quad128* b_im);
KSOMD_API void __cnegq(cquad128* r, const quad128* a_re, const quad128* a_im);

/* `__ceqq` is 1 if `__eqq` holds for both parts; `__cneq` is 1 if `__neq` holds for either. */
KSOMD_API int32_t __ceqq(const quad128* a_re, const quad128* a_im, const quad128* b_re,
                         const quad128* b_im);
KSOMD_API int32_t __cneq(const quad128* a_re, const quad128* a_im, const quad128* b_re,
                         const quad128* b_im);

/* `a_ceqq` is 1 and `a_cneq` is 0 if both parts have the same bits: -0 differs from +0, and a NaN
 * equals itself. */
KSOMD_API int32_t a_ceqq(const quad128* a_re, const quad128* a_im, const quad128* b_re,
                         const quad128* b_im);
KSOMD_API int32_t a_cneq(const quad128* a_re, const quad128* a_im, const quad128* b_re,
                         const quad128* b_im);

/* ---- the a_ family ----------------------------------------------------------------------------
 *
 * Second names, the same routines: */
KSOMD_API void a_addq(quad128* r, const quad128* a, const quad128* b);
KSOMD_API void a_subq(quad128* r, const quad128* a, const quad128* b);
KSOMD_API void a_mulq(quad128* r, const quad128* a, const quad128* b);
KSOMD_API void a_divq(quad128* r, const quad128* a, const quad128* b);
KSOMD_API void a_negq(quad128* r, const quad128* a);
KSOMD_API int32_t a_eqq(const quad128* a, const quad128* b);
KSOMD_API int32_t a_neq(const quad128* a, const quad128* b);
KSOMD_API int32_t a_ltq(const quad128* a, const quad128* b);
KSOMD_API int32_t a_leq(const quad128* a, const quad128* b);
KSOMD_API int32_t a_gtq(const quad128* a, const quad128* b);
KSOMD_API int32_t a_geq(const quad128* a, const quad128* b);
KSOMD_API void a_dtoq(quad128* r, double x);
KSOMD_API void a_ftoq(quad128* r, float x);
KSOMD_API quad128* a_itoq(quad128* r, int32_t x);
KSOMD_API quad128* a_jtoq(quad128* r, int64_t x);
KSOMD_API double a_qtod(const quad128* a);
KSOMD_API float a_qtof(const quad128* a);
KSOMD_API int32_t a_qtoi(const quad128* a, int32_t mode);
KSOMD_API int64_t a_qtoj(const quad128* a, int32_t mode);
KSOMD_API void a_caddq(cquad128* r, const quad128* a_re, const quad128* a_im, const quad128* b_re,
                       const quad128* b_im);
KSOMD_API void a_csubq(cquad128* r, const quad128* a_re, const quad128* a_im, const quad128* b_re,
                       const quad128* b_im);
KSOMD_API void a_cmulq(cquad128* r, const quad128* a_re, const quad128* a_im, const quad128* b_re,
                       const quad128* b_im);
KSOMD_API void a_cdivq(cquad128* r, const quad128* a_re, const quad128* a_im, const quad128* b_re,
                       const quad128* b_im);
KSOMD_API void a_cnegq(cquad128* r, const quad128* a_re, const quad128* a_im);

/* To 8 and 16 bits: second names of `__qtoi`; the caller takes the low bits. */
KSOMD_API int32_t a_qtoc(const quad128* a, int32_t mode);
KSOMD_API int32_t a_qtos(const quad128* a, int32_t mode);

/* From 8 and 16 bits; to and from 80 bits, where the value passes through an x87 register. */
KSOMD_API void a_ctoq(quad128* r, int8_t x);
KSOMD_API void a_stoq(quad128* r, int16_t x);
KSOMD_API void a_ltoq(quad128* r, const extended80* x);
KSOMD_API extended80* a_qtol(extended80* r, const quad128* a);

/* From complex. Those with a real result convert the real part. Those to integers convert toward
 * zero; of `a_cqtoch` and `a_cqtos` the caller takes the low bits. `r` of the last two: real part,
 * imaginary part. */
KSOMD_API void a_cqtoq(quad128* r, const cquad128* x);
KSOMD_API double a_cqtod(const cquad128* x);
KSOMD_API float a_cqtof(const cquad128* x);
KSOMD_API int32_t a_cqtoch(const cquad128* x);
KSOMD_API int32_t a_cqtos(const cquad128* x);
KSOMD_API int32_t a_cqtoi(const cquad128* x);
KSOMD_API int64_t a_cqtoj(const cquad128* x);
KSOMD_API void a_cqtoc(float* r, const cquad128* x);
KSOMD_API void a_cqtocd(double* r, const cquad128* x);

/* To complex: exact; a real operand gets the imaginary part +0. `x` of the last two: real part,
 * imaginary part. Floats and doubles in memory need no alignment either. */
KSOMD_API void a_qtocq(cquad128* r, const quad128* x);
KSOMD_API void a_dtocq(cquad128* r, double x);
KSOMD_API void a_ftocq(cquad128* r, float x);
KSOMD_API void a_chtocq(cquad128* r, int8_t x);
KSOMD_API void a_stocq(cquad128* r, int16_t x);
KSOMD_API void a_itocq(cquad128* r, int32_t x);
KSOMD_API void a_jtocq(cquad128* r, int64_t x);
KSOMD_API void a_cdtocq(cquad128* r, const double* x);
KSOMD_API void a_ctocq(cquad128* r, const float* x);

KSOMD_END

#endif
