// Every path of the sixteen products, by every row of the kernel table, against the plain loop
// nests: shapes, values, rounding modes.
#include <cmath>

#include "matmul_problem.h"
#include "support/effort.h"
#include "support/guarded_memory.h"

namespace ksomd::test {
namespace {

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
          compare.all(x, random, kind);
        }
      }
    }
  }
}

constexpr Size extents[] = {33,  34,  37,  38,  39,  63,  64,  112, 113, 127,
                            128, 129, 130, 224, 230, 257, 260, 261, 300};

TYPED_TEST(Product, BlockBoundaries) {
  Random random(2);
  Comparison<TypeParam> compare;
  constexpr std::uint32_t count = std::size(extents);
  const Size work_limit = (full_length() ? 400 : 8) * Size{1000000};
  for (const Routines<TypeParam>& layout : routines<TypeParam>()) {
    Size work = 0;
    for (std::uint32_t round = 0; work < work_limit && !this->HasFailure(); ++round) {
      // Every extent occurs in every place; what stands beside it changes.
      const Shape shape{extents[round % count], extents[random.below(count)],
                        extents[(round + random.below(2) * random.below(count)) % count]};
      Problem<TypeParam> x(layout, shape, round % 2 * (1 + random.below(9)));
      const Values kind = round % 5 == 4 ? Values::Rare : Values::Wide;
      x.fill(random, kind);
      compare.all(x, random, kind);
      work += shape.m * shape.n * shape.k;
    }
    if (full_length()) {
      std::printf("%s done\n", layout.name);
      std::fflush(stdout);
    }
  }
}

// One long extent beside two short ones: blocks, panels and passes of every kind come to an end.
TYPED_TEST(Product, LongAndThin) {
  Random random(3);
  Comparison<TypeParam> compare;
  const Shape shapes[] = {{1, 1, 2050}, {3, 2, 517},   {1, 700, 5},   {2, 1030, 3}, {1030, 1, 2},
                          {777, 3, 1},  {530, 5, 140}, {5, 530, 140}, {21, 23, 640}};
  for (const Routines<TypeParam>& layout : routines<TypeParam>()) {
    for (const Shape& shape : shapes) {
      Problem<TypeParam> x(layout, shape, random.below(3));
      x.fill(random, Values::Wide);
      compare.all(x, random, Values::Wide);
    }
  }
}

// Columns, or rows, some kilobytes apart.
TYPED_TEST(Product, LargeLeadingDimensions) {
  Random random(6);
  Comparison<TypeParam> compare;
  for (const Routines<TypeParam>& layout : routines<TypeParam>()) {
    for (const Shape& shape : {Shape{150, 23, 140}, {147, 14, 257}, {13, 9, 20}}) {
      Problem<TypeParam> x(layout, shape, 512);
      x.fill(random, Values::Wide);
      compare.all(x, random, Values::Wide);
    }
  }
}

// The packed path: shapes on both sides of its thresholds, chunks, row blocks, column panels.
TEST(PackedProduct, ThresholdsChunksAndPanels) {
  Random random(4);
  Comparison<double> compare;
  const Shape shapes[] = {{33, 60, 60},    {34, 38, 38},    {34, 37, 38},    {34, 38, 37},
                          {37, 39, 38},    {35, 41, 112},   {36, 40, 224},   {39, 43, 230},
                          {38, 38, 111},   {36, 44, 113},   {264, 40, 115},  {527, 42, 116},
                          {33, 200, 200},  {35, 4001, 39},  {34, 2003, 113}, {34, 1999, 38},
                          {262, 2001, 38}, {36, 2000, 126}, {40, 4006, 41},  {41, 47, 673}};
  for (const Routines<double>& layout : routines<double>()) {
    for (const Shape& shape : shapes) {
      Problem<double> x(layout, shape, shape.n > 300 ? 0 : 1);
      x.fill(random, Values::Wide);
      compare.paths(x);
    }
  }
}

// The comparisons can tell what they are meant to tell: with these values, a sum in another order,
// a fused or a wider one often has other bits.
TEST(Reference, OtherOrdersShow) {
  Random random(5);
  constexpr std::size_t sums = 1000;
  constexpr std::size_t depth = 16;
  std::size_t same_reversed = 0;
  std::size_t same_fused = 0;
  std::size_t same_paired = 0;
  std::size_t same_wider = 0;
  for (std::size_t s = 0; s < sums; ++s) {
    std::vector<double> x(depth);
    std::vector<double> y(depth);
    random.fill(x, Values::Wide);
    random.fill(y, Values::Wide);
    double plain = 0;
    double reversed = 0;
    double fused = 0;
    double even = 0;
    double odd = 0;
    long double wider = 0;
    for (std::size_t l = 0; l < depth; ++l) {
      const double product = x[l] * y[l];
      plain = plain + product;
      reversed = reversed + x[depth - 1 - l] * y[depth - 1 - l];
      fused = std::fma(x[l], y[l], fused);
      (l % 2 == 0 ? even : odd) += product;
      wider = wider + static_cast<long double>(product);
    }
    same_reversed += plain == reversed ? 1 : 0;
    same_fused += plain == fused ? 1 : 0;
    same_paired += plain == even + odd ? 1 : 0;
    same_wider += plain == static_cast<double>(wider) ? 1 : 0;
  }
  EXPECT_LT(same_reversed, sums / 2);
  EXPECT_LT(same_fused, sums * 4 / 5);
  EXPECT_LT(same_paired, sums / 2);
  EXPECT_LT(same_wider, sums / 2);

  // The portable and the packed order, too.
  Problem<double> x(routines<double>()[0], {64, 64, 230}, 0);
  x.fill(random, Values::Wide);
  std::vector<double> portable(x.p.values);
  std::vector<double> packed(x.p.values);
  reference_portable(x.layout, x.a.data(), x.b.data(), portable.data(), x.shape, 64, 230, 64);
  reference_packed(x.layout, x.a.data(), x.b.data(), packed.data(), x.shape, 64, 230, 64);
  EXPECT_NE(difference(portable, packed), "");
}

// Four roundings, each with and without flush-to-zero and denormals-are-zero.
TYPED_TEST(Product, FloatModes) {
  Random random(6);
  Comparison<TypeParam> compare;
  const auto check = [&](const Routines<TypeParam>& layout, const Shape& shape, unsigned mode,
                         Values kind) {
    Problem<TypeParam> x(layout, shape, 1);
    x.fill(random, kind);
    const FloatMode set(mode);
    compare.all(x, random, kind);
  };
  const Shape shapes[] = {{1, 1, 1}, {5, 3, 7}, {13, 9, 131}, {36, 40, 118}, {37, 41, 230}};
  for (const Routines<TypeParam>& layout : routines<TypeParam>()) {
    for (unsigned mode = 0; mode < 4; ++mode) {
      for (const Shape& shape : shapes) {
        check(layout, shape, rounding(mode), Values::Wide);
      }
      for (const unsigned zeros :
           {0U, flush_to_zero, denormals_are_zero, flush_to_zero | denormals_are_zero}) {
        check(layout, {13, 9, 21}, rounding(mode) | zeros, Values::Tiny);
        if (zeros != 0) {
          check(layout, {36, 40, 42}, rounding(mode) | zeros, Values::Tiny);
        }
      }
    }
  }
}

// One factor in each row of op(A), the rest zeros: every product is exact, and every sum. Other
// products of the same parts, or ac + bd, would overflow or be inexact.
TYPED_TEST(Product, ExactProductsRaiseNothing) {
  using Limits = std::numeric_limits<RealOf<TypeParam>>;
  using Parts = RealOf<TypeParam>[2];
  const auto large = std::ldexp(RealOf<TypeParam>{7}, Limits::max_exponent - 3);
  const Parts factors[] = {{1, 0.5}, {0, 1}, {-1, 0}, {0, -1}, {0, 0}};
  const Parts others[] = {
      {large, large / 2}, {0, -large}, {1, -1}, {Limits::min(), 0}, {1 + Limits::epsilon(), 0}};
  const auto element = [](const Parts& parts) {
    if constexpr (matmul::is_complex<TypeParam>) {
      return TypeParam{parts[0], parts[1]};
    } else {
      return parts[0];
    }
  };
  Random random(14);
  Comparison<TypeParam> compare;
  for (const Routines<TypeParam>& layout : routines<TypeParam>()) {
    for (const Shape& shape : {Shape{1, 1, 1}, {2, 3, 3}, {1, 5, 2}, {13, 9, 21}, {39, 42, 118}}) {
      for (Size round = 0; round < 40; round += shape.m) {
        Problem<TypeParam> x(layout, shape, 1);
        for (Size i = 0; i < shape.m; ++i) {
          const Size l = random.below(static_cast<std::uint32_t>(shape.k));
          x.a.values[layout.a_transposed ? l + i * x.a.leading : i + l * x.a.leading] =
              element(factors[random.below(std::size(factors))]);
        }
        for (TypeParam& value : x.b.values) {
          value = element(others[random.below(std::size(others))]);
        }
        compare.all(x, random, Values::Wide);
        const auto [m, n, k] = shape;
        EXPECT_EQ(flags_of([&] {
                    layout.entry(x.a.data(), x.b.data(), x.p.data(), m, k, n, x.a.leading,
                                 x.b.leading, x.p.leading);
                  }),
                  0U)
            << x.name("");
      }
    }
  }
}

// Sums that come out subnormal from normal products, where one more addition of zero shows: the
// last step of t_t, and the padding of a packed tail.
TYPED_TEST(Product, SubnormalSumsWithDenormalsAreZero) {
  Random random(7);
  Comparison<TypeParam> compare;
  using Real = RealOf<TypeParam>;
  constexpr Real smallest = std::numeric_limits<Real>::min();
  const auto element = [](Real re) {
    if constexpr (matmul::is_complex<TypeParam>) {
      return TypeParam{re, 0};
    } else {
      return re;
    }
  };
  for (const Routines<TypeParam>& layout : routines<TypeParam>()) {
    for (const Shape& shape :
         {Shape{1, 1, 2}, {5, 6, 9}, {40, 40, 38}, {41, 43, 40}, {37, 46, 150}}) {
      Problem<TypeParam> x(layout, shape, 0);
      std::fill(x.a.values.begin(), x.a.values.end(), TypeParam{});
      std::fill(x.b.values.begin(), x.b.values.end(), element(1));
      for (Size i = 0; i < shape.m; ++i) {
        for (const Size back : {Size{2}, Size{1}}) {
          const Size l = shape.k - back;
          x.a.values[layout.a_transposed ? l + i * x.a.leading : i + l * x.a.leading] =
              element(back == 2 ? smallest * Real{1.5} : -smallest);
        }
      }
      for (const unsigned zeros : {0U, flush_to_zero, denormals_are_zero}) {
        const FloatMode set(zeros);
        compare.all(x, random, Values::Tiny);
      }
    }
  }
}

// ---- places in memory ---------------------------------------------------------------------------

// Each array begins, or ends, at a page that cannot be touched.
TYPED_TEST(Product, GuardPages) {
  Random random(8);
  Comparison<TypeParam> compare;
  const GuardedMemory memory_a(sizeof(TypeParam) * 42000);
  const GuardedMemory memory_b(sizeof(TypeParam) * 42000);
  const GuardedMemory memory_p(sizeof(TypeParam) * 42000);
  ASSERT_TRUE(memory_a && memory_b && memory_p);
  const auto put = [](const GuardedMemory& memory, std::size_t used, bool at_end) {
    return at_end ? reinterpret_cast<TypeParam*>(memory.end()) - used
                  : reinterpret_cast<TypeParam*>(memory.begin());
  };
  std::vector<Shape> shapes;
  for (Size size = 1; size <= 40; size += full_length() || size < 18 ? 1 : 3) {
    shapes.push_back({size, 1 + random.below(40), 1 + random.below(40)});
    shapes.push_back({1 + random.below(40), size, 1 + random.below(40)});
    shapes.push_back({1 + random.below(40), 1 + random.below(40), size});
  }
  for (const Size size : {45U, 55U, 67U, 115U, 131U, 195U}) {
    shapes.push_back({size, size - random.below(4), size + random.below(4)});
  }
  for (const Routines<TypeParam>& layout : routines<TypeParam>()) {
    for (const Shape& shape : shapes) {
      Problem<TypeParam> x(layout, shape, random.below(2) * random.below(4));
      x.fill(random, Values::Wide);
      for (const bool at_end : {false, true}) {
        compare.place = {put(memory_a, x.a.used(), at_end), put(memory_b, x.b.used(), at_end),
                         put(memory_p, x.p.used(), at_end)};
        compare.all(x, random, Values::Wide);
      }
    }
  }
}

// The bits depend on no array's place: 64 combinations of offsets, in parts of an element.
TYPED_TEST(Product, Alignments) {
  using Real = RealOf<TypeParam>;
  Random random(9);
  Comparison<TypeParam> compare;
  alignas(64) static Real a[2 * 8192];
  alignas(64) static Real b[2 * 8192];
  alignas(64) static Real p[2 * 8192];
  for (const Routines<TypeParam>& layout : routines<TypeParam>()) {
    for (const Shape& shape : {Shape{37, 41, 42}, {9, 7, 11}}) {
      Problem<TypeParam> x(layout, shape, 1);
      x.fill(random, Values::Wide);
      for (std::size_t combination = 0; combination < 64; ++combination) {
        compare.place = {reinterpret_cast<TypeParam*>(a + combination % 16),
                         reinterpret_cast<TypeParam*>(b + combination / 4),
                         reinterpret_cast<TypeParam*>(p + combination * 5 % 16)};
        compare.all(x, random, Values::Wide);
      }
    }
  }
}

// P lies across an operand, in one array: the order of every read and write shows. Offsets count
// parts of an element.
TYPED_TEST(Product, OverlappingKernels) {
  using Real = RealOf<TypeParam>;
  // NOLINTNEXTLINE(bugprone-sizeof-expression): 1 for the real types
  constexpr std::size_t parts = sizeof(TypeParam) / sizeof(Real);
  Random random(10);
  const Shape shapes[] = {{1, 1, 3}, {5, 3, 6}, {9, 8, 11}, {20, 13, 17}, {130, 5, 131}, {8, 4, 0}};
  std::size_t calls = 0;
  for (const Routines<TypeParam>& layout : routines<TypeParam>()) {
    for (const Shape& shape : shapes) {
      for (int round = 0; round < 24; ++round) {
        Problem<TypeParam> x(layout, shape, random.below(3));
        const std::size_t room = x.a.values.size() + x.b.values.size() + x.p.values.size();
        std::vector<TypeParam> start(room);
        random.fill(start, Values::Wide);
        const auto span =
            static_cast<std::uint32_t>(parts * std::max(x.a.values.size(), x.b.values.size()));
        const std::size_t a = random.below(4);
        const std::size_t b = round % 2 == 0 ? parts * (room - x.b.values.size()) : random.below(4);
        const std::size_t p = random.below(span);
        const auto at = [](std::vector<TypeParam>& array, std::size_t offset) {
          return reinterpret_cast<TypeParam*>(reinterpret_cast<Real*>(array.data()) + offset);
        };
        const auto [m, n, k] = shape;
        const Size lda = x.a.leading;
        const Size ldb = x.b.leading;
        const Size ldp = x.p.leading;
        const bool adds = round % 4 != 3;
        std::vector<TypeParam> expected = start;
        (adds ? reference_general<TypeParam>
              : reference_portable<TypeParam>)(layout, at(expected, a), at(expected, b),
                                               at(expected, p), shape, lda, ldb, ldp);
        for (const matmul::Variant* row : kernel_rows()) {
          const UseRow use(row);
          std::vector<TypeParam> got = start;
          if (adds) {
            layout.general(at(got, a), at(got, b), at(got, p), m, n, k, lda, ldb, ldp);
          } else {
            layout.portable(at(got, a), at(got, b), at(got, p), m, k, n, lda, ldb, ldp);
          }
          ++calls;
          ASSERT_EQ(difference(got, expected), "")
              << x.name(adds ? "_pst_General" : ".A") << " " << row->name << " a at " << a
              << " b at " << b << " p at " << p;
        }
      }
    }
  }
  std::printf("%zu calls compared\n", calls);
}

// Leading dimensions of operands below their extents, 0 among them: columns share elements.
TYPED_TEST(Product, OperandsWhoseColumnsOverlap) {
  Random random(11);
  Comparison<TypeParam> compare;
  for (const Routines<TypeParam>& layout : routines<TypeParam>()) {
    for (const Shape& shape : {Shape{7, 6, 9}, {40, 45, 50}, {35, 40, 131}}) {
      for (const Size leading : {0U, 1U, 5U}) {
        Problem<TypeParam> x(layout, shape, 0);
        x.fill(random, Values::Wide);
        x.a.leading = x.b.leading = leading;
        compare.all(x, random, Values::Wide);
      }
    }
  }
}

// Columns of P closer together than they are long share elements, which collect the products of
// all of them in the order of the loop nest.
TYPED_TEST(Product, ResultWhoseColumnsOverlap) {
  Random random(13);
  for (const Routines<TypeParam>& layout : routines<TypeParam>()) {
    for (const Shape& shape : {Shape{4, 2, 1}, {7, 6, 9}, {37, 21, 133}}) {
      for (const Size leading : {0U, 2U, 3U}) {
        Problem<TypeParam> x(layout, shape, 0);
        x.fill(random, Values::Wide);
        random.fill(x.p.values, Values::Wide);
        std::vector<TypeParam> expected = x.p.values;
        reference_general(layout, x.a.data(), x.b.data(), expected.data(), shape, x.a.leading,
                          x.b.leading, leading);
        for (const matmul::Variant* row : kernel_rows()) {
          const UseRow use(row);
          std::vector<TypeParam> got = x.p.values;
          layout.general(x.a.data(), x.b.data(), got.data(), shape.m, shape.n, shape.k, x.a.leading,
                         x.b.leading, leading);
          EXPECT_EQ(difference(got, expected), "") << x.name("") << " ldp=" << leading;
        }
      }
    }
  }
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
