// Sweeps: deterministic walks over inputs. The host proves every result against an oracle that is
// kept by others; every other target, compiler, tier and processor must give the host's digest.
//
//   TEST(QuadSweep, Sum) {
//     Sweep sweep("quad.sum");
//     for ([[maybe_unused]] const auto round : sweep.rounds(300, 20'000)) {
//       const quad128 a = operand(sweep.random), b = operand(sweep.random);
//       quad128 r;
//       const unsigned flags = raised_by(sweep.random.below(4), [&] { add(&r, &a, &b); });
//       sweep.result(r, flags);
//       if (sweep.proving()) ASSERT_EQ(...) << what repeats it;
//     }
//   }
//
// Suites whose name ends in "Sweep" reach the library through entry() alone (support/entry.h): they
// also run against the shared library and on emulated processors.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <ranges>
#include <string>

#include "support/effort.h"

namespace ksomd::test {

// splitmix64.
class Random {
 public:
  explicit Random(std::uint64_t seed) : state_(seed) {}
  std::uint64_t next();
  std::uint64_t below(std::uint64_t limit) { return next() % limit; }
  bool one_in(std::uint64_t count) { return below(count) == 0; }
  template <class Value>
  Value one_of(std::initializer_list<Value> values) {
    return values.begin()[below(values.size())];
  }
  template <class Value, std::size_t count>
  const Value& one_of(const Value (&values)[count]) {
    return values[below(count)];
  }
  // A finite number, positive or negative, of magnitude 2^-20 to 2^20 with a full fraction.
  double number();

 private:
  std::uint64_t state_;
};

// `own`, or with KSOMD_TEST_SEED set a number made of both: for long runs with other inputs.
std::uint64_t seed_of(std::uint64_t own);

// How much a test does: KSOMD_TEST_LENGTH is "shared" (what every target computes and compares),
// empty (on the host also the proof) or "full" (many times the proof).
class Sweep {
 public:
  explicit Sweep(const char* name);
  // Compares the digest with the agreed one in tests/digests.inc; `./dev digests` agrees anew.
  ~Sweep();
  Sweep(const Sweep&) = delete;
  Sweep& operator=(const Sweep&) = delete;

  Random random{0};

  // The numbers of the rounds of a loop: `shared` of them on every target, `proof` where this
  // target proves. Each loop of a sweep starts from a seed of its own.
  auto rounds(std::size_t shared, std::size_t proof) {
    return std::views::iota(std::size_t{0}, start_loop(shared, proof)) |
           std::views::transform([this](std::size_t round) { return round_ = round; });
  }

  // Whether results are to be judged by an oracle here.
  static bool proving();

  // Results that every target must share; those of rounds beyond the shared ones are left out. Only
  // types without padding.
  template <class... Values>
  void result(const Values&... values) {
    (results(&values, sizeof values), ...);
  }
  void results(const void* data, std::size_t size);

 private:
  std::size_t start_loop(std::size_t shared, std::size_t proof);

  std::string name_;
  std::uint64_t loops_ = 0;
  std::size_t round_ = 0;
  std::size_t shared_ = ~std::size_t{0};
  std::uint64_t digest_ = 0xCBF29CE484222325;
};

// ---- the floating-point mode --------------------------------------------------------------------

namespace mxcsr {
inline constexpr unsigned invalid = 0x01, denormal = 0x02, zero_divide = 0x04, overflow = 0x08,
                          underflow = 0x10, inexact = 0x20;
// All but the denormal operand, which emulators judge otherwise.
inline constexpr unsigned ieee_flags = 0x3D;
inline constexpr unsigned all_masked = 0x1F80;
inline constexpr unsigned denormals_are_zero = 1u << 6;
inline constexpr unsigned flush_to_zero = 1u << 15;
}  // namespace mxcsr

// Rounding modes as MXCSR numbers them: nearest, down, up, toward zero.
inline constexpr unsigned rounding_modes = 4;

// Runs call() in a rounding mode, with more MXCSR bits set (flags that are up already, flush to
// zero), and returns the IEEE flags that are up afterwards.
template <class Call>
unsigned raised_by(std::uint64_t mode, Call call, unsigned more = 0) {
  __builtin_ia32_ldmxcsr(mxcsr::all_masked | static_cast<unsigned>(mode) << 13 | more);
  call();
  const unsigned flags = __builtin_ia32_stmxcsr() & mxcsr::ieee_flags;
  __builtin_ia32_ldmxcsr(mxcsr::all_masked);
  return flags;
}

}  // namespace ksomd::test
