// How the matrix products choose their path and their kernels, the scratch that they take, threads
// that share operands, and the views of C++.
#include "ksomd/matmul.hpp"

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <complex>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "cpu/feature_set.h"
#include "matmul/drive/kernels.h"
#include "reference.h"
#include "support/effort.h"
#include "support/entry.h"
#include "support/guarded_memory.h"
#include "support/sweep.h"

// ---- the scratch that a product asks for --------------------------------------------------------

namespace {

std::atomic<bool> watching;
std::size_t requested;        // bytes, by all requests while watching
int open_requests;            // not yet released
unsigned char* next_scratch;  // what the next request is given; null: it is refused

}  // namespace

// The real ones are reached by realloc: on Windows the linker replaces their imports, too. Neither
// argument is a constant, lest the compiler sees what it may turn into malloc and free.
extern "C" {
// NOLINTBEGIN(bugprone-reserved-identifier): the linker's names
void* __wrap_malloc(std::size_t size);
void __wrap_free(void* block);
// NOLINTEND(bugprone-reserved-identifier)

void* __wrap_malloc(std::size_t size) {
  if (!watching) {
    void* const volatile none = nullptr;
    return std::realloc(none, size);
  }
  requested += size;
  open_requests += next_scratch != nullptr;
  return next_scratch == nullptr ? nullptr : next_scratch - size;
}
void __wrap_free(void* block) {
  if (!watching && block != nullptr) {
    const volatile std::size_t nothing = 0;
    [[maybe_unused]] void* const none = std::realloc(block, nothing);
  } else {
    open_requests -= block != nullptr;
  }
}
}  // extern "C"

namespace ksomd::test {
namespace {

using Nine = void(const double*, const double*, double*, Size, Size, Size, Size, Size, Size);
constexpr const char* layouts[] = {"n_n", "t_n", "n_t", "t_t"};

std::vector<double> numbers(std::size_t count) {
  Random random(count);
  std::vector<double> values(count);
  for (double& value : values) {
    value = random.number();
  }
  return values;
}

// The bytes that a product of this shape asks for; its scratch ends at `end`, or is refused.
std::size_t scratch_of(const std::string& name, Size m, Size n, Size k, unsigned char* end,
                       double* p) {
  static const std::vector<double> a = numbers(300 * 300), b = numbers(2300 * 120);
  const bool at = name[11] == 't', bt = name[13] == 't';
  const auto routine = entry<Nine>(name);
  requested = 0;
  next_scratch = end;
  watching = true;
  routine(a.data(), b.data(), p, m, k, n, at ? k : m, bt ? n : k, m);
  watching = false;
  EXPECT_EQ(open_requests, 0);
  return requested;
}

// One block of the stated size, whose bytes behind the end fault; without it the portable path.
TEST(MatmulScratch, IsTakenByPackedProductsAlone) {
  const GuardedMemory memory(2000 * 896 + 258816);
  std::vector<double> got(264 * 2003), expected(264 * 2003);
  for (const std::string layout : layouts) {
    const std::string name = "_MATMUL_r8_" + layout;
    for (const auto& [m, n, k] :
         {std::array<Size, 3>{34, 38, 38}, {264, 41, 113}, {35, 2003, 113}}) {
      const std::size_t size = std::min<Size>(n, 2000) * 896 + 258816;
      const auto bytes = m * n * sizeof(double);
      for (const auto& row : matmul::kernel_variants) {
        if (!has_features(row.needs)) {
          continue;
        }
        matmul::kernels_slot = row.choice;
        EXPECT_EQ(scratch_of(name, m, n, k, memory.end(), got.data()), size) << name << ' ' << n;
        scratch_of(name + ".J", m, n, k, memory.end(), expected.data());
        EXPECT_EQ(std::memcmp(got.data(), expected.data(), bytes), 0) << name << ' ' << row.name;
        EXPECT_EQ(scratch_of(name, m, n, k, nullptr, got.data()), size) << name;
        EXPECT_EQ(scratch_of(name + ".A", m, n, k, nullptr, expected.data()), 0u) << name;
        EXPECT_EQ(std::memcmp(got.data(), expected.data(), bytes), 0) << name << ' ' << row.name;
      }
    }
    for (const auto& [m, n, k] : {std::array<Size, 3>{33, 38, 38}, {34, 37, 38}, {34, 38, 37}}) {
      EXPECT_EQ(scratch_of(name, m, n, k, memory.end(), got.data()), 0u) << name << m << n << k;
    }
  }
}

TEST(MatmulDispatch, ThePackedPathNeedsItsFiveFeatures) {
  const GuardedMemory memory(2000 * 896 + 258816);
  std::vector<double> p(34 * 38);
  const std::uint64_t saved = feature_word();
  for (const std::string layout : layouts) {
    const auto is_packed = [&](std::uint64_t features) {
      __orvex_cpu_feature_indicator[0] = features;
      return scratch_of("_MATMUL_r8_" + layout, 34, 38, 38, memory.end(), p.data()) != 0;
    };
    EXPECT_TRUE(is_packed(0x6F)) << layout;
    for (const unsigned bit : {1U, 2U, 3U, 5U, 6U}) {
      EXPECT_FALSE(is_packed(0xFF & ~(std::uint64_t{1} << bit))) << layout << " without " << bit;
    }
    EXPECT_TRUE(is_packed(0)) << "detection runs first";
    EXPECT_EQ(__orvex_cpu_feature_indicator[0], saved);
  }
}

// The first row whose features are all there, and the first product settles it.
TEST(MatmulDispatch, TheFirstProductTakesTheBestRow) {
  const auto best = [](std::uint64_t features) {
    return choose(matmul::kernel_variants, {features, 0}).choice;
  };
  constexpr std::uint64_t avx = 1u << 16, avx512f = 1u << 27;
  EXPECT_EQ(best(1), &matmul::baseline_kernels);
  EXPECT_EQ(best(avx512f), &matmul::baseline_kernels);
  EXPECT_EQ(best(avx), &matmul::avx_kernels);
  EXPECT_EQ(best(avx | avx512f), &matmul::avx512_kernels);
  const std::uint64_t saved = feature_word();
  std::vector<double> p(64);
  for (const std::uint64_t features : {std::uint64_t{0x6F}, saved}) {
    for (const std::uint64_t later : {features, saved}) {  // it stays
      matmul::kernels_slot = later == features ? nullptr : matmul::kernels_slot;
      __orvex_cpu_feature_indicator[0] = later;
      _MATMUL_r8_n_n(p.data(), p.data(), p.data() + 32, 4, 4, 4, 4, 4, 4);
      EXPECT_EQ(matmul::kernels_slot, best(features));
    }
  }
}

// Threads that share operands, each with its own rows of one result: what lies between the rows of
// one is another's.
TEST(MatmulThreads, ShareOperandsAndResult) {
  constexpr Size threads = 8, rows = 37, n = 45, k = 119, m = threads * rows;
  const std::vector<double> a = numbers(m * k), b = numbers(n * k);
  std::vector<double> got(m * n), expected(m * n);
  const auto multiply_rows = [&](std::vector<double>& p, Size thread) {
    _MATMUL_r8_n_n(a.data() + thread * rows, b.data(), p.data() + thread * rows, rows, k, n, m, k,
                   m);
  };
  std::vector<std::thread> running;
  matmul::kernels_slot = nullptr;
  for (Size thread = 0; thread < threads; ++thread) {
    running.emplace_back([&, thread] { multiply_rows(got, thread); });
  }
  for (Size thread = 0; thread < threads; ++thread) {
    running[thread].join();
    multiply_rows(expected, thread);
  }
  EXPECT_EQ(got, expected);
}

// ---- the views of C++ ---------------------------------------------------------------------------

template <class T, class Element>
void expect_entries(const char* code) {
  using Entry = void(const Element*, const Element*, Element*, Size, Size, Size, Size, Size, Size);
  for (const auto& [m, k, n] : {std::array<Size, 3>{3, 5, 2}, {0, 3, 2}, {3, 0, 2}, {40, 45, 42}}) {
    const Size a_rows[] = {m, k}, b_rows[] = {k, n};
    for (int layout = 0; layout < 4; ++layout) {
      const int at = layout % 2, bt = layout / 2;
      std::vector<T> a((a_rows[at] + 3) * a_rows[1 - at] + 1),
          b((b_rows[bt] + 3) * b_rows[1 - bt] + 1);
      std::vector<T> p((m + 3) * n + 1);
      for (std::vector<T>* values : {&a, &b, &p}) {
        const std::vector<double> some = numbers(values->size() * sizeof(T));
        for (std::size_t i = 0; i < values->size() * parts<Element>; ++i) {
          reinterpret_cast<RealOf<Element>*>(values->data())[i] =
              static_cast<RealOf<Element>>(some[i]);
        }
      }
      std::vector<T> expected = p;
      entry<Entry>(std::string("_MATMUL_") + code + "_" + layouts[layout])(
          reinterpret_cast<const Element*>(a.data()), reinterpret_cast<const Element*>(b.data()),
          reinterpret_cast<Element*>(expected.data()), m, k, n, a_rows[at] + 3, b_rows[bt] + 3,
          m + 3);
      const MatrixView<const T> A(a.data(), a_rows[at], a_rows[1 - at], a_rows[at] + 3);
      const MatrixView<T> B(b.data(), b_rows[bt], b_rows[1 - bt], b_rows[bt] + 3);
      const MatrixView<T> P(p.data(), m, n, m + 3);
      EXPECT_TRUE(at && bt ? multiply(transposed(A), transposed(B), P)
                  : at     ? multiply(transposed(A), B, P)
                  : bt     ? multiply(A, transposed(B), P)
                           : multiply(A, B, P));
      EXPECT_EQ(std::memcmp(p.data(), expected.data(), p.size() * sizeof(T)), 0)
          << code << ' ' << layouts[layout] << " m=" << m << " k=" << k << " n=" << n;
    }
  }
}

TEST(MatrixView, MultipliesByTheEntryOfItsElements) {
  expect_entries<float, float>("r4");
  expect_entries<double, double>("r8");
  expect_entries<std::complex<float>, ksomd_c4>("c4");
  expect_entries<std::complex<double>, ksomd_c8>("c8");
  expect_entries<ksomd_c8, ksomd_c8>("c8");
}

TEST(MatrixView, RefusesExtentsThatDisagree) {
  using View = MatrixView<double>;
  double a[64] = {}, p[64] = {};
  const View A(a, 2, 3), B(a, 3, 4), P(p, 2, 4);
  EXPECT_FALSE(multiply(View(a, 3, 3), B, P));
  EXPECT_FALSE(multiply(View(a, 2, 2), B, P));
  EXPECT_FALSE(multiply(A, View(a, 3, 5), P));
  EXPECT_FALSE(multiply(A, View(a, 4, 4), P));
  EXPECT_FALSE(multiply(transposed(A), B, P));
  EXPECT_FALSE(multiply(A, transposed(B), P));
  EXPECT_FALSE(multiply(View(a, 2, 3, 1), B, P));
  EXPECT_FALSE(multiply(A, View(a, 3, 4, 2), P));
  EXPECT_FALSE(multiply(A, B, View(p, 2, 4, 1)));
}

TEST(MatrixView, FindsElementsAndBlocks) {
  std::vector<double> data = numbers(20);
  const MatrixView view(data.data(), 3, 4, 5);
  EXPECT_EQ(&view(2, 3), &data[17]);
  const MatrixView block = view.block(1, 2, 2, 2);
  EXPECT_EQ(&block(0, 0), &data[11]);
  EXPECT_EQ(&block(1, 1), &data[17]);
  EXPECT_EQ(transposed(transposed(block)).data(), block.data());
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
