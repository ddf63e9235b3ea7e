// Every row of the kernel table against plain loops and against each other row, bit for bit: random
// shapes across all block sizes, operands and results that end at a page nobody may touch, results
// full of NaNs, the four rounding modes, no memory.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <limits>
#include <random>
#include <span>
#include <string>
#include <vector>

#include "cpu/feature_set.h"
#include "ksomd/matmul.h"
#include "matmul/kernels.h"
#include "support/effort.h"
#include "support/guarded_memory.h"

// The allocator, with a switch to make it fail for the size watched.
namespace {
std::atomic<std::size_t> refused_size;
std::atomic<int> refusals;
}  // namespace

extern "C" {
void* __wrap_malloc(std::size_t size);

// On Windows a call of malloc from here would lead back here; a volatile null pointer keeps the
// compiler from making one.
void* __wrap_malloc(std::size_t size) {
  if (size == refused_size) {
    ++refusals;
    return nullptr;
  }
  void* volatile null = nullptr;
  return std::realloc(null, size);
}

#define KSOMD_DOTTED(code, element, a, b)                                                         \
  void variant_A_##code##_##a##_##b(const element*, const element*, element*, uint64_t, uint64_t, \
                                    uint64_t, uint64_t, uint64_t,                                 \
                                    uint64_t) __asm__("_MATMUL_" #code "_" #a "_" #b ".A");
KSOMD_MATMUL_EACH(KSOMD_DOTTED)
#undef KSOMD_DOTTED
}

namespace ksomd::test {
namespace {

using matmul::Size;
using matmul::Variant;

// ---- the plain loops ----------------------------------------------------------------------------

float times(float x, float y) {
  return x * y;
}
double times(double x, double y) {
  return x * y;
}
ksomd_c4 times(ksomd_c4 x, ksomd_c4 y) {
  const auto z = __mulsc3(x.re, x.im, y.re, y.im);
  return {__real__ z, __imag__ z};
}
ksomd_c8 times(ksomd_c8 x, ksomd_c8 y) {
  const auto z = __muldc3(x.re, x.im, y.re, y.im);
  return {__real__ z, __imag__ z};
}
template <class Real>
Real plus(Real x, Real y) {
  return x + y;
}
ksomd_c4 plus(ksomd_c4 x, ksomd_c4 y) {
  return {x.re + y.re, x.im + y.im};
}
ksomd_c8 plus(ksomd_c8 x, ksomd_c8 y) {
  return {x.re + y.re, x.im + y.im};
}

// A product: operands at the ends of their guarded memory, and the result.
template <class Element>
struct Problem {
  bool a_transposed, b_transposed;
  Size m, n, k, lda, ldb, ldp;
  const Element* a;
  const Element* b;

  Element term(Size i, Size j, Size l) const {
    return times(a[a_transposed ? l + i * lda : i + l * lda],
                 b[b_transposed ? j + l * ldb : l + j * ldb]);
  }
  Element sum(Element start, Size i, Size j, Size from, Size to) const {
    for (Size l = from; l < to; ++l) {
      start = plus(start, term(i, j, l));
    }
    return start;
  }
  // `old` and the products from..to, as the portable kernels add them.
  Element portable(Element old, Size i, Size j, Size from, Size to) const {
    return a_transposed && b_transposed ? plus(old, sum({}, i, j, from, to))
                                        : sum(old, i, j, from, to);
  }
  // The same product, packed: the tail first, then chunks of 112, each summed apart; rows beyond
  // the last four as the portable kernels do it, columns beyond the last four in one sum.
  Element packed(Size i, Size j) const {
    const Size tail = k - (k - 1) / 112 * 112;
    if (j >= n / 4 * 4) {
      return sum({}, i, j, 0, k);
    }
    const bool row_alone = i >= m / 4 * 4;
    Element result = row_alone ? portable({}, i, j, k - tail, k) : sum({}, i, j, k - tail, k);
    for (Size l = 0; l < k - tail; l += 112) {
      result =
          row_alone ? portable(result, i, j, l, l + 112) : plus(sum({}, i, j, l, l + 112), result);
    }
    return result;
  }
  std::string name() const {
    const auto number = [](const char* label, Size value) { return label + std::to_string(value); };
    return std::string(a_transposed ? "t" : "n") + (b_transposed ? "_t" : "_n") + number(" m=", m) +
           number(" n=", n) + number(" k=", k) + number(" lda=", lda) + number(" ldb=", ldb) +
           number(" ldp=", ldp);
  }
};

template <class Element>
struct Entry {
  using Routine = void (*)(const Element*, const Element*, Element*, Size, Size, Size, Size, Size,
                           Size);
  bool a_transposed, b_transposed;
  Routine entry, portable, kernel;  // m, k, n; m, k, n; m, n, k
};

template <class Element>
const std::vector<Entry<Element>>& entries();
#define KSOMD_ROW(code, element, a, b)                                                   \
  {#a[0] == 't', #b[0] == 't', _MATMUL_##code##_##a##_##b, variant_A_##code##_##a##_##b, \
   _MATMUL_##code##_##a##_##b##_pst_General},
#define KSOMD_TABLE(code, element)                                                              \
  template <>                                                                                   \
  const std::vector<Entry<element>>& entries<element>() {                                       \
    static const std::vector<Entry<element>> table = {KSOMD_ROW(code, element, n, n) KSOMD_ROW( \
        code, element, t, n) KSOMD_ROW(code, element, n, t) KSOMD_ROW(code, element, t, t)};    \
    return table;                                                                               \
  }
KSOMD_TABLE(r4, float)
KSOMD_TABLE(r8, double)
KSOMD_TABLE(c4, ksomd_c4)
KSOMD_TABLE(c8, ksomd_c8)

// ---- values and comparison ----------------------------------------------------------------------

template <class Element>
using RealOf =
    std::conditional_t<sizeof(Element) == 4 || std::is_same_v<Element, ksomd_c4>, float, double>;

// Magnitudes and signs so mixed that a sum in another order has other bits; now and then, if
// `specials`, an infinity, a NaN, a zero or a subnormal.
template <class Real>
Real value(std::mt19937& random, bool specials) {
  using Limits = std::numeric_limits<Real>;
  if (specials && random() % 64 == 0) {
    const Real choices[] = {Limits::infinity(), -Limits::infinity(),  Limits::quiet_NaN(), Real{0},
                            -Real{0},           Limits::denorm_min(), Limits::max()};
    return choices[random() % std::size(choices)];
  }
  const Real fraction = Real{1} + static_cast<Real>(random()) / Real{4294967296.0};
  const Real scaled = std::ldexp(fraction, static_cast<int>(random() % 12));
  return random() % 2 == 0 ? scaled : -scaled;
}

template <class Element>
bool same(const Element& x, const Element& y) {
  using Real = RealOf<Element>;
  Real a[sizeof(Element) / sizeof(Real)];  // NOLINT(bugprone-sizeof-expression)
  Real b[sizeof(Element) / sizeof(Real)];  // NOLINT(bugprone-sizeof-expression)
  std::memcpy(a, &x, sizeof x);
  std::memcpy(b, &y, sizeof y);
  for (std::size_t part = 0; part < std::size(a); ++part) {
    if (std::memcmp(&a[part], &b[part], sizeof(Real)) != 0 &&
        !(std::isnan(a[part]) && std::isnan(b[part]))) {
      return false;
    }
  }
  return true;
}

// An array that ends where a page begins that cannot be touched.
template <class Element>
class Array {
 public:
  explicit Array(std::size_t count)
      : memory_(count * sizeof(Element) + slack + 1),
        start_(reinterpret_cast<Element*>(memory_.end() - slack) - count),
        count_(count) {}
  Element* data() const { return start_; }
  std::size_t size() const { return count_; }
  void fill(std::mt19937& random, bool specials) {
    using Real = RealOf<Element>;
    auto* reals = reinterpret_cast<Real*>(start_);
    for (std::size_t i = 0; i < count_ * sizeof(Element) / sizeof(Real); ++i) {
      reals[i] = value<Real>(random, specials);
    }
  }
  // Every byte set: NaNs.
  void fill_with_nan() { std::memset(start_, 0xFF, count_ * sizeof(Element)); }

 private:
#ifdef KSOMD_EMULATED
  // The emulator faults at masked loads whose excluded lanes lie beyond the end.
  static constexpr std::size_t slack = 64;
#else
  static constexpr std::size_t slack = 0;
#endif
  GuardedMemory memory_;
  Element* start_;
  std::size_t count_;
};

std::vector<const Variant*> rows_here() {
  std::vector<const Variant*> rows;
  for (Size row = 0; row < matmul::variant_count; ++row) {
    const std::uint64_t required = matmul::variants[row]->required;
    if ((feature_word() & required) == required) {
      rows.push_back(matmul::variants[row]);
    }
  }
  return rows;
}

class UseRow {
 public:
  explicit UseRow(const Variant* row) { matmul::variant_slot = row; }
  ~UseRow() { matmul::variant_slot = nullptr; }
  UseRow(const UseRow&) = delete;
  UseRow& operator=(const UseRow&) = delete;
};

// ---- the comparison of one problem --------------------------------------------------------------

template <class Element>
class Comparison {
 public:
  std::size_t calls = 0;

  // Random operands; every path of every row; the reference last, since it is the slowest.
  void run(const Entry<Element>& entry, Size m, Size n, Size k, std::mt19937& random,
           bool specials) {
    const auto padding = [&] { return random() % 3 == 0 ? random() % 9 : 0; };
    Problem<Element> x{entry.a_transposed, entry.b_transposed, m, n, k, 0, 0, 0, nullptr, nullptr};
    x.lda = (x.a_transposed ? k : m) + padding();
    x.ldb = (x.b_transposed ? n : k) + padding();
    x.ldp = m + padding();
    Array<Element> a(((x.a_transposed ? m : k) - 1) * x.lda + (x.a_transposed ? k : m));
    Array<Element> b(((x.b_transposed ? k : n) - 1) * x.ldb + (x.b_transposed ? n : k));
    a.fill(random, specials);
    b.fill(random, specials);
    x.a = a.data();
    x.b = b.data();
    Array<Element> p((n - 1) * x.ldp + m);
    std::vector<Element> before(p.size());
    const bool is_packed = std::is_same_v<Element, double> && m >= 34 && n >= 38 && k >= 38;

    p.fill_with_nan();
    std::memcpy(before.data(), p.data(), p.size() * sizeof(Element));
    path(x, p, before, "", entry.entry, k, n,
         [&](Size i, Size j) { return is_packed ? x.packed(i, j) : x.portable({}, i, j, 0, k); });
    if (is_packed) {
      path(x, p, before, ".A", entry.portable, k, n,
           [&](Size i, Size j) { return x.portable({}, i, j, 0, k); });
    }
    p.fill(random, specials);
    std::memcpy(before.data(), p.data(), p.size() * sizeof(Element));
    path(x, p, before, "_pst_General", entry.kernel, n, k,
         [&](Size i, Size j) { return x.portable(before[i + j * x.ldp], i, j, 0, k); });
  }

 private:
  template <class Expected>
  void path(const Problem<Element>& x, const Array<Element>& p, const std::vector<Element>& before,
            const char* suffix, Entry<Element>::Routine routine, Size fifth, Size sixth,
            const Expected& expected) {
    std::vector<Element> first;
    for (const Variant* row : rows_here()) {
      const UseRow use(row);
      std::memcpy(p.data(), before.data(), before.size() * sizeof(Element));
      routine(x.a, x.b, p.data(), x.m, fifth, sixth, x.lda, x.ldb, x.ldp);
      ++calls;
      if (first.empty()) {
        first.assign(p.data(), p.data() + p.size());
        continue;
      }
      for (std::size_t i = 0; i < first.size(); ++i) {
        ASSERT_TRUE(same(p.data()[i], first[i]))
            << x.name() << suffix << ": row " << row->name << " differs from the first at " << i;
      }
    }
    for (Size j = 0; j < x.n; ++j) {
      for (Size i = 0; i < x.ldp && i + j * x.ldp < first.size(); ++i) {
        const Element& got = first[i + j * x.ldp];
        if (i >= x.m) {
          ASSERT_EQ(std::memcmp(&got, &before[i + j * x.ldp], sizeof got), 0)
              << x.name() << suffix << " wrote beyond its rows at " << i << ", " << j;
        } else {
          ASSERT_TRUE(same(got, expected(i, j))) << x.name() << suffix << " at " << i << ", " << j;
        }
      }
    }
  }
};

// How far a test goes: an emulated processor is some fifty times slower.
int rounds(int usual) {
#ifdef KSOMD_EMULATED
  return usual / 25;
#else
  return full_length() ? 20 * usual : usual;
#endif
}

template <class Element>
class KernelRows : public testing::Test {
 protected:
  std::mt19937 random{20261};  // NOLINT(bugprone-random-generator-seed)
  Comparison<Element> compare;
  void TearDown() override {
    std::string names;
    for (const Variant* row : rows_here()) {
      names += std::string(" ") + row->name;
    }
    std::printf("%zu calls compared, rows:%s\n", compare.calls, names.c_str());
  }
};
using Elements = testing::Types<float, double, ksomd_c4, ksomd_c8>;
TYPED_TEST_SUITE(KernelRows, Elements, );

// One above and one below everything that a tile, a panel or a block is cut at.
TYPED_TEST(KernelRows, RandomShapes) {
  const Size cuts[] = {4, 6, 8, 12, 16, 24, 32, 34, 38, 48, 56, 64, 96, 112, 120, 128};
  const auto extent = [&] {
    return this->random() % 2 == 0
               ? 1 + this->random() % 70
               : cuts[this->random() % std::size(cuts)] + this->random() % 3 - 1;
  };
  for (const Entry<TypeParam>& entry : entries<TypeParam>()) {
    for (int round = 0; round < rounds(150) && !this->HasFatalFailure(); ++round) {
      const Size m = extent();
      const Size n = extent();
      const Size k = extent();
      this->compare.run(entry, m, n, k, this->random, round % 3 == 0);
    }
  }
}

// Several blocks in one direction each: depth, rows, columns.
TYPED_TEST(KernelRows, SeveralBlocks) {
  if (rounds(25) == 1) {
    GTEST_SKIP() << "too long on an emulated processor";
  }
  const Size shapes[][3] = {{50, 45, 470}, {1100, 41, 39}, {37, 1650, 38}, {300, 70, 233}};
  for (const Entry<TypeParam>& entry : entries<TypeParam>()) {
    for (const auto& [m, n, k] : shapes) {
      this->compare.run(entry, m, n, k, this->random, false);
      this->compare.run(entry, m + 3, n + 1, k + 1, this->random, true);
    }
  }
}

TYPED_TEST(KernelRows, RoundingModes) {
  const Size shapes[][3] = {{33, 9, 25}, {37, 41, 118}, {25, 7, 5}, {50, 66, 138}};
  const std::size_t count = rounds(25) == 1 ? 1 : std::size(shapes);
  const unsigned saved = __builtin_ia32_stmxcsr();
  for (const Entry<TypeParam>& entry : entries<TypeParam>()) {
    for (unsigned mode = 0; mode < 4; ++mode) {
      for (const auto& [m, n, k] : std::span(shapes).first(count)) {
        __builtin_ia32_ldmxcsr((saved & ~0x6000U) | mode << 13);
        this->compare.run(entry, m, n, k, this->random, false);
        __builtin_ia32_ldmxcsr(saved);
      }
    }
  }
}

// ---- the table ----------------------------------------------------------------------------------

TEST(KernelTable, WithoutScratchTheRowsArePortable) {
  std::mt19937 random(4);  // NOLINT(bugprone-random-generator-seed)
  const Size m = 61;
  const Size n = 45;
  const Size k = 230;
  Array<double> a(m * k);
  Array<double> b(k * n);
  Array<double> p(m * n);
  a.fill(random, false);
  b.fill(random, false);
  for (const Entry<double>& entry : entries<double>()) {
    const Problem<double> x{
        entry.a_transposed,         entry.b_transposed,         m, n,        k,
        entry.a_transposed ? k : m, entry.b_transposed ? n : k, m, a.data(), b.data()};
    for (const Variant* row : rows_here()) {
      const UseRow use(row);
      p.fill_with_nan();
      refusals = 0;
      refused_size = n * 896 + 258816;
      entry.entry(a.data(), b.data(), p.data(), m, k, n, x.lda, x.ldb, m);
      refused_size = 0;
      EXPECT_EQ(refusals, 1) << row->name;
      for (Size i = 0; i < m * n; ++i) {
        ASSERT_TRUE(same(p.data()[i], x.portable({}, i % m, i / m, 0, k))) << row->name;
      }
    }
  }
}

TEST(KernelTable, TheFeaturesChooseTheFirstRowThatTheyCover) {
  std::uint64_t above = 0;
  for (Size row = 0; row < matmul::variant_count; ++row) {
    const Variant* variant = matmul::variants[row];
    EXPECT_EQ(&matmul::choose_variant(variant->required | 1), variant) << variant->name;
    if (row != 0) {
      EXPECT_EQ(variant->required & ~above, 0U) << variant->name << " asks for what the row above "
                                                << "does not";
    }
    above = variant->required;
  }
  EXPECT_EQ(above, 0U);
}

TEST(KernelTable, TheFirstProductFillsTheSlot) {
  matmul::variant_slot = nullptr;
  const double one[25] = {1};
  double p[25];
  _MATMUL_r8_n_n(one, one, p, 5, 5, 5, 5, 5, 5);
  EXPECT_EQ(matmul::variant_slot, &matmul::choose_variant(feature_word()));
  EXPECT_EQ(matmul::variant_slot, rows_here().front());
#ifdef KSOMD_EMULATED
  EXPECT_STREQ(matmul::variant_slot->name, "avx");
#endif
}

}  // namespace
}  // namespace ksomd::test
