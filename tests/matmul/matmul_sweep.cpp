// Every routine of the matrix products against the plain loops of reference.h: bits, flags, what
// lies around the operands, in every rounding mode and by every row of the kernel table.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>
#include <vector>

#include "cpu/feature_table.h"
#include "matmul/drive/kernels.h"
#include "reference.h"
#include "support/entry.h"
#include "support/operand.h"
#include "support/sweep.h"

namespace ksomd::test {
namespace {

template <class Element>
using Nine = void(const Element*, const Element*, Element*, Size, Size, Size, Size, Size, Size);

// ---- what operands hold -------------------------------------------------------------------------

enum class Values { Wide, Tiny, Specials, Rare };

template <class Real>
Real special(Random& random) {
  using Limits = std::numeric_limits<Real>;
  const Real value =
      random.one_of({Real{0}, Limits::denorm_min(), Limits::min(), Limits::max(),
                     Limits::infinity(), Limits::quiet_NaN(), Real{1}, Limits::max() / 2});
  return random.one_in(2) ? value : -value;
}

template <class Real>
Real real_value(Random& random, Values kind) {
  if (random.one_in(kind == Values::Specials ? 3
                    : kind == Values::Rare   ? 200
                                             : ~std::uint64_t{0})) {
    return special<Real>(random);
  }
  // The products of tiny ones lie about the smallest normal number.
  constexpr int tiny = std::numeric_limits<Real>::min_exponent / 2;
  const Real scale = kind == Values::Tiny ? std::ldexp(Real{1}, tiny) : Real{1};
  return static_cast<Real>(random.number()) * scale;
}

template <class Element>
Element value(Random& random, Values kind) {
  if constexpr (is_complex<Element>) {
    const auto re = real_value<RealOf<Element>>(random, kind);
    return {re, real_value<RealOf<Element>>(random, kind)};
  } else {
    return real_value<Element>(random, kind);
  }
}

// An operand at a guard page.
template <class Element>
class Matrix {
 public:
  Size leading = 0, count = 0;

  Element* place(Random& random, Size rows, Size columns) {
    leading = rows + random.one_of<Size>({0, 0, 1, 3, columns < 1200 ? 300u : 2u});
    count = rows == 0 || columns == 0 ? 0 : (columns - 1) * leading + rows;
    return operand_.place_values<Element>(count, random.one_of({Place::AtEnd, Place::AtStart}));
  }
  const Element* fill(Random& random, Values kind, Size rows, Size columns) {
    Element* const first = place(random, rows, columns);
    for (Size i = 0; i < count; ++i) {
      first[i] = value<Element>(random, kind);
    }
    return first;
  }
  bool intact() const { return operand_.intact(); }

 private:
  Operand operand_{std::size_t{16} << 20};
};

// ---- the rows of the kernel table ---------------------------------------------------------------

template <class Body>
void with_each_row(Body body) {
  for (const auto& row : matmul::kernel_variants) {
    if (has_features(row.needs)) {
      matmul::kernels_slot = row.choice;
      body(row.name);
    }
  }
  matmul::kernels_slot = nullptr;
}

// ---- products -----------------------------------------------------------------------------------

// Around every block and threshold of the contract and of the kernels.
constexpr Size edges[] = {0,  1,  2,   3,   4,   5,   7,   8,   9,   12,  15,  16,  17,  23,  24,
                          25, 31, 32,  33,  34,  37,  38,  39,  40,  47,  48,  49,  63,  64,  65,
                          96, 97, 111, 112, 113, 127, 128, 129, 130, 224, 230, 255, 256, 257, 300};
struct Shape {
  Size m, n, k;
};
constexpr Shape all_targets[] = {{5, 3, 7},    {33, 38, 38},  {34, 37, 38}, {34, 38, 37},
                                 {34, 38, 38}, {37, 39, 113}, {0, 2, 3},    {3, 0, 2},
                                 {2, 3, 0},    {17, 9, 130}};
constexpr Shape host_only[] = {{264, 40, 224},  {263, 41, 230}, {525, 41, 113}, {35, 2003, 39},
                               {36, 2000, 113}, {130, 5, 300},  {6, 420, 260},  {600, 6, 140},
                               {70, 30, 300},   {9, 7, 1100}};

Shape any_shape(Random& random, Size limit) {
  for (;;) {
    const Shape shape{random.one_of(edges), random.one_of(edges), random.one_of(edges)};
    if (shape.m * shape.n * shape.k <= limit) {
      return shape;
    }
  }
}

template <class Element>
struct Path {
  const char* suffix;
  bool depth_first;  // k before n
  void (*reference)(const Problem<Element>&);
  bool accumulates;
};

template <class Element>
std::vector<Path<Element>> paths() {
  if constexpr (std::is_same_v<Element, double>) {
    // Without these five features the entry takes the portable path.
    const bool has_packed = has_features(feature_mask("X87", "CMOV", "MMX", "SSE", "SSE2"));
    return {{"", true, has_packed ? packed : portable<double>, false},
            {".J", true, packed, false},
            {".A", true, portable<double>, false},
            {"_QWide", false, packed, false},
            {"_pst_General", false, add_product<double>, true}};
  } else {
    return {{"", true, portable<Element>, false},
            {".A", true, portable<Element>, false},
            {"_pst_General", false, add_product<Element>, true}};
  }
}

template <class Element>
class Products {
 public:
  Products(Sweep& sweep, std::string name, bool at, bool bt)
      : sweep_(sweep), name_(std::move(name)), at_(at), bt_(bt) {}

  void compare(const Shape& shape, Values kind, std::uint64_t mode, unsigned more) {
    Random& random = sweep_.random;
    const auto [m, n, k] = shape;
    Problem<Element> x{at_, bt_, m, n, k, nullptr, nullptr, nullptr, 0, 0, 0};
    x.a = a_.fill(random, kind, at_ ? k : m, at_ ? m : k);
    x.b = b_.fill(random, kind, bt_ ? n : k, bt_ ? k : n);
    x.lda = a_.leading;
    x.ldb = b_.leading;
    for (const Path<Element>& path : paths<Element>()) {
      const auto routine = entry<Nine<Element>>(name_ + path.suffix);
      x.p = p_.place(random, m, n);
      x.ldp = p_.leading;
      std::vector<Element> before(x.p, x.p + p_.count);
      for (Size i = 0; i < m * n; ++i) {
        constexpr auto nan = std::numeric_limits<RealOf<Element>>::quiet_NaN();
        Element& p = before[i % m + i / m * x.ldp];
        p = value<Element>(random, kind);
        if (!path.accumulates) {
          std::fill_n(reinterpret_cast<RealOf<Element>*>(&p), parts<Element>, nan);
        }
      }
      std::vector<Element> expected = before;
      Problem<Element> reference = x;
      reference.p = expected.data();
      const unsigned flags = raised_by(mode, [&] { path.reference(reference); }, more);
      bool first = true;
      with_each_row([&](const char* row) {
        std::copy(before.begin(), before.end(), x.p);
        const unsigned raised = raised_by(
            mode,
            [&] {
              routine(x.a, x.b, x.p, m, path.depth_first ? k : n, path.depth_first ? n : k, x.lda,
                      x.ldb, x.ldp);
            },
            more);
        EXPECT_TRUE(same_bits(x.p, expected.data(), expected.size()) && raised == flags &&
                    a_.intact() && b_.intact() && p_.intact())
            << name_ << path.suffix << ' ' << row << " m=" << m << " n=" << n << " k=" << k
            << " lda=" << x.lda << " ldb=" << x.ldb << " ldp=" << x.ldp << " values "
            << static_cast<int>(kind) << " mode " << mode << " mxcsr " << more << ": flags "
            << raised << " expected " << flags;
        if (first && *path.suffix != '\0') {  // the entry itself differs by processor
          add_result(x, flags);
        }
        first = false;
      });
    }
  }

 private:
  void add_result(const Problem<Element>& x, unsigned flags) {
    for (Size i = 0; i < x.m * x.n; ++i) {
      using Real = RealOf<Element>;
      Real values[parts<Element>];
      std::memcpy(values, x.p + i % x.m + i / x.m * x.ldp, sizeof values);
      for (const Real real : values) {
        sweep_.result(real == real ? real : Real{0});
      }
    }
    sweep_.result(flags);
  }

  Sweep& sweep_;
  std::string name_;
  bool at_, bt_;
  Matrix<Element> a_, b_, p_;
};

template <class Element>
void sweep_products(const char* code) {
  for (const char* layout : {"n_n", "t_n", "n_t", "t_t"}) {
    const std::string name = std::string(code) + "_" + layout;
    Sweep sweep(("matmul." + name).c_str());
    Products<Element> products(sweep, "_MATMUL_" + name, layout[0] == 't', layout[2] == 't');
    for (const auto round : sweep.rounds(std::size(all_targets), is_complex<Element> ? 70 : 200)) {
      Random& random = sweep.random;
      const std::size_t listed = round - std::size(all_targets);
      const Shape shape = round < std::size(all_targets) ? all_targets[round]
                          : listed < std::size(host_only)
                              ? host_only[listed]
                              : any_shape(random, is_complex<Element> ? 60'000 : 150'000);
      const unsigned more =
          round % 4 != 3 ? 0 : random.one_of({mxcsr::denormals_are_zero, mxcsr::flush_to_zero});
      products.compare(shape,
                       random.one_of({Values::Wide, Values::Tiny, Values::Specials, Values::Rare}),
                       random.below(rounding_modes), more);
      if (testing::Test::HasFailure()) {
        return;
      }
    }
  }
}

TEST(MatmulSweep, ProductsOfR4) {
  sweep_products<float>("r4");
}
TEST(MatmulSweep, ProductsOfR8) {
  sweep_products<double>("r8");
}
TEST(MatmulSweep, ProductsOfC4) {
  sweep_products<ksomd_c4>("c4");
}
TEST(MatmulSweep, ProductsOfC8) {
  sweep_products<ksomd_c8>("c8");
}

// Single products of numbers at the edges of their range raise what their own operations raise.
template <class Element>
void sweep_single_products(const char* name) {
  Sweep sweep((std::string("matmul.single.") + name).c_str());
  Products<Element> products(sweep, name, false, false);
  for ([[maybe_unused]] const auto round : sweep.rounds(100, 6000)) {
    products.compare({1 + sweep.random.below(5), 1, 1}, Values::Specials,
                     sweep.random.below(rounding_modes), 0);
    ASSERT_FALSE(testing::Test::HasFailure());
  }
}
TEST(MatmulSweep, SingleProductsOfC4) {
  sweep_single_products<ksomd_c4>("_MATMUL_c4_n_n");
}
TEST(MatmulSweep, SingleProductsOfC8) {
  sweep_single_products<ksomd_c8>("_MATMUL_c8_n_n");
}

// ---- operands that overlap ----------------------------------------------------------------------

// The kernels add to P in their order even if P lies on A, on B, or on itself.
template <class Element>
void sweep_overlaps(const char* code) {
  Sweep sweep((std::string("matmul.overlap.") + code).c_str());
  for (const auto round : sweep.rounds(8, 240)) {
    Random& random = sweep.random;
    const Shape shape = any_shape(random, round % 8 == 0 ? 20'000 : 2'000);
    const char* const layout = random.one_of({"n_n", "t_n", "n_t", "t_t"});
    const auto leading = [&](Size rows) {
      return rows - random.below(rows / 2 + 1) + random.below(4);
    };
    Problem<Element> x{layout[0] == 't', layout[2] == 't', shape.m, shape.n, shape.k, nullptr,
                       nullptr,          nullptr,          0,       0,       0};
    x.lda = leading(x.at ? x.k : x.m);
    x.ldb = leading(x.bt ? x.n : x.k);
    x.ldp = leading(x.m);
    const Size reach =
        (x.lda + 1) * (x.m + x.k) + (x.ldb + 1) * (x.n + x.k) + (x.ldp + 1) * (x.n + x.m);
    std::vector<Element> memory(reach + 100);
    for (Element& element : memory) {
      element = value<Element>(random, Values::Wide);
    }
    const Size at[] = {random.below(100), random.below(100), random.below(100)};
    std::vector<Element> expected = memory;
    x.a = expected.data() + at[0];
    x.b = expected.data() + at[1];
    x.p = expected.data() + at[2];
    add_product(x);
    sweep.results(expected.data(), expected.size() * sizeof(Element));
    const std::string name = std::string("_MATMUL_") + code + "_" + layout + "_pst_General";
    with_each_row([&](const char* row) {
      std::vector<Element> got = memory;
      entry<Nine<Element>>(name)(got.data() + at[0], got.data() + at[1], got.data() + at[2], x.m,
                                 x.n, x.k, x.lda, x.ldb, x.ldp);
      EXPECT_TRUE(same_bits(got.data(), expected.data(), got.size()))
          << name << ' ' << row << " m=" << x.m << " n=" << x.n << " k=" << x.k << " lda=" << x.lda
          << " ldb=" << x.ldb << " ldp=" << x.ldp << " at " << at[0] << ' ' << at[1] << ' '
          << at[2];
    });
    ASSERT_FALSE(testing::Test::HasFailure());
  }
}
TEST(MatmulSweep, OverlapsOfR4) {
  sweep_overlaps<float>("r4");
}
TEST(MatmulSweep, OverlapsOfR8) {
  sweep_overlaps<double>("r8");
}
TEST(MatmulSweep, OverlapsOfC4) {
  sweep_overlaps<ksomd_c4>("c4");
}
TEST(MatmulSweep, OverlapsOfC8) {
  sweep_overlaps<ksomd_c8>("c8");
}

// ---- the parts of a product ---------------------------------------------------------------------

template <class Element>
void clear_exactly(const char* code, Random& random) {
  Matrix<Element> matrix;
  const Size m = random.below(40), n = random.below(6);
  Element* const p = matrix.place(random, m, n);
  std::vector<Element> expected(p, p + matrix.count);
  clear(Problem<Element>{false, false, m, n, 0, nullptr, nullptr, expected.data(), 0, 0,
                         matrix.leading});
  const std::string name = std::string("_MATMUL_") + code + "_n_n_pst_init";
  entry<void(Element*, Size, Size, Size)>(name)(p, m, n, matrix.leading);
  EXPECT_TRUE(same_bits(p, expected.data(), matrix.count) && matrix.intact())
      << name << " m=" << m << " n=" << n << " ldp=" << matrix.leading;
}

TEST(MatmulSweep, ZeroFillsClearTheirRectangle) {
  Sweep sweep("matmul.clear");
  for ([[maybe_unused]] const auto round : sweep.rounds(20, 200)) {
    clear_exactly<float>("r4", sweep.random);
    clear_exactly<double>("r8", sweep.random);
    clear_exactly<ksomd_c4>("c4", sweep.random);
    clear_exactly<ksomd_c8>("c8", sweep.random);
  }
}

// y = op(A) * x with signed strides; now and then y lies on A or on x.
TEST(MatmulSweep, MatrixVectorProducts) {
  using Contiguous = void(const double*, const double*, double*, Size, Size, std::int64_t);
  using Strided =
      void(const double*, const double*, double*, Size, Size, std::int64_t, std::int64_t);
  Sweep sweep("matmul.vector");
  for ([[maybe_unused]] const auto round : sweep.rounds(120, 3000)) {
    Random& random = sweep.random;
    const bool at = random.one_in(2), strided = random.one_in(2), overlap = random.one_in(3);
    const auto m = static_cast<std::int64_t>(random.below(40)),
               k = static_cast<std::int64_t>(random.below(40));
    const std::int64_t sign = random.one_of({1, -1});
    const std::int64_t lda = sign * ((at ? k : m) + static_cast<std::int64_t>(random.below(3)));
    const std::int64_t incx = strided ? static_cast<std::int64_t>(random.below(7)) - 3 : 1;
    std::vector<double> memory(12'000);
    for (double& element : memory) {
      element = value<double>(random, Values::Rare);
    }
    // A lies around 3000, x around 7000 and y from 10000 on, unless it overlaps one of them.
    const std::size_t y =
        !overlap ? 10'000 : random.one_of<std::size_t>({2980, 6980}) + random.below(60);
    std::vector<double> expected = memory;
    const std::uint64_t mode = random.below(rounding_modes);
    const unsigned flags = raised_by(mode, [&] {
      matrix_vector(at, expected.data() + 3000, expected.data() + 7000, expected.data() + y, m, k,
                    lda, incx);
    });
    const std::string name =
        std::string("MATMUL_v_") + (at ? 't' : 'n') + (strided ? 't' : 'n') + "_pst";
    const auto first = static_cast<Size>(at ? k : m), second = static_cast<Size>(at ? m : k);
    with_each_row([&](const char* row) {
      std::vector<double> got = memory;
      double* const p = got.data();
      const unsigned raised = raised_by(mode, [&] {
        strided ? entry<Strided>(name)(p + 3000, p + 7000, p + y, first, second, lda, incx)
                : entry<Contiguous>(name)(p + 3000, p + 7000, p + y, first, second, lda);
      });
      EXPECT_TRUE(same_bits(p, expected.data(), got.size()) && raised == flags)
          << name << ' ' << row << " m=" << m << " k=" << k << " lda=" << lda << " incx=" << incx
          << " y at " << y << " flags " << raised << " expected " << flags;
    });
    sweep.result(flags);
    ASSERT_FALSE(testing::Test::HasFailure());
  }
}

// Panels hold complete groups of four, each entry padded with zeros to a depth of a multiple of
// four.
TEST(MatmulSweep, PanelsAndTiles) {
  using Pack = void(Size, Size, const double*, Size, double*);
  using Tiles = void(const Size*, const Size*, const Size*, const double*, const double*,
                     const Size*, double*, const Size*, double*);
  Sweep sweep("matmul.panels");
  Matrix<double> source, tile;
  Operand panels(std::size_t{4} << 20), doubled(8192);
  for ([[maybe_unused]] const auto round : sweep.rounds(40, 600)) {
    Random& random = sweep.random;
    const auto pack = [&](const char* name, bool depth_first, bool adjacent, Size members,
                          Size depth) {
      const double* const from =
          source.fill(random, Values::Rare, adjacent ? members : depth, adjacent ? depth : members);
      const Size padded = (depth + 3) / 4 * 4;
      std::vector<double> expected(members / 4 * padded * 4);
      for (Size i = 0; i < expected.size(); ++i) {
        const Size member = i / (4 * padded) * 4 + i % 4, l = i / 4 % padded;
        expected[i] =
            l < depth ? from[adjacent ? member + l * source.leading : l + member * source.leading]
                      : 0;
      }
      auto* const to = panels.place_values<double>(expected.size(),
                                                   random.one_of({Place::AtEnd, Place::AtStart}));
      entry<Pack>(name)(depth_first ? depth : members, depth_first ? members : depth, from,
                        source.leading, to);
      EXPECT_TRUE(same_bits(to, expected.data(), expected.size()) && panels.intact() &&
                  source.intact())
          << name << " members " << members << " depth " << depth << " leading " << source.leading;
      return expected;
    };
    const Size m = 4 + random.below(20), n = 4 + random.below(20);
    const bool whole_chunk = random.one_in(4);
    const Size depth = whole_chunk ? 112 : 1 + random.below(40);
    alignas(16) static double a[24 * 112], b[24 * 112];
    const auto packed_a = random.one_in(2) ? pack("__orvex_dgcopyan_qwide", false, true, m, depth)
                                           : pack("__orvex_dgcopyat_qwide", false, false, m, depth);
    const auto packed_b = random.one_in(2) ? pack("__orvex_dgcopybn_psc", true, false, n, depth)
                                           : pack("__orvex_dgcopybt_psc", true, true, n, depth);
    std::copy(packed_a.begin(), packed_a.end(), a);
    std::copy(packed_b.begin(), packed_b.end(), b);
    const Size rows = m / 4 * 4, columns = n / 4 * 4, padded = (depth + 3) / 4 * 4;
    double* const p = tile.place(random, rows, columns);
    std::vector<double> expected(p, p + tile.count);
    const std::uint64_t mode = random.below(rounding_modes);
    const unsigned flags = raised_by(mode, [&] {
      for (Size i = 0; i < rows * columns; ++i) {
        const Size r = i % rows, c = i / rows;
        double s = 0;
        for (Size l = 0; l < padded; ++l) {
          s += a[(r / 4 * padded + l) * 4 + r % 4] * b[(c / 4 * padded + l) * 4 + c % 4];
        }
        double& old = expected[r + c * tile.leading];
        old = whole_chunk ? s + old : s;
      }
    });
    const char* const name = whole_chunk ? "__orvex_dinner_qwide" : "__orvex_dinnerz_roll_qwide";
    const Size given_depth = whole_chunk ? 4 : padded, unused = 112;  // one kernel ignores it
    auto* const scratch = doubled.place_values<double>(8 * padded, Place::AtEnd);
    const unsigned raised = raised_by(mode, [&] {
      entry<Tiles>(name)(&rows, &columns, &given_depth, a, b, &unused, p, &tile.leading, scratch);
    });
    EXPECT_TRUE(same_bits(p, expected.data(), expected.size()) && raised == flags &&
                tile.intact() && doubled.intact())
        << name << " m=" << rows << " n=" << columns << " depth " << padded << " flags " << raised
        << " expected " << flags;
    sweep.result(flags);
    ASSERT_FALSE(testing::Test::HasFailure());
  }
}

}  // namespace
}  // namespace ksomd::test
