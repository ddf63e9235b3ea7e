// Reductions into arrays and the dependence test against their definitions.
#include <gtest/gtest.h>
#include <pthread.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <ctime>
#include <limits>
#include <list>
#include <tuple>
#include <vector>

#include "ksomd/quad.hpp"
#include "ksomd/vector.h"
#include "support/operand.h"
#include "vec/calls.h"

namespace ksomd::test {
namespace {

const auto fill = KSOMD_ENTRY(__orvex_reduction_init_array);
const auto fold = KSOMD_ENTRY(__orvex_simd_reduction_final_array);

// ---- reductions: the definition -----------------------------------------------------------------

// By operation: zero, one, the lowest or highest number, or all bits one; and the lowest rank of
// the types that have it. Complex quads, quads, other floating-point types, integers are of rank 0
// to 3.
constexpr char identities[] = "-010LH10B00010", ranks[] = "90001122333322";

template <class T, std::uint32_t type_code, char type_rank, std::size_t part_count = 1>
struct Element {
  using Part = T;
  static constexpr std::uint32_t code = type_code;
  static constexpr std::size_t parts = part_count, size = parts * sizeof(T);

  static bool has(int operation) {
    return operation >= 0 && operation <= KSOMD_NOT_EQUAL && type_rank >= ranks[operation];
  }
  static T identity(int operation, std::size_t part) {
    using Limits = std::numeric_limits<T>;
    const char kind = identities[operation];
    return kind == 'L'   ? Limits::lowest()
           : kind == 'H' ? Limits::max()
                         : static_cast<T>(kind == 'B' ? -1 : int{kind == '1' && part == 0});
  }
};

const std::tuple<Element<std::uint8_t, 1, '3'>, Element<std::int8_t, 2, '3'>,
                 Element<std::uint16_t, 3, '3'>, Element<std::int16_t, 4, '3'>,
                 Element<std::uint32_t, 5, '3'>, Element<std::int32_t, 6, '3'>,
                 Element<std::uint64_t, 7, '3'>, Element<std::int64_t, 8, '3'>,
                 Element<float, 9, '2'>, Element<double, 10, '2'>, Element<Quad, 13, '1'>,
                 Element<float, 20, '2', 2>, Element<double, 21, '2', 2>, Element<Quad, 23, '0', 2>>
    elements;

// Of two NaNs the destination's survives; added to itself it is quiet.
template <class T>
T combined(int operation, T d, T s) {
  using Wide = std::conditional_t<std::is_integral_v<T>, std::uint64_t, T>;
  const auto a = static_cast<Wide>(d), b = static_cast<Wide>(s);
  if (operation <= KSOMD_DIFFERENCE) {
    const auto result = operation == KSOMD_SUM ? a + b : operation == KSOMD_PRODUCT ? a * b : a - b;
    const bool of_nan = std::is_floating_point_v<T> && (d != d || s != s);
    return static_cast<T>(!of_nan ? result : d != d ? a + a : b + b);
  }
  if constexpr (std::is_integral_v<T>) {
    if (operation >= KSOMD_AND && operation <= KSOMD_XOR_2) {
      return static_cast<T>(operation == KSOMD_AND ? d & s : operation == KSOMD_OR ? d | s : d ^ s);
    }
  }
  constexpr bool is_quad = std::is_same_v<T, Quad>;
  if (operation == KSOMD_MAXIMUM) {
    return (is_quad ? !(d <= s) : s <= d) ? d : s;
  }
  if (operation == KSOMD_MINIMUM) {
    return (is_quad ? !(d >= s) : d <= s) ? d : s;
  }
  const int first = d != T{}, second = s != T{}, equal = d == s;
  return static_cast<T>(operation == KSOMD_LOGICAL_AND  ? first & second
                        : operation == KSOMD_LOGICAL_OR ? first | second
                        : operation == KSOMD_EQUAL      ? equal
                                                        : 1 - equal);
}

template <class E>
[[gnu::noinline]] void define_fold(int operation, auto& d, const auto* s, std::int64_t stride) {
  const auto times = [](auto x, auto y) { return combined(KSOMD_PRODUCT, x, y); };
  for (std::size_t j = 0; j < d.size(); j += E::parts, s += stride * std::int64_t{E::parts}) {
    if (E::parts == 2 && operation == KSOMD_PRODUCT) {
      const auto re = combined(KSOMD_DIFFERENCE, times(d[j], s[0]), times(d[j + 1], s[1]));
      d[j + 1] = combined(KSOMD_SUM, times(d[j], s[1]), times(d[j + 1], s[0]));
      d[j] = re;
    } else {
      for (std::size_t part = 0; part < E::parts; ++part) {
        d[j + part] = combined(operation, d[j + part], s[part]);
      }
    }
  }
}

// ---- reductions: calls --------------------------------------------------------------------------

// Any number, often a NaN of its own; or a small one, so that flags tell of an element that should
// have no part.
template <class T>
T value(Random& random, bool any) {
  using L = std::numeric_limits<T>;
  std::uint64_t bits[2] = {random.next(), random.next()}, exponent[2] = {};
  const T infinite = L::infinity(), small = static_cast<T>(static_cast<int>(bits[1] % 9) - 4);
  std::memcpy(exponent, &infinite, sizeof(T));
  const std::uint64_t ones = random.one_in(3) ? ~std::uint64_t{0} : 0;
  bits[0] |= exponent[0] & ones;
  bits[1] |= exponent[1] & ones;
  T result;
  std::memcpy(&result, bits, sizeof(T));
  const T edge = random.one_of(
      {L::lowest(), L::max(), infinite, L::min(), L::denorm_min(), static_cast<T>(-T{})});
  return !any ? small : random.one_in(2) ? result : edge;
}

template <class E>
void check(Sweep& sweep, int operation, std::size_t count) {
  using T = E::Part;
  static Operand operands[2] = {Operand(1 << 20), Operand(1 << 23)};
  Random& random = sweep.random;
  const int given = random.one_of({0, 1, -1, 2, 3, -2, 5, -7});
  const int use = random.one_in(2) ? random.one_of({1, -1, 256, INT_MIN}) : 0;
  const int stride = use != 0 ? given : 1;
  const auto reach =
      (std::max(count, std::size_t{1}) - 1) * static_cast<std::size_t>(std::abs(stride)) + 1;
  const std::size_t first = stride < 0 ? reach - 1 : 0, counts[] = {count, reach};
  const std::uint64_t mode = random.below(rounding_modes);
  const unsigned more = random.one_in(4) ? mxcsr::flush_to_zero | mxcsr::denormals_are_zero : 0;
  SCOPED_TRACE(testing::Message() << "type " << E::code << ", operation " << operation << ", "
                                  << count << " elements, stride " << given << ", used " << use
                                  << ", mode " << mode << ", MXCSR " << more);
  std::vector<T> values[2];
  unsigned char* memory[2];
  const auto is_same = [&](int i) {
    return operands[i].intact() &&
           std::equal(memory[i], memory[i] + counts[i] * E::size,
                      reinterpret_cast<const unsigned char*>(values[i].data()));
  };
  const bool any = random.one_in(3);
  for (const int i : {0, 1}) {
    const std::size_t distance = random.one_in(2) ? random.below(64) : 0;
    memory[i] = operands[i].place(counts[i] * E::size,
                                  random.one_of({Place::AtEnd, Place::AtStart}), distance);
    for (std::size_t j = 0; j < counts[i] * E::parts; ++j) {
      values[i].push_back(E::identity(operation, j % E::parts));
    }
    if (i == 0) {
      fill(memory[0], count, operation, E::code);
      ASSERT_TRUE(is_same(0)) << "fill";
    }
    const std::size_t odd = random.below(2 * values[i].size() + 1);
    for (std::size_t j = 0; j < values[i].size(); ++j) {
      values[i][j] = value<T>(random, any || j == odd);
      std::memcpy(memory[i] + j * sizeof(T), &values[i][j], sizeof(T));
    }
  }
  const auto call = [&] {
    fold(memory[0], memory[1] + first * E::size, count, given, use, operation, E::code);
  };
  const auto define = [&] {
    define_fold<E>(operation, values[0], &values[1][first * E::parts], stride);
  };
  const unsigned flags = raised_by(mode, call, more);
  sweep.result(flags);
  for (std::size_t j = 0; j < count * E::parts; ++j) {
    T shown;
    std::memcpy(&shown, memory[0] + j * sizeof(T), sizeof(T));
    const bool choice = std::is_floating_point_v<T> && shown != shown;  // of NaNs by emulators
    sweep.result(choice ? T{} : shown);
  }
  ASSERT_TRUE(operands[0].intact() && is_same(1));
  if (Sweep::proving()) {
    ASSERT_EQ(flags, raised_by(mode, define, more));
    ASSERT_TRUE(is_same(0)) << "fold";
  }
}

// Few elements, or about as many as take whole rounds of eight vectors or blocks of 1 KiB; after
// the shared rounds once so many that they are fetched ahead.
TEST(ReductionSweep, FillAndFold) {
  Sweep sweep("vec.reduction");
  Random& random = sweep.random;
  for (const auto round : sweep.rounds(25, 2000)) {
    const auto check_all = [&]<class E>(E) {
      for (int operation = 1; operation <= KSOMD_NOT_EQUAL && !HasFatalFailure(); ++operation) {
        if (E::has(operation)) {
          const std::size_t bytes = random.one_of({128u, 1024u}) * (1 + random.below(3));
          const std::size_t many =
              (round == 25 ? 600 << 10 : bytes) / E::size + random.below(36) - 1;
          check<E>(sweep, operation, random.one_in(3) || round == 25 ? many : random.below(71));
        }
      }
    };
    std::apply([&](auto... element) { (check_all(element), ...); }, elements);
  }
}

TEST(Reduction, OtherCodesAbort) {
  for (std::uint32_t type = ~0u; type + 1 <= 40; ++type) {
    for (int operation = -4; operation < 40; ++operation) {
      const auto is_known = [&](auto... element) {
        return ((element.code == type && element.has(operation)) || ...);
      };
      const bool known = std::apply(is_known, elements);
      EXPECT_NE(aborts([&] { fill(nullptr, 0, operation, type); }), known)
          << type << ' ' << operation;
      EXPECT_NE(aborts([&] { fold(nullptr, nullptr, 0, 1, 0, operation, type); }), known)
          << type << ' ' << operation;
    }
  }
}

// Elements 2 GiB apart, more of them than are gathered at a time.
TEST(Reduction, StridesBeyond31BitsOfBytes) {
  std::list<GuardedMemory> memory;
  cquad128 sums[40] = {};
  for (std::uintptr_t i = 0; i < std::size(sums); ++i) {
    memory.emplace_back(sizeof(cquad128), reinterpret_cast<void*>(0x7E0000000000 + (i << 31)));
    if (!memory.back()) {
      GTEST_SKIP() << "the system has other uses for the addresses";
    }
    *reinterpret_cast<quad128*>(memory.back().begin()) = {i, 0x3FFF000000000000};
  }
  fold(sums, memory.front().begin(), std::size(sums), 1 << 26, 1, KSOMD_SUM, KSOMD_COMPLEX_QUAD);
  for (std::uint64_t i = 0; i < std::size(sums); ++i) {
    EXPECT_EQ(sums[i].re.low, i);
  }
}

// ---- the dependence test ------------------------------------------------------------------------

using Ranges = std::vector<std::pair<std::uint64_t, std::uint64_t>>;  // starts and ends

bool is_dependent(Ranges& ranges, std::int64_t count) {
  static Operand array(1 << 22);
  const std::size_t size = ranges.size() * sizeof(ksomd_range);
  auto* const place = array.place(size, size % 32 == 0 ? Place::AtStart : Place::AtEnd);
  std::copy_n(reinterpret_cast<const unsigned char*>(ranges.data()), size, place);
  const std::uint64_t result = KSOMD_ENTRY(__orvex_rtdd_indep)(
      reinterpret_cast<ksomd_range*>(place), static_cast<std::int32_t>(count));
  std::copy_n(place, size, reinterpret_cast<unsigned char*>(ranges.data()));
  EXPECT_TRUE(array.intact() && result <= 1) << result << " for " << ranges.size();
  return result != 0;
}

// The order that the contract fixes, written as it is described.
void sort(Ranges& r, std::size_t lo, std::size_t hi) {
  for (std::size_t s = lo; lo < hi; lo = s = s + 1) {
    for (std::size_t i = lo; i < hi; ++i) {
      if (r[i].first < r[hi].first) {
        std::swap(r[i], r[s++]);
      }
    }
    std::swap(r[s], r[hi]);
    sort(r, lo, std::max(s, lo + 1) - 1);
  }
}

// Orders of distinct starts that the partitioning may split as unevenly as can be: up, down, turned
// around, up and down, up twice, from both ends, one appended; the last is none.
constexpr std::uint64_t order_count = 9;
std::uint64_t start_of(std::uint64_t order, std::size_t i, std::size_t n) {
  const bool half = i < n / 2;
  const std::uint64_t starts[order_count] = {i,
                                             n - i,
                                             (i + n / 3) % n,
                                             (i + 1) % n,
                                             2 * (half ? i : n - i) - !half,
                                             half ? 2 * i : 2 * (i - n / 2) + 1,
                                             i % 2 == 0 ? i : 2 * n - i,
                                             i < n - 1 ? 2 * i : n / 2 * 2 + 1,
                                             i * 999'983 % n};
  return starts[order];
}

// Distinct and equal starts anywhere, also about the ends of the address space, where ends wrap
// around. None reaches into the next, or one does.
Ranges any_ranges(Random& random, std::size_t n) {
  const std::uint64_t order = random.below(order_count + 2), unit = 1 + random.below(9);
  const std::uint64_t divisor = random.one_of({1u, 1u, 2u, 5u, 1000u});
  const std::uint64_t base = (random.below(3) << 63) - unit * n / divisor;
  Ranges ranges(n);
  for (std::size_t i = 0; i < n; ++i) {
    const std::uint64_t any = random.next() >> (order == order_count ? 57 : 0);
    const std::uint64_t place = order < order_count ? start_of(order, i, n) : any;
    ranges[i].first = base + place / divisor * unit;
    ranges[i].second = ranges[i].first + random.below(unit);
  }
  if (n > 0 && random.one_in(2)) {
    std::swap(ranges[0], ranges[random.below(n)]);
    ranges[random.below(n)].second += unit * 3;
  }
  return ranges;
}

// Up to 1000 ranges equal starts have one final order, whatever order they come in.
TEST(DependenceSweep, ResultAndOrder) {
  Sweep sweep("vec.dependence");
  for (const auto round : sweep.rounds(3000, 60'000)) {
    const std::size_t n = sweep.random.one_in(200) ? 1000 - sweep.random.below(200) : round % 64;
    const Ranges given = any_ranges(sweep.random, n);
    Ranges expected = given, ranges = given;
    ASSERT_FALSE(is_dependent(ranges, sweep.random.one_of({1, 0, -1, INT_MIN, -40})));
    ASSERT_EQ(ranges, given) << "sorted without a second one";
    const bool result = is_dependent(ranges, static_cast<std::int64_t>(n));
    sweep.result(result);
    sweep.results(ranges.data(), n * sizeof(ksomd_range));
    if (Sweep::proving()) {
      sort(expected, 0, std::max<std::size_t>(n, 1) - 1);
      const auto touches = [](const auto& r, const auto& next) { return r.second >= next.first; };
      const bool touching = std::ranges::adjacent_find(expected, touches) != expected.end();
      ASSERT_TRUE(ranges == expected && result == touching) << testing::PrintToString(given);
    }
  }
}

// A call per range does not fit the stack, and quadratic time would be seconds.
TEST(Dependence, ManyRangesTakeLittleTimeAndStack) {
  constexpr std::size_t n = 100'000;
  pthread_attr_t attributes;
  ASSERT_EQ(pthread_attr_init(&attributes), 0);
  ASSERT_EQ(pthread_attr_setstacksize(&attributes, 128 << 10), 0);
  for (std::uint64_t test = 0; test < 3 * order_count; ++test) {
    const std::uint64_t divisor = test % 3 == 0 ? 1 : test % 3 == 1 ? 3 : 3 * n;
    Ranges ranges;
    for (std::size_t i = 0; i < n; ++i) {
      const std::uint64_t start = start_of(test / 3, i, n) / divisor * 10;
      ranges.emplace_back(start, start + 9);
    }
    Ranges expected = ranges;
    std::ranges::sort(expected);
    const std::clock_t began = std::clock();
    pthread_t thread;
    void* independent = nullptr;
    const auto call = [](void* given) {
      return is_dependent(*static_cast<Ranges*>(given), n) ? nullptr : given;
    };
    ASSERT_EQ(pthread_create(&thread, &attributes, call, &ranges), 0);
    ASSERT_EQ(pthread_join(thread, &independent), 0);
    EXPECT_LT(std::clock() - began, CLOCKS_PER_SEC) << test;
    EXPECT_TRUE(ranges == expected && (independent != nullptr) == (divisor == 1)) << test;
  }
}

}  // namespace
}  // namespace ksomd::test
