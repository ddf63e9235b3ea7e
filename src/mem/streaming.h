#pragma once

#include <cstddef>

#include "ksomd/memory.h"

namespace ksomd::mem {

// The plain copy: the chunk goes to the destination by ordinary stores, which advances.
void copy_chunk(__libkso_nt_context* context, std::size_t length);

}  // namespace ksomd::mem
