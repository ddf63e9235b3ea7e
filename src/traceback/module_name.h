// File names from paths.
#pragma once

#include <cstddef>

namespace ksomd::traceback {

// The part of a path behind its drive letter and its last slash or backslash.
const char* file_name_of(const char* path);

// Writes the name and the extension of a path's file and terminates them. Each is truncated to 255
// characters, and both together to size - 1. The extension starts at the last dot.
void write_module_name(const char* path, char* name, std::size_t size);

}  // namespace ksomd::traceback
