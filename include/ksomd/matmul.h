/* Matrix products: the Fortran MATMUL intrinsic, and the kernels it is made of.
 *
 * Every routine computes with op(A) (m x k), op(B) (k x n) and the result P (m x n).
 *
 *   code   element                                         bytes
 *   r4     binary32                                        4
 *   r8     binary64                                        8
 *   c4     complex of binary32, real part first            8
 *   c8     complex of binary64, real part first            16
 *
 * Matrices are column-major. A leading dimension is the distance between the starts of adjacent
 * columns, in elements (complex elements for c4 and c8). Two letters say how A and B are stored:
 *
 *   letter   A                                    B
 *   n        m x k, op(A)(i,l) = A[i + l*lda]     k x n, op(B)(l,j) = B[l + j*ldb]
 *   t        k x m, op(A)(i,l) = A[l + i*lda]     n x k, op(B)(l,j) = B[j + l*ldb]
 *
 * `t` is a plain transpose: no element is conjugated. Pointers need no more than the alignment of
 * the element's parts, and alignment never changes a bit of the result.
 *
 * The order of operations is fixed, for every element and on every processor. Each product and each
 * sum is rounded by itself in the caller's rounding mode: there is no fused multiply-add, no
 * reassociation and no wider accumulator. Complex products are those of the compiler's
 * multiplication builtin (ISO/IEC 9899, Annex G); complex sums add real and imaginary parts
 * separately. Which of two NaNs an operation passes on is unspecified.
 *
 * The flags raised are those of the products and sums, where a complex product counts as four
 * products, a difference and a sum. No others are raised, except that for denormal operands; the
 * recovery of infinities raises none.
 *
 * Elements of P outside its m x n rectangle are never read or written. Nothing is checked and no
 * error is reported; extents of zero are valid. All routines may run on any number of threads at
 * once, on distinct results. Unless a routine says otherwise, P overlaps neither operand. */
#ifndef KSOMD_MATMUL_H
#define KSOMD_MATMUL_H

#include <ksomd/api.h>

KSOMD_BEGIN

/* An element of type c4. */
typedef struct ksomd_c4 {
  float re; /* real part */
  float im; /* imaginary part */
} ksomd_c4;

/* An element of type c8. */
typedef struct ksomd_c8 {
  double re; /* real part */
  double im; /* imaginary part */
} ksomd_c8;

/* The element types and letters of the routines below: X(code, element, letter of A, of B). */
#define KSOMD_MATMUL_EACH(X) \
  X(r4, float, n, n)         \
  X(r4, float, t, n)         \
  X(r4, float, n, t)         \
  X(r4, float, t, t)         \
  KSOMD_MATMUL_EACH_R8(X)    \
  X(c4, ksomd_c4, n, n)      \
  X(c4, ksomd_c4, t, n)      \
  X(c4, ksomd_c4, n, t)      \
  X(c4, ksomd_c4, t, t)      \
  X(c8, ksomd_c8, n, n)      \
  X(c8, ksomd_c8, t, n)      \
  X(c8, ksomd_c8, n, t)      \
  X(c8, ksomd_c8, t, t)

/* The r8 rows of that table. */
#define KSOMD_MATMUL_EACH_R8(X) \
  X(r8, double, n, n)           \
  X(r8, double, t, n)           \
  X(r8, double, n, t)           \
  X(r8, double, t, t)

/* _MATMUL_<code>_<a>_<b>(A, B, P, m, k, n, lda, ldb, ldp), sixteen entries: P = op(A) * op(B).
 *
 * P is overwritten; k = 0 fills it with zeros. Each entry also has a second stage under a dotted
 * name with the same arguments, which generated code may call directly:
 *
 *   _MATMUL_<code>_<a>_<b>.A   the portable path: clear P, then _pst_General below
 *   _MATMUL_r8_<a>_<b>.J       the packed path: _QWide below
 *
 * The r8 entries take the packed path on a processor with X87, CMOV, MMX, SSE and SSE2, everything
 * else the portable one. The features are read once per process (ksomd/processor.h).
 *
 * A program may pass pointers to its compiler's own complex types, converted to these. */
#define KSOMD_MATMUL_DECLARE(code, element, a, b)                                             \
  KSOMD_API void _MATMUL_##code##_##a##_##b(const element* A, const element* B, element* P,   \
                                            uint64_t m, uint64_t k, uint64_t n, uint64_t lda, \
                                            uint64_t ldb, uint64_t ldp);
KSOMD_MATMUL_EACH(KSOMD_MATMUL_DECLARE)
#undef KSOMD_MATMUL_DECLARE

/* _MATMUL_<code>_<a>_<b>_pst_General(A, B, P, m, n, k, lda, ldb, ldp), n before k: adds
 * op(A) * op(B) to P.
 *
 * Order, n_n, n_t and t_n: P(i,j) receives its products for l = 0, 1, ..., k-1, one after the
 * other; with k = 0 nothing is written. t_t: the sum of all products, in the same order from zero,
 * is added to P(i,j), also with k = 0.
 *
 * P may overlap A or B. Elements of P are then read and written in this order:
 *   n_n, n_t   row blocks of 128; in each, depth blocks of 128; in each, the columns; in each, l in
 *              groups of four and then one by one; in each, the rows: P(i,j) is read, receives the
 *              group's products and is written
 *   t_n        the same blocks and columns; in each, the rows: P(i,j) is read, receives the block's
 *              products and is written
 *   t_t        the columns; in each, the rows: all products are summed, then P(i,j) is read and
 *              written */
#define KSOMD_MATMUL_DECLARE(code, element, a, b)                                         \
  KSOMD_API void _MATMUL_##code##_##a##_##b##_pst_General(                                \
      const element* A, const element* B, element* P, uint64_t m, uint64_t n, uint64_t k, \
      uint64_t lda, uint64_t ldb, uint64_t ldp);
KSOMD_MATMUL_EACH(KSOMD_MATMUL_DECLARE)
#undef KSOMD_MATMUL_DECLARE

/* Sets P(i,j), i < m, j < n, to zero: all bits clear. They serve every layout. */
KSOMD_API void _MATMUL_r4_n_n_pst_init(float* P, uint64_t m, uint64_t n, uint64_t ldp);
KSOMD_API void _MATMUL_r8_n_n_pst_init(double* P, uint64_t m, uint64_t n, uint64_t ldp);
KSOMD_API void _MATMUL_c4_n_n_pst_init(ksomd_c4* P, uint64_t m, uint64_t n, uint64_t ldp);
KSOMD_API void _MATMUL_c8_n_n_pst_init(ksomd_c8* P, uint64_t m, uint64_t n, uint64_t ldp);

/* Matrix-vector products, y = op(A) * x with op(A) (m x k). y is contiguous; x(l) is x[l] in the
 * first two and x[l*incx] in the others. The strides are signed. Where A is transposed, k stands
 * before m.
 *
 * y is cleared first; then the contributions x(l) * A(.,l) are added for l = 0, 1, ..., k-1 (A as
 * is), or y(0), y(1), ... are summed in turn, l increasing (A transposed). y may overlap A or x:
 * reads see what that order has written. */
KSOMD_API void MATMUL_v_nn_pst(const double* A, const double* x, double* y, uint64_t m, uint64_t k,
                               int64_t lda);
KSOMD_API void MATMUL_v_tn_pst(const double* A, const double* x, double* y, uint64_t k, uint64_t m,
                               int64_t lda);
KSOMD_API void MATMUL_v_nt_pst(const double* A, const double* x, double* y, uint64_t m, uint64_t k,
                               int64_t lda, int64_t incx);
KSOMD_API void MATMUL_v_tt_pst(const double* A, const double* x, double* y, uint64_t k, uint64_t m,
                               int64_t lda, int64_t incx);

/* _MATMUL_r8_<a>_<b>_QWide(A, B, P, m, n, k, lda, ldb, ldp), n before k: P = op(A) * op(B) through
 * packed panels. P is overwritten.
 *
 * With m < 34, n < 38 or k < 38: P is cleared, then _pst_General. Otherwise malloc provides min(n,
 * 2000) * 896 + 258816 bytes of scratch for the duration of the call; if it fails, the product is
 * computed as for small operands.
 *
 * Order of the packed product: the last k mod 112 indices l (the last 112, if that is 0), padded
 * with zeros to a multiple of four, are summed from zero and stored; then for each chunk of 112
 * from l = 0 on, its sum from zero is formed and P(i,j) = sum + P(i,j). Rows that fill no group of
 * four are cleared and go through _pst_General, chunk by chunk in the same order; columns that fill
 * no group of four are matrix-vector products over the whole of k. */
#define KSOMD_MATMUL_DECLARE(code, element, a, b)                                         \
  KSOMD_API void _MATMUL_##code##_##a##_##b##_QWide(                                      \
      const element* A, const element* B, element* P, uint64_t m, uint64_t n, uint64_t k, \
      uint64_t lda, uint64_t ldb, uint64_t ldp);
KSOMD_MATMUL_EACH_R8(KSOMD_MATMUL_DECLARE)
#undef KSOMD_MATMUL_DECLARE

/* Packing: one panel for each complete group of four rows of op(A) or columns of op(B), one after
 * the other. Entry l of panel g holds op(A)(4g..4g+3, l) or op(B)(l, 4g..4g+3); entries from depth
 * to the next multiple of four are zero. `source` is the block's first element. Incomplete groups
 * are not packed. The destination overlaps nothing.
 *   an, bn: the operand is stored as is; at, bt: transposed. */
KSOMD_API void __orvex_dgcopyan_qwide(uint64_t rows, uint64_t depth, const double* source,
                                      uint64_t lda, double* destination);
KSOMD_API void __orvex_dgcopyat_qwide(uint64_t rows, uint64_t depth, const double* source,
                                      uint64_t lda, double* destination);
KSOMD_API void __orvex_dgcopybn_psc(uint64_t depth, uint64_t columns, const double* source,
                                    uint64_t ldb, double* destination);
KSOMD_API void __orvex_dgcopybt_psc(uint64_t depth, uint64_t columns, const double* source,
                                    uint64_t ldb, double* destination);

/* Tile kernels over packed panels. Sizes are passed by address: *m and *n are multiples of 4, at
 * least 4. `unused` is not read. A and B start on 16-byte boundaries. `doubled` is scratch for one
 * panel of op(B) with every value twice: 8 * depth values, on a 16-byte boundary, overlapping
 * nothing.
 *   __orvex_dinnerz_roll_qwide  P = A * B; *depth is a multiple of 4, at least 4
 *   __orvex_dinner_qwide        P = (A * B) + P; the depth is 112, `depth` is not read */
KSOMD_API void __orvex_dinnerz_roll_qwide(const uint64_t* m, const uint64_t* n,
                                          const uint64_t* depth, const double* A, const double* B,
                                          const uint64_t* unused, double* P, const uint64_t* ldp,
                                          double* doubled);
KSOMD_API void __orvex_dinner_qwide(const uint64_t* m, const uint64_t* n, const uint64_t* depth,
                                    const double* A, const double* B, const uint64_t* unused,
                                    double* P, const uint64_t* ldp, double* doubled);

KSOMD_END

#endif
