// Vectors of 256 bits. The contract of the members stands in matmul/kernel/sse2.h.
#pragma once

#include <immintrin.h>

#include "matmul/kernel/vector.h"

namespace ksomd::matmul {

struct AvxShuffles {
  using Bits = __m256d;
  static constexpr Size parts = 2;

  KSOMD_INLINE static Bits low32(Bits x, Bits y) {
    return _mm256_castps_pd(_mm256_unpacklo_ps(_mm256_castpd_ps(x), _mm256_castpd_ps(y)));
  }
  KSOMD_INLINE static Bits high32(Bits x, Bits y) {
    return _mm256_castps_pd(_mm256_unpackhi_ps(_mm256_castpd_ps(x), _mm256_castpd_ps(y)));
  }
  KSOMD_INLINE static Bits low64(Bits x, Bits y) { return _mm256_unpacklo_pd(x, y); }
  KSOMD_INLINE static Bits high64(Bits x, Bits y) { return _mm256_unpackhi_pd(x, y); }
  KSOMD_INLINE static void exchange_parts(Bits (&v)[parts]) {
    const Bits low = _mm256_permute2f128_pd(v[0], v[1], 0x20);
    v[1] = _mm256_permute2f128_pd(v[0], v[1], 0x31);
    v[0] = low;
  }
};

// 2 x 6 sums, two vectors of op(A), one of op(B) and a product: 15 registers. Complex: 1 x 4 sums
// of two registers each, and eight for factors and products.
struct AvxTiles {
  static constexpr TileShape real{2, 6};
  static constexpr TileShape complex{1, 4};
  static constexpr int unroll = 2;
  static constexpr Size depth_ahead = 4;
  static constexpr Size columns_worth_packing = ~Size{0};

  // Ones in the first `filled` of `width` lanes.
  template <Size width>
  KSOMD_INLINE static __m256i mask(Size filled) {
    alignas(32) static constexpr std::int32_t ones[16] = {-1, -1, -1, -1, -1, -1, -1, -1};
    return _mm256_loadu_si256(reinterpret_cast<const __m256i*>(ones + 8 - filled * (8 / width)));
  }
};

template <class T>
struct Avx;

template <>
struct Avx<double> : AvxTiles, VectorOf<double, AvxShuffles> {
  KSOMD_INLINE static Vector broadcast(double x) { return _mm256_set1_pd(x); }
  KSOMD_INLINE static Vector broadcast_pair(const double* p) {
    const __m128d pair = _mm_loadu_pd(p);
    return _mm256_insertf128_pd(_mm256_castpd128_pd256(pair), pair, 1);
  }
  KSOMD_INLINE static Vector load_part(const double* p, Size filled, Vector rest) {
    const __m256i lanes = mask<width>(filled);
    return _mm256_blendv_pd(rest, _mm256_maskload_pd(p, lanes), _mm256_castsi256_pd(lanes));
  }
  KSOMD_INLINE static void store_part(double* p, Size filled, Vector v) {
    _mm256_maskstore_pd(p, mask<width>(filled), v);
  }
  KSOMD_INLINE static bool any_both_nan(Vector x, Vector y) {
    return _mm256_movemask_pd(_mm256_and_pd(_mm256_cmp_pd(x, x, _CMP_UNORD_Q),
                                            _mm256_cmp_pd(y, y, _CMP_UNORD_Q))) != 0;
  }
};

template <>
struct Avx<float> : AvxTiles, VectorOf<float, AvxShuffles> {
  KSOMD_INLINE static Vector broadcast(float x) { return _mm256_set1_ps(x); }
  KSOMD_INLINE static Vector broadcast_pair(const float* p) {
    return _mm256_castpd_ps(_mm256_broadcast_sd(reinterpret_cast<const double*>(p)));
  }
  KSOMD_INLINE static Vector load_part(const float* p, Size filled, Vector rest) {
    const __m256i lanes = mask<width>(filled);
    return _mm256_blendv_ps(rest, _mm256_maskload_ps(p, lanes), _mm256_castsi256_ps(lanes));
  }
  KSOMD_INLINE static void store_part(float* p, Size filled, Vector v) {
    _mm256_maskstore_ps(p, mask<width>(filled), v);
  }
  KSOMD_INLINE static void split(Vector first, Vector second, Vector& re, Vector& im) {
    re = _mm256_shuffle_ps(first, second, _MM_SHUFFLE(2, 0, 2, 0));
    im = _mm256_shuffle_ps(first, second, _MM_SHUFFLE(3, 1, 3, 1));
  }
  KSOMD_INLINE static bool any_both_nan(Vector x, Vector y) {
    return _mm256_movemask_ps(_mm256_and_ps(_mm256_cmp_ps(x, x, _CMP_UNORD_Q),
                                            _mm256_cmp_ps(y, y, _CMP_UNORD_Q))) != 0;
  }
};

}  // namespace ksomd::matmul
