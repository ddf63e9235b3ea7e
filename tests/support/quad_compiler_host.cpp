// The run-time behind the compiler's type reports overflow and underflow in the x87 status word
// only: the flags are those of both units.
#include <bit>
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
    case Operation::ToInt32:
      return {0, static_cast<std::uint32_t>(static_cast<std::int32_t>(a))};
    case Operation::ToInt64:
      return {0, static_cast<std::uint64_t>(static_cast<std::int64_t>(a))};
    case Operation::ToUint32:
      return {0, static_cast<std::uint32_t>(a)};
    case Operation::ToUint64:
      return {0, static_cast<std::uint64_t>(a)};
  }
  return {};
}

}  // namespace

bool available() {
  return true;
}

Outcome run(Operation operation, Bits a, Bits b, Mode mode) {
  constexpr unsigned all_masked = 0x1F80;
  asm volatile("fnclex");
  __builtin_ia32_ldmxcsr(all_masked | static_cast<unsigned>(mode) << 13);
  Outcome outcome = {apply(operation, value(a), value(b)), 0};
  std::uint16_t x87_flags;
  asm volatile("fnstsw %0" : "=a"(x87_flags));
  outcome.flags = (__builtin_ia32_stmxcsr() | x87_flags) & (flag::all & ~flag::denormal);
  __builtin_ia32_ldmxcsr(all_masked);
  return outcome;
}

Bits widen(Source source, Bits a) {
  const auto low32 = static_cast<std::uint32_t>(a.low);
  switch (source) {
    case Source::Double:
      return bits(static_cast<Binary128>(std::bit_cast<double>(a.low)));
    case Source::Float:
      return bits(static_cast<Binary128>(std::bit_cast<float>(low32)));
    case Source::Extended: {
      const extended80 memory = {a.low, static_cast<std::uint16_t>(a.high)};
      long double x = 0;
      std::memcpy(&x, &memory, sizeof memory);
      return bits(static_cast<Binary128>(x));
    }
    case Source::Int32:
      return bits(static_cast<Binary128>(static_cast<std::int32_t>(low32)));
    case Source::Int64:
      return bits(static_cast<Binary128>(static_cast<std::int64_t>(a.low)));
    case Source::Uint32:
      return bits(static_cast<Binary128>(low32));
    case Source::Uint64:
      return bits(static_cast<Binary128>(a.low));
  }
  return {};
}

int compare(Bits a, Bits b) {
  const Binary128 x = value(a);
  const Binary128 y = value(b);
  return (y < x ? 1 : 0) - (x < y ? 1 : 0);
}

}  // namespace ksomd::test::compiler
