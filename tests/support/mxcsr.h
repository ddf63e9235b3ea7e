// The floating-point mode of the calling thread, as the start-up tests look at it.
#pragma once

#include <immintrin.h>

#include <cstdint>
#include <cstring>

#include "cpu/feature_set.h"

namespace ksomd::test {

// Restores MXCSR and the feature set at the end of a test.
class Restore {
 public:
  Restore() : mxcsr_(_mm_getcsr()), word_(feature_word()) {}
  ~Restore() {
    _mm_setcsr(mxcsr_);
    __orvex_cpu_feature_indicator[0] = word_;
  }
  Restore(const Restore&) = delete;
  Restore& operator=(const Restore&) = delete;

 private:
  std::uint32_t mxcsr_;
  std::uint64_t word_;
};

inline std::uint32_t mxcsr_mask() {
  alignas(16) unsigned char image[512] = {};
  _fxsave64(image);
  std::uint32_t mask;
  std::memcpy(&mask, image + 28, sizeof mask);
  return mask;
}

// What MXCSR gains for `flags` on a processor with this MXCSR_MASK.
inline std::uint32_t gained_mode(std::uint32_t known, std::uint32_t flags,
                                 std::uint32_t supported) {
  std::uint32_t gained = (flags & 1) != 0 ? 0x8000 : 0;
  const bool probed =
      ((flags & 2) != 0 && (known & 2) == 0) || ((flags & 4) != 0 && (known & 4) == 0);
  if ((flags & 2) != 0 && (!probed || (supported & 0x40) != 0)) {
    gained |= 0x40;
  }
  if ((flags & 4) != 0 && (!probed || (supported & 0x20000) != 0)) {
    gained |= 0x20000;
  }
  return gained;
}

}  // namespace ksomd::test
