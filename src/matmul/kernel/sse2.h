// Vectors of the baseline instruction set.
//
// What the kernel templates ask of the vectors of every instruction set, here and in the wider
// ones:
//   Real, Vector, width   element, vector, elements per vector
//   Shuffles              see matmul/pack/transpose.h
//   real, complex         shapes of the register tiles: vectors of rows, columns
//   zero, broadcast, broadcast_pair
//   load, store           at any alignment
//   load_part             `filled` elements, at least the first of `width`; the lanes after them
//                         are those of `rest`, in which the last element (or pair) is repeated
//   store_part            the first `filled` elements
//   add, subtract, multiply
//   split, join           2 * width values re, im, re, im, ... to and from two vectors, in an order
//                         of lanes of the instruction set's own
//   any_both_nan          whether some lane is NaN in both vectors
#pragma once

#include <emmintrin.h>

#include "matmul/kernel/vector.h"

namespace ksomd::matmul {

struct Sse2Shuffles {
  using Bits = __m128d;
  static constexpr Size parts = 1;

  KSOMD_INLINE static Bits low32(Bits x, Bits y) {
    return _mm_castps_pd(_mm_unpacklo_ps(_mm_castpd_ps(x), _mm_castpd_ps(y)));
  }
  KSOMD_INLINE static Bits high32(Bits x, Bits y) {
    return _mm_castps_pd(_mm_unpackhi_ps(_mm_castpd_ps(x), _mm_castpd_ps(y)));
  }
  KSOMD_INLINE static Bits low64(Bits x, Bits y) { return _mm_unpacklo_pd(x, y); }
  KSOMD_INLINE static Bits high64(Bits x, Bits y) { return _mm_unpackhi_pd(x, y); }
  KSOMD_INLINE static void exchange_parts(Bits (&)[parts]) {}
};

// 6 x 2 sums, one vector of op(A), two of op(B) and a product: 16 registers. Complex: 2 x 2 sums of
// two registers each, and eight for factors and products.
struct Sse2Tiles {
  static constexpr TileShape real{6, 2};
  static constexpr TileShape complex{2, 2};
  static constexpr int unroll = 2;
  static constexpr Size depth_ahead = 0;
  static constexpr Size columns_worth_packing = 24;
};

template <class T>
struct Sse2;

template <>
struct Sse2<double> : Sse2Tiles, VectorOf<double, Sse2Shuffles> {
  KSOMD_INLINE static Vector broadcast(double x) { return _mm_set1_pd(x); }
  KSOMD_INLINE static Vector broadcast_pair(const double* p) { return load(p); }
  KSOMD_INLINE static Vector load_part(const double* p, Size filled, Vector rest) {
    return filled < width ? rest : load(p);
  }
  KSOMD_INLINE static void store_part(double* p, Size filled, Vector v) {
    if (filled == width) {
      store(p, v);
    } else if (filled != 0) {
      _mm_store_sd(p, v);
    }
  }
  KSOMD_INLINE static bool any_both_nan(Vector x, Vector y) {
    return _mm_movemask_pd(_mm_and_pd(_mm_cmpunord_pd(x, x), _mm_cmpunord_pd(y, y))) != 0;
  }
};

template <>
struct Sse2<float> : Sse2Tiles, VectorOf<float, Sse2Shuffles> {
  KSOMD_INLINE static Vector broadcast(float x) { return _mm_set1_ps(x); }
  KSOMD_INLINE static Vector broadcast_pair(const float* p) {
    return _mm_castpd_ps(_mm_load1_pd(reinterpret_cast<const double*>(p)));
  }
  KSOMD_INLINE static Vector load_part(const float* p, Size filled, Vector rest) {
    if (filled == width) {
      return load(p);
    }
    // With three elements, lane 2 of `rest` is the third.
    return filled < 2 ? rest : _mm_loadl_pi(rest, reinterpret_cast<const __m64*>(p));
  }
  KSOMD_INLINE static void store_part(float* p, Size filled, Vector v) {
    if (filled == width) {
      store(p, v);
      return;
    }
    if (filled >= 2) {
      _mm_storel_pi(reinterpret_cast<__m64*>(p), v);
      v = _mm_movehl_ps(v, v);
    }
    if (filled % 2 != 0) {
      _mm_store_ss(p + filled - 1, v);
    }
  }
  KSOMD_INLINE static void split(Vector first, Vector second, Vector& re, Vector& im) {
    re = _mm_shuffle_ps(first, second, _MM_SHUFFLE(2, 0, 2, 0));
    im = _mm_shuffle_ps(first, second, _MM_SHUFFLE(3, 1, 3, 1));
  }
  KSOMD_INLINE static bool any_both_nan(Vector x, Vector y) {
    return _mm_movemask_ps(_mm_and_ps(_mm_cmpunord_ps(x, x), _mm_cmpunord_ps(y, y))) != 0;
  }
};

}  // namespace ksomd::matmul
