// The dependence test against the definition: a plain quicksort, and every pair of ranges.
#include <gtest/gtest.h>
#include <pthread.h>

#include <algorithm>
#include <ctime>
#include <random>
#include <vector>

#include "ksomd/vector.h"
#include "support/seed.h"

namespace {

using Ranges = std::vector<ksomd_range>;

// The order that the contract fixes, written as it is described.
void reference_sort(Ranges& r, std::int64_t lo, std::int64_t hi) {
  while (lo < hi) {
    std::int64_t s = lo;
    for (std::int64_t i = lo; i < hi; ++i) {
      if (r[std::size_t(i)].start < r[std::size_t(hi)].start) {
        std::swap(r[std::size_t(i)], r[std::size_t(s++)]);
      }
    }
    std::swap(r[std::size_t(s)], r[std::size_t(hi)]);
    reference_sort(r, lo, s - 1);
    lo = s + 1;
  }
}

void check(Ranges ranges) {
  Ranges expected = ranges;
  bool overlap = false;
  for (std::size_t i = 0; i < ranges.size(); ++i) {
    for (std::size_t j = 0; j < i; ++j) {
      overlap |= ranges[i].start <= ranges[j].end && ranges[j].start <= ranges[i].end;
    }
  }
  reference_sort(expected, 0, static_cast<std::int64_t>(ranges.size()) - 1);
  ASSERT_EQ(__orvex_rtdd_indep(ranges.data(), static_cast<std::int32_t>(ranges.size())), overlap);
  for (std::size_t i = 0; i < ranges.size(); ++i) {
    ASSERT_EQ(ranges[i].start, expected[i].start) << i << " of " << ranges.size();
    ASSERT_EQ(ranges[i].end, expected[i].end) << i << " of " << ranges.size();
  }
}

TEST(Dependence, OrderAndResult) {
  std::mt19937_64 random(ksomd::test::seed_of(1));
  for (std::size_t n = 0; n < 60; ++n) {
    for (int round = 0; round < 60; ++round) {
      const std::uint64_t span = round % 3 == 0 ? 4 : round % 3 == 1 ? 100 * (n + 1) : ~0ull;
      Ranges ranges(n);
      for (ksomd_range& range : ranges) {
        range.start = random() % span;
        range.end = range.start + std::min<std::uint64_t>(random() % 8, ~range.start);
      }
      check(ranges);
      const auto by_start = [](auto& a, auto& b) { return a.start < b.start; };
      std::sort(ranges.begin(), ranges.end(), by_start);
      check(ranges);
      Ranges rotated = ranges;
      std::rotate(rotated.begin(), rotated.begin() + std::ptrdiff_t(random() % (n + 1)),
                  rotated.end());
      check(rotated);
      std::reverse(ranges.begin(), ranges.end());
      check(ranges);
      for (ksomd_range& range : ranges) {
        range.start = 5;
        range.end = random() % 100 + 5;
      }
      check(ranges);
    }
  }
}

TEST(Dependence, NoPair) {
  ksomd_range ranges[] = {{20, 29}, {10, 90}};
  for (const int n : {-2147483647 - 1, -1, 0, 1}) {
    EXPECT_EQ(__orvex_rtdd_indep(ranges, n), 0u);
    EXPECT_EQ(ranges[0].start, 20u);
    EXPECT_EQ(ranges[1].start, 10u);
  }
}

// Orders that the partitioning splits as unevenly as can be. All starts are distinct.
std::vector<std::vector<std::uint64_t>> uneven_orders(std::size_t n) {
  std::vector<std::vector<std::uint64_t>> orders(10, std::vector<std::uint64_t>(n));
  for (std::size_t i = 0; i < n; ++i) {
    orders[0][i] = i;                                        // ascending, the first two exchanged
    orders[1][i] = n - i;                                    // descending, the last two exchanged
    orders[2][i] = i < n / 2 ? 2 * i : 2 * (i - n / 2) + 1;  // ascending twice
    orders[3][i] = i < n / 2 ? 2 * i : 2 * (n - i) - 1;      // up and down again
    orders[4][i] = i % 2 == 0 ? i : 2 * n - i;               // ascending and descending by turns
    orders[5][i] = i;
    orders[6][i] = n - i;
    orders[7][i] = (i + n / 3) % n;                    // round the end
    orders[8][i] = (i + 1) % n;                        // the lowest appended
    orders[9][i] = i < n - 1 ? 2 * i : n / 2 * 2 + 1;  // one from the middle appended
  }
  std::swap(orders[0][0], orders[0][1]);
  std::swap(orders[1][n - 1], orders[1][n - 2]);
  return orders;
}

struct Call {
  Ranges ranges;
  std::uint64_t result;
};

void* call_test(void* argument) {
  auto& call = *static_cast<Call*>(argument);
  call.result =
      __orvex_rtdd_indep(call.ranges.data(), static_cast<std::int32_t>(call.ranges.size()));
  return nullptr;
}

// On a stack that has no room for a call per range, and in a time in which no quadratic sort is
// done: that takes half a minute.
TEST(Dependence, UnevenOrdersOfManyRanges) {
  constexpr std::size_t n = 200000;
  pthread_attr_t attributes;
  ASSERT_EQ(pthread_attr_init(&attributes), 0);
  ASSERT_EQ(pthread_attr_setstacksize(&attributes, 128 << 10), 0);
  for (const auto& order : uneven_orders(n)) {
    for (const std::uint64_t divisor : {1u, 3u, 3 * unsigned{n}}) {  // equal starts: threes, all
      Call call = {Ranges(n), 2};
      for (std::size_t i = 0; i < n; ++i) {
        const std::uint64_t start = 10 * (order[i] / divisor);
        call.ranges[i] = {start, start + 9};
      }
      const auto is_lower = [](auto& a, auto& b) { return a.start < b.start; };
      Ranges expected = call.ranges;
      std::sort(expected.begin(), expected.end(), is_lower);
      const std::clock_t began = std::clock();
      pthread_t thread;
      ASSERT_EQ(pthread_create(&thread, &attributes, call_test, &call), 0);
      ASSERT_EQ(pthread_join(thread, nullptr), 0);
      ASSERT_LT((std::clock() - began) / CLOCKS_PER_SEC, 5);
      ASSERT_EQ(call.result, divisor == 1 ? 0u : 1u);
      for (std::size_t i = 0; i < n; ++i) {
        ASSERT_EQ(call.ranges[i].start, expected[i].start) << i;
        ASSERT_EQ(call.ranges[i].end, expected[i].end) << i;
      }
    }
  }
  pthread_attr_destroy(&attributes);
}

TEST(Dependence, UnevenOrdersOfFewRanges) {
  for (std::size_t n = 2; n <= 1000; n += n < 40 ? 1 : 480) {  // 1000 are always partitioned
    for (const auto& order : uneven_orders(n)) {
      for (const std::uint64_t divisor : {1u, 2u, 5u}) {  // equal starts, by twos and by fives
        Ranges ranges(n);
        for (std::size_t i = 0; i < n; ++i) {
          ranges[i] = {order[i] / divisor * 10, order[i] / divisor * 10 + i % 12};
        }
        check(ranges);
      }
    }
  }
}

// Addresses are unsigned, and an end at the very top overlaps nothing.
TEST(Dependence, EndsOfTheAddressSpace) {
  const std::uint64_t top = ~std::uint64_t{0};
  check({{top - 10, top}, {0, 10}});
  check({{top, top}, {0, top - 1}});
  check({{top, top}, {0, top}});
  check({{top >> 1, (top >> 1) + 1}, {(top >> 1) + 2, top}, {0, 5}});
  check({{top, top}, {top, top}});
}

}  // namespace
