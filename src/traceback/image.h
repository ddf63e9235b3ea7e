// The trace section of a loaded module.
#pragma once

#include <cstdint>

#include "traceback/bytes.h"

namespace ksomd {

// The trace section of the module that holds a code address; empty if there is none that can be
// read.
Bytes trace_section_of(std::uint64_t pc);

}  // namespace ksomd
