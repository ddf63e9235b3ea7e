// The value type's text conversions against an independent implementation, GCC's quad library.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "ksomd/quad.hpp"
#include "support/effort.h"
#include "support/quad_cases.h"

extern "C" {
__extension__ typedef __float128 peer_quad;
peer_quad strtoflt128(const char* text, char** end);
int quadmath_snprintf(char* text, std::size_t size, const char* format, ...);
}

namespace ksomd::test {
namespace {

peer_quad to_peer(const Quad& a) {
  peer_quad x;
  std::memcpy(&x, &a, sizeof x);
  return x;
}

void expect_same_text(Bits bits, int digits) {
  const Quad a = Quad::from_bits(bits.high, bits.low);
  char ours[quad_text_size] = {};
  char peers[64] = {};
  to_chars(ours, ours + sizeof ours, a, digits);
  quadmath_snprintf(peers, sizeof peers, "%.*Qe", digits - 1, to_peer(a));
  ASSERT_STREQ(ours, peers) << bits;
}

void expect_same_number(const std::string& text) {
  const peer_quad expected = strtoflt128(text.c_str(), nullptr);
  const std::optional<Quad> a = from_string(text);
  if (!a.has_value()) {
    FAIL() << text << " is refused";
  }
  ASSERT_EQ(std::memcmp(&*a, &expected, sizeof expected), 0) << text << " read as " << *a;
}

TEST(QuadTextPeer, WritesTheSame) {
  for (const Bits& x : boundary_values()) {
    if ((x.high >> 48 & 0x7FFF) != 0x7FFF) {
      for (int digits = 1; digits <= quad_round_trip_digits; ++digits) {
        expect_same_text(x, digits);
      }
    }
  }
  Random random(11);
  const std::uint64_t count = full_length() ? 1000000 : 20000;
  for (std::uint64_t i = 0; i < count && !HasFatalFailure(); ++i) {
    show_progress("texts", i, count);
    const Bits x = random.any();
    if ((x.high >> 48 & 0x7FFF) != 0x7FFF) {
      expect_same_text(x, i % 2 == 0 ? 36 : 1 + static_cast<int>(random.below(36)));
    }
  }
}

TEST(QuadTextPeer, ReadsTheSame) {
  Random random(12);
  const std::uint64_t count = full_length() ? 1000000 : 20000;
  for (std::uint64_t i = 0; i < count && !HasFatalFailure(); ++i) {
    show_progress("numbers", i, count);
    std::string text = random.below(2) == 0 ? "-" : "";
    const std::uint64_t digits = 1 + random.below(i % 64 == 0 ? 2000 : 60);
    const std::uint64_t point = random.below(digits + 1);
    for (std::uint64_t d = 0; d < digits; ++d) {
      text += d == point ? "." : "";
      text += static_cast<char>('0' + random.below(10));
    }
    const int exponent = static_cast<int>(random.below(10100)) - 5050;
    expect_same_number(text + "e" + std::to_string(i % 4 == 0 ? exponent % 40 : exponent));
  }
}

// Middles between neighbours, exactly and with one more digit: the texts where rounding decides.
TEST(QuadTextPeer, RoundsMiddlesTheSame) {
  Random random(13);
  for (int i = 0; i < 200 && !HasFatalFailure(); ++i) {
    // Such a number is an integer, and so is half of its last place: the peer prints both exactly.
    const Bits x = random.with_exponent(16383 + 112 + 1 + random.below(1000));
    char exact[1200] = {};
    const Quad a = Quad::from_bits(x.high & ~(std::uint64_t{1} << 63), x.low);
    quadmath_snprintf(exact, sizeof exact, "%.0Qf", to_peer(a));
    const int exponent = static_cast<int>(a.bits().high >> 48) - 16383 - 113;
    char half[1200] = {};
    quadmath_snprintf(
        half, sizeof half, "%.0Qf",
        to_peer(Quad::from_bits(static_cast<std::uint64_t>(exponent + 16383) << 48, 0)));
    std::string sum = exact;
    const std::string addend = half;
    int carry = 0;
    for (std::size_t d = 0; d < sum.size(); ++d) {
      char& digit = sum[sum.size() - 1 - d];
      carry += digit - '0' + (d < addend.size() ? addend[addend.size() - 1 - d] - '0' : 0);
      digit = static_cast<char>('0' + carry % 10);
      carry /= 10;
    }
    sum = carry != 0 ? "1" + sum : sum;
    expect_same_number(sum);
    expect_same_number(sum + ".0001");
    const Quad up = from_string(sum + ".0001").value_or(0);
    const Quad tie = from_string(sum).value_or(0);
    ASSERT_EQ(up.bits().low, a.bits().low + 1);
    ASSERT_EQ(tie.bits().low % 2, 0U) << sum;
  }
}

}  // namespace
}  // namespace ksomd::test
