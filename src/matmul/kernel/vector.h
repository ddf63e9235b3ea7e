// What the vectors of every instruction set have in common.
#pragma once

#include "matmul/contract.h"

namespace ksomd::matmul {

// Real, Vector, width   element, vector, elements per vector
// load, store           at any alignment
template <class T, Size bytes>
struct VectorOf {
  using Real = T;
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
};

}  // namespace ksomd::matmul
