// Which type of core a thread runs on.
#pragma once

#include <cstdint>

#include "cpu/processor.h"

namespace ksomd {

inline constexpr std::uint32_t core_type_entries = 1024;

// Whether a thread can find out the type of its core.
enum class HybridState : std::uint8_t {
  Undetermined = 0,
  Unavailable = 0xFE,
  Available = 0xFF,
};

HybridState hybrid_state(const Processor& processor);

// A reading of the core type. It is valid only if the thread stayed on one logical processor.
struct CoreReading {
  bool valid;
  std::uint32_t processor_number;
  std::uint8_t type;
};

// Reads the core type, and once more if the system moved the thread meanwhile. Requires that the
// processor's hybrid state is Available.
CoreReading read_core_type(const Processor& processor);

}  // namespace ksomd
