// How the tests of this folder make their calls.
#pragma once

#include <csetjmp>
#include <csignal>

#include "support/entry.h"
#include "support/sweep.h"

// The exported routine of a name that is an identifier; looked up once.
#define KSOMD_ENTRY(name)                                                      \
  ([] {                                                                        \
    static const auto routine = ::ksomd::test::entry<decltype(::name)>(#name); \
    return routine;                                                            \
  }())

namespace ksomd::test {

// As raised_by, with the x87 unit in the same mode and its flags among the result's: modes and
// flags have the same numbers in both.
template <class Call>
unsigned raised_by_both(std::uint64_t mode, Call call, unsigned more = 0) {
  constexpr std::uint16_t nearest = 0x37F;
  const auto control = static_cast<std::uint16_t>(nearest | mode << 10);
  std::uint16_t status = 0;
  __asm__ volatile("fnclex\n fldcw %0" : : "m"(control) : "memory");
  const unsigned sse = raised_by(mode, call, more);
  __asm__ volatile("fnstsw %0\n fldcw %1" : "=m"(status) : "m"(nearest) : "memory");
  return (sse | status) & mxcsr::ieee_flags;
}

inline std::jmp_buf before_abort;

// Whether call() ends in abort(), which is left before it ends the process.
template <class Call>
bool aborts(Call call) {
  static volatile bool aborted;
  std::signal(SIGABRT, [](int /*signal*/) { std::longjmp(before_abort, 1); });
  aborted = true;
  if (setjmp(before_abort) == 0) {
    call();
    aborted = false;
  }
  std::signal(SIGABRT, SIG_DFL);
  return aborted;
}

}  // namespace ksomd::test
