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
using RealOf = std::conditional_t<sizeof(Element) / (1 + is_complex<Element>) == 4, float, double>;

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
      const auto recovered = [&] {
        if constexpr (sizeof x.re == 4) {
          return __mulsc3(x.re, x.im, y.re, y.im);
        } else {
          return __muldc3(x.re, x.im, y.re, y.im);
        }
      }();
      z = {__real__ recovered, __imag__ recovered};
      __builtin_ia32_ldmxcsr(flags);
    }
    return z;
  } else {
    return x * y;
  }
}

// op(A) and op(B) are stored transposed where the flags say so. A vector is a matrix of one column.
template <class Element>
struct Problem {
  bool at, bt;
  Size m, n, k;
  const Element* a = nullptr;
  const Element* b = nullptr;
  Element* p = nullptr;
  Size lda = 0, ldb = 0, ldp = 0;  // those of a matrix-vector product are signed

  const Element& left(Size i, Size l) const {
    return a[static_cast<std::int64_t>(at ? l + i * lda : i + l * lda)];
  }
  const Element& right(Size l, Size j) const {
    return b[static_cast<std::int64_t>(bt ? j + l * ldb : l + j * ldb)];
  }
  // s and then the products of l .. l_end - 1.
  Element add(Element s, Size i, Size j, Size l, Size l_end) const {
    for (; l < l_end; ++l) {
      s = sum(s, product(left(i, l), right(l, j)));
    }
    return s;
  }
};

constexpr Size all = Size{1} << 40;

// P += op(A) * op(B): by row blocks, depth blocks and columns; in these by groups of the depth and
// then rows. What is left of a group of four goes one by one. Apart, a sum is formed from zero.
template <class Element>
void add_in_order(const Problem<Element>& x, Size block, Size group, bool apart) {
  for (Size i0 = 0; i0 < x.m; i0 += block) {
    for (Size l0 = 0; l0 < x.k || (apart && l0 == 0); l0 += block) {
      const Size l_end = std::min(x.k, l0 + block);
      for (Size j = 0; j < x.n; ++j) {
        Size l = l0;
        do {
          const Size step = l + group <= l_end ? group : group == 4 ? 1 : l_end - l;
          for (Size i = i0; i < std::min(x.m, i0 + block); ++i) {
            Element& p = x.p[i + j * x.ldp];
            const Element s = x.add(apart ? Element{} : p, i, j, l, l + step);
            p = apart ? sum(p, s) : s;
          }
          l += step;
        } while (l < l_end);
      }
    }
  }
}
template <class Element>
void add_product(const Problem<Element>& x) {
  const bool apart = x.at && x.bt;
  add_in_order(x, apart ? all : 128, x.at ? all : 4, apart);
}

template <class Element>
void clear(const Problem<Element>& x) {
  for (Size j = 0; j < x.n && x.m != 0; ++j) {
    std::memset(x.p + j * x.ldp, 0, x.m * sizeof(Element));
  }
}

// P = op(A) * op(B), portable.
template <class Element>
void portable(const Problem<Element>& x) {
  clear(x);
  add_product(x);
}

// y takes one column of A after the other, or one running sum.
template <class Element>
void matrix_vector(const Problem<Element>& x) {
  clear(x);
  add_in_order(x, all, x.at ? all : 1, false);
}

// The products of a chunk of the depth, for complete groups of four rows and columns; padded with
// zeros to a depth of a multiple of four.
template <class Element>
void tiles(const Problem<Element>& x, Size l, Size depth, bool add_old) {
  for (Size j = 0; j < x.n / 4 * 4; ++j) {
    for (Size i = 0; i < x.m / 4 * 4; ++i) {
      Element& p = x.p[i + j * x.ldp];
      const Element s = x.add(Element{}, i, j, l, l + depth);
      p = add_old ? sum(s, p) : depth % 4 != 0 ? sum(s, Element{}) : s;
    }
  }
}

// P = op(A) * op(B) through panels, the depth's last chunk first. Other rows go chunk by chunk
// through the portable kernel, other columns are one sum.
template <class Element>
void packed(const Problem<Element>& x) {
  if (x.m < 34 || x.n < 38 || x.k < 38) {
    portable(x);
    return;
  }
  const Size rows = x.m / 4 * 4, columns = x.n / 4 * 4, tail = (x.k - 1) % 112 + 1;
  for (Size l = x.k - tail, depth = tail, done = 0; done < x.k; depth = 112) {
    tiles(x, l, depth, done != 0);
    const Problem<Element> rest{
        x.at,           x.bt,       x.m - rows, columns, depth, &x.left(rows, l),
        &x.right(l, 0), x.p + rows, x.lda,      x.ldb,   x.ldp};
    done == 0 ? portable(rest) : add_product(rest);
    l = done == 0 ? 0 : l + depth;
    done += depth;
  }
  for (Size j = columns; j < x.n; ++j) {
    for (Size i = 0; i < x.m; ++i) {
      x.p[i + j * x.ldp] = x.add(Element{}, i, j, 0, x.k);
    }
  }
}

}  // namespace ksomd::test
