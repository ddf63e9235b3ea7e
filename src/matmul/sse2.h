// Vectors of the baseline instruction set.
//
// What the kernel templates ask of a vector type, here and in any wider variant:
//   Real, Vector, width   element, vector, elements per vector
//   load, store           at any alignment
//   broadcast             one value in every lane
//   add, subtract, multiply
//   transpose             width vectors of width elements, in place
//   split, join           2 * width values re, im, re, im, ... to and from two vectors
//   any_both_nan          whether some lane is NaN in both vectors
#pragma once

#include <emmintrin.h>

#include "matmul/element.h"

namespace ksomd::matmul {

template <class T>
struct Sse2;

template <>
struct Sse2<double> {
  using Real = double;
  using Vector = __m128d;
  static constexpr Size width = 2;

  static Vector load(const double* p) { return _mm_loadu_pd(p); }
  static void store(double* p, Vector v) { _mm_storeu_pd(p, v); }
  static Vector broadcast(double x) { return _mm_set1_pd(x); }
  static Vector add(Vector x, Vector y) { return _mm_add_pd(x, y); }
  static Vector subtract(Vector x, Vector y) { return _mm_sub_pd(x, y); }
  static Vector multiply(Vector x, Vector y) { return _mm_mul_pd(x, y); }
  static void transpose(Vector (&v)[width]) {
    const Vector low = _mm_unpacklo_pd(v[0], v[1]);
    v[1] = _mm_unpackhi_pd(v[0], v[1]);
    v[0] = low;
  }
  static void split(const double* p, Vector& re, Vector& im) {
    re = _mm_unpacklo_pd(load(p), load(p + width));
    im = _mm_unpackhi_pd(load(p), load(p + width));
  }
  static void join(double* p, Vector re, Vector im) {
    store(p, _mm_unpacklo_pd(re, im));
    store(p + width, _mm_unpackhi_pd(re, im));
  }
  static bool any_both_nan(Vector x, Vector y) {
    return _mm_movemask_pd(_mm_and_pd(_mm_cmpunord_pd(x, x), _mm_cmpunord_pd(y, y))) != 0;
  }
};

template <>
struct Sse2<float> {
  using Real = float;
  using Vector = __m128;
  static constexpr Size width = 4;

  static Vector load(const float* p) { return _mm_loadu_ps(p); }
  static void store(float* p, Vector v) { _mm_storeu_ps(p, v); }
  static Vector broadcast(float x) { return _mm_set1_ps(x); }
  static Vector add(Vector x, Vector y) { return _mm_add_ps(x, y); }
  static Vector subtract(Vector x, Vector y) { return _mm_sub_ps(x, y); }
  static Vector multiply(Vector x, Vector y) { return _mm_mul_ps(x, y); }
  static void transpose(Vector (&v)[width]) {
    const Vector low01 = _mm_unpacklo_ps(v[0], v[1]);
    const Vector low23 = _mm_unpacklo_ps(v[2], v[3]);
    const Vector high01 = _mm_unpackhi_ps(v[0], v[1]);
    const Vector high23 = _mm_unpackhi_ps(v[2], v[3]);
    v[0] = _mm_movelh_ps(low01, low23);
    v[1] = _mm_movehl_ps(low23, low01);
    v[2] = _mm_movelh_ps(high01, high23);
    v[3] = _mm_movehl_ps(high23, high01);
  }
  static void split(const float* p, Vector& re, Vector& im) {
    re = _mm_shuffle_ps(load(p), load(p + width), _MM_SHUFFLE(2, 0, 2, 0));
    im = _mm_shuffle_ps(load(p), load(p + width), _MM_SHUFFLE(3, 1, 3, 1));
  }
  static void join(float* p, Vector re, Vector im) {
    store(p, _mm_unpacklo_ps(re, im));
    store(p + width, _mm_unpackhi_ps(re, im));
  }
  static bool any_both_nan(Vector x, Vector y) {
    return _mm_movemask_ps(_mm_and_ps(_mm_cmpunord_ps(x, x), _mm_cmpunord_ps(y, y))) != 0;
  }
};

}  // namespace ksomd::matmul
