// Calls a routine as generated code does: arguments put into registers by their position.
#pragma once

#include <cstdint>

namespace ksomd::test {

struct Call {
  void (*routine)();
  std::uint64_t integers[5];  // integer and address arguments by the platform's counting
  std::uint64_t vectors[2];   // xmm0 and xmm1
  std::uint64_t integer_result;
  std::uint64_t vector_result;
  std::uint64_t preserved;  // 1 if every callee-saved register is as it was, otherwise 0
};

extern "C" void ksomd_quad_call(Call* call);

}  // namespace ksomd::test
