// What the vectors of all instruction sets have in common.
#pragma once

#include "matmul/contract.h"

namespace ksomd::matmul {

// The members that are the same at every width. matmul/kernel/sse2.h lists them all.
template <class T, class Shuffles_>
struct VectorOf {
  using Real = T;
  using Shuffles = Shuffles_;
  using Bits = Shuffles::Bits;
  static constexpr Size bytes = sizeof(Bits);
  typedef T Vector __attribute__((vector_size(bytes)));
  static constexpr Size width = bytes / sizeof(T);

  KSOMD_INLINE static Vector zero() { return Vector{}; }
  KSOMD_INLINE static Vector load(const T* p) {
    Vector v;
    __builtin_memcpy(&v, p, bytes);
    return v;
  }
  KSOMD_INLINE static void store(T* p, Vector v) { __builtin_memcpy(p, &v, bytes); }
  KSOMD_INLINE static Vector add(Vector x, Vector y) { return x + y; }
  KSOMD_INLINE static Vector subtract(Vector x, Vector y) { return x - y; }
  KSOMD_INLINE static Vector multiply(Vector x, Vector y) { return x * y; }

  KSOMD_INLINE static void split(Vector first, Vector second, Vector& re, Vector& im) {
    static_assert(sizeof(T) == 8);
    re = Shuffles::low64(first, second);
    im = Shuffles::high64(first, second);
  }
  KSOMD_INLINE static void join(Vector re, Vector im, Vector& first, Vector& second) {
    if constexpr (sizeof(T) == 8) {
      first = Shuffles::low64(re, im);
      second = Shuffles::high64(re, im);
    } else {
      first = reinterpret_cast<Vector>(
          Shuffles::low32(reinterpret_cast<Bits>(re), reinterpret_cast<Bits>(im)));
      second = reinterpret_cast<Vector>(
          Shuffles::high32(reinterpret_cast<Bits>(re), reinterpret_cast<Bits>(im)));
    }
  }
};

}  // namespace ksomd::matmul
