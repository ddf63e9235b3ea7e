// The processor that the code runs on.
#include <cpuid.h>

#include <cstring>

#include "cpu/processor.h"

namespace ksomd {
namespace {

CpuidResult hardware_cpuid(const void*, std::uint32_t leaf, std::uint32_t subleaf) {
  CpuidResult result;
  __cpuid_count(leaf, subleaf, result.eax, result.ebx, result.ecx, result.edx);
  return result;
}

std::uint32_t hardware_xcr0(const void*) {
  std::uint32_t low, high;
  __asm__ volatile("xgetbv" : "=a"(low), "=d"(high) : "c"(0));
  return low;
}

std::uint32_t hardware_rdpid(const void*) {
  std::uint64_t number;
  __asm__ volatile("rdpid %0" : "=r"(number));
  return static_cast<std::uint32_t>(number);
}

bool hardware_has_cpuid(const void*) {
  constexpr std::uint64_t id_flag = 1u << 21;
  const std::uint64_t before = __builtin_ia32_readeflags_u64();
  __builtin_ia32_writeeflags_u64(before ^ id_flag);
  const std::uint64_t after = __builtin_ia32_readeflags_u64();
  __builtin_ia32_writeeflags_u64(before);
  return ((before ^ after) & id_flag) != 0;
}

}  // namespace

constexpr Processor hardware_processor{hardware_cpuid, hardware_xcr0, hardware_rdpid,
                                       hardware_has_cpuid, nullptr};

bool Processor::vendor_is(const char (&name)[13]) const {
  const CpuidResult vendor = leaf(0);
  const std::uint32_t characters[] = {vendor.ebx, vendor.edx, vendor.ecx};
  return std::memcmp(characters, name, sizeof characters) == 0;
}

}  // namespace ksomd
