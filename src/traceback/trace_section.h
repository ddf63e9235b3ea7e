// The ".trace" section: a compact table from code addresses to routines, source files and lines.
//
//   section   block, zero bytes, block, ...        one block a routine, in no particular order
//   block     header, source-file names, items     the items are a program for a small decoder
//   header    tag 10 (1 byte), version 2 (2), zero (1), length of the block (4), start address (8),
//             number of source files (4), length of the code (4), not read (2)
//
// The decoder keeps an address and a line; items move them forward. An item that moves the address
// describes the code bytes after the old address up to and including the new one.
#pragma once

#include <cstdint>

#include "traceback/bytes.h"

namespace ksomd::traceback {

struct Location {
  Bytes routine;  // names as they stand in the section: not terminated
  Bytes file;
  std::uint64_t line;
  bool routine_known;  // an empty name may be known
  bool file_known;
};

// Finds what the section says about `pc`; false if it says nothing or is malformed. Reads only the
// section, in time linear in its size. A block whose start address is below `bias` is moved up by
// `bias`.
bool find_location(Bytes section, std::uint64_t pc, std::uint64_t bias, Location& location);

}  // namespace ksomd::traceback
