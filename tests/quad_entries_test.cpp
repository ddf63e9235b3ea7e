// Every exported entry, called from hand-written assembler by the platform's convention: it does
// what the same call from C++ does, keeps the callee-saved registers, takes addresses of any
// alignment, and lets its result overlay its operands.
#include <gtest/gtest.h>

#include <bit>
#include <string>
#include <type_traits>

#include "support/quad_call.h"
#include "support/quad_cases.h"

using namespace ksomd::test;

extern "C" {
KSOMD_API void multiply_l(quad128*, const quad128*, const quad128*) __asm__("__mulq.L");
KSOMD_API void multiply_a(quad128*, const quad128*, const quad128*) __asm__("__mulq.A");
KSOMD_API void divide_l(quad128*, const quad128*, const quad128*) __asm__("__divq.L");
KSOMD_API void divide_a(quad128*, const quad128*, const quad128*) __asm__("__divq.A");
}

namespace {

constexpr std::uint64_t garbage = 0xDEADBEEFDEADBEEF;

// Windows counts positions over both kinds of registers, the System V convention each kind alone.
#ifdef _WIN32
constexpr bool positions_are_shared = true;
#else
constexpr bool positions_are_shared = false;
#endif

constexpr std::size_t room = 64;  // for an operand or a result, at any offset in it

// The memory of a call: the result and up to four operands.
struct Memory {
  unsigned char places[5][room];
  unsigned char* place(std::size_t i, std::size_t offset) { return places[i] + 8 + offset; }
};

// 32 bytes that are a complex number, whose beginning is a number of each narrower type too: about
// 2.5 as a quad or 80 bits, small as float and double.
void fill_operand(unsigned char* place, std::size_t i) {
  const quad128 parts[] = {{0x00000000C0400000 + i, 0x4000400000000000 + (i << 46)},
                           {0x1234567800000000, 0xC001800000000000 + (i << 40)}};
  std::memcpy(place, parts, sizeof parts);
}

template <class T>
constexpr std::size_t size_of_result = sizeof(T);
template <>
constexpr std::size_t size_of_result<double> =
    2 * sizeof(double);  // both parts of a complex number
template <>
constexpr std::size_t size_of_result<float> = 2 * sizeof(float);

// Arguments in their order: the result's address first if the first parameter can be written
// through, then operands.
class Arguments {
 public:
  Arguments(Memory& memory, std::size_t offset, bool overlay)
      : memory_(memory), offset_(offset), overlay_(overlay) {}

  template <class T>
  T next() {
    if constexpr (std::is_pointer_v<T>) {
      using Target = std::remove_pointer_t<T>;
      const std::size_t i = std::is_const_v<Target> ? ++operands_ : overlay_ ? 1 : 0;
      return reinterpret_cast<T>(memory_.place(i, offset_));
    } else if constexpr (std::is_floating_point_v<T>) {
      return static_cast<T>(-2.75);
    } else {
      return static_cast<T>(std::is_same_v<T, std::int32_t> ? KSOMD_ROUND_UP : -3);
    }
  }

 private:
  Memory& memory_;
  std::size_t offset_;
  bool overlay_;
  std::size_t operands_ = 0;
};

// What a call leaves: the result's bytes, and what it returns.
struct Effect {
  std::string bytes;
  std::uint64_t returned = 0;
  bool operator==(const Effect&) const = default;
};

template <class T>
std::uint64_t bits_of_value(T value) {
  if constexpr (std::is_same_v<T, double>) {
    return std::bit_cast<std::uint64_t>(value);
  } else if constexpr (std::is_same_v<T, float>) {
    return std::bit_cast<std::uint32_t>(value);
  } else if constexpr (std::is_pointer_v<T>) {
    return reinterpret_cast<std::uint64_t>(value);
  } else if constexpr (sizeof(T) == 8) {
    return static_cast<std::uint64_t>(value);
  } else {  // what a register holds above a narrower integer is anything
    constexpr std::uint64_t mask = ~std::uint64_t{0} >> (64 - 8 * sizeof(T));
    return (static_cast<std::uint64_t>(value) & mask) | (garbage & ~mask);
  }
}

enum class By { Compiler, Assembler };

template <class Return, class... Parameters>
class Entry {
 public:
  explicit Entry(Return (*routine)(Parameters...)) : routine_(routine) {}

  Effect call(By by, std::size_t offset, bool overlay) {
    Memory memory;
    std::memset(&memory, 0xA5, sizeof memory);
    for (std::size_t i = 1; i < 5; ++i) {
      fill_operand(memory.place(i, offset), i);
    }
    Effect effect;
    Arguments arguments(memory, offset, overlay);
    unsigned char* const result = memory.place(overlay && writes ? 1 : 0, offset);
    const auto by_compiler = [this](Parameters... values) { return call_routine(values...); };
    if (by == By::Compiler) {
      // Braces: in this order.
      const std::tuple<Parameters...> values{arguments.next<Parameters>()...};
      if constexpr (std::is_void_v<Return>) {
        std::apply(by_compiler, values);
      } else {
        effect.returned = known_bits(bits_of_value(std::apply(by_compiler, values)), result);
      }
    } else {
      effect.returned = call_by_assembler(arguments, result);
    }
    effect.bytes.assign(reinterpret_cast<char*>(result), writes ? written : 0);
    if (!overlay) {  // and nothing else
      const auto untouched = [](unsigned char byte) { return byte == 0xA5; };
      EXPECT_TRUE(std::all_of(memory.places[0], result, untouched));
      EXPECT_TRUE(std::all_of(result + (writes ? written : 0), memory.places[1], untouched));
    }
    return effect;
  }

 private:
  // Some names share a routine of another type, for the part of a complex operand that it takes.
  [[clang::no_sanitize("function")]] Return call_routine(Parameters... values) {
    return routine_(values...);
  }

  using First = std::tuple_element_t<0, std::tuple<Parameters...>>;
  using Target = std::remove_pointer_t<First>;
  static constexpr bool writes = !std::is_const_v<Target>;
  static constexpr std::size_t written = size_of_result<Target>;

  // Returned addresses as the distance from the result.
  static std::uint64_t known_bits(std::uint64_t bits, const unsigned char* result) {
    if constexpr (std::is_pointer_v<Return>) {
      return bits - reinterpret_cast<std::uint64_t>(result);
    } else if constexpr (std::is_void_v<Return>) {
      return 0;
    } else {
      return sizeof(Return) == 4 ? static_cast<std::uint32_t>(bits) : bits;
    }
  }

  std::uint64_t call_by_assembler(Arguments& arguments, const unsigned char* result) {
    Call call = {reinterpret_cast<void (*)()>(routine_),
                 {garbage, garbage, garbage, garbage, garbage},
                 {garbage, garbage},
                 0,
                 0,
                 0};
    std::size_t position = 0;
    std::size_t integers = 0;
    std::size_t vectors = 0;
    const auto pass = [&](auto value) {
      if constexpr (std::is_floating_point_v<decltype(value)>) {
        call.vectors[positions_are_shared ? position : vectors++] = bits_of_value(value);
      } else {
        call.integers[positions_are_shared ? position : integers++] = bits_of_value(value);
      }
      ++position;
    };
    (pass(arguments.next<Parameters>()), ...);
    ksomd_quad_call(&call);
    EXPECT_EQ(call.preserved, 1u);
    return known_bits(std::is_floating_point_v<Return> ? call.vector_result : call.integer_result,
                      result);
  }

  Return (*routine_)(Parameters...);
};

template <class Return, class... Parameters>
void check(const char* name, Return (*routine)(Parameters...), int& count) {
  Entry<Return, Parameters...> entry(routine);
  const Effect expected = entry.call(By::Compiler, 0, false);
  for (std::size_t offset = 0; offset < 16; ++offset) {
    EXPECT_EQ(entry.call(By::Assembler, offset, false), expected) << name << " at " << offset;
    EXPECT_EQ(entry.call(By::Compiler, offset, true), expected) << name << " overlaid";
  }
  EXPECT_TRUE(!std::is_pointer_v<Return> || expected.returned == 0) << name << " returns r";
  ++count;
}

#define ROW(routine) check(#routine, routine, count)
TEST(QuadEntries, AllAsTheConventionHasIt) {
  int count = 0;
  ROW(__addq), ROW(__subq), ROW(__mulq), ROW(__divq);
  ROW(multiply_l), ROW(multiply_a), ROW(divide_l), ROW(divide_a);
  ROW(a_addq), ROW(a_subq), ROW(a_mulq), ROW(a_divq);
  ROW(__negq), ROW(a_negq);
  ROW(__eqq), ROW(__neq), ROW(__ltq), ROW(__leq), ROW(__gtq), ROW(__geq);
  ROW(a_eqq), ROW(a_neq), ROW(a_ltq), ROW(a_leq), ROW(a_gtq), ROW(a_geq);
  ROW(__compareq), ROW(compareq);
  ROW(__dtoq), ROW(__ftoq), ROW(__ltoq), ROW(__itoq), ROW(__utoq), ROW(__jtoq), ROW(__ktoq);
  ROW(a_dtoq), ROW(a_ftoq), ROW(a_ltoq), ROW(a_itoq), ROW(a_jtoq), ROW(a_ctoq), ROW(a_stoq);
  ROW(__qtod), ROW(__qtof), ROW(__qtol), ROW(__qtoi), ROW(__qtoj), ROW(__qtou), ROW(__qtok);
  ROW(a_qtod), ROW(a_qtof), ROW(a_qtol), ROW(a_qtoi), ROW(a_qtoj), ROW(a_qtoc), ROW(a_qtos);
  ROW(__caddq), ROW(__csubq), ROW(__cmulq), ROW(__cdivq), ROW(__cnegq), ROW(__ceqq), ROW(__cneq);
  ROW(a_caddq), ROW(a_csubq), ROW(a_cmulq), ROW(a_cdivq), ROW(a_cnegq), ROW(a_ceqq), ROW(a_cneq);
  ROW(a_cqtoq), ROW(a_cqtod), ROW(a_cqtof), ROW(a_cqtoi), ROW(a_cqtoj), ROW(a_cqtoch);
  ROW(a_cqtos), ROW(a_cqtoc), ROW(a_cqtocd), ROW(a_qtocq), ROW(a_dtocq), ROW(a_ftocq);
  ROW(a_itocq), ROW(a_jtocq), ROW(a_stocq), ROW(a_chtocq), ROW(a_cdtocq), ROW(a_ctocq);
  EXPECT_EQ(count, 88);
}
#undef ROW

}  // namespace
