// The floating-point mode step of the start-up checks, as a function of the MXCSR register.
#pragma once

#include <cstdint>

#include "ksomd/processor.h"

namespace ksomd {

// What a processor level guarantees without a probe: the flag values KSOMD_DENORMALS_ARE_ZERO and
// KSOMD_MXCSR_BIT_17, or 0.
using Guarantees = std::uint32_t;

namespace mxcsr {
inline constexpr std::uint32_t denormals_are_zero = 1u << 6;
inline constexpr std::uint32_t flush_to_zero = 1u << 15;
inline constexpr std::uint32_t bit_17 = 1u << 17;
}  // namespace mxcsr

// Sets in `control` what `flags` asks for and the processor supports. Bits are only ever set, each
// by a read-modify-write of its own. `control` has read(), write(value) and supported(), the
// processor's MXCSR_MASK, which is asked only where `known` leaves a doubt.
template <class Control>
void set_fp_mode(Control&& control, Guarantees known, std::uint32_t flags) {
  bool denormals_are_zero = (flags & KSOMD_DENORMALS_ARE_ZERO) != 0;
  const bool want_bit_17 = (flags & KSOMD_MXCSR_BIT_17) != 0;
  bool bit_17 = false;

  const bool doubt_denormals = denormals_are_zero && (known & KSOMD_DENORMALS_ARE_ZERO) == 0;
  const bool doubt_bit_17 = want_bit_17 && (known & KSOMD_MXCSR_BIT_17) == 0;
  if (doubt_denormals || doubt_bit_17) {
    const std::uint32_t supported = control.supported();
    denormals_are_zero = denormals_are_zero && (supported & mxcsr::denormals_are_zero) != 0;
    bit_17 = want_bit_17 && (supported & mxcsr::bit_17) != 0;
  } else {
    bit_17 = want_bit_17;
  }

  if ((flags & KSOMD_FLUSH_TO_ZERO) != 0) {
    control.write(control.read() | mxcsr::flush_to_zero);
  }
  if (denormals_are_zero) {
    control.write(control.read() | mxcsr::denormals_are_zero);
  }
  if (bit_17) {
    control.write(control.read() | mxcsr::bit_17);
  }
}

}  // namespace ksomd

// The same on the calling thread's own MXCSR.
extern "C" void __orvex_set_fp_mode(ksomd::Guarantees known, std::uint32_t flags);
