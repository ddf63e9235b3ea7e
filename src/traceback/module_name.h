// File names out of paths.
#pragma once

#include <cstddef>

namespace ksomd {

// The part of a path after its directory: past the last slash of either kind and a drive letter.
const char* file_name_of(const char* path);

// Writes a path's file name and extension, each cut to 255 characters, cut to size - 1 characters
// together and terminated. The extension starts at the last dot.
void write_module_name(const char* path, char* name, std::size_t size);

}  // namespace ksomd
