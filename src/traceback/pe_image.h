// The section table of a loaded PE image.
#pragma once

#include <cstdint>

#include "traceback/bytes.h"

namespace ksomd {

struct SectionPlace {
  std::uint64_t offset;  // from the image's start
  std::uint64_t size;
};

// Finds the first section of that name (at most 8 characters) in the headers, the readable bytes at
// an image's start; false if the bytes are no such image or it has no such section.
bool find_pe_section(Bytes headers, const char* name, SectionPlace& place);

}  // namespace ksomd
