// What the traceback's tests need of a platform.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

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

// Whether a walk takes microseconds, and not the better part of a second: a symbol handler may read
// every module of the process first.
bool walks_are_cheap();

// All of the cases where walks are cheap, the first few where they are not.
template <typename Case>
std::vector<Case> affordable(std::vector<Case> cases, std::size_t few) {
  if (!walks_are_cheap() && cases.size() > few) {
    cases.erase(cases.begin() + static_cast<std::ptrdiff_t>(few), cases.end());
  }
  return cases;
}

// Writes through a null pointer.
void raise_access_violation();

}  // namespace ksomd::test
