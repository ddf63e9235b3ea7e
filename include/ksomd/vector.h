/* Support for vectorised loops: reductions into arrays, and a run-time test for independence.
 *
 * No routine keeps state or allocates. Calls on disjoint memory may run in any number of
 * threads. */
#ifndef KSOMD_VECTOR_H
#define KSOMD_VECTOR_H

#include <ksomd/api.h>

KSOMD_BEGIN

/* Element types. */
enum {
  KSOMD_UINT8 = 1,
  KSOMD_INT8 = 2,
  KSOMD_UINT16 = 3,
  KSOMD_INT16 = 4,
  KSOMD_UINT32 = 5,
  KSOMD_INT32 = 6,
  KSOMD_UINT64 = 7,
  KSOMD_INT64 = 8,
  KSOMD_FLOAT = 9,
  KSOMD_DOUBLE = 10,
  KSOMD_QUAD = 13,          /* quad128 of <ksomd/quad.h> */
  KSOMD_COMPLEX_FLOAT = 20, /* real part first */
  KSOMD_COMPLEX_DOUBLE = 21,
  KSOMD_COMPLEX_QUAD = 23
};

/* Reduction operations. Each is listed with its identity, and with what the destination element d
 * becomes when it is combined with the source element s. Integers wrap around. Minimum, maximum and
 * the operations from KSOMD_LOGICAL_AND on treat the two parts of a complex number separately, with
 * the identities of KSOMD_MAXIMUM and KSOMD_MINIMUM in both parts and the others' in the real part
 * alone.
 *
 * Maximum keeps d if s <= d and minimum if d <= s, so a NaN gives s; for quads maximum takes s if
 * d <= s and minimum if d >= s, so a NaN keeps d. */
enum {
  KSOMD_SUM = 1,        /* 0; d + s */
  KSOMD_PRODUCT = 2,    /* 1; d * s, of complex numbers without recovery of infinities */
  KSOMD_DIFFERENCE = 3, /* 0; d - s */
  KSOMD_MAXIMUM = 4,    /* the lowest finite value; not for complex quads */
  KSOMD_MINIMUM = 5,    /* the highest finite value; not for complex quads */
  /* not for quads and complex quads: */
  KSOMD_LOGICAL_AND = 6, /* 1; 1 if neither is 0, else 0 */
  KSOMD_LOGICAL_OR = 7,  /* 0; 1 if one is not 0, else 0 */
  KSOMD_EQUAL = 12,      /* 1; 1 if d = s, else 0 */
  KSOMD_NOT_EQUAL = 13,  /* 0; 1 if not, else 0 */
  /* for integers only: */
  KSOMD_AND = 8,   /* all ones; d AND s */
  KSOMD_OR = 9,    /* 0; d OR s */
  KSOMD_XOR = 10,  /* 0; d XOR s */
  KSOMD_XOR_2 = 11 /* the same */
};

/* Writes the identity of the operation into `count` elements. Arrays need no alignment. A type or
 * operation that is not listed, or not for the type, ends the process with abort(), whatever the
 * count. */
KSOMD_API void __orvex_reduction_init_array(void* array, uint64_t count, int32_t operation,
                                            uint32_t type);

/* Folds `source` into `destination`: destination[i] becomes the combination of destination[i] and
 * source[i * stride], for i from 0 to count - 1; with `use_stride` 0 the stride is 1. The stride
 * counts whole elements, may be negative or 0, and for complex types counts complex elements. The
 * arrays do not overlap. Codes as above.
 *
 * Arithmetic on floats and doubles rounds in the thread's SSE rounding mode and raises the flags of
 * the operations element by element; of two NaNs the destination's survives, quiet. A complex
 * product is re = d.re * s.re - d.im * s.im, im = d.re * s.im + d.im * s.re, each step rounded.
 * Maximum and minimum raise invalid for any NaN, the logical operations and the comparisons for
 * equality for signalling ones. */
KSOMD_API void __orvex_simd_reduction_final_array(void* destination, const void* source,
                                                  uint64_t count, int32_t stride,
                                                  int32_t use_stride, int32_t operation,
                                                  uint32_t type);

/* A range of addresses, both ends included. */
typedef struct ksomd_range {
  uint64_t start; /* address of the first byte */
  uint64_t end;   /* address of the last byte */
} ksomd_range;

/* Sorts the n ranges by start and tells whether one overlaps or touches the next: 1 if so, else 0,
 * also for n <= 1. Ranges with equal starts end up in a fixed order, that of a quicksort with the
 * last record as the pivot. For more than 1000 ranges there is one exception: if that quicksort
 * would look at more than about 3 n log2(n) records, twice as many as for a random order, the order
 * is that of a heap sort. So time is O(n log n) at worst. Stack use is logarithmic. The array must
 * not change during the call. */
KSOMD_API uint64_t __orvex_rtdd_indep(ksomd_range* ranges, int32_t n);

KSOMD_END

#endif
