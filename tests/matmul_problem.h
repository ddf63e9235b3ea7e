// A product to compute, and its comparison with the reference: every path of every row of the
// kernel table, bit by bit, with the exception flags that are raised on the way.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <limits>

#include "matmul_support.h"

namespace ksomd::test {

template <class Element>
using RealOf =
    std::conditional_t<sizeof(Element) == 4 || std::is_same_v<Element, ksomd_c4>, float, double>;

template <class Element>
Element filler() {
  constexpr auto nan = std::numeric_limits<RealOf<Element>>::quiet_NaN();
  if constexpr (matmul::is_complex<Element>) {
    return {nan, nan};
  } else {
    return nan;
  }
}

template <class Element>
struct Problem {
  const Routines<Element>& layout;
  Shape shape;
  Matrix<Element> a, b, p;

  Problem(const Routines<Element>& routine, const Shape& extents, Size padding)
      : layout(routine),
        shape(extents),
        a(routine.a_transposed ? extents.k : extents.m,
          routine.a_transposed ? extents.m : extents.k, padding),
        b(routine.b_transposed ? extents.n : extents.k,
          routine.b_transposed ? extents.k : extents.n, 2 * padding),
        p(extents.m, extents.n, 3 * padding) {}

  void fill(Random& random, Values kind) {
    random.fill(a.values, kind);
    random.fill(b.values, kind);
  }
  std::string name(const char* path) const {
    return std::string(layout.name) + path + " m=" + std::to_string(shape.m) +
           " n=" + std::to_string(shape.n) + " k=" + std::to_string(shape.k) +
           " lda=" + std::to_string(a.leading);
  }
};

// Elements of P outside its rectangle must keep these bits, which count as equal only bit for bit.
template <class Element>
void mark_outside(Matrix<Element>& p) {
  std::vector<Element>& values = p.values;
  Element mark;
  std::memset(&mark, 0x5a, sizeof mark);
  for (Size i = 0; i < values.size(); ++i) {
    if (p.leading == 0 || i % p.leading >= p.rows || i / p.leading >= p.columns) {
      values[i] = mark;
    }
  }
}

// Memory that the operands and the result are to lie in.
template <class Element>
struct Placement {
  Element* a = nullptr;
  Element* b = nullptr;
  Element* p = nullptr;
};

template <class Element>
class Comparison {
 public:
  std::size_t calls = 0;
  Placement<Element> place;  // none: the problem's own arrays

  ~Comparison() { std::printf("%zu calls compared\n", calls); }

  void all(Problem<Element>& x, Random& random, Values kind) {
    paths(x);
    kernel(x, random, kind);
  }

  // The paths that overwrite P, whose old contents are NaN.
  void paths(Problem<Element>& x) {
    put_operands(x);
    const auto [m, n, k] = x.shape;
    const Size lda = x.a.leading;
    const Size ldb = x.b.leading;
    const Size ldp = x.p.leading;
    std::fill(x.p.values.begin(), x.p.values.end(), filler<Element>());
    mark_outside(x.p);
    std::vector<Element> portable = x.p.values;
    const unsigned flags = flags_of(
        [&] { reference_portable(x.layout, a_, b_, portable.data(), x.shape, lda, ldb, ldp); });
    const std::vector<Element>* of_entry = &portable;
    unsigned flags_of_entry = flags;
    std::vector<Element> packed;
    if constexpr (std::is_same_v<Element, double>) {
      packed = x.p.values;
      of_entry = &packed;
      flags_of_entry = flags_of(
          [&] { reference_packed(x.layout, a_, b_, packed.data(), x.shape, lda, ldb, ldp); });
      expect(x, ".J", packed, flags_of_entry,
             [&](double* p) { x.layout.packed(a_, b_, p, m, k, n, lda, ldb, ldp); });
      expect(x, "_QWide", packed, flags_of_entry,
             [&](double* p) { x.layout.driver(a_, b_, p, m, n, k, lda, ldb, ldp); });
    }
    expect(x, "", *of_entry, flags_of_entry,
           [&](Element* p) { x.layout.entry(a_, b_, p, m, k, n, lda, ldb, ldp); });
    expect(x, ".A", portable, flags,
           [&](Element* p) { x.layout.portable(a_, b_, p, m, k, n, lda, ldb, ldp); });
  }

  // The kernel alone, which adds to what P holds.
  void kernel(Problem<Element>& x, Random& random, Values kind) {
    put_operands(x);
    random.fill(x.p.values, kind);
    mark_outside(x.p);
    std::vector<Element> expected = x.p.values;
    const unsigned flags = flags_of([&] {
      reference_general(x.layout, a_, b_, expected.data(), x.shape, x.a.leading, x.b.leading,
                        x.p.leading);
    });
    expect(x, "_pst_General", expected, flags, [&](Element* p) {
      x.layout.general(a_, b_, p, x.shape.m, x.shape.n, x.shape.k, x.a.leading, x.b.leading,
                       x.p.leading);
    });
  }

 private:
  const Element* a_ = nullptr;
  const Element* b_ = nullptr;

  void put_operands(const Problem<Element>& x) {
    a_ = x.a.data();
    b_ = x.b.data();
    if (place.p != nullptr) {
      a_ = std::copy_n(x.a.data(), x.a.used(), place.a) - x.a.used();
      b_ = std::copy_n(x.b.data(), x.b.used(), place.b) - x.b.used();
    }
  }

  template <class Call>
  void expect(const Problem<Element>& x, const char* path, const std::vector<Element>& expected,
              unsigned expected_flags, const Call& call) {
    for (const matmul::Variant* row : kernel_rows()) {
      const UseRow use(row);
      std::vector<Element> got = x.p.values;
      if (place.p != nullptr) {
        std::copy_n(got.data(), x.p.used(), place.p);
      }
      Element* const p = place.p != nullptr ? place.p : got.data();
      const unsigned flags = flags_of([&] { call(p); });
      if (place.p != nullptr) {
        std::copy_n(place.p, x.p.used(), got.data());
      }
      ++calls;
      const std::string problem = difference(got, expected);
      if (!problem.empty()) {
        ADD_FAILURE() << x.name(path) << " " << row->name << ": " << problem;
      } else if (flags != expected_flags) {
        ADD_FAILURE() << x.name(path) << " " << row->name << ": flags " << flags << " instead of "
                      << expected_flags;
      }
    }
  }
};

template <class Element>
class Product : public testing::Test {};
using Elements = testing::Types<float, double, ksomd_c4, ksomd_c8>;

}  // namespace ksomd::test
