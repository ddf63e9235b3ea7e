// How the tests of this folder make their calls.
#pragma once

#include <cfenv>
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

// As raised_by, with the x87 unit in the same mode and its flags among the result's: the bits are
// the same for both.
template <class Call>
unsigned raised_by_both(std::uint64_t mode, Call call, unsigned more = 0) {
  constexpr int modes[] = {FE_TONEAREST, FE_DOWNWARD, FE_UPWARD, FE_TOWARDZERO};
  std::fesetround(modes[mode]);
  std::feclearexcept(FE_ALL_EXCEPT);
  const unsigned sse = raised_by(mode, call, more);
  const auto x87 = static_cast<unsigned>(std::fetestexcept(FE_ALL_EXCEPT));
  std::fesetround(FE_TONEAREST);
  return (sse | x87) & mxcsr::ieee_flags;
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
