// What only a caller of the archive can see: traps, and which variant a processor gets.
#include <gtest/gtest.h>

#include "ksomd/quad.h"
#include "quad/dispatch.h"
#include "quad/quad_operands.h"

#ifndef _WIN32
#include <ucontext.h>

#include <csignal>
#endif

using namespace ksomd::test;

namespace {

TEST(QuadDispatch, NeedsAllFeaturesOfTheFasterVariant) {
  constexpr std::uint64_t needed = 0xEE;  // X87, CMOV, MMX, SSE, SSE2, SSE3
  std::string names;
  for (const ksomd::DispatchingEntry& entry : ksomd::quad::dispatching_entries()) {
    names += std::string(entry.name) + ' ';
    EXPECT_STREQ(entry.variant({needed}), ".L");
    for (std::uint64_t bit = 1; bit < 0x100; bit <<= 1) {
      EXPECT_STREQ(entry.variant({~bit}), (needed & bit) != 0 ? ".A" : ".L") << bit;
    }
  }
  EXPECT_EQ(names, "__addq __subq __mulq __divq ");
}

#ifndef _WIN32
volatile std::sig_atomic_t traps;
void on_trap(int, siginfo_t*, void* context) {
  traps = traps + 1;
  static_cast<ucontext_t*>(context)->uc_mcontext.fpregs->mxcsr |= mxcsr::all_masked;
}

// An exception traps, once it is due, if MXCSR does not mask it, whatever others it masks.
TEST(QuadTrap, UnmaskedExceptionsTrap) {
  struct sigaction action = {}, before = {};
  action.sa_sigaction = on_trap;
  action.sa_flags = SA_SIGINFO;
  ASSERT_EQ(sigaction(SIGFPE, &action, &before), 0);
  Random random(seed_of(5));
  for (int i = 0; i < 20'000; ++i) {
    const quad::Value x = quad::any_value(random), y = quad::partner(random, x);
    const quad128 a = {x.low, x.high}, b = {y.low, y.high};
    const std::uint64_t operation = random.below(8), mode = random.below(rounding_modes);
    const auto run = [&] {
      quad128 r;
      extended80 e;
      switch (operation) {
        case 0:
          return __addq(&r, &a, &b);
        case 1:
          return __subq(&r, &a, &b);
        case 2:
          return __mulq(&r, &a, &b);
        case 3:
          return __divq(&r, &a, &b);
        case 4:
          return static_cast<void>(__qtod(&a));
        case 5:
          return static_cast<void>(__qtol(&e, &a));
        case 6:
          return static_cast<void>(__qtoj(&a, KSOMD_ROUND_UP));
        default:
          return static_cast<void>(__ltq(&a, &b));
      }
    };
    const unsigned due = raised_by(mode, run);
    const auto unmasked = static_cast<unsigned>(random.next()) & mxcsr::ieee_flags;
    traps = 0;
    __builtin_ia32_ldmxcsr((mxcsr::all_masked & ~(unmasked << 7)) | static_cast<unsigned>(mode)
                                                                        << 13);
    run();
    __builtin_ia32_ldmxcsr(mxcsr::all_masked);
    ASSERT_EQ(traps != 0, (due & unmasked) != 0)
        << operation << std::hex << " of {0x" << x.high << ", 0x" << x.low << "} {0x" << y.high
        << ", 0x" << y.low << "}, mode " << mode << ", unmasked 0x" << unmasked;
  }
  sigaction(SIGFPE, &before, nullptr);
}
#endif

}  // namespace
