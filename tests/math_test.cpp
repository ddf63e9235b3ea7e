// The math routines of the complex builtins: results to the bit, errno, and their dispatch.
#include "diag/math.h"

#include <gtest/gtest.h>

#include <bit>
#include <cerrno>
#include <cmath>
#include <random>
#include <thread>
#include <vector>

namespace {

using namespace ksomd::math;

std::uint64_t bits(double x) {
  return std::bit_cast<std::uint64_t>(x);
}

std::vector<double> values() {
  std::vector<double> all;
  std::mt19937_64 random(9);
  for (std::uint64_t field = 0; field < 2048; ++field) {
    for (const std::uint64_t fraction :
         {std::uint64_t{0}, std::uint64_t{1}, std::uint64_t{0xFFFFFFFFFFFFF},
          std::uint64_t{0x8000000000000}, std::uint64_t{random() >> 12}}) {
      all.push_back(std::bit_cast<double>(field << 52 | fraction));
      all.push_back(-all.back());
    }
  }
  return all;
}

TEST(Math, ImplementationsAgree) {
  const std::vector<double> all = values();
  std::mt19937_64 random(4);
  for (std::size_t i = 0; i < 200000; ++i) {
    const double x = all[random() % all.size()];
    const double y = i % 4 == 0 ? x : all[random() % all.size()];
    const auto fx = std::bit_cast<float>(static_cast<std::uint32_t>(bits(x) >> 32));
    const auto fy = std::bit_cast<float>(static_cast<std::uint32_t>(bits(y) >> 32));
    const int n = static_cast<int>(random() % 5000) - 2500;
    ASSERT_EQ(bits(general::fmax(x, y)), bits(vector::fmax(x, y))) << x << ' ' << y;
    ASSERT_EQ(bits(general::copysign(x, y)), bits(vector::copysign(x, y)));
    ASSERT_EQ(bits(general::logb(x)), bits(vector::logb(x))) << x;
    ASSERT_EQ(bits(general::scalbn(x, n)), bits(vector::scalbn(x, n))) << x << ' ' << n;
    ASSERT_EQ(std::bit_cast<std::uint32_t>(general::fmaxf(fx, fy)),
              std::bit_cast<std::uint32_t>(vector::fmaxf(fx, fy)));
    ASSERT_EQ(std::bit_cast<std::uint32_t>(general::copysignf(fx, fy)),
              std::bit_cast<std::uint32_t>(vector::copysignf(fx, fy)));
    if (!std::isnan(x) && !std::isnan(y)) {
      ASSERT_EQ(__libkso_fmax(x, y), std::fmax(x, y));
      ASSERT_EQ(__libkso_logb(x), std::logb(x)) << x;
      ASSERT_EQ(bits(__libkso_scalbn(x, n)), bits(std::scalbn(x, n))) << x << ' ' << n;
      if (!std::isnan(fx)) {
        ASSERT_EQ(__libkso_scalbnf(fx, n / 8), std::scalbn(fx, n / 8)) << fx << ' ' << n / 8;
      }
      ASSERT_EQ(__libkso_scalbnl(x, 7 * n), std::scalbn(static_cast<long double>(x), 7 * n));
    }
  }
}

TEST(Math, Errors) {
  const double infinity = HUGE_VAL;
  struct Row {
    double x;
    int n;
    double result;
    int error;
  };
  const Row rows[] = {{1, 5000, infinity, ERANGE},
                      {-1, 1024, -infinity, ERANGE},
                      {1, -1074, 0x1p-1074, 0},
                      {1, -2000, 0.0, ERANGE},
                      {1, -1075, 0.0, 0},
                      {0x1p-1074, -1, 0.0, ERANGE},
                      {-0x1p-1073, -1, -0x1p-1074, 0},
                      {0.0, 9, 0.0, 0},
                      {infinity, -9, infinity, 0},
                      {1, 1023, 0x1p1023, 0},
                      {0x1p-1074, 2147483647, infinity, ERANGE}};
  for (const Row& row : rows) {
    errno = 0;
    EXPECT_EQ(bits(__libkso_scalbn(row.x, row.n)), bits(row.result)) << row.x << ' ' << row.n;
    EXPECT_EQ(errno, row.error) << row.x << ' ' << row.n;
  }
  errno = 0;
  EXPECT_EQ(__libkso_logb(-0.0), -infinity);
  EXPECT_EQ(errno, EDOM);
  errno = 0;
  EXPECT_EQ(__libkso_logbf(0.0F), -HUGE_VALF);
  EXPECT_EQ(errno, EDOM);
  errno = 0;
  EXPECT_EQ(__libkso_scalbnf(1, 128), HUGE_VALF);
  EXPECT_EQ(errno, ERANGE);
  EXPECT_EQ(__libkso_logb(-infinity), infinity);
  EXPECT_EQ(__libkso_fmax(NAN, 2.0), 2.0);
  EXPECT_EQ(__libkso_fmax(2.0, NAN), 2.0);
  EXPECT_EQ(__libkso_isinf(-infinity), -1);
  EXPECT_EQ(__libkso_isinfl(-HUGE_VALL), -1);
  EXPECT_EQ(__libkso_isnanl(HUGE_VALL), 0);
}

TEST(Math, Levels) {
  const std::pair<std::vector<int>, std::uint32_t> rows[] = {
      {{0}, 1},           {{0, 1}, 2},
      {{5}, 3},           {{6}, 4},
      {{7}, 5},           {{8}, 6},
      {{9}, 7},           {{10}, 8},
      {{16}, 9},          {{13, 18, 19, 20, 23}, 10},
      {{43, 44, 48}, 11}, {{92}, 12},
      {{1, 43, 44}, 2},   {{16, 13, 18, 19, 20}, 9}};
  for (const auto& [features, level] : rows) {
    ksomd::FeatureSet set = {0, 0};
    for (const int bit : features) {
      set[bit / 64] |= std::uint64_t{1} << bit % 64;
    }
    EXPECT_EQ(level_of(set), level);
  }
}

TEST(Math, RacingFirstUsersAgree) {
  for (int round = 0; round < 200; ++round) {
    LevelState state{};
    auto function = dispatched<double (*)(double)>(std::fabs, general::logb, vector::logb);
    double (*chosen[4])(double) = {};
    std::vector<std::thread> threads;
    for (auto& result : chosen) {
      threads.emplace_back([&] { result = function.resolve(state); });
    }
    for (std::thread& thread : threads) {
      thread.join();
    }
    for (auto* result : chosen) {
      ASSERT_EQ(result, function.load());
      ASSERT_EQ(result, state.level < first_vector_level ? general::logb : vector::logb);
    }
  }
}

}  // namespace
