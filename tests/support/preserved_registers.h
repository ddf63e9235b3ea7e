// Whether a call leaves alone what a callee must: the callee-saved registers of this platform,
// MXCSR's control bits and the direction flag.
//
//   EXPECT_EQ(what_call_changes(_orvex_fast_memcpy, to, from, 100), "");
#pragma once

#include <xmmintrin.h>

#include <cstdint>
#include <cstring>
#include <string>

#include "support/register_probe.h"

namespace ksomd::test {

// Calls routine(arguments...), up to four that travel in general registers, with every register
// seeded, the vector registers at this width. Result: the names of what changed, each with a space
// behind it; `after` holds what the call left in every register. Wrap a routine with other
// arguments in one without any, which must be compiled so that it saves nothing itself.
template <class Result, class... Parameters, class... Arguments>
std::string what_call_changes(VectorState width, RegisterFile& before, RegisterFile& after,
                              Result (*routine)(Parameters...), Arguments... arguments) {
  static_assert(sizeof...(Arguments) == sizeof...(Parameters) && sizeof...(Arguments) <= 4);
  enum { rcx = 1, rdx = 2, rbx = 3, rbp = 5, rsi = 6, rdi = 7, r8 = 8, r9 = 9 };
#ifdef _WIN32
  [[maybe_unused]] constexpr int argument_registers[] = {rcx, rdx, r8, r9};
  constexpr int callee_saved[] = {rbx, rbp, rsi, rdi, 12, 13, 14, 15};
  constexpr int first_saved_vector = 6;
#else
  [[maybe_unused]] constexpr int argument_registers[] = {rdi, rsi, rdx, rcx};
  constexpr int callee_saved[] = {rbx, rbp, 12, 13, 14, 15};
  constexpr int first_saved_vector = 16;
#endif
  auto* const bytes = reinterpret_cast<unsigned char*>(&before);
  for (std::size_t i = 0; i < sizeof before; ++i) {
    bytes[i] = static_cast<unsigned char>(i * 29 + 17);
  }
  // Nothing is promised of what lies above a narrow argument.
  [[maybe_unused]] int next = 0;
  [[maybe_unused]] const auto pass = [&]<class Parameter>(Parameter value) {
    std::memcpy(&before.general[argument_registers[next++]], &value, sizeof(Parameter));
  };
  (pass(static_cast<Parameters>(arguments)), ...);

  constexpr unsigned control_bits = 0xFFC0;
  const unsigned own_control = _mm_getcsr();
  const unsigned seeded = (own_control & ~control_bits) | 0xFF80;  // round to zero, flush, masked
  _mm_setcsr(seeded);
  ksomd_probe_registers(reinterpret_cast<void (*)()>(routine), &before, &after, width);
  const unsigned control = _mm_getcsr();
  // Below what a compiler may keep under the stack pointer; its own builtin for this may be moved.
  std::uint64_t flags = 0;
  __asm__ volatile("lea -128(%%rsp), %%rsp\n pushfq\n pop %0\n lea 128(%%rsp), %%rsp\n cld"
                   : "=r"(flags)::"cc", "memory");
  _mm_setcsr(own_control);

  std::string changed;
  for (const int number : callee_saved) {
    if (before.general[number] != after.general[number]) {
      changed += "general register " + std::to_string(number) + ' ';
    }
  }
  for (int number = first_saved_vector; number < 16; ++number) {
    if (std::memcmp(before.vector[number], after.vector[number], 16) != 0) {
      changed += "xmm" + std::to_string(number) + ' ';
    }
  }
  changed += (control & control_bits) != (seeded & control_bits) ? "mxcsr " : "";
  changed += (flags & 0x400) != 0 ? "direction " : "";
  return changed;
}

template <class Result, class... Parameters, class... Arguments>
std::string what_call_changes(Result (*routine)(Parameters...), Arguments... arguments) {
  RegisterFile before, after;
  return what_call_changes(VectorState::Xmm, before, after, routine, arguments...);
}

}  // namespace ksomd::test
