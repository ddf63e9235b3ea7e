// The type of the core that a thread runs on, as a function of the processor.
#pragma once

#include <cstdint>

#include "cpu/processor.h"

namespace ksomd {

inline constexpr std::uint32_t core_type_entries = 1024;

// Whether core types can be told.
enum class HybridState : std::uint8_t {
  Undetermined = 0,
  Unavailable = 0xFE,
  Available = 0xFF,
};

HybridState hybrid_state(const Processor& processor);

// A reading of the core type: valid only if the thread stayed on one logical processor.
struct CoreReading {
  bool valid;
  std::uint32_t processor_number;
  std::uint8_t type;
};

// Reads the core type, at most twice. The processor's hybrid state is Available.
CoreReading read_core_type(const Processor& processor);

}  // namespace ksomd
