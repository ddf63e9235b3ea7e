// Every routine of the quad family in one table, and one way to call any of them, in any
// floating-point mode, with operands anywhere in memory.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include "support/sweep.h"

namespace ksomd::test::quad {

__extension__ using Uint128 = unsigned __int128;

// The bits of a number of any type, zeros above them.
struct Value {
  std::uint64_t low = 0, high = 0;
  Value() = default;
  Value(Uint128 bits)
      : low(static_cast<std::uint64_t>(bits)), high(static_cast<std::uint64_t>(bits >> 64)) {}
  Uint128 bits() const { return static_cast<Uint128>(high) << 64 | low; }
  bool operator==(const Value&) const = default;
};

enum class Operation {
  Add,
  Subtract,
  Multiply,
  Divide,
  Negate,
  Equal,
  NotEqual,
  Less,
  LessOrEqual,
  Greater,
  GreaterOrEqual,
  Compare,
  SameBits,
  OtherBits,
  Convert
};

// Types have the letters that the names give them, and capital ones for pairs in memory:
//   q quad   l 80 bits   d double   f float   j, k int64, uint64   i, u int32, uint32
//   s int16   c int8   Q, D, F two quads, doubles, floats   m a rounding argument
// & behind a result: its address is returned.
struct Routine {
  const char* names;
  Operation operation;
  const char* result;
  const char* arguments;

  bool is_complex() const {  // arithmetic, and comparisons, of four parts
    return operation != Operation::Convert &&
           (result[0] == 'Q' || std::string_view(arguments).size() == 4);
  }
};
std::span<const Routine> routines();
std::size_t size_of(char type);
inline bool is_pair(char type) {
  return type == 'Q' || type == 'D' || type == 'F';
}

struct Effect {
  Value parts[2];
  unsigned flags = 0;
  bool operator==(const Effect&) const = default;
};

// What a call depends on, and what it must not depend on.
struct Circumstances {
  std::uint64_t mode;
  std::int32_t rounding;      // the argument m
  unsigned mxcsr;             // flags that are up before, flush to zero, denormals are zero
  std::uint16_t x87;          // the x87 control word
  std::uint64_t indicator;    // the word of processor features that the entries see
  bool guarded;               // beside pages that fault, with canaries; else anywhere
  unsigned offset, overlaid;  // where, and the operand under the result, if there is one
};
Circumstances any_circumstances(Random& random, const Routine& routine);

// Calls it, and fails the test if that changes what it must not: other memory, control words, the
// x87 stack.
Effect call(const void* address, const Routine& routine, const Value (&operands)[4],
            const Circumstances& circumstances);

// What repeats a call.
std::string describe(std::string_view name, const Value (&operands)[4],
                     const Circumstances& circumstances, const Effect& effect);

}  // namespace ksomd::test::quad
