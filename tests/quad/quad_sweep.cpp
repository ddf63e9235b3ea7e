// Every routine of the family over operands at which something changes, in any floating-point mode,
// with operands anywhere in memory.
#include <gtest/gtest.h>

#include <bit>

#include "cpu/feature_set.h"
#include "quad/quad_cases.h"
#include "support/entry.h"
#include "support/operand.h"

#ifndef _WIN32
#include <ucontext.h>

#include <csignal>
#endif

namespace ksomd::test::quad {
namespace {

// Operation, result, arguments, names; between semicolons.
constexpr char table[] = R"(
+ q qq __addq a_addq; - q qq __subq a_subq; * q qq __mulq a_mulq; / q qq __divq a_divq;
* q qq __mulq.L __mulq.A; / q qq __divq.L __divq.A; ~ q q __negq a_negq; = i qq __eqq a_eqq;
! i qq __neq a_neq; < i qq __ltq a_ltq; l i qq __leq a_leq; > i qq __gtq a_gtq;
g i qq __geq a_geq; ? i qq __compareq compareq; + Q qqqq __caddq a_caddq;
- Q qqqq __csubq a_csubq; * Q qqqq __cmulq a_cmulq; / Q qqqq __cdivq a_cdivq;
~ Q qq __cnegq a_cnegq; = i qqqq __ceqq; ! i qqqq __cneq; s i qqqq a_ceqq; o i qqqq a_cneq;
: q d __dtoq a_dtoq; : q f __ftoq a_ftoq; : q l __ltoq a_ltoq; : q& i __itoq a_itoq;
: q& u __utoq; : q& j __jtoq a_jtoq; : q& k __ktoq; : q c a_ctoq; : q s a_stoq;
: d q __qtod a_qtod; : f q __qtof a_qtof; : l& q __qtol a_qtol; : j qm __qtoj a_qtoj;
: i qm __qtoi a_qtoi a_qtoc a_qtos; : u q __qtou; : k q __qtok; : q Q a_cqtoq; : d Q a_cqtod;
: f Q a_cqtof; : i Q a_cqtoi a_cqtoch a_cqtos; : j Q a_cqtoj; : F Q a_cqtoc; : D Q a_cqtocd;
: Q q a_qtocq; : Q d a_dtocq; : Q f a_ftocq; : Q c a_chtocq; : Q s a_stocq; : Q i a_itocq;
: Q j a_jtocq; : Q D a_cdtocq; : Q F a_ctocq)";

// Exceptions that are due and not masked trap, whatever others are masked. Emulators do not trap.
volatile bool trapped = false;
#ifdef _WIN32
const bool trapping = false;
#else
const bool trapping = Sweep::proving() && [] {
  struct sigaction action = {};
  action.sa_flags = SA_SIGINFO;
  action.sa_sigaction = [](int, siginfo_t*, void* context) {
    trapped = true;
    static_cast<ucontext_t*>(context)->uc_mcontext.fpregs->mxcsr |= mxcsr::all_masked;
  };
  return sigaction(SIGFPE, &action, nullptr) == 0;
}();
#endif

// What a call depends on, and what it must not depend on; all of it follows from one number.
struct Circumstances {
  Random random;
  std::uint64_t mode = random.below(rounding_modes), any = random.next();
  // Flags that are up before, flush to zero, denormals are zero.
  unsigned mxcsr = static_cast<unsigned>(any % 4 == 0 ? any >> 40 : 0) &
                   (mxcsr::ieee_flags | mxcsr::flush_to_zero | mxcsr::denormals_are_zero);
  std::uint16_t x87 = static_cast<std::uint16_t>(0x7F | (any & 0xF00));
  std::uint64_t lacking = std::uint64_t{1} << (any >> 24 & 31);  // often a feature that is needed
  unsigned unmasked = !trapping || any % 32 != 1 ? 0 : any >> 40 & mxcsr::ieee_flags;
  bool guarded = random.one_in(16);  // beside pages that fault, with canaries; else anywhere
  bool result_first = random.one_in(2);
  std::size_t offset = random.below(16), overlaid = 16 * random.below(8);
};

using Word = std::uint64_t;
constexpr Word garbage = 0xDEADBEEFDEADBEEF;
using Words = Word[5];

// What carries a narrower value has garbage above it. The x87 unit is in a state that must stay.
[[clang::no_sanitize("function")]] Word enter(const void* entry, const Routine& routine,
                                              const Words& w, std::uint16_t x87) {
  std::uint16_t after[14];  // control, -, status, -, tags
  constexpr std::uint16_t usual = 0x037F;
  const auto address = reinterpret_cast<std::uintptr_t>(entry);
  Word returned = 0;
  asm volatile("fnclex\n\tfldcw %0" : : "m"(x87));
  if (Type{routine.arguments[0]}.in_vector()) {
    reinterpret_cast<void (*)(Word, double)>(address)(w[0], std::bit_cast<double>(w[1]));
  } else if (Type{routine.result[0]}.in_vector()) {
    returned = std::bit_cast<Word>(reinterpret_cast<double (*)(Word)>(address)(w[0]));
  } else {
    using General = Word (*)(Word, Word, Word, Word, Word);
    returned = reinterpret_cast<General>(address)(w[0], w[1], w[2], w[3], w[4]);
  }
  asm volatile("fnstenv %0\n\tfldcw %1" : "=m"(after) : "m"(usual));
  EXPECT_TRUE(after[0] == x87 && (after[2] & 0xFF) == 0 && after[4] == 0xFFFF);
  return returned;
}

// Calls a routine, and fails the test if that changes what it must not: other memory, control
// words.
Effect call(const void* entry, const Routine& routine, const Value (&operands)[4],
            const Circumstances& how) {
  static Operand guarded(1);
  static unsigned char plain[160];
  const Type type = {routine.result[0]};
  const std::size_t size = type.size();
  std::size_t held = 0;  // by operands in memory, one behind the other
  for (const char argument : routine.arguments) {
    held += Type{argument}.in_memory() ? Type{argument}.size() : 0;
  }
  const bool overlays = type.in_memory() && how.overlaid < held;
  const bool result_first = !overlays && how.result_first;
  auto* const block = how.guarded ? guarded.place(held + size, Place::AtEnd) : plain + how.offset;
  auto* const in = block + (result_first ? size : 0);
  auto* const out = overlays ? in + how.overlaid : block + (result_first ? 0 : held);
  Words words = {garbage, garbage, garbage, garbage, garbage};
  Word* word = words;
  if (type.in_memory()) {
    *word++ = std::bit_cast<Word>(out);
  }
  const Value* operand = operands;
  unsigned char* next = in;
  for (const char letter : routine.arguments) {
    const Type argument = {letter};
    const std::size_t parts = argument.is_pair() ? 2 : 1, part = argument.size() / parts;
    if (!argument.in_memory()) {
      std::memcpy(word, operand++, part);
    } else {
      *word = std::bit_cast<Word>(next);
      for (std::size_t i = 0; i < parts; ++i, next += part) {
        std::memcpy(next, operand++, part);
      }
    }
    ++word;
  }
  const std::vector<unsigned char> image(in, next);

  Word& indicator = __orvex_cpu_feature_indicator[0];
  const Word detected = feature_word();
  indicator = (detected & ~how.lacking) | 1;
  Word returned = 0;
  unsigned control = 0;
  Effect effect;
  const auto enter_unmasked = [&] {
    trapped = false;
    __builtin_ia32_ldmxcsr(__builtin_ia32_stmxcsr() ^ how.unmasked << 7);
    returned = enter(entry, routine, words, how.x87);
    control = __builtin_ia32_stmxcsr();
  };
  effect.flags = raised_by(how.mode, enter_unmasked, how.mxcsr);
  indicator = detected;

  const std::size_t part = type.is_pair() ? size / 2 : size;
  std::memcpy(&effect.parts[0], type.in_memory() ? static_cast<void*>(out) : &returned, part);
  std::memcpy(&effect.parts[1], out + part, size - part);
  control ^= static_cast<unsigned>(how.mode) << 13 | how.mxcsr | (trapped ? 0 : how.unmasked << 7);
  control &= ~(mxcsr::ieee_flags | (Sweep::proving() ? 0 : mxcsr::denormal));  // as emulators do
  EXPECT_EQ(control, mxcsr::all_masked) << "MXCSR changed";
  EXPECT_TRUE(routine.result[1] != '&' || returned == std::bit_cast<Word>(out));
  EXPECT_TRUE(overlays || std::equal(image.begin(), image.end(), in)) << "an operand changed";
  EXPECT_TRUE(!how.guarded || guarded.intact()) << "a store beside the result";
  return effect;
}

void any_operands(Random& random, const Routine& routine, Value (&v)[4]) {
  const Type from = {routine.arguments[0]}, to = {routine.result[0]};
  const char operation = routine.operation;
  // Complex ones mostly such that no product leaves the range; often such that two of them cancel.
  const bool tame = routine.computes() && routine.is_complex() && !random.one_in(4);
  const bool paired = !tame || random.one_in(2);
  for (std::size_t i = 0; i < 4; ++i) {
    v[i] = operation == ':'                       ? source(random, from.part(), to.part())
           : i > 0 && paired && !random.one_in(4) ? partner(random, v[random.below(i)])
           : tame                                 ? number(random, bias + within(random, 60))
                                                  : any_value(random);
  }
  if (routine.arguments == "qm") {
    v[1] = random.one_in(8) ? random.next() : random.below(5);
  }
  if ((operation == '*' || operation == '/') && !routine.is_complex() && random.one_in(4)) {
    make_hard(random, v[0], v[1]);
    if (operation == '/') {  // the quotient is as close to what was the other factor
      entry<void(Value*, const Value*, const Value*)>("__mulq")(&v[0], &v[0], &v[1]);
    }
  }
}

TEST(QuadSweep, EveryRoutineRoundsOnceAndRaisesItsFlags) {
  Sweep sweep("quad.routines");
  for (const Routine& routine : routines) {
    const bool basic = routine.computes() && !routine.is_complex();
    for ([[maybe_unused]] const auto round :
         sweep.rounds(basic ? 5000 : 1500, basic ? 800'000 : 100'000)) {
      Value v[4];
      any_operands(sweep.random, routine, v);
      const std::uint64_t number = sweep.random.next();
      const std::size_t which = number % routine.names.size();  // second names take turns
      const Circumstances how{Random(number)};
      const Effect effect = call(routine.entries[which], routine, v, how);
      sweep.result(effect.parts, effect.flags);
      Effect right = effect;
      if constexpr (has_judge) {
        right = Sweep::proving() ? expected(routine, v, how.mode) : effect;
        EXPECT_EQ(trapped, (right.flags & how.unmasked) != 0);
        right.flags |= how.mxcsr & mxcsr::ieee_flags;
      }
      ASSERT_TRUE(effect == right && !HasFailure())
          << routine.names[which] << paste({v[0], v[1], v[2], v[3]}) << " circumstances " << number
          << ", flags and results" << paste({effect.flags, effect.parts[0], effect.parts[1]})
          << " for" << paste({right.flags, right.parts[0], right.parts[1]});
    }
  }
}

}  // namespace

const std::vector<Routine> routines = [] {
  std::vector<Routine> all;
  std::istringstream rows(table);
  for (std::string row, name; std::getline(rows, row, ';');) {
    std::istringstream words(row);
    Routine& routine = all.emplace_back();
    words >> routine.operation >> routine.result >> routine.arguments;
    while (words >> name) {
      routine.names.push_back(name);
      routine.entries.push_back(find_entry(name));
    }
  }
  return all;
}();

}  // namespace ksomd::test::quad
