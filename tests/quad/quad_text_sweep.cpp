// Text of the C++ value type, out and in.
#include <gtest/gtest.h>

#include <bit>

#include "ksomd/quad.hpp"
#include "quad/quad_cases.h"

using namespace ksomd::test;
using namespace ksomd::test::quad;
using ksomd::Quad;

namespace {

Value bits_of_text(const std::string& text) {
  return std::bit_cast<Value>(ksomd::from_string(text).value_or(42));
}

// The significant digits, as they stand.
[[maybe_unused]] std::string figures(std::string text) {
  text.resize(std::min(text.find('e'), text.size()));
  std::erase(text, '.');
  text.erase(0, text.find_first_not_of("-0"));
  return text.substr(0, text.find_last_not_of('0') + 1);
}

// A number as from_chars reads it, mostly in the range of exponents or at its edges.
std::string any_text(Random& random) {
  const std::uint64_t length = 1 + random.below(random.one_in(20) ? 300 : 45);
  const std::uint64_t point = random.below(length + 1);
  const bool runs = random.one_in(4), negative = random.one_in(2);
  std::string text;
  while (text.size() < length) {
    text += runs ? random.one_of({"0", "9", "99999999", "5000000"}) : std::to_string(random.next());
  }
  text.resize(length);
  text.insert(point, point == length && random.one_in(2) ? "" : ".");
  text.insert(0, negative ? "-" : "");
  const int edge = random.one_of({4932, -4932, -4966}) - static_cast<int>(point);
  const int near = edge + within(random, 4), far = within(random, 5100);
  const int exponent = random.one_in(2) ? near : far;
  const std::string letter = random.one_of({"e", "E", exponent < 0 ? "e" : "e+"});
  return text + (random.one_in(4) ? "" : letter + std::to_string(exponent));
}

TEST(QuadTextSweep, WritesTheNearestTextWithinItsRange) {
  Sweep sweep("quad.text.out");
  for ([[maybe_unused]] const auto round : sweep.rounds(300, 8000)) {
    // Any; of few digits; a multiple of a quarter with 34 digits before the point, whose shortest
    // text may be one of two.
    const Value any = any_value(sweep.random), few = bits_of_text(any_text(sweep.random));
    const Value tied = number(sweep.random, bias + 110);
    const Value x = sweep.random.one_of({any, any, tied, few});
    const Quad a = std::bit_cast<Quad>(x);
    const int count = static_cast<int>(sweep.random.below(40)) - 1;
    char text[ksomd::quad_text_size], part[ksomd::quad_text_size + 1];
    const auto [end, error] = to_chars(text, text + sizeof text, a, count);
    const std::string rounded(text, end), shortest = to_string(a);
    sweep.results(rounded.data(), rounded.size());
    sweep.results(shortest.data(), shortest.size());
    SCOPED_TRACE(shortest + " or " + rounded + " for" + paste({x}));
    ASSERT_EQ(bits_of_text(shortest), x);
    ASSERT_EQ(error, count < 1 || count > 36 ? std::errc::invalid_argument : std::errc{});
    const std::size_t room = sweep.random.below(shortest.size() + 1);
    part[room] = '#';
    const auto [stop, full] = to_chars(part, part + room, a);
    ASSERT_TRUE(stop == part + room && *stop == '#' && shortest.starts_with({part, room})) << room;
    ASSERT_EQ(full, room < shortest.size() ? std::errc::value_too_large : std::errc{});
    if constexpr (has_judge) {
      if (isfinite(a) && Sweep::proving()) {
        ASSERT_EQ(figures(shortest), figures(shortest_text(x)));
        ASSERT_TRUE(error != std::errc{} || rounded == rounded_text(x, count));
      }
    }
  }
}

// The middle between neighbours goes to the even one, and the least difference decides, however
// many digits come before it.
TEST(QuadTextSweep, ReadsTheNearestNumber) {
  Sweep sweep("quad.text.in");
  constexpr std::size_t shared = 1500;
  for (const std::size_t round : sweep.rounds(shared, 60'000)) {
    std::vector<std::string> texts = {any_text(sweep.random)};
    if constexpr (has_judge) {
      if (round >= shared && round % 60 == 0) {
        const std::string middle = middle_text(any_number(sweep.random) & ~sign_bit);
        const std::size_t e = middle.find('e'), last = middle.find_last_not_of("0.", e - 1);
        const std::string all = middle.substr(0, e), power = middle.substr(e);
        texts = {all + power, all + "10" + power, all.substr(0, last) + power};
      }
    }
    for (const std::string& text : texts) {
      Quad a;
      const auto [end, error] = from_chars(text.data(), text.data() + text.size(), a);
      sweep.result(a, error);
      ASSERT_EQ(end, text.data() + text.size()) << text;
      const bool vanished = !a && text.find_first_of("123456789") < text.find_first_of("eE");
      ASSERT_EQ(error, isinf(a) || vanished ? std::errc::result_out_of_range : std::errc{}) << text;
      if constexpr (has_judge) {
        ASSERT_TRUE(!Sweep::proving() || read_text(text) == bits(a)) << text;
      }
    }
  }
}

}  // namespace
