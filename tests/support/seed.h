// Seeds of random tests: fixed, unless a long run asks for others.
#pragma once

#include <cstdint>
#include <cstdlib>

namespace ksomd::test {

// `own`, or with KSOMD_TEST_SEED set a number made of both.
inline std::uint32_t seed_of(std::uint32_t own) {
  const char* const given = std::getenv("KSOMD_TEST_SEED");
  if (given == nullptr || *given == '\0') {
    return own;
  }
  std::uint64_t mixed = std::strtoull(given, nullptr, 10) * 0x9E3779B97F4A7C15 + own;
  mixed = (mixed ^ mixed >> 31) * 0xBF58476D1CE4E5B9;
  return static_cast<std::uint32_t>(mixed >> 32);
}

}  // namespace ksomd::test
