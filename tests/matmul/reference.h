// The matrix products as the contract states them: plain loops that read and write P in its order.
#pragma once

#include <algorithm>
#include <cstring>
#include <type_traits>

#include "ksomd/builtins.h"
#include "ksomd/matmul.h"

namespace ksomd::test {

using Size = std::uint64_t;

template <class Element>
inline constexpr bool is_complex = !std::is_floating_point_v<Element>;
template <class Element>
using RealOf =
    std::conditional_t<std::is_same_v<Element, float> || std::is_same_v<Element, ksomd_c4>, float,
                       double>;

// Real numbers in an element.
template <class Element>
inline constexpr std::size_t parts = is_complex<Element> ? 2 : 1;

template <class Element>
Element sum(Element x, Element y) {
  if constexpr (is_complex<Element>) {
    return {x.re + y.re, x.im + y.im};
  } else {
    return x + y;
  }
}

// A complex product has the flags of the plain formula; where that gives no number, the builtin
// recovers infinities and raises nothing.
template <class Element>
Element product(Element x, Element y) {
  if constexpr (is_complex<Element>) {
    Element z = {x.re * y.re - x.im * y.im, x.re * y.im + x.im * y.re};
    if (z.re != z.re && z.im != z.im) {
      const unsigned flags = __builtin_ia32_stmxcsr();
      if constexpr (std::is_same_v<Element, ksomd_c4>) {
        const auto recovered = __mulsc3(x.re, x.im, y.re, y.im);
        z = {__real__ recovered, __imag__ recovered};
      } else {
        const auto recovered = __muldc3(x.re, x.im, y.re, y.im);
        z = {__real__ recovered, __imag__ recovered};
      }
      __builtin_ia32_ldmxcsr(flags);
    }
    return z;
  } else {
    return x * y;
  }
}

// op(A) and op(B) are stored transposed where the flags say so.
template <class Element>
struct Problem {
  bool at, bt;
  Size m, n, k;
  const Element* a;
  const Element* b;
  Element* p;
  Size lda, ldb, ldp;

  const Element* left(Size i, Size l) const { return a + (at ? l + i * lda : i + l * lda); }
  const Element* right(Size l, Size j) const { return b + (bt ? j + l * ldb : l + j * ldb); }
  Element term(Size i, Size j, Size l) const { return product(*left(i, l), *right(l, j)); }
  // Rows from i on, columns from j on and depth from l on.
  Problem part(Size i, Size rows, Size j, Size columns, Size l, Size depth) const {
    return {at, bt, rows, columns, depth, left(i, l), right(l, j), p + i + j * ldp, lda, ldb, ldp};
  }
};

template <class Element>
void clear(const Problem<Element>& x) {
  for (Size j = 0; j < x.n && x.m != 0; ++j) {
    std::memset(x.p + j * x.ldp, 0, x.m * sizeof(Element));
  }
}

// P += op(A) * op(B). With both operands transposed each sum is formed by itself. Otherwise P takes
// the products by row blocks, depth blocks and columns; in these by rows, or by depth in groups of
// four and then rows.
template <class Element>
void add_product(const Problem<Element>& x) {
  constexpr Size block = 128;
  const auto add_terms = [&x](Element s, Size i, Size j, Size l, Size l_end) {
    for (; l < l_end; ++l) {
      s = sum(s, x.term(i, j, l));
    }
    return s;
  };
  for (Size ij = 0; x.at && x.bt && ij < x.m * x.n; ++ij) {
    const Size i = ij % x.m, j = ij / x.m;
    const Element s = add_terms(Element{}, i, j, 0, x.k);
    x.p[i + j * x.ldp] = sum(x.p[i + j * x.ldp], s);
  }
  for (Size i0 = 0; !(x.at && x.bt) && i0 < x.m; i0 += block) {
    for (Size l0 = 0; l0 < x.k; l0 += block) {
      const Size i_end = std::min(x.m, i0 + block), l_end = std::min(x.k, l0 + block);
      for (Size j = 0; j < x.n; ++j) {
        for (Size l = l0, group = 0; l < l_end; l += group) {
          group = x.at ? l_end - l : l + 4 <= l_end ? 4 : 1;
          for (Size i = i0; i < i_end; ++i) {
            Element& p = x.p[i + j * x.ldp];
            p = add_terms(p, i, j, l, l + group);
          }
        }
      }
    }
  }
}

// P = op(A) * op(B), portable.
template <class Element>
void portable(const Problem<Element>& x) {
  clear(x);
  add_product(x);
}

// P = op(A) * op(B) through panels: complete groups of four rows and columns sum each chunk of the
// depth from zero, the last chunk first and padded with zeros; other rows go chunk by chunk through
// the portable kernel, other columns are one sum.
inline void packed(const Problem<double>& x) {
  constexpr Size chunk = 112;
  if (x.m < 34 || x.n < 38 || x.k < 38) {
    portable(x);
    return;
  }
  const Size rows = x.m / 4 * 4, columns = x.n / 4 * 4;
  const Size tail = x.k % chunk == 0 ? chunk : x.k % chunk;
  for (Size l0 = x.k - tail, depth = tail;; depth = chunk) {
    const bool first = l0 == x.k - tail;
    for (Size j = 0; j < columns; ++j) {
      for (Size i = 0; i < rows; ++i) {
        double s = 0;
        for (Size l = l0; l < l0 + depth; ++l) {
          s += x.term(i, j, l);
        }
        s = depth % 4 != 0 ? s + 0.0 : s;
        double& p = x.p[i + j * x.ldp];
        p = first ? s : s + p;
      }
    }
    const auto rest = x.part(rows, x.m - rows, 0, columns, l0, depth);
    first ? portable(rest) : add_product(rest);
    l0 = first ? 0 : l0 + chunk;
    if (l0 >= x.k - tail) {
      break;
    }
  }
  for (Size j = columns; j < x.n; ++j) {
    for (Size i = 0; i < x.m; ++i) {
      double s = 0;
      for (Size l = 0; l < x.k; ++l) {
        s += x.term(i, j, l);
      }
      x.p[i + j * x.ldp] = s;
    }
  }
}

// y = op(A) * x, with signed strides: y takes one column of A after the other, or one running sum.
inline void matrix_vector(bool at, const double* a, const double* x, double* y, std::int64_t m,
                          std::int64_t k, std::int64_t lda, std::int64_t incx) {
  for (std::int64_t i = 0; i < m; ++i) {
    y[i] = 0;
  }
  for (std::int64_t l = 0; !at && l < k; ++l) {
    for (std::int64_t i = 0; i < m; ++i) {
      y[i] += a[i + l * lda] * x[l * incx];
    }
  }
  for (std::int64_t i = 0; at && i < m; ++i) {
    double s = y[i];
    for (std::int64_t l = 0; l < k; ++l) {
      s += a[l + i * lda] * x[l * incx];
    }
    y[i] = s;
  }
}

// Whether two arrays have the same bits, any NaN counting as any other.
template <class Element>
bool same_bits(const Element* x, const Element* y, std::size_t count) {
  using Real = RealOf<Element>;
  const auto* const u = reinterpret_cast<const Real*>(x);
  const auto* const v = reinterpret_cast<const Real*>(y);
  for (std::size_t i = 0; i < count * parts<Element>; ++i) {
    if (std::memcmp(u + i, v + i, sizeof(Real)) != 0 && (u[i] == u[i] || v[i] == v[i])) {
      return false;
    }
  }
  return true;
}

}  // namespace ksomd::test
