// Every path of the sixteen products against the plain loop nests, bit for bit.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>

#include "matmul_support.h"

namespace ksomd::test {
namespace {

template <class Element>
Element filler();
template <>
float filler() {
  return std::numeric_limits<float>::quiet_NaN();
}
template <>
double filler() {
  return std::numeric_limits<double>::quiet_NaN();
}
template <>
ksomd_c4 filler() {
  return {filler<float>(), filler<float>()};
}
template <>
ksomd_c8 filler() {
  return {filler<double>(), filler<double>()};
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

template <class Element>
class Comparison {
 public:
  std::size_t calls = 0;

  // All paths of one routine on one problem.
  void paths(Problem<Element>& x) {
    const Element* a = x.a.data();
    const Element* b = x.b.data();
    const auto [m, n, k] = x.shape;
    const Size lda = x.a.leading;
    const Size ldb = x.b.leading;
    const Size ldp = x.p.leading;
    std::fill(x.p.values.begin(), x.p.values.end(), filler<Element>());
    mark_outside(x.p);
    const std::vector<Element> before = x.p.values;
    std::vector<Element> portable = before;
    reference_portable(x.layout, a, b, portable.data(), x.shape, lda, ldb, ldp);
    std::vector<Element> packed = portable;
    if constexpr (std::is_same_v<Element, double>) {
      reference_packed(x.layout, a, b, packed.data(), x.shape, lda, ldb, ldp);
      expect(x, ".J", packed, before,
             [&](double* p) { x.layout.packed(a, b, p, m, k, n, lda, ldb, ldp); });
      expect(x, "_QWide", packed, before,
             [&](double* p) { x.layout.driver(a, b, p, m, n, k, lda, ldb, ldp); });
    }
    expect(x, "", packed, before,
           [&](Element* p) { x.layout.entry(a, b, p, m, k, n, lda, ldb, ldp); });
    expect(x, ".A", portable, before,
           [&](Element* p) { x.layout.portable(a, b, p, m, k, n, lda, ldb, ldp); });
  }

  // The kernel alone, which adds to what P holds.
  void kernel(Problem<Element>& x, Random& random, Values kind) {
    random.fill(x.p.values, kind);
    mark_outside(x.p);
    const std::vector<Element> before = x.p.values;
    std::vector<Element> expected = before;
    reference_general(x.layout, x.a.data(), x.b.data(), expected.data(), x.shape, x.a.leading,
                      x.b.leading, x.p.leading);
    expect(x, "_pst_General", expected, before, [&](Element* p) {
      x.layout.general(x.a.data(), x.b.data(), p, x.shape.m, x.shape.n, x.shape.k, x.a.leading,
                       x.b.leading, x.p.leading);
    });
  }

 private:
  template <class Call>
  void expect(const Problem<Element>& x, const char* path, const std::vector<Element>& expected,
              const std::vector<Element>& before, const Call& call) {
    std::vector<Element> got = before;
    call(got.data());
    ++calls;
    const std::string problem = difference(got, expected);
    if (!problem.empty()) {
      ADD_FAILURE() << x.name(path) << ": " << problem;
    }
  }
};

template <class Element>
class Product : public testing::Test {};
using Elements = testing::Types<float, double, ksomd_c4, ksomd_c8>;
TYPED_TEST_SUITE(Product, Elements, );

TYPED_TEST(Product, AllSmallShapes) {
  Random random(1);
  Comparison<TypeParam> compare;
  for (const Routines<TypeParam>& layout : routines<TypeParam>()) {
    for (Size m = 0; m <= 20; ++m) {
      for (Size n = 0; n <= 20; ++n) {
        for (Size k = 0; k <= 20 && !this->HasFailure(); ++k) {
          Problem<TypeParam> x(layout, {m, n, k}, (m + n + k) % 3);
          const Values kind = (m + 3 * n + k) % 5 == 0 ? Values::Specials : Values::Wide;
          x.fill(random, kind);
          compare.paths(x);
          compare.kernel(x, random, kind);
        }
      }
    }
  }
  std::printf("%zu calls compared\n", compare.calls);
}

constexpr Size extents[] = {33,  34,  37,  38,  39,  63,  64,  112, 113, 127,
                            128, 129, 130, 224, 230, 257, 260, 261, 300};

TYPED_TEST(Product, BlockBoundaries) {
  Random random(2);
  Comparison<TypeParam> compare;
  constexpr std::uint32_t count = std::size(extents);
  const Size work_limit = (full_length() ? 400 : 16) * Size{1000000};
  for (const Routines<TypeParam>& layout : routines<TypeParam>()) {
    Size work = 0;
    for (std::uint32_t round = 0; work < work_limit && !this->HasFailure(); ++round) {
      // Every extent occurs in every place; what stands beside it changes.
      const Shape shape{extents[round % count], extents[random.below(count)],
                        extents[(round + random.below(2) * random.below(count)) % count]};
      Problem<TypeParam> x(layout, shape, round % 2 * (1 + random.below(9)));
      const Values kind = round % 7 == 6 ? Values::Specials : Values::Wide;
      x.fill(random, kind);
      compare.paths(x);
      compare.kernel(x, random, kind);
      work += shape.m * shape.n * shape.k;
    }
    if (full_length()) {
      std::printf("%s done\n", layout.name);
      std::fflush(stdout);
    }
  }
  std::printf("%zu calls compared\n", compare.calls);
}

// The kernels' own thresholds and shapes on both sides of them, packed path included.
TEST(PackedProduct, ThresholdsAndChunks) {
  Random random(3);
  Comparison<double> compare;
  const Shape shapes[] = {{33, 60, 60},  {34, 38, 38},  {34, 37, 38},   {34, 38, 37},
                          {37, 39, 38},  {35, 41, 112}, {36, 40, 224},  {39, 43, 230},
                          {38, 38, 111}, {36, 44, 113}, {264, 40, 115}, {523, 42, 116}};
  for (const Routines<double>& layout : routines<double>()) {
    for (const Shape& shape : shapes) {
      Problem<double> x(layout, shape, 1);
      x.fill(random, Values::Wide);
      compare.paths(x);
    }
    Problem<double> x(layout, {35, 4001, 39}, 0);
    x.fill(random, Values::Wide);
    compare.paths(x);
  }
  // On shapes where the two paths sum in different orders, the references must differ, or the
  // comparisons above could not tell the paths apart.
  Problem<double> x(routines<double>()[0], {64, 64, 230}, 0);
  x.fill(random, Values::Wide);
  std::vector<double> portable(x.p.values);
  std::vector<double> packed(x.p.values);
  reference_portable(x.layout, x.a.data(), x.b.data(), portable.data(), x.shape, 64, 230, 64);
  reference_packed(x.layout, x.a.data(), x.b.data(), packed.data(), x.shape, 64, 230, 64);
  EXPECT_NE(difference(portable, packed), "");
}

TYPED_TEST(Product, RoundingModes) {
  Random random(4);
  Comparison<TypeParam> compare;
  const Shape shapes[] = {{1, 1, 1}, {5, 3, 7}, {13, 9, 131}, {64, 40, 118}, {37, 41, 230}};
  const unsigned saved = __builtin_ia32_stmxcsr();
  for (const Routines<TypeParam>& layout : routines<TypeParam>()) {
    for (unsigned mode = 0; mode < 4; ++mode) {
      for (const Shape& shape : shapes) {
        Problem<TypeParam> x(layout, shape, 1);
        x.fill(random, Values::Wide);
        __builtin_ia32_ldmxcsr((saved & ~0x6000U) | mode << 13);
        compare.paths(x);
        compare.kernel(x, random, Values::Wide);
        __builtin_ia32_ldmxcsr(saved);
      }
    }
  }
}

// Each array ends where a page begins that cannot be touched.
TYPED_TEST(Product, GuardPages) {
  Random random(5);
  for (const Routines<TypeParam>& layout : routines<TypeParam>()) {
    for (Size size = 1; size <= 60; size += size < 24 ? 1 : 7) {
      Problem<TypeParam> x(layout, {size, size + random.below(3), size + random.below(4)}, 0);
      x.fill(random, Values::Wide);
      const auto place = [](Guarded& memory, const std::vector<TypeParam>& values) {
        const std::size_t count = values.size() - 1;
        auto* start = static_cast<TypeParam*>(memory.end()) - count;
        std::memcpy(start, values.data(), count * sizeof(TypeParam));
        return start;
      };
      const auto bytes = [](const std::vector<TypeParam>& values) {
        return values.size() * sizeof(TypeParam);
      };
      Guarded guarded_a(bytes(x.a.values));
      Guarded guarded_b(bytes(x.b.values));
      Guarded guarded_p(bytes(x.p.values));
      const TypeParam* a = place(guarded_a, x.a.values);
      const TypeParam* b = place(guarded_b, x.b.values);
      TypeParam* p = place(guarded_p, x.p.values);
      const auto [m, n, k] = x.shape;
      const Size lda = x.a.leading;
      const Size ldb = x.b.leading;
      std::vector<TypeParam> expected(m * n);
      reference_portable(layout, a, b, expected.data(), x.shape, lda, ldb, m);
      layout.portable(a, b, p, m, k, n, lda, ldb, m);
      EXPECT_EQ(difference(p, expected.data(), m * n), "") << x.name(".A");
      layout.entry(a, b, p, m, k, n, lda, ldb, m);
      if constexpr (std::is_same_v<TypeParam, double>) {
        reference_packed(layout, a, b, expected.data(), x.shape, lda, ldb, m);
      }
      EXPECT_EQ(difference(p, expected.data(), m * n), "") << x.name("");
    }
  }
}

// The bits depend on no operand's place in memory.
TYPED_TEST(Product, Alignments) {
  Random random(6);
  const Shape shape{39, 45, 117};
  for (const Routines<TypeParam>& layout : routines<TypeParam>()) {
    Problem<TypeParam> x(layout, shape, 3);
    x.fill(random, Values::Wide);
    std::vector<TypeParam> first;
    for (std::size_t alignment = 0; alignment < 64; ++alignment) {
      std::vector<TypeParam> a(x.a.values.size() + 64);
      std::vector<TypeParam> b(x.b.values.size() + 64);
      std::vector<TypeParam> p(x.p.values.size() + 64);
      TypeParam* start_a = a.data() + alignment % 8;
      TypeParam* start_b = b.data() + alignment / 8;
      TypeParam* start_p = p.data() + (alignment * 5) % 16;
      std::copy(x.a.values.begin(), x.a.values.end(), start_a);
      std::copy(x.b.values.begin(), x.b.values.end(), start_b);
      layout.entry(start_a, start_b, start_p, shape.m, shape.k, shape.n, x.a.leading, x.b.leading,
                   x.p.leading);
      const std::vector<TypeParam> result(start_p, start_p + x.p.values.size());
      if (first.empty()) {
        first = result;
      }
      ASSERT_EQ(difference(result, first), "") << x.name("") << " alignment " << alignment;
    }
  }
}

// P lies across an operand, in one array: the order of every read and write shows.
TYPED_TEST(Product, OverlappingKernels) {
  Random random(7);
  const Shape shapes[] = {{1, 1, 3}, {5, 3, 6}, {9, 8, 11}, {20, 13, 17}, {130, 5, 131}, {8, 4, 0}};
  std::size_t calls = 0;
  for (const Routines<TypeParam>& layout : routines<TypeParam>()) {
    for (const Shape& shape : shapes) {
      for (int round = 0; round < 24; ++round) {
        Problem<TypeParam> x(layout, shape, random.below(3));
        const std::size_t room = x.a.values.size() + x.b.values.size() + x.p.values.size();
        std::vector<TypeParam> expected(room);
        random.fill(expected, Values::Wide);
        std::vector<TypeParam> got = expected;
        const auto span =
            static_cast<std::uint32_t>(std::max(x.a.values.size(), x.b.values.size()));
        const std::size_t a = random.below(4);
        const std::size_t b = round % 2 == 0 ? room - x.b.values.size() : random.below(4);
        const std::size_t p = random.below(span);
        const Size lda = x.a.leading;
        const Size ldb = x.b.leading;
        const Size ldp = x.p.leading;
        reference_general(layout, &expected[a], &expected[b], &expected[p], shape, lda, ldb, ldp);
        layout.general(&got[a], &got[b], &got[p], shape.m, shape.n, shape.k, lda, ldb, ldp);
        ++calls;
        ASSERT_EQ(difference(got, expected), "")
            << x.name("_pst_General") << " a at " << a << " b at " << b << " p at " << p;
      }
    }
  }
  std::printf("%zu calls compared\n", calls);
}

TYPED_TEST(Product, ClearWritesExactlyTheRectangle) {
  std::vector<TypeParam> p(40);
  std::memset(p.data(), 0x5a, p.size() * sizeof(TypeParam));
  std::vector<TypeParam> expected = p;
  for (const int i : {0, 1, 2, 5, 6, 7}) {
    expected[static_cast<std::size_t>(i)] = TypeParam{};
  }
  clear_routine<TypeParam>()(p.data(), 3, 2, 5);
  clear_routine<TypeParam>()(p.data() + 20, 0, 2, 5);
  clear_routine<TypeParam>()(p.data() + 20, 3, 0, 5);
  EXPECT_EQ(std::memcmp(p.data(), expected.data(), p.size() * sizeof(TypeParam)), 0);
}

}  // namespace
}  // namespace ksomd::test
