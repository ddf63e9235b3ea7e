// The dependence test against the definition: a plain quicksort, and every pair of ranges.
#include <gtest/gtest.h>

#include <algorithm>
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

// Quadratic time would take minutes here, linear depth the whole stack.
TEST(Dependence, ManyOrderedRanges) {
  constexpr std::size_t n = 100000;
  for (const int order : {1, -1, 0}) {
    Ranges ranges(n);
    for (std::size_t i = 0; i < n; ++i) {
      ranges[i].start = order > 0 ? 10 * i : order < 0 ? 10 * (n - i) : 7;
      ranges[i].end = ranges[i].start + 9;
    }
    EXPECT_EQ(__orvex_rtdd_indep(ranges.data(), n), order == 0 ? 1u : 0u);
    EXPECT_TRUE(std::is_sorted(ranges.begin(), ranges.end(),
                               [](auto& a, auto& b) { return a.start < b.start; }));
  }
}

}  // namespace
