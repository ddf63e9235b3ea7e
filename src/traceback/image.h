// Access to loaded modules, and to memory that may not be readable.
#pragma once

#include <cstdint>

#include "traceback/bytes.h"

namespace ksomd::traceback {

// The trace section of the module that holds a code address; empty if there is none that can be
// read.
Bytes trace_section_of(std::uint64_t pc);

// The part of the `wanted` bytes at an address that can be read, up to the end of its allocation.
Bytes readable_bytes(std::uint64_t address, std::size_t wanted);

// Whether an address lies in executable memory.
bool is_code(std::uint64_t address);

}  // namespace ksomd::traceback
