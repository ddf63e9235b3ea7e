// The matrix views: each product is, bit for bit, that of the exported entry, called here by name.
#include <gtest/gtest.h>

#include <complex>
#include <cstring>
#include <tuple>
#include <vector>

#include "ksomd/matmul.hpp"

namespace ksomd::test {
namespace {

template <class T>
void fill(std::vector<T>& values, unsigned seed) {
  auto next = [&seed] {
    seed = seed * 1664525 + 1013904223;
    return static_cast<float>(seed >> 12 & 4095) / 37.0F - 30.0F;
  };
  for (T& value : values) {
    if constexpr (std::is_floating_point_v<T>) {
      value = next();
    } else {
      const float re = next();
      value = T{re, next()};
    }
  }
}

template <class T, class Element>
using Named = void (*)(const Element*, const Element*, Element*, std::uint64_t, std::uint64_t,
                       std::uint64_t, std::uint64_t, std::uint64_t, std::uint64_t);

struct Shape {
  std::uint64_t m, k, n;
};
constexpr Shape shapes[] = {{1, 1, 1}, {3, 5, 2}, {8, 8, 8}, {40, 45, 42},
                            {0, 3, 2}, {3, 0, 2}, {2, 3, 0}};
constexpr std::uint64_t gap = 3;

template <class T, class Element>
void expect_entry(Named<T, Element> named, bool a_transposed, bool b_transposed) {
  for (const auto& [m, k, n] : shapes) {
    const std::uint64_t a_rows = a_transposed ? k : m;
    const std::uint64_t a_columns = a_transposed ? m : k;
    const std::uint64_t b_rows = b_transposed ? n : k;
    const std::uint64_t b_columns = b_transposed ? k : n;
    std::vector<T> a((a_rows + gap) * a_columns + 1);
    std::vector<T> b((b_rows + gap) * b_columns + 1);
    std::vector<T> p((m + gap) * n + 1);
    fill(a, 1);
    fill(b, 2);
    fill(p, 3);
    std::vector<T> expected = p;
    named(reinterpret_cast<const Element*>(a.data()), reinterpret_cast<const Element*>(b.data()),
          reinterpret_cast<Element*>(expected.data()), m, k, n, a_rows + gap, b_rows + gap,
          m + gap);
    const MatrixView<const T> A(a.data(), a_rows, a_columns, a_rows + gap);
    const MatrixView<T> B(b.data(), b_rows, b_columns, b_rows + gap);
    const MatrixView<T> P(p.data(), m, n, m + gap);
    bool done = false;
    if (a_transposed) {
      done =
          b_transposed ? multiply(transposed(A), transposed(B), P) : multiply(transposed(A), B, P);
    } else {
      done = b_transposed ? multiply(A, transposed(B), P) : multiply(A, B, P);
    }
    EXPECT_TRUE(done);
    // The gaps too: nothing is written there.
    EXPECT_EQ(std::memcmp(p.data(), expected.data(), p.size() * sizeof(T)), 0)
        << m << ' ' << k << ' ' << n << ' ' << a_transposed << b_transposed;
  }
}

template <class T, class Element>
void expect_layouts(Named<T, Element> nn, Named<T, Element> tn, Named<T, Element> nt,
                    Named<T, Element> tt) {
  expect_entry<T, Element>(nn, false, false);
  expect_entry<T, Element>(tn, true, false);
  expect_entry<T, Element>(nt, false, true);
  expect_entry<T, Element>(tt, true, true);
}

TEST(MatrixView, MultiplyIsTheNamedEntry) {
  expect_layouts<float, float>(_MATMUL_r4_n_n, _MATMUL_r4_t_n, _MATMUL_r4_n_t, _MATMUL_r4_t_t);
  expect_layouts<double, double>(_MATMUL_r8_n_n, _MATMUL_r8_t_n, _MATMUL_r8_n_t, _MATMUL_r8_t_t);
  expect_layouts<std::complex<float>, ksomd_c4>(_MATMUL_c4_n_n, _MATMUL_c4_t_n, _MATMUL_c4_n_t,
                                                _MATMUL_c4_t_t);
  expect_layouts<std::complex<double>, ksomd_c8>(_MATMUL_c8_n_n, _MATMUL_c8_t_n, _MATMUL_c8_n_t,
                                                 _MATMUL_c8_t_t);
  expect_layouts<ksomd_c8, ksomd_c8>(_MATMUL_c8_n_n, _MATMUL_c8_t_n, _MATMUL_c8_n_t,
                                     _MATMUL_c8_t_t);
}

TEST(MatrixView, RefusesExtentsThatDisagree) {
  double a[64];
  double b[64];
  double p[64];
  std::fill(std::begin(p), std::end(p), 7.0);
  using View = MatrixView<double>;
  const View A(a, 2, 3);
  const View B(b, 3, 4);
  const View P(p, 2, 4);
  EXPECT_FALSE(multiply(View(a, 3, 3), B, P));
  EXPECT_FALSE(multiply(View(a, 2, 2), B, P));
  EXPECT_FALSE(multiply(A, View(b, 3, 5), P));
  EXPECT_FALSE(multiply(A, View(b, 4, 4), P));
  EXPECT_FALSE(multiply(A, B, View(p, 2, 5)));
  EXPECT_FALSE(multiply(transposed(A), B, P));
  EXPECT_FALSE(multiply(A, transposed(B), P));
  EXPECT_FALSE(multiply(View(a, 2, 3, 1), B, P));
  EXPECT_FALSE(multiply(A, View(b, 3, 4, 2), P));
  EXPECT_FALSE(multiply(A, B, View(p, 2, 4, 1)));
  for (const double x : p) {
    EXPECT_EQ(x, 7.0);
  }
}

TEST(MatrixView, ElementsAndBlocks) {
  std::vector<double> data(20);
  for (std::size_t i = 0; i < data.size(); ++i) {
    data[i] = static_cast<double>(i);
  }
  const MatrixView view(data.data(), 3, 4, 5);
  EXPECT_EQ(view(2, 3), 17.0);
  const MatrixView block = view.block(1, 2, 2, 2);
  EXPECT_EQ(block(0, 0), 11.0);
  EXPECT_EQ(block(1, 1), 17.0);
  block(1, 1) = -1;
  EXPECT_EQ(data[17], -1.0);
  const auto twice = transposed(transposed(block));
  EXPECT_EQ(twice.data(), block.data());
  EXPECT_EQ(transposed(view).rows(), 4U);
  EXPECT_EQ(transposed(view).columns(), 3U);
}

template <class A, class B, class P>
concept Multiplies = requires(A a, B b, P p) { multiply(a, b, p); };
using Real = MatrixView<double>;
static_assert(Multiplies<Real, MatrixView<const double>, Real>);
static_assert(!Multiplies<Real, Real, MatrixView<const double>>);
static_assert(!Multiplies<Real, MatrixView<float>, Real>);

}  // namespace
}  // namespace ksomd::test
