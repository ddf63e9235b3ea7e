// What the trace sections say about the frames of a walk.
#pragma once

#include <cstdint>

#include "ksomd/traceback.h"

namespace ksomd {

// Looks up a frame's program counter. Unless it is that of an interrupted instruction, it may be
// the return address of a call that does not return and ends its routine, one byte beyond: then it
// is the call that is looked up, and not what happens to follow it.
void describe_frame(ksomd_pc_info& info, std::uint64_t pc, bool interrupted);

}  // namespace ksomd
