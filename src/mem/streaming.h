// The plain copy of a streaming store's chunk.
#pragma once

#include <cstddef>

#include "ksomd/memory.h"

namespace ksomd::mem {

// Copies the chunk to the destination with ordinary stores and advances the destination.
void copy_chunk(__libkso_nt_context* context, std::size_t length);

}  // namespace ksomd::mem
