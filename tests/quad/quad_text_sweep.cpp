// Text of the C++ value type, out and in.
#include <gtest/gtest.h>

#include <string>

#include "ksomd/quad.hpp"
#include "quad/quad_judge.h"
#include "quad/quad_operands.h"

using namespace ksomd::test;
using namespace ksomd::test::quad;
using ksomd::Quad;

namespace {

Quad quad_of(const Value& value) {
  return Quad::from_bits(value.high, value.low);
}
Uint128 bits_of(const Quad& a) {
  return static_cast<Uint128>(a.bits().high) << 64 | a.bits().low;
}
Uint128 bits_of_text(const std::string& text) {
  return bits_of(ksomd::from_string(text).value_or(42));
}

std::string digits(Random& random, std::uint64_t count) {
  const bool run = random.one_in(4);
  std::string text;
  while (text.size() < count) {
    text += run && !text.empty() ? text[0] : static_cast<char>('0' + random.below(10));
  }
  return text;
}

// A number as from_chars reads it, mostly in the range of exponents or at its edges.
std::string any_text(Random& random) {
  const std::uint64_t length = random.below(random.one_in(20) ? 300 : 45);
  const std::string before = digits(random, random.below(length + 1));
  const std::string behind = digits(random, length - before.size() + 1);
  std::string text = (random.one_in(2) ? "-" : "") + before + "." + behind;
  text.resize(text.size() - (!before.empty() && random.one_in(4) ? behind.size() : 0));
  const int edge = random.one_of({4932, -4932, -4966}) - static_cast<int>(before.size());
  const int exponents[] = {edge + within(random, 4), within(random, 5100)};
  const int exponent = random.one_of(exponents);
  const std::string letter = random.one_of({"e", "E", exponent < 0 ? "e" : "e+"});
  return text + (random.one_in(4) ? "" : letter + std::to_string(exponent));
}

// What the shortest form makes of d.ddde+12.
[[maybe_unused]] std::string as_documented(const std::string& scientific) {
  const std::size_t e = scientific.find('e');
  const int exponent = std::stoi(scientific.substr(e + 1));
  if (exponent < -5 || exponent >= 36) {
    return scientific;
  }
  const std::string sign = scientific[0] == '-' ? "-" : "";
  std::string figures = scientific.substr(sign.size(), e - sign.size());
  figures.erase(1, 1);
  if (exponent < 0) {
    return sign + "0." + std::string(static_cast<std::size_t>(-exponent) - 1, '0') + figures;
  }
  const auto whole = static_cast<std::size_t>(exponent) + 1;
  if (figures.size() <= whole) {
    return sign + figures.append(whole - figures.size(), '0');
  }
  return sign + figures.insert(whole, ".");
}

TEST(QuadTextSweep, Writes) {
  Sweep sweep("quad.text.out");
  for ([[maybe_unused]] const auto round : sweep.rounds(300, 8000)) {
    // Any; of few digits; a multiple of a quarter with 34 digits before the point, whose shortest
    // text may be one of two.
    const Value any = any_number(sweep.random), few = bits_of_text(any_text(sweep.random));
    const Value values[] = {any, any, number(sweep.random, bias + 110),
                            (few.bits() & infinity) == infinity ? any : few};
    const Quad a = quad_of(sweep.random.one_of(values));
    const int count = 1 + static_cast<int>(sweep.random.below(36));
    char text[ksomd::quad_text_size];
    const std::string rounded(text, to_chars(text, text + sizeof text, a, count).ptr);
    const std::string shortest = to_string(a);
    sweep.results(rounded.data(), rounded.size());
    sweep.results(shortest.data(), shortest.size());
    ASSERT_TRUE(bits_of_text(shortest) == bits_of(a)) << shortest;
    if constexpr (has_judge) {
      ASSERT_TRUE(!Sweep::proving() || rounded == rounded_text(bits_of(a), count)) << rounded;
      ASSERT_TRUE(!Sweep::proving() || shortest == as_documented(shortest_text(bits_of(a))))
          << shortest;
    }
  }
}

// The middle between neighbours goes to the even one, and the least difference decides, however
// many digits come before it.
[[maybe_unused]] void read_around_middle(const Value& value) {
  const std::string middle = middle_text(value);
  const std::size_t e = middle.find('e');
  std::string figures = middle.substr(0, e);
  const auto read = [&] { return bits_of_text(figures + middle.substr(e)); };
  ASSERT_EQ(read(), value.bits() + (value.bits() & 1)) << middle;
  figures += "10";
  ASSERT_EQ(read(), value.bits() + 1) << middle;
  const std::size_t last = figures.find_last_not_of("0.", e - 1);
  --figures[last];
  for (std::size_t i = last + 1; i < figures.size(); ++i) {
    figures[i] = figures[i] == '.' ? '.' : '9';
  }
  ASSERT_EQ(read(), value.bits()) << middle;
}

TEST(QuadTextSweep, Reads) {
  Sweep sweep("quad.text.in");
  for ([[maybe_unused]] const auto round : sweep.rounds(1500, 60'000)) {
    const std::string text = any_text(sweep.random);
    Quad a;
    const std::from_chars_result result = from_chars(text.data(), text.data() + text.size(), a);
    sweep.result(a, result.ec);
    ASSERT_EQ(result.ptr, text.data() + text.size()) << text;
    const std::string figures = text.substr(0, text.find_first_of("eE"));
    const bool vanished = !a && figures.find_first_of("123456789") != std::string::npos;
    ASSERT_EQ(result.ec, isinf(a) || vanished ? std::errc::result_out_of_range : std::errc{})
        << text;
    if constexpr (has_judge) {
      ASSERT_TRUE(!Sweep::proving() || read_text(text) == bits_of(a)) << text;
    }
  }
  if constexpr (has_judge) {
    for ([[maybe_unused]] const auto round : sweep.rounds(0, 1000)) {
      read_around_middle(any_number(sweep.random).bits() & ~sign_bit);
      ASSERT_FALSE(HasFatalFailure());
    }
  }
}

}  // namespace
