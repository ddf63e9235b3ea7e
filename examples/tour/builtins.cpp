#include "ksomd/builtins.h"

#include <cstdint>
#include <cstdio>
#include <limits>
#include <string>
#include <vector>

#include "ksomd/diagnostics.h"
#include "sections.h"

namespace {

// The decimal digits of a long integer, nine at a time, by division.
std::string decimal(std::vector<std::uint32_t> number) {
  const auto words = static_cast<std::uint32_t>(number.size());
  std::vector<std::uint32_t> billion(words), quotient(words), remainder(words);
  billion[0] = 1000000000;
  number.push_back(0);  // the dividend's word to spare
  std::string digits;
  bool more = true;
  while (more) {
    __udivmodei5(quotient.data(), remainder.data(), number.data(), billion.data(), words);
    more = false;
    for (std::uint32_t j = 0; j < words; ++j) {
      number[j] = quotient[j];
      more = more || quotient[j] != 0;
    }
    std::string group = std::to_string(remainder[0]);
    group.insert(0, more ? 9 - group.size() : 0, '0');
    digits.insert(0, group);
  }
  return digits;
}

}  // namespace

void tour::show_builtins() {
  std::printf("\nBuiltins\n");
  std::vector<std::uint32_t> power(8);
  power[5] = 1;  // 2^160
  std::printf("  2^160 = %s\n", decimal(power).c_str());

  constexpr double infinity = std::numeric_limits<double>::infinity();
  constexpr double nan = std::numeric_limits<double>::quiet_NaN();
  const ksomd_complex_double product = __muldc3(infinity, nan, 1, 2);
  const ksomd_complex_double quotient = __divdc3(1e300, 1e300, 1e300, -1e300);
  std::printf("  (inf + NaN i) * (1 + 2i) has an infinite part: %s\n",
              __real__ product == infinity || __real__ product == -infinity ||
                      __imag__ product == infinity || __imag__ product == -infinity
                  ? "yes"
                  : "no");
  std::printf("  (1 + i) / (1 - i), both times 1e300: %g + %gi\n", __real__ quotient,
              __imag__ quotient);

  // A constant that the compiler put in place of a parameter, and what was passed: all is well, so
  // the call returns.
  _IPO_Check_CP(KSOMD_FORMAL_PARAMETER, KSOMD_CHECK_F64, 0x8000000000000000, 0);
  std::printf("  a propagated -0.0 agrees with 0.0\n");
}
