// Every routine of the matrix products against plain loops: bits, flags, what lies around the
// operands, in every rounding mode and by every row of the kernel table.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <string>
#include <tuple>
#include <vector>

#include "cpu/feature_table.h"
#include "ksomd/builtins.h"
#include "matmul/drive/kernels.h"
#include "support/entry.h"
#include "support/operand.h"
#include "support/sweep.h"

namespace ksomd::test {
namespace {

// ---- the products as the contract states them: loops that read and write P in its order -----------

using Size = std::uint64_t;

template <class Element>
inline constexpr bool is_complex = !std::is_floating_point_v<Element>;
template <class Element>
using RealOf = std::conditional_t<sizeof(Element) / (1 + is_complex<Element>) == 4, float, double>;

template <class Complex>
  requires is_complex<Complex>
Complex operator+(Complex x, Complex y) {
  return {x.re + y.re, x.im + y.im};
}

// The flags are those of the plain formula; where that gives no number, the builtin recovers
// infinities and raises nothing.
template <class Complex>
  requires is_complex<Complex>
Complex operator*(Complex x, Complex y) {
  const Complex z = {x.re * y.re - x.im * y.im, x.re * y.im + x.im * y.re};
  if (z.re == z.re || z.im == z.im) {
    return z;
  }
  const unsigned flags = __builtin_ia32_stmxcsr();
  const auto recover = std::get<sizeof x.re / 8>(std::tuple(&__mulsc3, &__muldc3));
  const auto recovered = recover(x.re, x.im, y.re, y.im);
  __builtin_ia32_ldmxcsr(flags);
  return {__real__ recovered, __imag__ recovered};
}

// op(A) and op(B) are stored transposed where the flags say so. A vector is a matrix of one column.
template <class Element>
struct Problem {
  bool at, bt;
  Size m, n, k;
  const Element* a = nullptr;
  const Element* b = nullptr;
  Element* p = nullptr;
  Size lda = 0, ldb = 0, ldp = 0;  // those of a matrix-vector product are signed

  const Element& left(Size i, Size l) const {
    return a[static_cast<std::int64_t>(at ? l + i * lda : i + l * lda)];
  }
  const Element& right(Size l, Size j) const {
    return b[static_cast<std::int64_t>(bt ? j + l * ldb : l + j * ldb)];
  }
  // s and then the products of l .. l_end - 1.
  Element add(Element s, Size i, Size j, Size l, Size l_end) const {
    for (; l < l_end; ++l) {
      s = s + left(i, l) * right(l, j);
    }
    return s;
  }
};

constexpr Size all = Size{1} << 40;

// P += op(A) * op(B): by row blocks, depth blocks and columns; in these by groups of the depth and
// then rows. What is left of a group of four goes one by one. Apart, a sum is formed from zero.
template <class Element>
void add_in_order(const Problem<Element>& x, Size block, Size group, bool apart) {
  for (Size i0 = 0; i0 < x.m; i0 += block) {
    for (Size l0 = 0; l0 < x.k || (apart && l0 == 0); l0 += block) {
      const Size l_end = std::min(x.k, l0 + block);
      for (Size j = 0; j < x.n; ++j) {
        Size l = l0;
        do {
          const Size step = l + group <= l_end ? group : group == 4 ? 1 : l_end - l;
          for (Size i = i0; i < std::min(x.m, i0 + block); ++i) {
            Element& p = x.p[i + j * x.ldp];
            const Element s = x.add(apart ? Element{} : p, i, j, l, l + step);
            p = apart ? p + s : s;
          }
          l += step;
        } while (l < l_end);
      }
    }
  }
}
template <class Element>
void add_product(const Problem<Element>& x) {
  const bool apart = x.at && x.bt;
  add_in_order(x, apart ? all : 128, x.at ? all : 4, apart);
}

template <class Element>
void clear(const Problem<Element>& x) {
  for (Size j = 0; j < x.n && x.m != 0; ++j) {
    std::memset(x.p + j * x.ldp, 0, x.m * sizeof(Element));
  }
}

// P = op(A) * op(B), portable.
template <class Element>
void portable(const Problem<Element>& x) {
  clear(x);
  add_product(x);
}

// y takes one column of A after the other, or one running sum.
template <class Element>
void matrix_vector(const Problem<Element>& x) {
  clear(x);
  add_in_order(x, all, x.at ? all : 1, false);
}

// The products of a chunk of the depth, for complete groups of four rows and columns; padded with
// zeros to a depth of a multiple of four.
template <class Element>
void tiles(const Problem<Element>& x, Size l, Size depth, bool add_old) {
  for (Size j = 0; j < x.n / 4 * 4; ++j) {
    for (Size i = 0; i < x.m / 4 * 4; ++i) {
      Element& p = x.p[i + j * x.ldp];
      const Element s = x.add(Element{}, i, j, l, l + depth);
      p = add_old ? s + p : depth % 4 != 0 ? s + Element{} : s;
    }
  }
}

// P = op(A) * op(B) through panels, the depth's last chunk first. Other rows go chunk by chunk
// through the portable kernel, other columns are one sum.
template <class Element>
void packed(const Problem<Element>& x) {
  if (x.m < 34 || x.n < 38 || x.k < 38) {
    portable(x);
    return;
  }
  const Size rows = x.m / 4 * 4, columns = x.n / 4 * 4, tail = (x.k - 1) % 112 + 1;
  for (Size l = x.k - tail, depth = tail, done = 0; done < x.k; depth = 112) {
    tiles(x, l, depth, done != 0);
    const Problem<Element> rest{
        x.at,           x.bt,       x.m - rows, columns, depth, &x.left(rows, l),
        &x.right(l, 0), x.p + rows, x.lda,      x.ldb,   x.ldp};
    done == 0 ? portable(rest) : add_product(rest);
    l = done == 0 ? 0 : l + depth;
    done += depth;
  }
  for (Size j = columns; j < x.n; ++j) {
    for (Size i = 0; i < x.m; ++i) {
      x.p[i + j * x.ldp] = x.add(Element{}, i, j, 0, x.k);
    }
  }
}

// ---- what operands hold -------------------------------------------------------------------------

enum class Values { Wide, Tiny, Specials, Rare };

// The products of tiny ones lie about the smallest normal number, and most are zero, so that sums
// do.
template <class Element>
void set_value(Random& random, Values kind, Element& element) {
  using Real = RealOf<Element>;
  using Limits = std::numeric_limits<Real>;
  const std::uint64_t rarity = kind == Values::Specials ? 3 : kind == Values::Rare ? 200 : ~0ull;
  Real parts[1 + is_complex<Element>];
  for (Real& part : parts) {
    part = static_cast<Real>(random.number());
    if (random.one_in(rarity)) {
      part = std::copysign(
          random.one_of({Real{0}, Limits::denorm_min(), Limits::min(), Limits::max(),
                         Limits::infinity(), Limits::quiet_NaN(), Real{1}, Limits::max() / 2}),
          part);
    } else if (kind == Values::Tiny) {
      part *= random.one_in(4) ? std::ldexp(Real{1}, Limits::min_exponent / 2) : Real{0};
    }
  }
  std::memcpy(&element, parts, sizeof parts);
}

template <class Element>
Element* filled(Operand& operand, Random& random, Values kind, Size count) {
  const Place place = random.one_of({Place::AtEnd, Place::AtStart});
  auto* const first = operand.place_values<Element>(count, place);
  std::for_each_n(first, count, [&](Element& value) { set_value(random, kind, value); });
  return first;
}

// The bits of numbers, any NaN counting as any other.
template <class Element>
std::string bits_of(const Element* first, std::size_t count) {
  std::vector<RealOf<Element>> numbers(count * (1 + is_complex<Element>));
  std::copy_n(reinterpret_cast<const char*>(first), count * sizeof *first,
              reinterpret_cast<char*>(numbers.data()));
  std::ranges::replace_if(numbers, [](auto number) { return number != number; }, 77);
  return {reinterpret_cast<const char*>(numbers.data()), count * sizeof *first};
}

// ---- calls --------------------------------------------------------------------------------------

// How a routine takes its arguments, and what it does.
enum class Call { DepthFirst, ColumnsFirst, Adds, Clears, Vector, Tiles };

// Packs, and multiplies the panels: complete groups of four of op(A)'s rows or op(B)'s columns, one
// after the other, with four values for each index of the padded depth.
void multiply_tiles(const Problem<double>& x) {
  static Operand memory[3] = {Operand(1 << 16), Operand(1 << 16), Operand(1 << 16)};
  const Size full[] = {x.m / 4 * 4, x.n / 4 * 4}, padded = (x.k + 3) / 4 * 4, ignored = 4;
  double* panels[2];
  for (const int b : {0, 1}) {
    panels[b] = memory[b].place_values<double>(full[b] * padded, Place::AtEnd);
    const char* const name = b == 0 ? x.at ? "__orvex_dgcopyat_qwide" : "__orvex_dgcopyan_qwide"
                             : x.bt ? "__orvex_dgcopybt_psc"
                                    : "__orvex_dgcopybn_psc";
    entry<void(Size, Size, const double*, Size, double*)>(name)(
        b == 0 ? x.m : x.k, b == 0 ? x.k : x.n, b == 0 ? x.a : x.b, b == 0 ? x.lda : x.ldb,
        panels[b]);
    std::vector<double> expected(full[b] * padded);
    for (Size i = 0; i < expected.size(); ++i) {
      const Size member = i / (4 * padded) * 4 + i % 4, l = i / 4 % padded;
      expected[i] = l >= x.k ? 0 : b == 0 ? x.left(member, l) : x.right(l, member);
    }
    EXPECT_EQ(bits_of(panels[b], expected.size()), bits_of(expected.data(), expected.size()));
  }
  auto* const doubled = memory[2].place_values<double>(8 * padded, Place::AtEnd);
  const bool adds = x.k == 112;
  entry<decltype(__orvex_dinner_qwide)>(adds ? "__orvex_dinner_qwide"
                                             : "__orvex_dinnerz_roll_qwide")(
      &full[0], &full[1], adds ? &ignored : &padded, panels[0], panels[1], &ignored, x.p, &x.ldp,
      doubled);
  EXPECT_TRUE(std::ranges::all_of(memory, &Operand::intact));
}

template <class E>
void call(const std::string& name, Call how, const Problem<E>& x) {
  if (how == Call::Clears) {
    entry<void(E*, Size, Size, Size)>(name)(x.p, x.m, x.n, x.ldp);
  } else if (how == Call::DepthFirst || how == Call::ColumnsFirst || how == Call::Adds) {
    const auto [second, third] =
        how == Call::DepthFirst ? std::pair{x.k, x.n} : std::pair{x.n, x.k};
    entry<void(const E*, const E*, E*, Size, Size, Size, Size, Size, Size)>(name)(
        x.a, x.b, x.p, x.m, second, third, x.lda, x.ldb, x.ldp);
  } else if constexpr (std::is_same_v<E, double>) {
    const auto lda = static_cast<std::int64_t>(x.lda), incx = static_cast<std::int64_t>(x.ldb);
    const auto [first, second] = x.at ? std::pair{x.k, x.m} : std::pair{x.m, x.k};
    how == Call::Tiles ? multiply_tiles(x)
    : x.bt ? entry<decltype(MATMUL_v_nt_pst)>(name)(x.a, x.b, x.p, first, second, lda, incx)
           : entry<decltype(MATMUL_v_nn_pst)>(name)(x.a, x.b, x.p, first, second, lda);
  }
}

template <class Element>
struct Path {
  std::string name;
  Call call;
  void (*reference)(const Problem<Element>&);
  bool shared = true;  // by every processor
};

// What stands behind the name of an entry. Without five features it takes the portable path.
template <class Element>
const Path<Element> suffixes[] = {
    {"", Call::DepthFirst,
     std::is_same_v<Element, double> &&
             has_features(feature_mask("X87", "CMOV", "MMX", "SSE", "SSE2"))
         ? packed<Element>
         : portable<Element>,
     false},
    {".A", Call::DepthFirst, portable<Element>},
    {".J", Call::DepthFirst, packed<Element>},
    {"_QWide", Call::ColumnsFirst, packed<Element>},
    {"_pst_General", Call::Adds, add_product<Element>},
    {"_pst_init", Call::Clears, clear<Element>},
};

// ---- products -----------------------------------------------------------------------------------

struct Shape {
  Size m, n, k;
};

// Around every block and threshold of the contract and of the kernels.
Shape any_shape(Random& random, Size limit) {
  constexpr Size edges[] = {1,  3,  5,  8,  12,  16,  24,  32,  34, 38,
                            40, 48, 64, 96, 112, 128, 230, 256, 300};
  Size m = limit, n = limit, k = limit;
  while (m * n * k > limit) {
    for (Size* const extent : {&m, &n, &k}) {
      *extent = random.one_of(edges) - 1;
      *extent += random.below(3);
    }
  }
  return {m, n, k};
}
constexpr Shape listed[] = {{5, 3, 7},      {33, 38, 38},   {34, 37, 38},    {34, 38, 37},
                            {34, 38, 38},   {37, 39, 113},  {0, 2, 3},       {3, 0, 2},
                            {2, 3, 0},      {17, 9, 130},   {264, 40, 224},  {263, 41, 230},
                            {525, 41, 113}, {35, 2003, 39}, {36, 2000, 113}, {130, 5, 300},
                            {6, 420, 260},  {600, 6, 140},  {70, 30, 300},   {9, 7, 1100}};

// One product by every row of the kernel table. A and B end or begin at pages that fault, as P
// does; or all three lie anywhere in one array, P on A, on B or on itself.
template <class Element>
void compare(Sweep& sweep, const Path<Element>& path, Problem<Element> x) {
  static Operand operands[3] = {Operand(16 << 20), Operand(16 << 20), Operand(16 << 20)};
  Random& random = sweep.random;
  const bool is_vector = path.call == Call::Vector,
             reads_p = path.call == Call::Adds || (path.call == Call::Tiles && x.k == 112);
  const Values any = random.one_of({Values::Wide, Values::Tiny, Values::Specials, Values::Rare});
  const Values kind = x.n * x.k == 1 && !is_vector ? Values::Specials : any;
  const bool overlap =
      random.one_in(2) && x.m * x.n * x.k <= 20'000 && (is_vector || path.call == Call::Adds);
  const Size rows[] = {x.at ? x.k : x.m, x.bt ? x.n : x.k, x.m};
  const Size columns[] = {x.at ? x.m : x.k, x.bt ? x.k : x.n, x.n};
  Size* const leading[] = {&x.lda, &x.ldb, &x.ldp};
  Size counts[3], first[3];
  for (int i = 0; i < 3; ++i) {
    const Size near = random.below(4), less = random.below(rows[i] / 2 + 1);
    const Size gap = random.one_of<Size>({0, 0, 1, 3, columns[i] < 1200 ? 300u : 2u});
    const Size stride =
        i == 1 && is_vector ? x.bt ? near : 1 : rows[i] + (overlap ? near - less : gap);
    const bool backwards = is_vector && (i == 0 || x.bt) && random.one_in(2);
    const Size span = rows[i] == 0 || columns[i] == 0 ? 0 : (columns[i] - 1) * stride;
    *leading[i] = backwards ? 0 - stride : stride;
    counts[i] = columns[i] == 0 ? 0 : span + rows[i];
    first[i] = backwards ? span : 0;
  }
  Size count = counts[2];
  if (overlap) {
    const Size half = std::max({counts[0], counts[1], counts[2]}) + 100;
    for (Size& place : first) {
      place += random.below(100);
      place += half * random.below(2);
    }
    count = 2 * half;
  }
  x.a = filled<Element>(operands[0], random, kind, counts[0]) + first[0];
  x.b = filled<Element>(operands[1], random, kind, counts[1]) + first[1];
  auto* const memory = filled<Element>(operands[2], random, kind, count);
  if (!overlap && !reads_p) {
    std::memset(memory, 0xFF, count * sizeof *memory);  // NaN
  }
  const std::vector<Element> before(memory, memory + count);
  const auto within = [&](Element* base) {
    Problem<Element> y = x;
    y.a = overlap ? base + first[0] : x.a;
    y.b = overlap ? base + first[1] : x.b;
    y.p = base + first[2];
    return y;
  };
  const std::uint64_t mode = random.below(rounding_modes);
  const unsigned more =
      random.one_of({0u, 0u, 0u, 0u, 0u, 0u, mxcsr::denormals_are_zero, mxcsr::flush_to_zero});
  std::vector<Element> expected = before;
  const unsigned flags = raised_by(mode, [&] { path.reference(within(expected.data())); }, more);
  const std::string shown = bits_of(expected.data(), expected.size());
  for (const auto& row : matmul::kernel_variants) {
    if (has_features(row.needs)) {
      matmul::kernels_slot = row.choice;
      std::copy(before.begin(), before.end(), memory);
      const unsigned raised =
          raised_by(mode, [&] { call(path.name, path.call, within(memory)); }, more);
      EXPECT_TRUE(bits_of(memory, expected.size()) == shown && raised == flags &&
                  std::ranges::all_of(operands, &Operand::intact))
          << path.name << ' ' << row.name << " m n k lda ldb ldp, where: "
          << testing::PrintToString(
                 std::vector{x.m, x.n, x.k, x.lda, x.ldb, x.ldp, first[0], first[1], first[2]})
          << " values " << static_cast<int>(kind) << " overlap " << overlap << " mode " << mode
          << " mxcsr " << more << ": flags " << raised << " not " << flags;
    }
  }
  matmul::kernels_slot = nullptr;
  if (path.shared) {
    sweep.results(shown.data(), shown.size());
    sweep.result(flags);
  }
}

// In each round of each layout every routine with one shape, and a few with small operands: single
// products of numbers at the edges of their range, those that overlap, vectors.
template <class Element>
void sweep_products(const std::string& code) {
  Sweep sweep(("matmul." + code).c_str());
  Random& random = sweep.random;
  for (const auto round : sweep.rounds(10, is_complex<Element> ? 50 : 200)) {
    for (const std::string layout : {"n_n", "t_n", "n_t", "t_t"}) {
      const auto compare_with = [&](const Path<Element>& path, Shape shape) {
        const auto [m, n, k] = shape;
        compare<Element>(sweep, path, {layout[0] == 't', layout[2] == 't', m, n, k});
      };
      const Shape any = any_shape(random, is_complex<Element> ? 60'000 : 150'000);
      const Shape shape = round < std::size(listed) ? listed[round] : any;
      for (Path<Element> path : suffixes<Element>) {
        path.name = "_MATMUL_" + code + "_" + layout + path.name;
        for (int i = 0; i < 6 && !entries_with_prefix(path.name).empty(); ++i) {
          const Shape small = any_shape(random, random.one_of<Size>({200, 2'000, 20'000}));
          const Shape tight{34 + random.below(8), 38 + random.below(8), 38 + random.below(80)};
          const Shape single{1 + random.below(5), 1, 1};
          compare_with(path, i == 0                            ? shape
                             : i > 2                           ? single
                             : path.call == Call::Adds         ? small
                             : path.call == Call::ColumnsFirst ? tight
                                                               : single);
        }
      }
      for (int i = 0; i < 4 && code == "r8"; ++i) {
        const Size depth = random.below(40), rows = random.below(40),
                   columns = 4 + random.below(20);
        compare_with(
            {"MATMUL_v_" + layout.substr(0, 1) + layout[2] + "_pst", Call::Vector, matrix_vector},
            {rows, 1, depth});
        compare_with({"panels", Call::Tiles, [](const auto& x) { tiles(x, 0, x.k, x.k == 112); }},
                     {4 + rows, columns, random.one_in(4) ? 112 : 1 + depth});
      }
      ASSERT_FALSE(testing::Test::HasFailure());
    }
  }
}

TEST(MatmulSweep, EveryRoutineComputesInItsOrder) {
  sweep_products<float>("r4");
  sweep_products<double>("r8");
  sweep_products<ksomd_c4>("c4");
  sweep_products<ksomd_c8>("c8");
}

}  // namespace
}  // namespace ksomd::test
