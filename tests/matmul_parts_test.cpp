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
#include "matmul_problem.h"
#include "support/guarded_memory.h"

// The allocator, with a switch to make it fail and counters (the linker puts these in between).
namespace {
std::atomic<bool> allocation_fails;
std::atomic<int> allocations;
std::atomic<int> releases;
std::atomic<std::size_t> watched_size;
std::atomic<void*> watched;
std::atomic<void*> prepared;  // handed out in the allocator's place, if not null
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
  if (prepared != nullptr) {
    return watched = prepared.load();
  }
  return watched = allocation_fails ? nullptr : std::realloc(null, size);
}

void __wrap_free(void* memory) {
  if (memory == nullptr) {
    return;
  }
  if (memory == watched) {
    ++releases;
    watched = nullptr;
    if (memory == prepared) {
      return;
    }
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

std::vector<float> random_values_r4(Random& random, std::size_t count) {
  std::vector<float> values(count);
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

void check_packing(Random& random, const Packing& packing, Size members, Size depth) {
  const Size leading = (packing.adjacent ? members : depth) + random.below(3);
  const Size count = packing.adjacent ? (depth == 0 ? 0 : (depth - 1) * leading + members)
                                      : (members == 0 ? 0 : (members - 1) * leading + depth);
  const std::vector<double> values = random_values(random, count);
  const Size padded = (depth + 3) / 4 * 4;
  const Size groups = members / 4;
  std::vector<double> expected(groups * padded * 4);
  for (Size g = 0; g < groups; ++g) {
    for (Size l = 0; l < padded; ++l) {
      for (Size r = 0; r < 4; ++r) {
        const Size member = 4 * g + r;
        const Size place = packing.adjacent ? member + l * leading : l + member * leading;
        expected[(g * padded + l) * 4 + r] = l < depth ? values[place] : 0.0;
      }
    }
  }
  // Source and destination begin, or end, at a guard page.
  const GuardedMemory source_memory(count * sizeof(double) + 1);
  const GuardedMemory panel_memory(expected.size() * sizeof(double) + 1);
  for (const bool at_end : {false, true}) {
    double* source = at_end ? reinterpret_cast<double*>(source_memory.end()) - count
                            : reinterpret_cast<double*>(source_memory.begin());
    double* panel = at_end ? reinterpret_cast<double*>(panel_memory.end()) - expected.size()
                           : reinterpret_cast<double*>(panel_memory.begin());
    std::copy(values.begin(), values.end(), source);
    std::fill_n(panel, expected.size(), filler<double>());
    packing.routine(packing.depth_first ? depth : members, packing.depth_first ? members : depth,
                    source, leading, panel);
    ASSERT_EQ(difference(panel, expected.data(), expected.size()), "")
        << packing.name << " members " << members << " depth " << depth;
  }
}

TEST(Packing, EntryByEntry) {
  Random random(11);
  for (const Packing& packing : packings) {
    for (Size members = 0; members <= 13; ++members) {
      for (Size depth = 0; depth <= 17; ++depth) {
        check_packing(random, packing, members, depth);
      }
    }
    for (const Size members : {260U, 259U, 4U}) {
      for (const Size depth : {109U, 110U, 111U, 112U, 200U}) {
        check_packing(random, packing, members, depth);
      }
    }
  }
}

// ---- tile kernels -------------------------------------------------------------------------------

// What a tile kernel must not look at.
enum class Unread { null_pointers, wrong_values };

void check_tiles(Random& random, bool full_chunk, Size m, Size n, Size depth, Unread unread) {
  const Size ldp = m + random.below(3);
  alignas(16) static double a[24 * 200];
  alignas(16) static double b[24 * 200];
  alignas(16) static double doubled[8 * 200 + 2];
  const std::vector<double> values = random_values(random, std::size(a) + std::size(b));
  std::copy_n(values.begin(), std::size(a), a);
  std::copy_n(values.begin() + std::size(a), std::size(b), b);
  std::fill(std::begin(doubled), std::end(doubled), -7.0);
  // P begins at an odd multiple of eight bytes, too.
  const Size start = random.below(2);
  std::vector<double> got = random_values(random, start + ldp * n);
  if (!full_chunk) {
    for (Size j = 0; j < n; ++j) {
      std::fill_n(&got[start + j * ldp], m, filler<double>());
    }
  }
  std::vector<double> expected = got;
  for (Size j = 0; j < n; ++j) {
    for (Size i = 0; i < m; ++i) {
      double sum = 0;
      for (Size l = 0; l < depth; ++l) {
        sum = sum + a[(i / 4 * depth + l) * 4 + i % 4] * b[(j / 4 * depth + l) * 4 + j % 4];
      }
      double& p = expected[start + i + j * ldp];
      p = full_chunk ? sum + p : sum;
    }
  }
  const Size wrong = unread == Unread::wrong_values ? random.below(2) * 3 : 0;
  const Size* ignored = unread == Unread::wrong_values ? &wrong : nullptr;
  if (full_chunk) {
    __orvex_dinner_qwide(&m, &n, ignored, a, b, ignored, &got[start], &ldp, doubled);
  } else {
    __orvex_dinnerz_roll_qwide(&m, &n, &depth, a, b, ignored, &got[start], &ldp, doubled);
  }
  ASSERT_EQ(difference(got, expected), "") << "m " << m << " n " << n << " depth " << depth;
  // The last panel of op(B), every value twice, and nothing after it.
  for (Size i = 0; i < 8 * depth; ++i) {
    ASSERT_EQ(doubled[i], b[(n / 4 - 1) * 4 * depth + i / 2]) << i;
  }
  for (Size i = 8 * depth; i < std::size(doubled); ++i) {
    ASSERT_EQ(doubled[i], -7.0) << i;
  }
}

TEST(Tiles, SumsFromZeroInOrder) {
  Random random(12);
  for (Size m = 4; m <= 24; m += 4) {
    for (Size n = 4; n <= 24; n += 4) {
      for (const Unread unread : {Unread::null_pointers, Unread::wrong_values}) {
        check_tiles(random, true, m, n, 112, unread);
        for (const Size depth : {4U, 8U, 12U, 60U, 108U, 112U, 116U, 200U}) {
          check_tiles(random, false, m, n, depth, unread);
        }
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

// Products with extents below `limit`; one array holds everything, overlaps are as likely as not.
void check_vectors(Random& random, int rounds, std::uint32_t limit) {
  const std::size_t reach = std::size_t{limit} * (limit + 2);
  const std::size_t middle = reach + 3 * limit;
  const std::size_t apart_x = 2 * middle + 3 * limit;
  const std::size_t apart_y = apart_x + 4 * limit;
  const std::size_t room = apart_y + limit;
  const std::vector<double> pool = random_values(random, 2 * room);
  for (int round = 0; round < rounds; ++round) {
    const bool transposed = random.below(2) != 0;
    const bool strided = random.below(2) != 0;
    const Size m = random.below(limit);
    const Size k = random.below(limit);
    const auto sign = [&] { return random.below(4) == 0 ? -1 : 1; };
    const std::int64_t lda =
        sign() * static_cast<std::int64_t>((transposed ? k : m) + random.below(3));
    const std::int64_t incx = strided ? sign() * static_cast<std::int64_t>(random.below(4)) : 1;
    const double* from = pool.data() + random.below(static_cast<std::uint32_t>(room));
    const std::vector<double> start(from, from + room);
    const std::size_t a = middle + random.below(2 * limit);
    const std::size_t x = random.below(2) == 0 ? apart_x : middle + random.below(10 * limit);
    const std::size_t y = random.below(3) == 0 ? apart_y : middle + random.below(15 * limit);
    std::vector<double> expected = start;
    reference_vector(transposed, &expected[a], &expected[x], &expected[y], m, k, lda, incx);
    for (const matmul::Variant* row : kernel_rows()) {
      const UseRow use(row);
      std::vector<double> got = start;
      multiply_vector(transposed, strided, &got[a], &got[x], &got[y], m, k, lda, incx);
      ASSERT_EQ(difference(got, expected), "")
          << row->name << " transposed " << transposed << " strided " << strided << " m " << m
          << " k " << k << " lda " << lda << " incx " << incx << " a " << a << " x " << x << " y "
          << y;
    }
  }
}

TEST(MatrixVector, AllFormsStridesAndOverlaps) {
  Random random(13);
  check_vectors(random, 12000, 24);
  check_vectors(random, 1200, 110);
}

// A, x and y end at guard pages.
TEST(MatrixVector, GuardPages) {
  Random random(14);
  const GuardedMemory memory_a(sizeof(double) * 80 * 80);
  const GuardedMemory memory_x(sizeof(double) * 80 * 3);
  const GuardedMemory memory_y(sizeof(double) * 80);
  ASSERT_TRUE(memory_a && memory_x && memory_y);
  const auto put = [](const GuardedMemory& memory, const std::vector<double>& values, bool at_end) {
    double* start = at_end ? reinterpret_cast<double*>(memory.end()) - values.size()
                           : reinterpret_cast<double*>(memory.begin());
    std::copy(values.begin(), values.end(), start);
    return start;
  };
  for (int round = 0; round < 1600; ++round) {
    const bool transposed = round % 2 != 0;
    const bool strided = round % 4 >= 2;
    const bool at_end = round % 8 >= 4;
    const Size m = 1 + random.below(79);
    const Size k = 1 + random.below(79);
    const std::int64_t incx = strided ? 3 : 1;
    const double* a = put(memory_a, random_values(random, m * k), at_end);
    const double* x =
        put(memory_x, random_values(random, (k - 1) * static_cast<Size>(incx) + 1), at_end);
    std::vector<double> expected(m);
    const auto lda = static_cast<std::int64_t>(transposed ? k : m);
    reference_vector(transposed, a, x, expected.data(), m, k, lda, incx);
    for (const matmul::Variant* row : kernel_rows()) {
      const UseRow use(row);
      double* y = put(memory_y, std::vector<double>(m, filler<double>()), at_end);
      multiply_vector(transposed, strided, a, x, y, m, k, lda, incx);
      ASSERT_EQ(difference(y, expected.data(), m), "")
          << row->name << " transposed " << transposed << " strided " << strided << " m " << m
          << " k " << k;
    }
  }
}

// ---- complex multiplication ---------------------------------------------------------------------

constexpr unsigned modes[] = {0, rounding(1), rounding(2), rounding(3),
                              flush_to_zero | denormals_are_zero};

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
                        -Limits::denorm_min(),
                        Limits::max() / 2,
                        std::sqrt(Limits::max()),
                        -std::sqrt(Limits::min())};
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
  for (const unsigned mode : modes) {
    const FloatMode set(mode);
    std::size_t recovered = 0;
    for (const TypeParam& x : pairs) {
      for (const TypeParam& y : pairs) {
        const TypeParam plain = plain_product(x, y);
        const TypeParam product = builtin_product(x, y);
        if (std::isnan(plain.re) && std::isnan(plain.im)) {
          recovered += !std::isnan(product.re) || !std::isnan(product.im) ? 1 : 0;
        } else {
          ASSERT_EQ(difference(&plain, &product, 1), "") << "mode " << mode;
        }
      }
    }
    EXPECT_GT(recovered, 0U);
  }
}

// Each pair of special values is one product among others of a sum, first and last and between;
// and a product of its own, by a plain loop and in a vector: whose flags are then all there are.
TYPED_TEST(ComplexProduct, AllPairsOfSpecialValues) {
  const std::vector<TypeParam> pairs = special_pairs<TypeParam>();
  const Size count = pairs.size();
  Random random(15);
  Comparison<TypeParam> compare;
  for (const Routines<TypeParam>& layout : routines<TypeParam>()) {
    for (const Size depth : {1U, 3U}) {
      for (Size place = 0; place < depth; ++place) {
        Problem<TypeParam> x(layout, {count, count, depth}, 0);
        x.fill(random, Values::Wide);
        for (Size i = 0; i < count; ++i) {
          x.a.values[layout.a_transposed ? place + i * x.a.leading : i + place * x.a.leading] =
              pairs[i];
          x.b.values[layout.b_transposed ? i + place * x.b.leading : place + i * x.b.leading] =
              pairs[i];
        }
        for (const unsigned mode : modes) {
          if (depth != 1 && mode != 0) {
            continue;
          }
          const FloatMode set(mode);
          compare.all(x, random, Values::Wide);
        }
      }
    }
  }
  for (const Size rows : {1U, 5U}) {
    Problem<TypeParam> x(routines<TypeParam>()[0], {rows, 1, 1}, 0);
    for (const TypeParam& left : pairs) {
      std::fill(x.a.values.begin(), x.a.values.end(), left);
      for (const TypeParam& right : pairs) {
        x.b.values[0] = right;
        compare.paths(x);
      }
    }
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

TEST(Dispatch, TheFirstProductFillsTheSlot) {
  Random random(16);
  const std::vector<float> a = random_values_r4(random, 64);
  std::vector<float> p(64);
  const std::uint64_t saved = ksomd::feature_word();
  for (const matmul::Variant* row : kernel_rows()) {
    const UseRow use(nullptr);
    __orvex_cpu_feature_indicator[0] = row->required | 1;
    _MATMUL_r4_n_n(a.data(), a.data(), p.data(), 8, 8, 8, 8, 8, 8);
    EXPECT_EQ(matmul::variant_slot, row);
    // It stays.
    __orvex_cpu_feature_indicator[0] = saved;
    _MATMUL_r4_n_n(a.data(), a.data(), p.data(), 8, 8, 8, 8, 8, 8);
    EXPECT_EQ(matmul::variant_slot, row);
  }
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

// One step below a threshold, the portable path serves: for k, the scratch alone tells.
TEST(Scratch, NoneBelowTheThresholds) {
  const std::vector<double> operand(64 * 64, 1.0);
  std::vector<double> p(64 * 64);
  for (const Routines<double>& layout : routines<double>()) {
    for (const auto& [shape, expected] : {std::pair{Shape{34, 38, 38}, 1},
                                          {{33, 38, 38}, 0},
                                          {{34, 37, 38}, 0},
                                          {{34, 38, 37}, 0}}) {
      allocations = 0;
      watched_size = scratch_size(shape.n);
      layout.entry(operand.data(), operand.data(), p.data(), shape.m, shape.k, shape.n, 64, 64, 64);
      watched_size = 0;
      EXPECT_EQ(allocations, expected)
          << layout.name << " m=" << shape.m << " n=" << shape.n << " k=" << shape.k;
    }
  }
}

// Nothing beyond the allocation is touched, wherever it starts in a page.
TEST(Scratch, EndsAtAGuardPage) {
  Random random(17);
  const GuardedMemory memory(scratch_size(2000));
  ASSERT_TRUE(memory);
  Comparison<double> compare;
  for (const Routines<double>& layout : routines<double>()) {
    for (const Size n : {38U, 41U, 44U, 53U, 2013U}) {
      watched_size = scratch_size(n);
      prepared = memory.end() - watched_size;
      allocations = releases = 0;
      Problem<double> x(layout, {n < 100 ? 263U : 35U, n, n < 100 ? 130U : 113U}, 0);
      x.fill(random, Values::Wide);
      compare.paths(x);
      // Public entry, second stage and driver, each row; the portable second stage takes none.
      EXPECT_EQ(allocations, 3 * static_cast<int>(kernel_rows().size()));
      EXPECT_EQ(releases, allocations);
      watched_size = 0;
      prepared = nullptr;
    }
  }
}

// ---- threads ------------------------------------------------------------------------------------

template <class Element>
class Threads : public testing::Test {};
TYPED_TEST_SUITE(Threads, Elements, );

// Sixteen threads with the same operands, each with its own rows of one result: what lies between
// the rows of one thread is another's.
TYPED_TEST(Threads, SixteenShareOperandsAndResult) {
  Random random(18);
  constexpr Size threads = 16;
  constexpr Size rows = sizeof(TypeParam) == sizeof(double) ? 37 : 11;
  constexpr Size m = threads * rows;
  constexpr Size n = 45;
  constexpr Size k = 119;
  for (const Routines<TypeParam>& layout : routines<TypeParam>()) {
    Problem<TypeParam> x(layout, {m, n, k}, 0);
    x.fill(random, Values::Wide);
    const Size step = layout.a_transposed ? x.a.leading : 1;
    std::vector<TypeParam> expected(m * n);
    for (Size thread = 0; thread < threads; ++thread) {
      const TypeParam* a = x.a.data() + thread * rows * step;
      TypeParam* p = expected.data() + thread * rows;
      if constexpr (std::is_same_v<TypeParam, double>) {
        reference_packed(layout, a, x.b.data(), p, {rows, n, k}, x.a.leading, x.b.leading, m);
      } else {
        reference_portable(layout, a, x.b.data(), p, {rows, n, k}, x.a.leading, x.b.leading, m);
      }
    }
    for (const matmul::Variant* row : kernel_rows()) {
      const UseRow use(row);
      std::vector<TypeParam> got(m * n);
      std::vector<std::thread> running;
      for (Size thread = 0; thread < threads; ++thread) {
        running.emplace_back([&x, &layout, &got, thread, step] {
          for (int repeat = 0; repeat < 5; ++repeat) {
            layout.entry(x.a.data() + thread * rows * step, x.b.data(), got.data() + thread * rows,
                         rows, k, n, x.a.leading, x.b.leading, m);
          }
        });
      }
      for (std::thread& thread : running) {
        thread.join();
      }
      EXPECT_EQ(difference(got, expected), "") << layout.name << " " << row->name;
    }
  }
}

}  // namespace
}  // namespace ksomd::test
