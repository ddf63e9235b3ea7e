// The exported routines by their exported names, dotted names and second names included:
//
//   const auto multiply = entry<BinaryRoutine>("__mulq.L");
//
// They are those of the static archive; with KSOMD_TEST_SHARED set, those of the shared library. A
// run of all tests fails if no test has asked for some exported name.
#pragma once

#include <string_view>
#include <vector>

namespace ksomd::test {

// Ends the program if there is no such name.
const void* find_entry(std::string_view name);

template <class Routine>
Routine* entry(std::string_view name) {
  return reinterpret_cast<Routine*>(reinterpret_cast<__UINTPTR_TYPE__>(find_entry(name)));
}

// All exported names that begin so.
std::vector<std::string_view> entries_with_prefix(std::string_view prefix);

// Writes the names that were asked for to the file that KSOMD_ENTRY_REPORT names.
void report_entries();

}  // namespace ksomd::test
