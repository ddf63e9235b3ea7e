// The parts of the products by name: packing, tiles, matrix-vector products, dispatch, scratch,
// complex multiplication, threads.
#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <thread>

#include "cpu/feature_set.h"
#include "cpu/feature_table.h"
#include "matmul/kernels.h"
#include "matmul_support.h"

// The allocator, with a switch to make it fail and counters (the linker puts these in between).
namespace {
std::atomic<bool> allocation_fails;
std::atomic<int> allocations;
std::atomic<int> releases;
std::atomic<std::size_t> watched_size;
std::atomic<void*> watched;
}  // namespace

extern "C" {
void* __wrap_malloc(std::size_t size);
void __wrap_free(void* memory);

// Neither may call what it replaces: on Windows that call leads back here. The null pointer is
// volatile, or the compiler would turn the first call into malloc again.
void* __wrap_malloc(std::size_t size) {
  void* volatile null = nullptr;
  if (size != watched_size) {
    return std::realloc(null, size);
  }
  ++allocations;
  return watched = allocation_fails ? nullptr : std::realloc(null, size);
}

void __wrap_free(void* memory) {
  if (memory == nullptr) {
    return;
  }
  if (memory == watched) {
    ++releases;
    watched = nullptr;
  }
  volatile std::size_t nothing = 0;
  [[maybe_unused]] void* const none = std::realloc(memory, nothing);
}
}

namespace ksomd::test {
namespace {

constexpr Size scratch_size(Size n) {
  return std::min<Size>(n, 2000) * 896 + 258816;
}

std::vector<double> random_values(Random& random, std::size_t count) {
  std::vector<double> values(count);
  random.fill(values, Values::Wide);
  return values;
}

// ---- packing ------------------------------------------------------------------------------------

struct Packing {
  const char* name;
  void (*routine)(Size, Size, const double*, Size, double*);
  bool depth_first;  // which of the two extents comes first
  bool adjacent;     // whether the members of a group lie side by side
};

const Packing packings[] = {
    {"__orvex_dgcopyan_qwide", __orvex_dgcopyan_qwide, false, true},
    {"__orvex_dgcopyat_qwide", __orvex_dgcopyat_qwide, false, false},
    {"__orvex_dgcopybn_psc", __orvex_dgcopybn_psc, true, false},
    {"__orvex_dgcopybt_psc", __orvex_dgcopybt_psc, true, true},
};

TEST(Packing, EntryByEntry) {
  Random random(11);
  for (const Packing& packing : packings) {
    for (Size members = 0; members <= 13; ++members) {
      for (Size depth = 0; depth <= 17; ++depth) {
        const Size leading = (packing.adjacent ? members : depth) + random.below(3);
        // The source ends at a guard page.
        const Size count = packing.adjacent ? (depth == 0 ? 0 : (depth - 1) * leading + members)
                                            : (members == 0 ? 0 : (members - 1) * leading + depth);
        Guarded memory(count * sizeof(double) + 1);
        double* source = static_cast<double*>(memory.end()) - count;
        const std::vector<double> values = random_values(random, count);
        std::copy(values.begin(), values.end(), source);

        const Size padded = (depth + 3) / 4 * 4;
        const Size groups = members / 4;
        std::vector<double> expected(groups * padded * 4 + 4, -7.0);
        std::vector<double> got = expected;
        for (Size g = 0; g < groups; ++g) {
          for (Size l = 0; l < padded; ++l) {
            for (Size r = 0; r < 4; ++r) {
              const Size member = 4 * g + r;
              const Size place = packing.adjacent ? member + l * leading : l + member * leading;
              expected[(g * padded + l) * 4 + r] = l < depth ? values[place] : 0.0;
            }
          }
        }
        packing.routine(packing.depth_first ? depth : members,
                        packing.depth_first ? members : depth, source, leading, got.data());
        ASSERT_EQ(difference(got, expected), "")
            << packing.name << " members " << members << " depth " << depth;
      }
    }
  }
}

// ---- tile kernels -------------------------------------------------------------------------------

void check_tiles(Random& random, bool full_chunk, Size m, Size n, Size depth) {
  const Size ldp = m + random.below(3);
  alignas(16) static double a[24 * 112];
  alignas(16) static double b[24 * 112];
  alignas(16) static double doubled[8 * 112];
  const std::vector<double> values = random_values(random, std::size(a) + std::size(b));
  std::copy_n(values.begin(), std::size(a), a);
  std::copy_n(values.begin() + std::size(a), std::size(b), b);
  std::vector<double> got = random_values(random, ldp * n);
  std::vector<double> expected = got;
  for (Size j = 0; j < n; ++j) {
    for (Size i = 0; i < m; ++i) {
      double sum = 0;
      for (Size l = 0; l < depth; ++l) {
        sum = sum + a[(i / 4 * depth + l) * 4 + i % 4] * b[(j / 4 * depth + l) * 4 + j % 4];
      }
      double& p = expected[i + j * ldp];
      p = full_chunk ? sum + p : sum;
    }
  }
  if (full_chunk) {
    const Size wrong_depth = 3;
    __orvex_dinner_qwide(&m, &n, &wrong_depth, a, b, nullptr, got.data(), &ldp, doubled);
  } else {
    __orvex_dinnerz_roll_qwide(&m, &n, &depth, a, b, nullptr, got.data(), &ldp, doubled);
  }
  ASSERT_EQ(difference(got, expected), "") << "m " << m << " n " << n << " depth " << depth;
}

TEST(Tiles, SumsFromZeroInOrder) {
  Random random(12);
  for (Size m = 4; m <= 24; m += 4) {
    for (Size n = 4; n <= 24; n += 4) {
      check_tiles(random, true, m, n, 112);
      for (const Size depth : {4U, 8U, 12U, 60U, 108U, 112U}) {
        check_tiles(random, false, m, n, depth);
      }
    }
  }
}

// ---- matrix-vector products ---------------------------------------------------------------------

// Calls the routine of two letters; strides and extents in one order.
void multiply_vector(bool a_transposed, bool strided, const double* a, const double* x, double* y,
                     Size m, Size k, std::int64_t lda, std::int64_t incx) {
  if (strided) {
    a_transposed ? MATMUL_v_tt_pst(a, x, y, k, m, lda, incx)
                 : MATMUL_v_nt_pst(a, x, y, m, k, lda, incx);
  } else {
    a_transposed ? MATMUL_v_tn_pst(a, x, y, k, m, lda) : MATMUL_v_nn_pst(a, x, y, m, k, lda);
  }
}

TEST(MatrixVector, AllFormsStridesAndOverlaps) {
  Random random(13);
  std::size_t calls = 0;
  for (int round = 0; round < 20000; ++round) {
    const bool transposed = random.below(2) != 0;
    const bool strided = random.below(2) != 0;
    const Size m = random.below(24);
    const Size k = random.below(24);
    const auto sign = [&] { return random.below(4) == 0 ? -1 : 1; };
    const std::int64_t lda =
        sign() * static_cast<std::int64_t>((transposed ? k : m) + random.below(3));
    const std::int64_t incx = strided ? sign() * static_cast<std::int64_t>(random.below(4)) : 1;
    // One array holds everything; overlaps are as likely as not.
    std::vector<double> expected = random_values(random, 4000);
    std::vector<double> got = expected;
    const std::size_t a = 1000 + random.below(50);
    const std::size_t x = random.below(2) == 0 ? 2500 : 1000 + random.below(300);
    const std::size_t y = random.below(3) == 0 ? 3500 : 1000 + random.below(400);
    reference_vector(transposed, &expected[a], &expected[x], &expected[y], m, k, lda, incx);
    multiply_vector(transposed, strided, &got[a], &got[x], &got[y], m, k, lda, incx);
    ++calls;
    ASSERT_EQ(difference(got, expected), "")
        << "transposed " << transposed << " strided " << strided << " m " << m << " k " << k
        << " lda " << lda << " incx " << incx << " a " << a << " x " << x << " y " << y;
  }
  std::printf("%zu calls compared\n", calls);
}

// ---- complex multiplication ---------------------------------------------------------------------

template <class Element>
class ComplexProduct : public testing::Test {};
using ComplexElements = testing::Types<ksomd_c4, ksomd_c8>;
TYPED_TEST_SUITE(ComplexProduct, ComplexElements, );

template <class Element>
std::vector<Element> special_pairs() {
  using Real = decltype(Element::re);
  using Limits = std::numeric_limits<Real>;
  const Real parts[] = {0,
                        -Real{0},
                        1,
                        -3,
                        Limits::infinity(),
                        -Limits::infinity(),
                        Limits::quiet_NaN(),
                        Limits::max(),
                        Limits::lowest(),
                        Limits::min(),
                        Limits::denorm_min(),
                        -Limits::denorm_min()};
  std::vector<Element> pairs;
  for (const Real re : parts) {
    for (const Real im : parts) {
      pairs.push_back({re, im});
    }
  }
  return pairs;
}

// The builtin differs from the plain formula only where both plain parts are NaN; adding to a sum
// keeps both parts NaN. That is what lets a tile compute plainly and look at its sums once.
TYPED_TEST(ComplexProduct, PlainFormulaUnlessBothPartsAreNaN) {
  const std::vector<TypeParam> pairs = special_pairs<TypeParam>();
  std::size_t recovered = 0;
  for (const TypeParam& x : pairs) {
    for (const TypeParam& y : pairs) {
      const TypeParam plain{x.re * y.re - x.im * y.im, x.re * y.im + x.im * y.re};
      const TypeParam product = builtin_product(x, y);
      if (std::isnan(plain.re) && std::isnan(plain.im)) {
        recovered += !std::isnan(product.re) || !std::isnan(product.im) ? 1 : 0;
      } else {
        ASSERT_EQ(difference(&plain, &product, 1), "");
      }
    }
  }
  EXPECT_GT(recovered, 0U);
}

TYPED_TEST(ComplexProduct, AllPairsOfSpecialValues) {
  const std::vector<TypeParam> pairs = special_pairs<TypeParam>();
  const Size count = pairs.size();
  for (const Routines<TypeParam>& layout : routines<TypeParam>()) {
    // Outer products: each pair of values alone in one element.
    std::vector<TypeParam> got(count * count);
    std::vector<TypeParam> expected(count * count);
    const Size lda = layout.a_transposed ? 1 : count;
    const Size ldb = layout.b_transposed ? count : 1;
    reference_portable(layout, pairs.data(), pairs.data(), expected.data(), {count, count, 1}, lda,
                       ldb, count);
    layout.entry(pairs.data(), pairs.data(), got.data(), count, 1, count, lda, ldb, count);
    EXPECT_EQ(difference(got, expected), "") << layout.name;
  }
}

// ---- dispatch -----------------------------------------------------------------------------------

TEST(Dispatch, FeaturesChooseThePath) {
  Random random(14);
  const Size size = 64;
  const Size depth = 230;
  const std::vector<double> a = random_values(random, size * depth);
  const std::vector<double> b = random_values(random, size * depth);
  const std::uint64_t saved = ksomd::feature_word();
  for (const Routines<double>& layout : routines<double>()) {
    const Size lda = layout.a_transposed ? depth : size;
    const Size ldb = layout.b_transposed ? size : depth;
    std::vector<double> portable(size * size);
    std::vector<double> packed(size * size);
    std::vector<double> got(size * size);
    reference_portable(layout, a.data(), b.data(), portable.data(), {size, size, depth}, lda, ldb,
                       size);
    reference_packed(layout, a.data(), b.data(), packed.data(), {size, size, depth}, lda, ldb,
                     size);
    const auto result_with = [&](std::uint64_t features) -> const std::vector<double>& {
      __orvex_cpu_feature_indicator[0] = features;
      layout.entry(a.data(), b.data(), got.data(), size, depth, size, lda, ldb, size);
      return got;
    };
    const std::uint64_t all = 0x6F;
    EXPECT_EQ(difference(result_with(all), packed), "") << layout.name;
    for (const unsigned bit : {1U, 2U, 3U, 5U, 6U}) {
      EXPECT_EQ(difference(result_with((~std::uint64_t{0} & ~(std::uint64_t{1} << bit)) & 0xFF),
                           portable),
                "")
          << layout.name << " without bit " << bit;
    }
    // Not filled yet: detection runs first.
    EXPECT_EQ(difference(result_with(0), packed), "") << layout.name;
    EXPECT_EQ(__orvex_cpu_feature_indicator[0], saved);
  }
  __orvex_cpu_feature_indicator[0] = saved;
}

TEST(Dispatch, TheBaselineServesEveryProcessor) {
  using namespace ksomd::matmul;
  EXPECT_EQ(variants[variant_count - 1], &baseline);
  EXPECT_EQ(&choose_variant(1), &baseline);
  for (Size row = 0; row < variant_count; ++row) {
    EXPECT_EQ(&choose_variant(variants[row]->required | 1), variants[row]) << variants[row]->name;
  }
}

// ---- scratch ------------------------------------------------------------------------------------

TEST(Scratch, OneAllocationAndThePortablePathWithoutIt) {
  Random random(15);
  for (const Routines<double>& layout : routines<double>()) {
    for (const Size n : {Size{38}, Size{2003}}) {
      const Shape shape{35, n, 118};
      const Size lda = layout.a_transposed ? shape.k : shape.m;
      const Size ldb = layout.b_transposed ? shape.n : shape.k;
      const std::vector<double> a = random_values(random, shape.m * shape.k);
      const std::vector<double> b = random_values(random, shape.n * shape.k);
      std::vector<double> expected(shape.m * shape.n);
      std::vector<double> got(shape.m * shape.n, std::numeric_limits<double>::quiet_NaN());
      for (const bool fails : {false, true}) {
        auto* reference = fails ? reference_portable<double> : reference_packed;
        reference(layout, a.data(), b.data(), expected.data(), shape, lda, ldb, shape.m);
        allocation_fails = fails;
        allocations = releases = 0;
        watched_size = scratch_size(n);
        layout.entry(a.data(), b.data(), got.data(), shape.m, shape.k, n, lda, ldb, shape.m);
        watched_size = 0;
        EXPECT_EQ(allocations, 1) << layout.name;
        EXPECT_EQ(releases, fails ? 0 : 1) << layout.name;
        EXPECT_EQ(difference(got, expected), "")
            << layout.name << (fails ? " without scratch" : "");
      }
    }
  }
}

// ---- threads ------------------------------------------------------------------------------------

TEST(Threads, SixteenShareTheOperands) {
  Random random(16);
  const Size size = 131;
  const std::vector<double> a = random_values(random, size * size);
  const std::vector<double> b = random_values(random, size * size);
  std::vector<std::vector<double>> results(16, std::vector<double>(size * size));
  for (const Routines<double>& layout : routines<double>()) {
    std::vector<std::thread> threads;
    for (std::vector<double>& result : results) {
      threads.emplace_back([&layout, &a, &b, &result] {
        layout.entry(a.data(), b.data(), result.data(), size, size, size, size, size, size);
      });
    }
    for (std::thread& thread : threads) {
      thread.join();
    }
    std::vector<double> expected(size * size);
    reference_packed(layout, a.data(), b.data(), expected.data(), {size, size, size}, size, size,
                     size);
    for (const std::vector<double>& result : results) {
      EXPECT_EQ(difference(result, expected), "") << layout.name;
    }
  }
}

}  // namespace
}  // namespace ksomd::test
