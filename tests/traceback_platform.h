// What the traceback's tests need of a platform.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "stack_system.h"

namespace ksomd::test {

// Memory that is an allocation of its own, readable and writable, and its end.
void* allocate_pages(std::size_t size);
void free_pages(void* memory, std::size_t size);
void forbid_access(void* memory, std::size_t size);

// The file name of the program that runs.
std::string program_name();

// What becomes of a fault, as far as a program can tell: handlers installed.
std::string fault_handlers();

// Whether a walk takes microseconds, not milliseconds.
bool walks_are_cheap();

// Writes through a null pointer.
void raise_access_violation();

}  // namespace ksomd::test
