// The library as a program finds it at run time: the shared object, or the DLL.
#pragma once

#include <string>

namespace ksomd::test {

// The address of an exported routine in the shared library beside the tests; null if it has none.
void* find_exported(const std::string& name);

template <class Function>
Function* exported(const std::string& name) {
  return reinterpret_cast<Function*>(find_exported(name));
}

}  // namespace ksomd::test
