// The run-time behind the compiler's type reports overflow and underflow in the x87 status word
// only: fetestexcept reads both.
#include <bit>
#include <cfenv>
#include <cstring>

#include "support/quad_compiler.h"

namespace ksomd::test::compiler {
namespace {

__extension__ using Binary128 = __float128;

Binary128 value(Bits bits) {
  const quad128 memory = quad(bits);
  Binary128 result;
  std::memcpy(&result, &memory, sizeof result);
  return result;
}

Bits bits(Binary128 a) {
  quad128 memory;
  std::memcpy(&memory, &a, sizeof memory);
  return bits_of(memory);
}

// The check of casts goes by long double, which has no place for small numbers.
[[gnu::noinline, clang::no_sanitize("float-cast-overflow")]] Bits apply(Operation operation,
                                                                        Binary128 a, Binary128 b) {
  switch (operation) {
    case Operation::Add:
      return bits(a + b);
    case Operation::Subtract:
      return bits(a - b);
    case Operation::Multiply:
      return bits(a * b);
    case Operation::Divide:
      return bits(a / b);
    case Operation::ToDouble:
      return {0, std::bit_cast<std::uint64_t>(static_cast<double>(a))};
    case Operation::ToFloat:
      return {0, std::bit_cast<std::uint32_t>(static_cast<float>(a))};
    case Operation::ToExtended: {
      const auto narrow = static_cast<long double>(a);
      extended80 memory;
      std::memcpy(&memory, &narrow, sizeof memory);
      return {memory.sign_exponent, memory.significand};
    }
    case Operation::ToInt64:
      return {0, static_cast<std::uint64_t>(static_cast<std::int64_t>(a))};
  }
  return {};
}

}  // namespace

bool available() {
  return true;
}

Outcome run(Operation operation, Bits a, Bits b, Mode mode) {
  static constexpr int modes[] = {FE_TONEAREST, FE_DOWNWARD, FE_UPWARD, FE_TOWARDZERO};
  static constexpr struct {
    int library;
    unsigned flag;
  } flags[] = {{FE_INVALID, flag::invalid},
               {FE_DIVBYZERO, flag::divide_by_zero},
               {FE_OVERFLOW, flag::overflow},
               {FE_UNDERFLOW, flag::underflow},
               {FE_INEXACT, flag::inexact}};
  std::fesetround(modes[static_cast<unsigned>(mode)]);
  std::feclearexcept(FE_ALL_EXCEPT);
  Outcome outcome = {apply(operation, value(a), value(b)), 0};
  const int raised = std::fetestexcept(FE_ALL_EXCEPT);
  std::feclearexcept(FE_ALL_EXCEPT);
  std::fesetround(FE_TONEAREST);
  for (const auto& [library, flag] : flags) {
    outcome.flags |= (raised & library) != 0 ? flag : 0;
  }
  return outcome;
}

}  // namespace ksomd::test::compiler
