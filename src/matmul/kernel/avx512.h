// Vectors of 512 bits. The contract of the members stands in matmul/kernel/sse2.h.
#pragma once

#include <immintrin.h>

#include "matmul/kernel/vector.h"

namespace ksomd::matmul {

struct Avx512Shuffles {
  using Bits = __m512d;
  static constexpr Size parts = 4;

  KSOMD_INLINE static Bits low32(Bits x, Bits y) {
    return _mm512_castps_pd(_mm512_unpacklo_ps(_mm512_castpd_ps(x), _mm512_castpd_ps(y)));
  }
  KSOMD_INLINE static Bits high32(Bits x, Bits y) {
    return _mm512_castps_pd(_mm512_unpackhi_ps(_mm512_castpd_ps(x), _mm512_castpd_ps(y)));
  }
  KSOMD_INLINE static Bits low64(Bits x, Bits y) { return _mm512_unpacklo_pd(x, y); }
  KSOMD_INLINE static Bits high64(Bits x, Bits y) { return _mm512_unpackhi_pd(x, y); }
  KSOMD_INLINE static void exchange_parts(Bits (&v)[parts]) {
    const Bits low01 = _mm512_shuffle_f64x2(v[0], v[1], 0x44);
    const Bits low23 = _mm512_shuffle_f64x2(v[2], v[3], 0x44);
    const Bits high01 = _mm512_shuffle_f64x2(v[0], v[1], 0xEE);
    const Bits high23 = _mm512_shuffle_f64x2(v[2], v[3], 0xEE);
    v[0] = _mm512_shuffle_f64x2(low01, low23, 0x88);
    v[1] = _mm512_shuffle_f64x2(low01, low23, 0xDD);
    v[2] = _mm512_shuffle_f64x2(high01, high23, 0x88);
    v[3] = _mm512_shuffle_f64x2(high01, high23, 0xDD);
  }
};

// 3 x 8 sums, three vectors of op(A), one of op(B) and products: 29 registers. Complex: 2 x 5 sums
// of two registers each, and twelve for factors and products.
struct Avx512Tiles {
  static constexpr TileShape real{3, 8};
  static constexpr TileShape complex{2, 5};
  static constexpr int unroll = 1;
  static constexpr Size depth_ahead = 4;
  static constexpr Size columns_worth_packing = ~Size{0};
};

template <class T>
struct Avx512;

template <>
struct Avx512<double> : Avx512Tiles, VectorOf<double, Avx512Shuffles> {
  KSOMD_INLINE static Vector broadcast(double x) { return _mm512_set1_pd(x); }
  KSOMD_INLINE static Vector broadcast_pair(const double* p) {
    return _mm512_castps_pd(_mm512_broadcast_f32x4(_mm_castpd_ps(_mm_loadu_pd(p))));
  }
  KSOMD_INLINE static Vector load_part(const double* p, Size filled, Vector rest) {
    return _mm512_mask_loadu_pd(rest, mask(filled), p);
  }
  KSOMD_INLINE static void store_part(double* p, Size filled, Vector v) {
    _mm512_mask_storeu_pd(p, mask(filled), v);
  }
  KSOMD_INLINE static bool any_both_nan(Vector x, Vector y) {
    return (_mm512_cmp_pd_mask(x, x, _CMP_UNORD_Q) & _mm512_cmp_pd_mask(y, y, _CMP_UNORD_Q)) != 0;
  }

 private:
  KSOMD_INLINE static __mmask8 mask(Size filled) {
    return static_cast<__mmask8>((1U << filled) - 1);
  }
};

template <>
struct Avx512<float> : Avx512Tiles, VectorOf<float, Avx512Shuffles> {
  KSOMD_INLINE static Vector broadcast(float x) { return _mm512_set1_ps(x); }
  KSOMD_INLINE static Vector broadcast_pair(const float* p) {
    return _mm512_castpd_ps(_mm512_broadcastsd_pd(_mm_load_sd(reinterpret_cast<const double*>(p))));
  }
  KSOMD_INLINE static Vector load_part(const float* p, Size filled, Vector rest) {
    return _mm512_mask_loadu_ps(rest, mask(filled), p);
  }
  KSOMD_INLINE static void store_part(float* p, Size filled, Vector v) {
    _mm512_mask_storeu_ps(p, mask(filled), v);
  }
  KSOMD_INLINE static void split(Vector first, Vector second, Vector& re, Vector& im) {
    re = _mm512_shuffle_ps(first, second, _MM_SHUFFLE(2, 0, 2, 0));
    im = _mm512_shuffle_ps(first, second, _MM_SHUFFLE(3, 1, 3, 1));
  }
  KSOMD_INLINE static bool any_both_nan(Vector x, Vector y) {
    return (_mm512_cmp_ps_mask(x, x, _CMP_UNORD_Q) & _mm512_cmp_ps_mask(y, y, _CMP_UNORD_Q)) != 0;
  }

 private:
  KSOMD_INLINE static __mmask16 mask(Size filled) {
    return static_cast<__mmask16>((1U << filled) - 1);
  }
};

}  // namespace ksomd::matmul
