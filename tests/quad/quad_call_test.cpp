// What only a caller of the archive can see: registers, traps, and which variant a processor gets.
#include <gtest/gtest.h>

#include "ksomd/quad.h"
#include "quad/dispatch.h"
#include "quad/quad_operands.h"
#include "support/entry.h"
#include "support/preserved_registers.h"

#ifndef _WIN32
#include <ucontext.h>

#include <csignal>
#endif

using namespace ksomd::test;

namespace {

// The complex operations with five arguments only call others.
TEST(QuadCall, KeepsTheCalleesRegisters) {
  quad128 operands[8];
  for (const quad::Routine& routine : quad::routines()) {
    for (quad128& operand : operands) {
      operand = {0x1234567800000000, 0x4000400000000000};
    }
    const std::string names = routine.names, name = names.substr(0, names.find(' '));
    using FourAddresses = void(quad128*, quad128*, quad128*, quad128*);
    if (std::string_view(routine.arguments) != "qqqq" || routine.result[0] != 'Q') {
      EXPECT_EQ(what_call_changes(entry<FourAddresses>(name), operands, operands + 2, operands + 4,
                                  operands + 6),
                "")
          << name;
    }
  }
}

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
volatile std::sig_atomic_t trapped;
void on_trap(int, siginfo_t*, void* context) {
  trapped = 1;
  static_cast<ucontext_t*>(context)->uc_mcontext.fpregs->mxcsr |= mxcsr::all_masked;
}

// An exception that is due and not masked traps, whatever others are masked.
TEST(QuadTrap, UnmaskedExceptionsTrap) {
  struct sigaction action = {}, before = {};
  action.sa_sigaction = on_trap;
  action.sa_flags = SA_SIGINFO;
  ASSERT_EQ(sigaction(SIGFPE, &action, &before), 0);
  Random random(seed_of(5));
  for (int i = 0; i < 20'000; ++i) {
    const quad::Value x = quad::any_value(random), y = quad::partner(random, x);
    const quad128 a = {x.low, x.high}, b = {y.low, y.high};
    quad128 r;
    extended80 e;
    void (*const operation)(quad128*, const quad128*, const quad128*) =
        random.one_of({__addq, __subq, __mulq, __divq});
    const std::uint64_t mode = random.below(rounding_modes), kind = random.below(8);
    const auto run = [&] {
      kind == 0   ? void(__qtod(&a))
      : kind == 1 ? void(__qtol(&e, &a))
      : kind == 2 ? void(__qtoj(&a, KSOMD_ROUND_UP))
      : kind == 3 ? void(__ltq(&a, &b))
                  : operation(&r, &a, &b);
    };
    const unsigned due = raised_by(mode, run);
    const auto unmasked = static_cast<unsigned>(random.next()) & mxcsr::ieee_flags;
    trapped = 0;
    __builtin_ia32_ldmxcsr((mxcsr::all_masked & ~(unmasked << 7)) | static_cast<unsigned>(mode)
                                                                        << 13);
    run();
    __builtin_ia32_ldmxcsr(mxcsr::all_masked);
    ASSERT_EQ(trapped != 0, (due & unmasked) != 0)
        << kind << std::hex << " of {0x" << x.high << ", 0x" << x.low << "} {0x" << y.high << ", 0x"
        << y.low << "}, mode " << mode << ", unmasked 0x" << unmasked;
  }
  sigaction(SIGFPE, &before, nullptr);
}
#endif

}  // namespace
