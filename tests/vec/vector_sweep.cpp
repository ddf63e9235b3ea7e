// Reductions into arrays and the dependence test against their definitions.
#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <csetjmp>
#include <csignal>
#include <ctime>
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
// the types that have it. By type: complex quads, quads, other floating-point types, integers are
// of rank 0 to 3.
constexpr char identities[] = "-010LH10B00010", ranks[] = "90001122333322";
constexpr char type_ranks[] = " 3333333322  1      22 0";

constexpr bool exists(std::uint32_t type, int operation) {
  return type < std::size(type_ranks) - 1 && type_ranks[type] != ' ' && operation > 0 &&
         operation <= KSOMD_NOT_EQUAL && type_ranks[type] >= ranks[operation];
}

template <class T>
T identity(int operation, std::size_t part) {
  using Limits = std::numeric_limits<T>;
  const char kind = identities[operation];
  return kind == 'L'   ? Limits::lowest()
         : kind == 'H' ? Limits::max()
                       : static_cast<T>(kind == 'B' ? -1 : int{kind == '1' && part == 0});
}

// Of two NaNs the destination's survives; added to itself it is quiet.
template <class T>
T combined(int operation, T d, T s) {
  constexpr bool is_quad = std::is_same_v<T, Quad>;
  using Wide = std::conditional_t<std::is_integral_v<T>, std::uint64_t, T>;
  const auto a = static_cast<Wide>(d), b = static_cast<Wide>(s);
  if (operation <= KSOMD_DIFFERENCE) {
    const auto result = operation == KSOMD_SUM ? a + b : operation == KSOMD_PRODUCT ? a * b : a - b;
    const bool of_nan = std::is_floating_point_v<T> && (d != d || s != s);
    return static_cast<T>(!of_nan ? result : d != d ? a + a : b + b);
  }
  if (operation == KSOMD_MAXIMUM || operation == KSOMD_MINIMUM) {
    const T x = operation == KSOMD_MAXIMUM ? s : d, y = operation == KSOMD_MAXIMUM ? d : s;
    return (is_quad ? !(y <= x) : x <= y) ? d : s;
  }
  if constexpr (std::is_integral_v<T>) {
    if (operation >= KSOMD_AND && operation <= KSOMD_XOR_2) {
      return static_cast<T>(operation == KSOMD_AND ? d & s : operation == KSOMD_OR ? d | s : d ^ s);
    }
  }
  const int first = d != T{}, second = s != T{}, equal = d == s;
  return static_cast<T>(operation == KSOMD_LOGICAL_AND  ? first & second
                        : operation == KSOMD_LOGICAL_OR ? first | second
                        : operation == KSOMD_EQUAL      ? equal
                                                        : 1 - equal);
}

// Element by element, of one part or two.
template <class T>
[[gnu::noinline]] void define_fold(int operation, std::vector<T>& d, const T* s,
                                   std::int64_t stride, std::size_t parts) {
  const auto times = [](T x, T y) { return combined(KSOMD_PRODUCT, x, y); };
  for (std::size_t j = 0; j < d.size(); j += parts, s += stride) {
    if (parts == 2 && operation == KSOMD_PRODUCT) {
      const T re = combined(KSOMD_DIFFERENCE, times(d[j], s[0]), times(d[j + 1], s[1]));
      d[j + 1] = combined(KSOMD_SUM, times(d[j], s[1]), times(d[j + 1], s[0]));
      d[j] = re;
    } else {
      for (std::size_t part = 0; part < parts; ++part) {
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
  const T small = static_cast<T>(static_cast<int>(random.below(9)) - 4);
  T number = random.one_of({L::lowest(), L::max(), L::infinity(), L::quiet_NaN(), L::min(),
                            L::denorm_min(), static_cast<T>(-T{})});
  const std::uint64_t bits[2] = {random.next(), random.next()};
  std::memcpy(&number, bits, random.one_of({std::size_t{0}, std::size_t{1}, sizeof(T)}));
  return any ? number : small;
}

template <class T>
void check(Sweep& sweep, std::uint32_t type, int operation, std::size_t count) {
  static Operand operands[2] = {Operand(1 << 21), Operand(1 << 24)};
  Random& random = sweep.random;
  const std::size_t parts = type < 20 ? 1 : 2, size = parts * sizeof(T);
  const int given = random.one_of({0, 1, -1, 2, 3, -2, 5, -7});
  const int use = random.one_of({0, 0, 0, 1, -1, INT_MIN}), stride = use != 0 ? given : 1;
  const auto apart = static_cast<std::size_t>(std::abs(stride));
  const std::size_t reach = count == 0 ? 1 : (count - 1) * apart + 1, counts[] = {count, reach};
  const std::size_t first = stride < 0 ? reach - 1 : 0;
  const std::uint64_t mode = random.below(rounding_modes);
  const unsigned more = random.one_in(4) ? mxcsr::flush_to_zero | mxcsr::denormals_are_zero : 0;
  const bool any = random.one_in(3);
  std::vector<T> values[2], result(count * parts);
  unsigned char* memory[2];
  const auto is_same = [&](int i, const std::vector<T>& expected) {
    return operands[i].intact() &&
           std::equal(memory[i], memory[i] + counts[i] * size,
                      reinterpret_cast<const unsigned char*>(expected.data()));
  };
  for (const int i : {0, 1}) {
    const Place place = random.one_of({Place::AtEnd, Place::AtStart});
    memory[i] = operands[i].place(counts[i] * size, place, random.below(2) * type * 3);
    const std::size_t odd = random.below(2 * counts[i] * parts + 1);
    for (std::size_t j = 0; j < counts[i] * parts; ++j) {
      values[i].push_back(value<T>(random, any || j == odd));
    }
  }
  for (std::size_t j = 0; j < result.size(); ++j) {
    result[j] = identity<T>(operation, j % parts);
  }
  fill(memory[0], count, operation, type);
  bool right = is_same(0, result);
  const auto place_values = [&](int i, std::size_t n) {
    std::copy_n(reinterpret_cast<const unsigned char*>(values[i].data()), n * size, memory[i]);
  };
  place_values(0, count);
  place_values(1, reach);
  const auto call = [&] {
    fold(memory[0], memory[1] + first * size, count, given, use, operation, type);
  };
  const auto define = [&] {
    const std::int64_t step = stride * static_cast<std::int64_t>(parts);
    define_fold(operation, values[0], values[1].data() + first * parts, step, parts);
  };
  const unsigned flags = raised_by(mode, call, more);
  right &= is_same(1, values[1]) && operands[0].intact();
  right &= !Sweep::proving() || (raised_by(mode, define, more) == flags && is_same(0, values[0]));
  std::copy_n(memory[0], count * size, reinterpret_cast<unsigned char*>(result.data()));
  const auto is_nan = [](T x) { return std::is_floating_point_v<T> && x != x; };
  std::ranges::replace_if(result, is_nan, T{});  // emulators choose another one
  sweep.result(flags);
  sweep.results(result.data(), count * size);
  ASSERT_TRUE(right) << "type " << type << ", operation " << operation << ", " << count
                     << " elements, stride " << given << ", used " << use << ", mode " << mode
                     << ", MXCSR " << more << ", any " << any << ", flags " << flags;
}

// Few elements, or about as many as take whole rounds of eight vectors or blocks of 1 KiB; after
// the shared rounds once so many that they are fetched ahead.
TEST(ReductionSweep, FillAndFold) {
  const std::tuple<std::uint8_t, std::int8_t, std::uint16_t, std::int16_t, std::uint32_t,
                   std::int32_t, std::uint64_t, std::int64_t, float, double, Quad, float, double,
                   Quad>
      parts;
  constexpr std::uint32_t types[] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 13, 20, 21, 23};
  Sweep sweep("vec.reduction");
  Random& random = sweep.random;
  for (const auto round : sweep.rounds(25, 2000)) {
    const auto check_all = [&]<class T>(T /*part*/, std::uint32_t type) {
      for (int operation = 1; operation <= KSOMD_NOT_EQUAL && !HasFatalFailure(); ++operation) {
        const std::size_t bytes = random.one_of({128u, 1024u}) * (1 + random.below(3));
        const std::size_t many = (round == 25 ? 600 << 10 : bytes) / sizeof(T) + random.below(36);
        const std::size_t few = random.below(71);
        if (exists(type, operation)) {
          check<T>(sweep, type, operation, random.one_in(3) || round == 25 ? many : few);
        }
      }
    };
    std::apply([&, type = types](auto... part) mutable { (check_all(part, *type++), ...); }, parts);
  }
}

// Leaves abort() before it ends the process.
template <class Call>
bool aborts(Call call) {
  static std::jmp_buf before;
  std::signal(SIGABRT, [](int /*signal*/) { std::longjmp(before, 1); });
  const volatile bool aborted = setjmp(before) != 0;
  if (!aborted) {
    call();
  }
  std::signal(SIGABRT, SIG_DFL);
  return aborted;
}

TEST(Reduction, OtherCodesAbort) {
  for (std::uint32_t type = ~0u; type + 1 <= 40; ++type) {
    for (int operation = -4; operation < 40; ++operation) {
      const bool fills = !aborts([&] { fill(nullptr, 0, operation, type); });
      const bool folds = !aborts([&] { fold(nullptr, nullptr, 0, 1, 0, operation, type); });
      const bool known = exists(type, operation);
      EXPECT_TRUE(fills == known && folds == known) << type << ' ' << operation;
    }
  }
}

// Elements 2 GiB apart, more of them than are gathered at a time.
TEST(Reduction, StridesBeyond31BitsOfBytes) {
  std::list<GuardedMemory> memory;
  cquad128 sums[40] = {};
  for (std::uintptr_t i = 0; i < std::size(sums); ++i) {
    auto* const place = reinterpret_cast<cquad128*>(0x7E0000000000 + (i << 31));
    if (memory.emplace_back(sizeof *place, place).begin() != static_cast<void*>(place)) {
      GTEST_SKIP() << "the system has other uses for the addresses";
    }
    place->re = {i, 0x3FFF000000000000};
  }
  fold(sums, memory.front().begin(), std::size(sums), 1 << 26, 1, KSOMD_SUM, KSOMD_COMPLEX_QUAD);
  for (std::uint64_t i = 0; i < std::size(sums); ++i) {
    EXPECT_EQ(sums[i].re.low, i);
  }
}

// ---- the dependence test ------------------------------------------------------------------------

using Ranges = std::vector<std::pair<std::uint64_t, std::uint64_t>>;  // starts and ends

bool is_dependent(Ranges& ranges, std::int64_t count) {
  static Operand array(1 << 23);
  const std::size_t n = ranges.size();
  auto* const place = array.place_values<Ranges::value_type>(n, Place{n % 2 == 0});
  std::ranges::copy(ranges, place);
  const std::uint64_t result = KSOMD_ENTRY(__orvex_rtdd_indep)(
      reinterpret_cast<ksomd_range*>(place), static_cast<std::int32_t>(count));
  ranges.assign(place, place + n);
  EXPECT_TRUE(array.intact() && result <= 1) << result << " for " << n;
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
  const std::size_t half = n / 2;
  const bool low = i < half;
  const std::uint64_t turned = (i + n / 3) % n, first_last = (i + 1) % n, none = i * 999'983 % n,
                      up_and_down = low ? 2 * i : 2 * (n - i) - 1,
                      up_twice = low ? 2 * i : 2 * (i - half) + 1,
                      from_both_ends = i % 2 == 0 ? i : 2 * n - i,
                      appended = i < n - 1 ? 2 * i : half * 2 + 1;
  const std::uint64_t starts[order_count] = {
      i, n - i, turned, first_last, up_and_down, up_twice, from_both_ends, appended, none};
  return starts[order];
}

// Distinct and equal starts, also about the ends of the address space, where ends wrap around. None
// reaches into the next, or one does.
Ranges any_ranges(Random& random, std::size_t n) {
  const std::uint64_t order = random.below(order_count + 2), unit = 1 + random.below(9);
  const std::uint64_t divisor = random.one_of({1u, 1u, 2u, 5u, 1000u});
  const std::uint64_t base = (random.below(3) << 63) - unit * n / divisor;
  Ranges ranges(n);
  for (std::size_t i = 0; i < n; ++i) {
    const std::uint64_t any = random.next() >> (order == order_count ? 57 : 0);
    const std::uint64_t place = order < order_count ? start_of(order, i, n) : any;
    const std::uint64_t start = base + place / divisor * unit;
    ranges[i] = {start, start + random.below(unit)};
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

// A call per range does not fit the stack, and quadratic time would be many seconds.
TEST(Dependence, ManyRangesTakeLittleTimeAndStack) {
  constexpr std::size_t n = 400'000;
  for (std::uint64_t order = 0; order < order_count; ++order) {
    for (const std::uint64_t divisor : {std::size_t{1}, std::size_t{3}, 3 * n}) {
      Ranges ranges(n);
      for (std::size_t i = 0; i < n; ++i) {
        const std::uint64_t start = start_of(order, i, n) / divisor * 10;
        ranges[i] = {start, start + 9};
      }
      const std::clock_t began = std::clock();
      EXPECT_EQ(is_dependent(ranges, n), divisor != 1) << order;
      EXPECT_LT(std::clock() - began, (sanitized ? 10 : 1) * CLOCKS_PER_SEC)
          << order << ' ' << divisor;
      EXPECT_TRUE(std::ranges::is_sorted(ranges)) << order << ' ' << divisor;
    }
  }
}

}  // namespace
}  // namespace ksomd::test
