// The section table of a loaded PE image.
#pragma once

#include <cstdint>

#include "traceback/bytes.h"

namespace ksomd::traceback {

struct SectionPlace {
  std::uint64_t offset;  // from the image's start
  std::uint64_t size;
};

// Finds the first section called `name` (at most 8 characters). `headers` is what can be read at an
// image's start. False if that is no PE image, or if it has no such section.
bool find_pe_section(Bytes headers, const char* name, SectionPlace& place);

}  // namespace ksomd::traceback
