// How the start-up checks set the floating-point mode. The MXCSR register is a parameter, so that a
// test can pass its own.
#pragma once

#include <cstdint>

#include "ksomd/processor.h"

namespace ksomd {

// The MXCSR bits that a processor level guarantees, so that nobody has to ask for them: the flag
// values KSOMD_DENORMALS_ARE_ZERO and KSOMD_MXCSR_BIT_17, or 0.
using Guarantees = std::uint32_t;

namespace mxcsr {
inline constexpr std::uint32_t denormals_are_zero = 1u << 6;
inline constexpr std::uint32_t flush_to_zero = 1u << 15;
inline constexpr std::uint32_t bit_17 = 1u << 17;
}  // namespace mxcsr

// Sets the MXCSR bits that `flags` asks for and the processor supports. Bits are only set, never
// cleared, and each by its own read and write. `control` is the register: read(), write(value), and
// supported(), which returns the processor's MXCSR_MASK. supported() is called only if `flags` asks
// for a bit that `known` does not guarantee.
template <class Control>
void set_fp_mode(Control&& control, Guarantees known, std::uint32_t flags) {
  bool denormals_are_zero = (flags & KSOMD_DENORMALS_ARE_ZERO) != 0;
  bool bit_17 = (flags & KSOMD_MXCSR_BIT_17) != 0;
  if ((flags & ~known & (KSOMD_DENORMALS_ARE_ZERO | KSOMD_MXCSR_BIT_17)) != 0) {
    const std::uint32_t supported = control.supported();
    denormals_are_zero = denormals_are_zero && (supported & mxcsr::denormals_are_zero) != 0;
    bit_17 = bit_17 && (supported & mxcsr::bit_17) != 0;
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

// The same for the MXCSR of the calling thread.
extern "C" void __orvex_set_fp_mode(ksomd::Guarantees known, std::uint32_t flags);
