#include "cpu/core_type.h"

#include "cpu/feature_table.h"
#include "ksomd/core.h"
#include "second_names.h"

std::uint8_t __cpu_core_type[ksomd::core_type_entries];

namespace ksomd {
namespace {

constexpr std::uint32_t core_type_leaf = 0x1A;

std::uint8_t process_state;  // a HybridState

// Threads that race for the first use store the same state.
HybridState determined_state() {
  auto state = static_cast<HybridState>(__atomic_load_n(&process_state, __ATOMIC_RELAXED));
  if (state == HybridState::Undetermined) {
    state = hybrid_state(hardware_processor);
    __atomic_store_n(&process_state, static_cast<std::uint8_t>(state), __ATOMIC_RELAXED);
  }
  return state;
}

}  // namespace

HybridState hybrid_state(const Processor& processor) {
  constexpr CpuidReport rdpid = feature_row("RDPID").report;
  static_assert(rdpid.leaf == Leaf::Basic7 && rdpid.reg == Register::Ecx);
  constexpr std::uint32_t hybrid = 1u << 15;  // in EDX; the feature table has no row for it
  if (processor.leaf(0).eax < core_type_leaf || !processor.vendor_is(genuine_vendor)) {
    return HybridState::Unavailable;
  }
  const CpuidResult features = processor.leaf(7);
  const bool available = (features.ecx & rdpid.field.mask) != 0 && (features.edx & hybrid) != 0;
  return available ? HybridState::Available : HybridState::Unavailable;
}

CoreReading read_core_type(const Processor& processor) {
  for (int attempt = 0; attempt < 2; ++attempt) {
    const std::uint32_t before = processor.rdpid(processor.self);
    const std::uint32_t type = processor.leaf(core_type_leaf).eax >> 24;
    if (processor.rdpid(processor.self) == before) {
      return {true, before, static_cast<std::uint8_t>(type)};
    }
  }
  return {};
}

}  // namespace ksomd

void __init_cpu_core_type() {
  ksomd::determined_state();
}

std::uint32_t __detect_cpu_core_type() {
  if (ksomd::determined_state() != ksomd::HybridState::Available) {
    return 0;
  }
  const ksomd::CoreReading reading = ksomd::read_core_type(ksomd::hardware_processor);
  if (!reading.valid) {
    return 0;
  }
  __atomic_store_n(&__cpu_core_type[reading.processor_number % ksomd::core_type_entries],
                   reading.type, __ATOMIC_RELAXED);
  return reading.type;
}
KSOMD_SECOND_NAMES(__detect_cpu_core_type);
