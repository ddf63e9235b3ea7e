#include "quad/quad_routines.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cstdlib>
#include <cstring>
#include <sstream>

#include "cpu/feature_set.h"
#include "support/operand.h"

namespace ksomd::test::quad {
namespace {

using enum Operation;

constexpr Routine table[] = {
    {"__addq a_addq", Add, "q", "qq"},
    {"__subq a_subq", Subtract, "q", "qq"},
    {"__mulq a_mulq", Multiply, "q", "qq"},
    {"__mulq.L __mulq.A", Multiply, "q", "qq"},
    {"__divq a_divq", Divide, "q", "qq"},
    {"__divq.L __divq.A", Divide, "q", "qq"},
    {"__negq a_negq", Negate, "q", "q"},
    {"__eqq a_eqq", Equal, "i", "qq"},
    {"__neq a_neq", NotEqual, "i", "qq"},
    {"__ltq a_ltq", Less, "i", "qq"},
    {"__leq a_leq", LessOrEqual, "i", "qq"},
    {"__gtq a_gtq", Greater, "i", "qq"},
    {"__geq a_geq", GreaterOrEqual, "i", "qq"},
    {"__compareq compareq", Compare, "i", "qq"},
    {"__dtoq a_dtoq", Convert, "q", "d"},
    {"__ftoq a_ftoq", Convert, "q", "f"},
    {"__ltoq a_ltoq", Convert, "q", "l"},
    {"__itoq a_itoq", Convert, "q&", "i"},
    {"__utoq", Convert, "q&", "u"},
    {"__jtoq a_jtoq", Convert, "q&", "j"},
    {"__ktoq", Convert, "q&", "k"},
    {"a_ctoq", Convert, "q", "c"},
    {"a_stoq", Convert, "q", "s"},
    {"__qtod a_qtod", Convert, "d", "q"},
    {"__qtof a_qtof", Convert, "f", "q"},
    {"__qtol a_qtol", Convert, "l&", "q"},
    {"__qtoi a_qtoi a_qtoc a_qtos", Convert, "i", "qm"},
    {"__qtoj a_qtoj", Convert, "j", "qm"},
    {"__qtou", Convert, "u", "q"},
    {"__qtok", Convert, "k", "q"},
    {"__caddq a_caddq", Add, "Q", "qqqq"},
    {"__csubq a_csubq", Subtract, "Q", "qqqq"},
    {"__cmulq a_cmulq", Multiply, "Q", "qqqq"},
    {"__cdivq a_cdivq", Divide, "Q", "qqqq"},
    {"__cnegq a_cnegq", Negate, "Q", "qq"},
    {"__ceqq", Equal, "i", "qqqq"},
    {"__cneq", NotEqual, "i", "qqqq"},
    {"a_ceqq", SameBits, "i", "qqqq"},
    {"a_cneq", OtherBits, "i", "qqqq"},
    {"a_cqtoq", Convert, "q", "Q"},
    {"a_cqtod", Convert, "d", "Q"},
    {"a_cqtof", Convert, "f", "Q"},
    {"a_cqtoi a_cqtoch a_cqtos", Convert, "i", "Q"},
    {"a_cqtoj", Convert, "j", "Q"},
    {"a_cqtoc", Convert, "F", "Q"},
    {"a_cqtocd", Convert, "D", "Q"},
    {"a_qtocq", Convert, "Q", "q"},
    {"a_dtocq", Convert, "Q", "d"},
    {"a_ftocq", Convert, "Q", "f"},
    {"a_chtocq", Convert, "Q", "c"},
    {"a_stocq", Convert, "Q", "s"},
    {"a_itocq", Convert, "Q", "i"},
    {"a_jtocq", Convert, "Q", "j"},
    {"a_cdtocq", Convert, "Q", "D"},
    {"a_ctocq", Convert, "Q", "F"},
};

constexpr std::uint64_t garbage = 0xDEADBEEFDEADBEEF;

bool in_memory(char type) {
  return type == 'q' || type == 'l' || is_pair(type);
}
bool in_vector(char type) {
  return type == 'd' || type == 'f';
}

// The operands that lie in memory, one behind the other.
std::string memory_image(const char* arguments, const Value* operand) {
  std::string image;
  for (; in_memory(*arguments); ++arguments) {
    const std::size_t parts = is_pair(*arguments) ? 2 : 1;
    for (std::size_t i = 0; i < parts; ++i) {
      image.append(reinterpret_cast<const char*>(operand++), size_of(*arguments) / parts);
    }
  }
  return image;
}

// What carries a narrower value has garbage above it.
[[clang::no_sanitize("function")]] std::uint64_t enter(const void* address, const Routine& routine,
                                                       const std::uint64_t (&arguments)[5]) {
  const auto entry = reinterpret_cast<std::uintptr_t>(address);
  const auto& [a, b, c, d, e] = arguments;
  if (in_vector(routine.arguments[0])) {
    reinterpret_cast<void (*)(std::uint64_t, double)>(entry)(a, std::bit_cast<double>(b));
    return 0;
  }
  if (in_vector(routine.result[0])) {
    return std::bit_cast<std::uint64_t>(reinterpret_cast<double (*)(std::uint64_t)>(entry)(a));
  }
  return reinterpret_cast<std::uint64_t (*)(std::uint64_t, std::uint64_t, std::uint64_t,
                                            std::uint64_t, std::uint64_t)>(entry)(a, b, c, d, e);
}

// With the x87 unit in a state of its own, which must stay.
std::uint64_t enter_under_x87(const void* address, const Routine& routine,
                              const std::uint64_t (&arguments)[5], std::uint16_t control) {
  struct {
    std::uint16_t control, unused0, status, unused1, tag, unused2[9];
  } after;
  constexpr std::uint16_t usual = 0x037F;
  asm volatile("fnclex\n\tfldcw %0" : : "m"(control));
  const std::uint64_t returned = enter(address, routine, arguments);
  asm volatile("fnstenv %0\n\tfldcw %1" : "=m"(after) : "m"(usual));
  EXPECT_TRUE(after.control == control && (after.status & 0xFF) == 0 && after.tag == 0xFFFF);
  return returned;
}

void pass(std::uint64_t* next, const Routine& routine, const unsigned char* in,
          const unsigned char* out, const Value& value, std::int32_t rounding) {
  if (in_memory(routine.result[0])) {
    *next++ = reinterpret_cast<std::uint64_t>(out);
  }
  for (const char* type = routine.arguments; *type != 0; in += size_of(*type++), ++next) {
    if (in_memory(*type)) {
      *next = reinterpret_cast<std::uint64_t>(in);
    } else {
      std::memcpy(next, *type == 'm' ? static_cast<const void*>(&rounding) : &value,
                  size_of(*type));
    }
  }
}

}  // namespace

std::span<const Routine> routines() {
  return table;
}

std::size_t size_of(char type) {
  constexpr std::size_t sizes[] = {1, 2, 4, 4, 4, 8, 8, 4, 8, 10, 16, 8, 16, 32};
  return sizes[std::string_view("csiumjkfdlqFDQ").find(type)];
}

Circumstances any_circumstances(Random& random, const Routine& routine) {
  Circumstances made = {};
  made.mode = random.below(rounding_modes);
  made.rounding = static_cast<std::int32_t>(random.one_in(8) ? random.next() : random.below(5));
  if (random.one_in(4)) {
    constexpr unsigned zeros = mxcsr::flush_to_zero | mxcsr::denormals_are_zero;
    made.mxcsr = static_cast<unsigned>(random.next()) & (mxcsr::ieee_flags | zeros);
  }
  made.x87 = static_cast<std::uint16_t>(0x7F | random.below(16) << 8);
  made.indicator = feature_word();
  if (routine.operation <= Divide && random.one_in(4)) {
    constexpr std::uint64_t not_empty = 1;
    made.indicator = (made.indicator & ~(std::uint64_t{1} << random.below(8))) | not_empty;
    const bool asks = std::string_view(routine.names).find('.') == std::string_view::npos;
    made.indicator = asks && random.one_in(500) ? 0 : made.indicator;
  }
  made.guarded = random.one_in(16);
  made.offset = static_cast<unsigned>(made.guarded ? random.below(2) : random.below(16));
  made.overlaid = static_cast<unsigned>(random.below(8));
  return made;
}

Effect call(const void* address, const Routine& routine, const Value (&operands)[4],
            const Circumstances& circumstances) {
  static Operand guarded(1);
  static unsigned char plain[160];
  const char type = routine.result[0];
  const std::size_t size = size_of(type), under = std::size_t{16} * circumstances.overlaid;
  const std::string image = memory_image(routine.arguments, operands);
  const bool overlays = in_memory(type) && under < image.size();
  const bool operands_last = !overlays && circumstances.offset % 2 != 0;
  unsigned char* const block = circumstances.guarded
                                   ? guarded.place(image.size() + size, Place::AtEnd)
                                   : plain + circumstances.offset;
  unsigned char* const in = block + (operands_last ? size : 0);
  unsigned char* const out = overlays ? in + under : block + (operands_last ? 0 : image.size());
  std::memcpy(in, image.data(), image.size());

  std::uint64_t arguments[5] = {garbage, garbage, garbage, garbage, garbage};
  pass(arguments, routine, in, out, operands[0], circumstances.rounding);
  std::uint64_t& indicator = __orvex_cpu_feature_indicator[0];
  const std::uint64_t detected = indicator;
  std::uint64_t returned = 0;
  unsigned control = 0;
  Effect effect;
  indicator = circumstances.indicator;
  const auto run = [&] {
    returned = enter_under_x87(address, routine, arguments, circumstances.x87);
    control = __builtin_ia32_stmxcsr();
  };
  effect.flags = raised_by(circumstances.mode, run, circumstances.mxcsr);
  // The shared library has a word of its own.
  static const bool shared = std::getenv("KSOMD_TEST_SHARED") != nullptr;
  EXPECT_TRUE(indicator != 0 || shared) << "the processor's features are not asked for";
  indicator = detected;

  const std::size_t part = is_pair(type) ? size / 2 : size;
  std::memcpy(&effect.parts[0], in_memory(type) ? static_cast<void*>(out) : &returned, part);
  std::memcpy(&effect.parts[1], out + part, size - part);
  control ^= static_cast<unsigned>(circumstances.mode) << 13 | circumstances.mxcsr;
  control &= ~(mxcsr::ieee_flags | (Sweep::proving() ? 0 : mxcsr::denormal));  // as emulators do
  EXPECT_TRUE(control == mxcsr::all_masked) << "MXCSR changed";
  EXPECT_TRUE(routine.result[1] != '&' || returned == reinterpret_cast<std::uint64_t>(out));
  EXPECT_TRUE((overlays || std::memcmp(in, image.data(), image.size()) == 0) &&
              (!circumstances.guarded || guarded.intact()))
      << "a store beside the result";
  return effect;
}

std::string describe(std::string_view name, const Value (&operands)[4],
                     const Circumstances& circumstances, const Effect& effect) {
  std::ostringstream out;
  const auto write = [&](const Value& value) {
    out << " {0x" << value.high << ", 0x" << value.low << '}';
  };
  out << std::hex << name << " of";
  std::for_each(std::begin(operands), std::end(operands), write);
  out << ", mode " << circumstances.mode << ", argument " << circumstances.rounding << ", MXCSR 0x"
      << circumstances.mxcsr << ", features 0x" << circumstances.indicator << ", result over "
      << circumstances.overlaid << ": flags 0x" << effect.flags;
  std::for_each(std::begin(effect.parts), std::end(effect.parts), write);
  return out.str();
}

}  // namespace ksomd::test::quad
