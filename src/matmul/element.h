// Elements, layouts and sizes of the matrix products.
//
// All matrices are column-major; a leading dimension counts elements. op(X) is X as stored, or its
// plain transpose. The result is P(m x n) from op(A)(m x k) and op(B)(k x n).
#pragma once

#include <cstddef>
#include <cstdint>

#include "ksomd/matmul.h"
#include "matmul/complex_multiply.h"

// Files compiled for different instruction sets include this header: what could be compiled out of
// line there must not be shared, so nothing here is.
#define KSOMD_INLINE [[gnu::always_inline]] inline

namespace ksomd::matmul {

using Size = std::uint64_t;

template <class Real>
struct ComplexOf;
template <>
struct ComplexOf<float> {
  using Type = ksomd_c4;
};
template <>
struct ComplexOf<double> {
  using Type = ksomd_c8;
};
template <class Real>
using Complex = ComplexOf<Real>::Type;

template <class Element>
inline constexpr bool is_complex = requires(Element x) { x.re; };

// A register tile: vectors of rows, and columns.
struct TileShape {
  Size vectors;
  Size columns;
};

// How an operand is stored: as op(X) itself, or transposed.
enum class Layout { n, t };

// The two letters of a product.
struct Letters {
  Layout a;
  Layout b;
};

// Where op(X)(row, column) lies in the stored array.
template <Layout layout>
KSOMD_INLINE constexpr Size offset(Size row, Size column, Size leading) {
  return layout == Layout::n ? row + column * leading : column + row * leading;
}

KSOMD_INLINE constexpr Size min(Size x, Size y) {
  return x < y ? x : y;
}

KSOMD_INLINE constexpr Size round_down(Size value, Size unit) {
  return value - value % unit;
}

KSOMD_INLINE constexpr Size round_up(Size value, Size unit) {
  return round_down(value + unit - 1, unit);
}

// One product and one addition, each rounded by itself.
template <class Element>
KSOMD_INLINE Element multiply(Element x, Element y) {
  if constexpr (is_complex<Element>) {
    return complex_product(x, y);
  } else {
    return x * y;
  }
}

template <class Element>
KSOMD_INLINE Element add(Element x, Element y) {
  if constexpr (is_complex<Element>) {
    return {x.re + y.re, x.im + y.im};
  } else {
    return x + y;
  }
}

// The operands and the result of one product.
template <class Element>
struct Product {
  const Element* a;
  const Element* b;
  Element* p;
  Size m, n, k;
  Size lda, ldb, ldp;
};

// Whether two byte ranges share a byte.
KSOMD_INLINE bool overlap(const void* x, Size x_bytes, const void* y, Size y_bytes) {
  const auto x_start = reinterpret_cast<std::uintptr_t>(x);
  const auto y_start = reinterpret_cast<std::uintptr_t>(y);
  return x_start < y_start + y_bytes && y_start < x_start + x_bytes;
}

// Bytes from the first to the last element of a matrix stored with `rows` x `columns` elements.
template <class Element>
KSOMD_INLINE constexpr Size span_bytes(Size rows, Size columns, Size leading) {
  return rows == 0 || columns == 0 ? 0 : ((columns - 1) * leading + rows) * sizeof(Element);
}

}  // namespace ksomd::matmul
