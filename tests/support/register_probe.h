// Calls a routine with every register filled and tells what each holds afterwards.
#pragma once

#include <cstdint>

namespace ksomd::test {

// In the processor's own numbering: rax rcx rdx rbx rsp rbp rsi rdi r8 ... r15.
struct RegisterFile {
  std::uint64_t general[16];
  std::uint64_t mask[8];
  std::uint64_t mmx[8];
  alignas(64) std::uint8_t vector[32][64];
};

// How much of the vector registers the processor and the system offer.
enum class VectorState : int {
  Xmm,  // 16 registers of 16 bytes
  Ymm,  // 16 of 32 bytes: needs AVX
  Zmm,  // 32 of 64 bytes, and 8 mask registers of 64 bits: needs AVX512F and AVX512BW
};

// Loads everything from `before` (rsp and rax excepted), calls `routine` and stores everything
// (rsp excepted) to `after`. Its own caller's registers are restored.
extern "C" void ksomd_probe_registers(void (*routine)(), const RegisterFile* before,
                                      RegisterFile* after, VectorState width);

}  // namespace ksomd::test
