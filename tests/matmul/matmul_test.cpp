// How the matrix products choose their path and their kernels, the scratch that they take, threads
// that share operands, and the views of C++.
#include "ksomd/matmul.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <complex>
#include <cstdlib>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "cpu/feature_set.h"
#include "matmul/drive/kernels.h"
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
  void* const volatile none = nullptr;
  if (!watching) {
    return std::realloc(none, size);
  }
  requested += size;
  open_requests += next_scratch != nullptr;
  return next_scratch == nullptr ? nullptr : next_scratch - size;
}
void __wrap_free(void* block) {
  const volatile std::size_t nothing = 0;
  if (watching && block != nullptr) {
    --open_requests;
  }
  [[maybe_unused]] void* const none =
      watching || block == nullptr ? nullptr : std::realloc(block, nothing);
}
}  // extern "C"

namespace ksomd::test {
namespace {

using matmul::Size;
constexpr std::string_view layouts[] = {"n_n", "t_n", "n_t", "t_t"};

std::vector<double> numbers(std::size_t count) {
  Random random(count);
  std::vector<double> values(count);
  std::ranges::generate(values, [&] { return random.number(); });
  return values;
}

// The bytes that a product of this shape asks for; its scratch ends at `end`, or is refused.
std::size_t scratch_of(const std::string& name, const Size (&shape)[3], unsigned char* end,
                       std::vector<double>& p) {
  static const std::vector<double> a = numbers(300 * 300), b = numbers(2300 * 120);
  const auto routine = entry<decltype(_MATMUL_r8_n_n)>(name);
  const auto [m, n, k] = shape;
  p.assign(m * n, 0);
  requested = 0;
  next_scratch = end;
  watching = true;
  routine(a.data(), b.data(), p.data(), m, k, n, name[11] == 't' ? k : m, name[13] == 't' ? n : k,
          m);
  watching = false;
  EXPECT_EQ(open_requests, 0);
  return requested;
}

const auto& best(std::uint64_t features) {
  return choose(matmul::kernel_variants, {features, 0});
}

// Packed products take one block of the stated size, behind whose end bytes fault; without it, and
// for a small extent, they are the portable ones. They need five features.
TEST(MatmulScratch, IsTakenByPackedProductsAlone) {
  const GuardedMemory memory(2000 * 896 + 258816);
  const std::uint64_t saved = feature_word();
  std::vector<double> got, expected;
  constexpr Size shapes[][3] = {{34, 38, 38}, {264, 41, 113}, {35, 2003, 113},
                                {33, 38, 38}, {34, 37, 38},   {34, 38, 37}};
  for (const std::string_view layout : layouts) {
    const std::string name = "_MATMUL_r8_" + std::string(layout);
    for (const auto& shape : shapes) {
      const auto [m, n, k] = shape;
      for (const auto* row : {std::end(matmul::kernel_variants) - 1, &best(saved)}) {
        const bool in_place = row->choice->tiles_serve_packed && k <= 112 && m <= 260;
        const bool packs = m >= 34 && n >= 38 && k >= 38 && !in_place;
        const std::size_t size = packs ? std::min<Size>(n, 2000) * 896 + 258816 : 0;
        SCOPED_TRACE(testing::Message() << name << ' ' << m << ' ' << n << ' ' << k << row->name);
        matmul::kernels_slot = row->choice;
        EXPECT_EQ(scratch_of(name, shape, memory.end(), got), size);
        EXPECT_EQ(scratch_of(name + ".J", shape, memory.end(), expected), size);
        EXPECT_EQ(got, expected);
        EXPECT_EQ(scratch_of(name, shape, nullptr, got), size);
        EXPECT_EQ(scratch_of(name + ".A", shape, nullptr, expected), 0u);
        EXPECT_EQ(got, expected);
      }
    }
    for (unsigned bit = 0; bit < 8; ++bit) {
      __orvex_cpu_feature_indicator[0] = 0xFF & ~(std::uint64_t{1} << bit);
      const bool packed = scratch_of(name, shapes[1], memory.end(), got) != 0;
      EXPECT_EQ(packed, bit == 0 || bit == 4 || bit == 7) << name << " without " << bit;
    }
    __orvex_cpu_feature_indicator[0] = 0;
    EXPECT_NE(scratch_of(name, shapes[1], memory.end(), got), 0u) << "detection runs first";
    EXPECT_EQ(__orvex_cpu_feature_indicator[0], saved);
  }
}

// The first row whose features are all there, and the first product settles it.
TEST(MatmulDispatch, TheFirstProductTakesTheBestRow) {
  constexpr std::uint64_t avx = 1u << 16, avx512f = 1u << 27;
  const std::uint64_t saved = feature_word();
  EXPECT_EQ(best(avx512f + 1).choice, &matmul::baseline_kernels);
  EXPECT_EQ(best(avx + 1).choice, &matmul::avx_kernels);
  EXPECT_EQ(best(avx + avx512f).choice, &matmul::avx512_kernels);
  double p[64] = {};
  for (const std::uint64_t features : {std::uint64_t{1}, saved}) {
    matmul::kernels_slot = nullptr;
    for (const std::uint64_t now : {features, ~features & saved}) {  // it stays
      __orvex_cpu_feature_indicator[0] = now;
      _MATMUL_r8_n_n(p, p, p + 32, 4, 4, 4, 4, 4, 4);
      EXPECT_EQ(matmul::kernels_slot, best(features).choice);
    }
  }
  __orvex_cpu_feature_indicator[0] = saved;
}

// Threads that share operands, each with its own rows of one result: what lies between the rows of
// one is another's.
TEST(MatmulThreads, ShareOperandsAndResult) {
  constexpr Size rows = 36, n = 45, k = 119, m = 8 * rows;
  const std::vector<double> a = numbers(m * k), b = numbers(n * k);
  std::vector<double> got(m * n), expected(m * n);
  matmul::kernels_slot = nullptr;
  std::vector<std::jthread> running;
  for (Size i = 0; i < m; i += rows) {
    running.emplace_back(_MATMUL_r8_n_n, &a[i], b.data(), &got[i], rows, k, n, m, k, m);
  }
  running.clear();
  _MATMUL_r8_n_n(a.data(), b.data(), expected.data(), m, k, n, m, k, m);
  EXPECT_EQ(got, expected);
}

// ---- the views of C++ ---------------------------------------------------------------------------

// Blocks of larger matrices of small whole numbers, whose products are exact.
template <class T>
void multiply_blocks() {
  constexpr Size side = 50;
  Random random(sizeof(T));
  const auto draw = [&] {
    std::vector<T> values(side * side);
    std::ranges::generate(values, [&] { return T(static_cast<float>(random.below(9)) - 4); });
    return values;
  };
  for (const auto& [m, k, n] : {std::array<Size, 3>{3, 5, 2}, {0, 3, 2}, {3, 0, 2}, {40, 45, 42}}) {
    for (const std::string_view layout : layouts) {
      const bool at = layout[0] == 't', bt = layout[2] == 't';
      const std::vector<T> a = draw();
      std::vector<T> b = draw(), p = draw(), expected = p;
      const MatrixView A = MatrixView(a.data(), side, side).block(1, 2, at ? k : m, at ? m : k);
      const MatrixView B = MatrixView(b.data(), side, side).block(3, 4, bt ? n : k, bt ? k : n);
      const MatrixView P = MatrixView(p.data(), side, side).block(5, 6, m, n);
      for (Size ij = 0; ij < m * n; ++ij) {
        const Size i = ij % m, j = ij / m;
        T& sum = expected[5 + i + (6 + j) * side] = 0;
        for (Size l = 0; l < k; ++l) {
          sum += (at ? A(l, i) : A(i, l)) * b[bt ? 3 + j + (4 + l) * side : 3 + l + (4 + j) * side];
        }
      }
      EXPECT_TRUE(at && bt ? multiply(transposed(A), transposed(B), P)
                  : at     ? multiply(transposed(A), transposed(transposed(B)), P)
                  : bt     ? multiply(A, transposed(B), P)
                           : multiply(A, B, P));
      EXPECT_EQ(p, expected) << layout << " m=" << m << " k=" << k << " n=" << n;
    }
  }
}

TEST(MatrixView, MultipliesByTheEntryOfItsElements) {
  multiply_blocks<float>();
  multiply_blocks<double>();
  multiply_blocks<std::complex<float>>();
  multiply_blocks<std::complex<double>>();
}

// Each number of a valid product, changed by itself, makes it one that is refused.
TEST(MatrixView, RefusesExtentsThatDisagree) {
  double x[64] = {};
  for (int changed = 0; changed <= 9; ++changed) {
    Size e[] = {2, 3, 3, 3, 4, 4, 2, 4, 3, 0};  // rows, columns, leading dimension
    e[changed] -= changed % 3 == 2 ? 2 : 1;
    const MatrixView a(x, e[0], e[1], e[2]), b(x, e[3], e[4], e[5]), p(x + 32, e[6], e[7], e[8]);
    const MatrixView at(x, e[1], e[0], e[2] + 1), bt(x, e[4], e[3], e[5] + 1);
    EXPECT_EQ(multiply(a, b, p), changed == 9) << changed;
    EXPECT_EQ(multiply(transposed(at), transposed(bt), p), changed == 9) << changed;
  }
}

}  // namespace
}  // namespace ksomd::test
