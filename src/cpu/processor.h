// The questions that the library asks a processor. The exported routines pass `hardware_processor`;
// a test passes a table of answers.
#pragma once

#include <cstdint>

namespace ksomd {

struct CpuidResult {
  std::uint32_t eax, ebx, ecx, edx;
};

struct Processor {
  // CPUID with EAX = leaf and ECX = subleaf.
  CpuidResult (*cpuid)(const void* self, std::uint32_t leaf, std::uint32_t subleaf);
  // The low half of XCR0. Called only if CPUID says that the system has enabled XGETBV.
  std::uint32_t (*xcr0)(const void* self);
  // The number of the logical processor that the thread runs on. Called only if CPUID reports
  // RDPID.
  std::uint32_t (*rdpid)(const void* self);
  // Whether the CPUID instruction exists. It does if bit 21 of the flags register can be changed.
  bool (*has_cpuid)(const void* self);
  const void* self;

  CpuidResult leaf(std::uint32_t number, std::uint32_t subleaf = 0) const {
    return cpuid(self, number, subleaf);
  }
  // Whether the twelve characters of the vendor string (leaf 0: EBX, EDX, ECX) are `name`.
  bool vendor_is(const char (&name)[13]) const;
};

extern const Processor hardware_processor;

inline constexpr char genuine_vendor[13] = "GenuineOrvex";

}  // namespace ksomd
